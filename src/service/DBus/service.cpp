#include "DBus/service.h"

#include "Core/notification_names.h"
#include "Core/runtime_controller.h"
#include "Core/timed_proxy.h"
#include "DBus/control.h"
#include "DBus/intents.h"
#include "DBus/introspect.h"
#include "DBus/lifecycle.h"
#include "DBus/memory_pressure.h"
#include "DBus/notifications.h"
#include "DBus/pkd_hooks.h"
#include "DBus/system_control.h"
#include "DBus/task_invoker.h"
#include "DBus/tasks.h"
#include "DBus/window_management.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDebug>
#include <QLibrary>

#include <limits>

namespace DBus {

namespace {

constexpr auto slotsOnly = QDBusConnection::ExportAllSlots;
constexpr auto slotsAndSignals = QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals;
constexpr auto everything = slotsAndSignals | QDBusConnection::ExportAllProperties;

bool registerObject(QDBusConnection bus, QLatin1String path, QObject *object,
                    QDBusConnection::RegisterOptions options, const char *failure)
{
    if (bus.registerObject(path, object, options)) {
        return true;
    }
    qWarning() << failure;
    return false;
}

bool registerName(QDBusConnection bus, QLatin1String name, const char *failure)
{
    if (bus.registerService(name)) {
        return true;
    }
    qWarning() << failure;
    return false;
}

/// Somebody else may have it, a desktop's own notification server for one: no other duty depends on it. The
/// object is then reached by the service's other names.
bool registerNotificationName(QDBusConnection bus)
{
    registerName(std::move(bus), QLatin1String(Core::NotificationNames::interface),
                 "couldn't register notifications service");
    return true;
}

constexpr long noLimit = std::numeric_limits<long>::max();
constexpr long descriptorsPerMessage = 253; // as many as the kernel passes on in one go, see unix(7)

/// Calls a function of the bus library that Qt has no counterpart of.
void setLimit(const QDBusConnection &bus, const char *function, long limit)
{
    using Function = void (*)(void *connection, long limit);
    const auto set = reinterpret_cast<Function>(QLibrary::resolve(QStringLiteral("dbus-1"), 3, function));
    void *const connection = bus.internalPointer();
    if (set && connection) {
        set(connection, limit);
    }
}

/// libdbus stops to read when the messages that have been received and are still held make 63 MiB, or bring
/// 4096 descriptors. When the last of them is let go it reads on, by an event source that belongs to the
/// connection's thread and which Qt cannot switch on from another one: a single large message would leave the
/// connection deaf for good. And a message of more than 16 descriptors, from a bus that allows more, would
/// end it. The bus itself limits what it sends.
void receiveWithoutLimit(const QDBusConnection &bus)
{
    setLimit(bus, "dbus_connection_set_max_received_size", noLimit);
    setLimit(bus, "dbus_connection_set_max_received_unix_fds", noLimit);
    setLimit(bus, "dbus_connection_set_max_message_unix_fds", descriptorsPerMessage);
}

} // namespace

/// The objects, made in this order and destroyed in the reverse one. `control` is the first to ask for the
/// runtime controller.
class ServicePrivate
{
public:
    PkdHooks pkdHooks;
    Control control;
    Intents intents;
    WindowManagement windowManagement;
    Lifecycle lifecycle;
    MemoryPressure memoryPressure;
    Notifications notifications;
    SystemControl systemControl;
    TaskInvoker taskInvoker;
    Tasks tasks;
    Introspect introspect;
};

Service::Service(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<ServicePrivate>())
{
    // The daemon's call may be the one that starts the service: its object stands before the name is claimed,
    // whether a task is scheduled or not.
    Core::TimedProxy::instance();
}

Service::~Service()
{
    Core::RuntimeController::instance()->killAll();
}

void Service::listenForTheEnd(QDBusConnection bus)
{
    bus.connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"),
                QStringLiteral("org.freedesktop.DBus.Local"), QStringLiteral("Disconnected"), this,
                SLOT(onDisconnected()));
}

// Nobody reaches a service without its bus, and Qt does not connect again: whoever started it has to do so.
void Service::onDisconnected()
{
    qCritical() << "Lost the connection to a bus";
    QCoreApplication::exit(EXIT_FAILURE);
}

bool Service::registerObjects()
{
    const auto system = QDBusConnection::systemBus();
    const auto session = QDBusConnection::sessionBus();
    receiveWithoutLimit(system);
    receiveWithoutLimit(session);
    listenForTheEnd(system);
    listenForTheEnd(session);
    const QLatin1String controlPath("/org/kestrix/Procwarden/Control1");
    const QLatin1String taskInvokerPath("/org/kestrix/Procwarden/TaskInvoker1");

    return registerObject(system, QLatin1String("/org/kestrix/Procwarden/SystemControl1"), &d->systemControl,
                          slotsOnly, "couldn't register SystemControl object")
        && registerName(system, QLatin1String("org.kestrix.Procwarden.User"), "couldn't register service")
        && registerObject(system, taskInvokerPath, &d->taskInvoker, slotsOnly,
                          "couldn't register system TaskInvoker object")
        && registerObject(system, controlPath, &d->control, slotsAndSignals,
                          "couldn't register system Control object")
        && registerObject(session, QLatin1String("/org/kestrix/PKD/Hooks"), &d->pkdHooks, slotsOnly,
                          "couldn't register PKD hooks object")
        && registerObject(session, controlPath, &d->control, slotsAndSignals,
                          "couldn't register Control object")
        && registerObject(session, QLatin1String("/org/kestrix/Procwarden/Intents1"), &d->intents, slotsOnly,
                          "couldn't register Intents object")
        && registerObject(session, QLatin1String("/org/kestrix/Procwarden/WindowManagement1"),
                          &d->windowManagement, slotsOnly, "couldn't register WindowManagement object")
        && registerObject(session, QLatin1String("/org/kestrix/Procwarden/Lifecycle1"), &d->lifecycle,
                          slotsAndSignals, "couldn't register Lifecycle object")
        && registerObject(session, Core::NotificationNames::path, &d->notifications, slotsAndSignals,
                          "couldn't register Notifications object")
        && registerObject(session, taskInvokerPath, &d->taskInvoker, slotsOnly,
                          "couldn't register TaskInvoker object")
        && registerObject(session, QLatin1String("/org/kestrix/Procwarden/Tasks1"), &d->tasks,
                          slotsAndSignals, "couldn't register Tasks object")
        && registerObject(session, QLatin1String("/org/kestrix/Procwarden/MemoryPressure1"),
                          &d->memoryPressure, everything, "couldn't register MemoryPressure object")
        && registerObject(session, QLatin1String("/org/kestrix/Procwarden/Introspect1"), &d->introspect,
                          slotsOnly, "couldn't register Introspect object")
        && registerNotificationName(session)
        && registerName(session, QLatin1String("org.kestrix.Procwarden"), "couldn't register service");
}

} // namespace DBus
