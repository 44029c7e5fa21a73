#include "helper_object.h"

#include "Core/types.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QDebug>
#include <QSocketNotifier>

#include <csignal>

#include <sys/signalfd.h>
#include <sys/stat.h>

// The privileged side of the service, on the system bus: what an ordinary user's process needs root for.

namespace {

/// Ends the event loop when the bus goes: without it nobody can reach this program, and nobody restarts it.
class BusWatch : public QObject
{
    Q_OBJECT

public slots:
    void onDisconnected()
    {
        qCritical() << "Lost the system bus";
        QCoreApplication::exit(1);
    }
};

/// To be called before any thread is made, since each inherits the mask.
int openStopSignals()
{
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &mask, nullptr);
    return ::signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
}

bool offer(QDBusConnection bus, QObject *object)
{
    if (!bus.isConnected()) {
        qCritical() << "Cannot connect to the system bus:" << bus.lastError().message();
        return false;
    }
    if (!bus.registerObject(QStringLiteral("/org/kestrix/Procwarden/Helper"), object,
                            QDBusConnection::ExportAllSlots)) {
        qCritical() << "Cannot register the helper object";
        return false;
    }
    if (!bus.registerService(QStringLiteral("org.kestrix.Procwarden.Helper"))) {
        qCritical() << "Cannot own the helper's bus name:" << bus.lastError().message();
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char *argv[])
{
    ::umask(022);
    const int stopSignals = openStopSignals();

    QCoreApplication application(argc, argv);
    application.setApplicationName(QStringLiteral("procwarden-helper"));
    QSocketNotifier stop(stopSignals, QSocketNotifier::Read);
    QObject::connect(&stop, &QSocketNotifier::activated, &application, &QCoreApplication::quit);

    const Helper::UserHierarchies hierarchies(Core::Types::rootFs());
    Helper::HelperObject object(hierarchies);
    BusWatch watch;
    QDBusConnection bus = QDBusConnection::systemBus();
    bus.connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"),
                QStringLiteral("org.freedesktop.DBus.Local"), QStringLiteral("Disconnected"), &watch,
                SLOT(onDisconnected()));
    if (!offer(bus, &object)) {
        return 1;
    }
    return QCoreApplication::exec();
}

#include "main.moc"
