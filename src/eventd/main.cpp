#include "event_store.h"
#include "events_object.h"
#include "idle_end.h"
#include "trigger.h"
#include "user_manager.h"

#include "timed/wire.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QDebug>

#include <cstdio>

// Keeps timed events for other programs, as systemd timers of the user. The session bus starts it at a call;
// with
// "--fire" and a cookie it makes the call of one event and ends.

namespace {

constexpr int usageStatus = 2;

/// Ends the program when the bus goes: without it nobody can reach it.
class BusWatch : public QObject
{
    Q_OBJECT

public slots:
    void onDisconnected() { QCoreApplication::exit(0); }
};

int fire(const QDBusConnection &bus, Eventd::EventStore *store, Eventd::UserManager *manager,
         Eventd::Cookie cookie)
{
    if (!bus.isConnected()) {
        qCritical() << "Cannot connect to the session bus:" << bus.lastError().message();
        return 1;
    }
    Eventd::Trigger trigger(bus, store, manager);
    QObject::connect(&trigger, &Eventd::Trigger::finished, QCoreApplication::instance(),
                     &QCoreApplication::exit);
    trigger.fire(cookie);
    return QCoreApplication::exec();
}

int serve(QDBusConnection bus, Eventd::EventStore *store, Eventd::UserManager *manager)
{
    Eventd::EventsObject events(bus, store, manager);
    BusWatch watch;
    bus.connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"),
                QStringLiteral("org.freedesktop.DBus.Local"), QStringLiteral("Disconnected"), &watch,
                SLOT(onDisconnected()));
    if (!bus.isConnected()) {
        qCritical() << "Cannot connect to the session bus:" << bus.lastError().message();
        return 1;
    }
    if (!bus.registerObject(QString::fromLatin1(Maemo::Timed::wirePath), &events,
                            QDBusConnection::ExportAllSlots)) {
        qCritical() << "Cannot register the object of the events";
        return 1;
    }
    const QString name = QString::fromLatin1(Maemo::Timed::wireService);
    if (!bus.registerService(name)) {
        qCritical() << "Cannot own the bus name of the events:" << bus.lastError().message();
        return 1;
    }
    Eventd::IdleEnd idleEnd(bus, name, [&events] { return events.isBusy(); });
    QObject::connect(&events, &Eventd::EventsObject::busyChanged, &idleEnd, &Eventd::IdleEnd::restart);
    QObject::connect(&idleEnd, &Eventd::IdleEnd::over, QCoreApplication::instance(), &QCoreApplication::quit);
    events.restore();
    return QCoreApplication::exec();
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("procwarden-eventd"));

    const QStringList arguments = QCoreApplication::arguments().mid(1);
    const bool isFiring = arguments.size() == 2 && arguments.first() == QLatin1String("--fire");
    const Eventd::Cookie cookie = isFiring ? arguments.last().toUInt() : 0;
    if (!arguments.isEmpty() && cookie == 0) {
        std::fputs("usage: procwarden-eventd [--fire COOKIE]\n", stderr);
        return usageStatus;
    }

    const QDBusConnection bus = QDBusConnection::sessionBus();
    Eventd::EventStore store(Eventd::EventStore::Directories::ofUser(),
                             QCoreApplication::applicationFilePath());
    Eventd::UserManager manager(bus);
    return isFiring ? fire(bus, &store, &manager, cookie) : serve(bus, &store, &manager);
}

#include "main.moc"
