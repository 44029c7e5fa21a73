#include "sleepinhibitor.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDebug>

// The inhibitor is a descriptor: logind holds the device awake as long as a copy of it is open, so that an
// end of the process in any way releases it. It comes as the reply to a call. A release in the meantime does
// not cancel the call, whose reply would then be lost with the descriptor still to be closed by somebody; the
// reply finds out what is wanted when it arrives. So there is at most one call under way and at most one
// descriptor.

namespace {

constexpr int replyTimeoutMs = 10000; // logind may have to be started first

QDBusMessage inhibitCall()
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
        QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("Inhibit"));
    call << QStringLiteral("sleep") // what
         << QCoreApplication::applicationName() // who
         << QStringLiteral("Background activity") // why
         << QStringLiteral("block"); // mode
    return call;
}

} // namespace

std::shared_ptr<SleepInhibitor> SleepInhibitor::shared()
{
    static std::weak_ptr<SleepInhibitor> existing;
    std::shared_ptr<SleepInhibitor> inhibitor = existing.lock();
    if (!inhibitor) {
        inhibitor = std::make_shared<SleepInhibitor>();
        existing = inhibitor;
    }
    return inhibitor;
}

void SleepInhibitor::hold()
{
    ++m_holds;
    if (m_pending || m_inhibitor.isValid()) {
        return;
    }
    m_pending = true;
    auto *watcher = new QDBusPendingCallWatcher(
        QDBusConnection::systemBus().asyncCall(inhibitCall(), replyTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher] {
        watcher->deleteLater();
        finish(*watcher);
    });
}

void SleepInhibitor::release()
{
    --m_holds;
    if (m_holds == 0) {
        m_inhibitor = QDBusUnixFileDescriptor();
    }
}

void SleepInhibitor::finish(const QDBusPendingReply<QDBusUnixFileDescriptor> &reply)
{
    m_pending = false;
    if (reply.isError()) {
        if (!m_warned) {
            m_warned = true;
            qWarning() << "Cannot keep the device from suspending:" << reply.error().message();
        }
        return;
    }
    if (m_holds > 0) {
        m_inhibitor = reply.value();
    }
}
