#include "DBus/types.h"

#include "Core/application_state.h"
#include "DBus/json.h"

#include <QDBusMetaType>

namespace Procwarden {

namespace {

// The bus library ends the program that opens a structure or a map where there is none, so what has come is
// looked at first. Another element is left behind, so that whoever reads on does not meet it again.
bool openStructure(const QDBusArgument &argument, QLatin1String signature)
{
    if (argument.currentSignature() != signature) {
        argument.asVariant();
        return false;
    }
    argument.beginStructure();
    return true;
}

// The type and its vector, as moc finds them spelled inside and outside of the namespace.
template<typename T>
void registerStructure(const QByteArray &name)
{
    const QByteArray qualified = "Procwarden::" + name;
    qRegisterMetaType<T>(name.constData());
    qRegisterMetaType<T>(qualified.constData());
    qRegisterMetaType<QVector<T>>(QByteArray("QVector<" + name + ">").constData());
    qRegisterMetaType<QVector<T>>(QByteArray("QVector<" + qualified + ">").constData());
    qDBusRegisterMetaType<T>();
    qDBusRegisterMetaType<QVector<T>>();
}

} // namespace

void registerTypes()
{
    static bool registered = false;
    if (registered) {
        return;
    }
    registered = true;

    registerStructure<RunningApplication>("RunningApplication");
    registerStructure<RunningService>("RunningService");
    registerStructure<TaskState>("TaskState");
    registerStructure<AvailableTask>("AvailableTask");
    registerStructure<ActiveTask>("ActiveTask");

    // It travels as a number only.
    qRegisterMetaType<Core::ApplicationState>("ApplicationState");

    qDBusRegisterMetaType<QJsonValue>();
    qDBusRegisterMetaType<QJsonObject>();
    qDBusRegisterMetaType<QJsonArray>();
}

QDBusArgument &operator<<(QDBusArgument &argument, const RunningApplication &value)
{
    argument.beginStructure();
    argument << value.id << value.pid << value.startReason << value.state << value.details;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, RunningApplication &value)
{
    if (openStructure(argument, QLatin1String("(siuua{sv})"))) {
        argument >> value.id >> value.pid >> value.startReason >> value.state >> value.details;
        argument.endStructure();
    }
    return argument;
}

QDBusArgument &operator<<(QDBusArgument &argument, const RunningService &value)
{
    argument.beginStructure();
    argument << value.appId << value.taskName << value.pid << value.startReason << value.details;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, RunningService &value)
{
    if (openStructure(argument, QLatin1String("(ssiua{sv})"))) {
        argument >> value.appId >> value.taskName >> value.pid >> value.startReason >> value.details;
        argument.endStructure();
    }
    return argument;
}

QDBusArgument &operator<<(QDBusArgument &argument, const TaskState &value)
{
    argument.beginStructure();
    argument << value.name << value.active << value.details;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, TaskState &value)
{
    if (openStructure(argument, QLatin1String("(sua{sv})"))) {
        argument >> value.name >> value.active >> value.details;
        argument.endStructure();
    }
    return argument;
}

QDBusArgument &operator<<(QDBusArgument &argument, const AvailableTask &value)
{
    argument.beginStructure();
    argument << value.id << value.details;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, AvailableTask &value)
{
    if (openStructure(argument, QLatin1String("(sa{sv})"))) {
        argument >> value.id >> value.details;
        argument.endStructure();
    }
    return argument;
}

QDBusArgument &operator<<(QDBusArgument &argument, const ActiveTask &value)
{
    argument.beginStructure();
    argument << value.id << value.pid << value.details;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, ActiveTask &value)
{
    if (openStructure(argument, QLatin1String("(sia{sv})"))) {
        argument >> value.id >> value.pid >> value.details;
        argument.endStructure();
    }
    return argument;
}

} // namespace Procwarden
