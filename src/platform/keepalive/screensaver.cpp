#include "screensaver.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

namespace {

const QString service = QStringLiteral("org.freedesktop.ScreenSaver");
const QString path = QStringLiteral("/org/freedesktop/ScreenSaver");

DisplayBlanking::Status statusOf(bool active)
{
    return active ? DisplayBlanking::Off : DisplayBlanking::On;
}

} // namespace

std::shared_ptr<ScreenSaver> ScreenSaver::shared()
{
    static std::weak_ptr<ScreenSaver> existing;
    std::shared_ptr<ScreenSaver> screenSaver = existing.lock();
    if (!screenSaver) {
        screenSaver = std::make_shared<ScreenSaver>();
        existing = screenSaver;
    }
    return screenSaver;
}

ScreenSaver::ScreenSaver()
    : m_watcher(service, QDBusConnection::sessionBus(), QDBusServiceWatcher::WatchForOwnerChange)
{
    connect(&m_watcher, &QDBusServiceWatcher::serviceOwnerChanged, this,
            [this](const QString &, const QString &, const QString &newOwner) { onOwnerChanged(newOwner); });
    // Of any path: some screen savers also have one of their own, and signal from that.
    QDBusConnection::sessionBus().connect(service, QString(), service, QStringLiteral("ActiveChanged"), this,
                                          SLOT(onActiveChanged(bool)));
    ask();
}

void ScreenSaver::onOwnerChanged(const QString &newOwner)
{
    delete m_question;
    setStatus(DisplayBlanking::Unknown);
    if (!newOwner.isEmpty()) {
        ask();
    }
}

void ScreenSaver::onActiveChanged(bool active)
{
    // An answer that is handled after this may have come before it, and says nothing that this does not.
    delete m_question;
    setStatus(statusOf(active));
}

void ScreenSaver::ask()
{
    QDBusMessage call = QDBusMessage::createMethodCall(service, path, service, QStringLiteral("GetActive"));
    call.setAutoStartService(false); // one that does not run has switched nothing off
    m_question = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call), this);
    connect(m_question, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *question) {
        question->deleteLater();
        const QDBusPendingReply<bool> reply = *question;
        if (!reply.isError()) {
            setStatus(statusOf(reply.value()));
        }
    });
}

void ScreenSaver::setStatus(DisplayBlanking::Status status)
{
    if (status != m_status) {
        m_status = status;
        emit statusChanged();
    }
}
