#pragma once

#include <QDBusArgument>
#include <QMetaType>
#include <QString>
#include <QVariantMap>
#include <QVector>

/// What travels over D-Bus.
///
/// The order of the fields is their order on the wire, and their types make the signature: both are part of
/// the interface. Each structure is also sent as an array of itself, a QVector.
///
/// None of them has a registered comparison on purpose: two variants that hold lists of them count as
/// different, so that a changed property is reported whatever is in it.
namespace Procwarden {

/// A running application, "(siuua{sv})".
struct RunningApplication
{
    QString id; ///< the id of the application's record
    qint32 pid = 0;
    quint32 startReason = 0; ///< the wire's value, see Core::wireStartReason()
    quint32 state = 0; ///< Core::ApplicationState
    QVariantMap details; ///< "Uris": the application's URIs, a list of strings
};

/// A running task, "(ssiua{sv})".
struct RunningService
{
    QString appId; ///< the application's id
    QString taskName;
    qint32 pid = 0;
    quint32 startReason = 0; ///< the wire's value, see Core::wireStartReason()
    QVariantMap details; ///< sent empty
};

/// A task that an application declares, "(sua{sv})".
struct TaskState
{
    QString name; ///< the task's name, without the application's id
    quint32 active = 0; ///< 1 if the task is active, else 0
    QVariantMap details; ///< sent empty
};

/// A task that an invoker may start, "(sa{sv})".
struct AvailableTask
{
    QString id; ///< the full task id
    QVariantMap details; ///< "Permissions" and "Conditions", both lists of strings
};

/// A running task of an invoker's type, "(sia{sv})".
struct ActiveTask
{
    QString id; ///< the full task id
    qint32 pid = 0;
    QVariantMap details; ///< sent empty
};

/// Registers the structures, their vectors and the JSON types of DBus/json.h with Qt's type systems, under
/// their names with and without the namespace, as slots and signals spell them.
///
/// To be called before the first of them is sent or received; a repeated call does nothing. Main thread only.
void registerTypes();

// Reading an element of another signature leaves the value as it was and skips the element.

QDBusArgument &operator<<(QDBusArgument &argument, const RunningApplication &value);
const QDBusArgument &operator>>(const QDBusArgument &argument, RunningApplication &value);

QDBusArgument &operator<<(QDBusArgument &argument, const RunningService &value);
const QDBusArgument &operator>>(const QDBusArgument &argument, RunningService &value);

QDBusArgument &operator<<(QDBusArgument &argument, const TaskState &value);
const QDBusArgument &operator>>(const QDBusArgument &argument, TaskState &value);

QDBusArgument &operator<<(QDBusArgument &argument, const AvailableTask &value);
const QDBusArgument &operator>>(const QDBusArgument &argument, AvailableTask &value);

QDBusArgument &operator<<(QDBusArgument &argument, const ActiveTask &value);
const QDBusArgument &operator>>(const QDBusArgument &argument, ActiveTask &value);

} // namespace Procwarden

Q_DECLARE_METATYPE(Procwarden::RunningApplication)
Q_DECLARE_METATYPE(Procwarden::RunningService)
Q_DECLARE_METATYPE(Procwarden::TaskState)
Q_DECLARE_METATYPE(Procwarden::AvailableTask)
Q_DECLARE_METATYPE(Procwarden::ActiveTask)
