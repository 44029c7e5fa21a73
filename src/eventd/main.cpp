#include "event_store.h"
#include "events_object.h"
#include "trigger.h"
#include "user_manager.h"

#include "timed/wire.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QDebug>
#include <QTimer>

#include <cstdio>

// Keeps timed events for other programs, as systemd timers of the user. The session bus starts it at a call;
// with
// "--fire" and a cookie it makes the call of one event and ends.

namespace {

constexpr int idleTimeoutMs = 60000; // without a call
constexpr int lingerMs = 1000; // for calls that were on their way when the name was given back
constexpr int usageStatus = 2;

/// Ends the program when the bus goes: without it nobody can reach it.
class BusWatch : public QObject
{
    Q_OBJECT

public slots:
    void onDisconnected() { QCoreApplication::exit(0); }
};

/// Ends the program once nobody has called for a while. The name goes first, so that the bus starts the
/// program anew for later calls; those that came before it went are still answered.
class IdleEnd : public QObject
{
public:
    IdleEnd(const QDBusConnection &bus, const Eventd::EventsObject *events)
        : m_bus(bus)
        , m_events(events)
    {
        m_timer.setSingleShot(true);
        connect(&m_timer, &QTimer::timeout, this, &IdleEnd::onTimeout);
        connect(events, &Eventd::EventsObject::busyChanged, this, &IdleEnd::restart);
        restart();
    }

private:
    void restart() { m_timer.start(m_nameIsGone ? lingerMs : idleTimeoutMs); }

    void onTimeout()
    {
        if (m_events->isBusy()) {
            restart();
        } else if (m_nameIsGone) {
            QCoreApplication::quit();
        } else {
            m_nameIsGone = true;
            m_bus.unregisterService(QString::fromLatin1(Maemo::Timed::wireService));
            restart();
        }
    }

    QDBusConnection m_bus;
    const Eventd::EventsObject *const m_events;
    QTimer m_timer;
    bool m_nameIsGone = false;
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
    if (!bus.registerService(QString::fromLatin1(Maemo::Timed::wireService))) {
        qCritical() << "Cannot own the bus name of the events:" << bus.lastError().message();
        return 1;
    }
    IdleEnd idleEnd(bus, &events);
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
