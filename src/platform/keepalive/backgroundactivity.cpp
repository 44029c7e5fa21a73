#include "backgroundactivity.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusUnixFileDescriptor>
#include <QDebug>

// The inhibitor is a descriptor: logind holds the device awake as long as a copy of it is open, so that an
// end of the process in any way releases it. It comes as the reply to a call. A stop in the meantime does not
// cancel the call, whose reply would then be lost with the descriptor still to be closed by somebody; the
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

class BackgroundActivityPrivate : public QObject
{
public:
    void start();
    void finish(const QDBusPendingReply<QDBusUnixFileDescriptor> &reply);

    bool running = false; // what the owner wants, whether logind agrees or not
    bool pending = false; // a call is under way
    bool warned = false;
    QDBusUnixFileDescriptor inhibitor; // valid while logind holds the device awake
};

void BackgroundActivityPrivate::start()
{
    if (pending || inhibitor.isValid()) {
        return;
    }
    pending = true;
    auto *watcher = new QDBusPendingCallWatcher(
        QDBusConnection::systemBus().asyncCall(inhibitCall(), replyTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher] {
        watcher->deleteLater();
        finish(*watcher);
    });
}

void BackgroundActivityPrivate::finish(const QDBusPendingReply<QDBusUnixFileDescriptor> &reply)
{
    pending = false;
    if (reply.isError()) {
        if (!warned) {
            warned = true;
            qWarning() << "Cannot keep the device from suspending:" << reply.error().message();
        }
        return;
    }
    if (running) {
        inhibitor = reply.value();
    }
}

BackgroundActivity::BackgroundActivity(QObject *parent)
    : QObject(parent)
    , d(new BackgroundActivityPrivate)
{
}

BackgroundActivity::~BackgroundActivity() = default;

void BackgroundActivity::run()
{
    if (d->running) {
        return;
    }
    d->running = true;
    d->start();
}

void BackgroundActivity::stop()
{
    d->running = false;
    d->inhibitor = QDBusUnixFileDescriptor();
}
