#pragma once

#include <QString>

/// Keys of the maps that the service's interfaces share.
namespace DBus::Keys {

// Details of an application: in the signals of the control interface and in the reply of a start.
inline const QString pid = QStringLiteral("Pid"); ///< int32
inline const QString startReason = QStringLiteral("StartReason"); ///< uint32, see Core::wireStartReason()
inline const QString stopReason = QStringLiteral("StopReason"); ///< uint32, Core::StopReason
inline const QString requestorId =
    QStringLiteral("RequestorId"); ///< string: who asked for the start; empty: nobody
inline const QString exitStatus = QStringLiteral("ExitStatus"); ///< int32: the raw status of waitpid(2)
inline const QString uris = QStringLiteral("Uris"); ///< array of strings: the URIs of the start
inline const QString state = QStringLiteral("State"); ///< uint32, Core::ApplicationState

// The reply of the tasks interface: "State", here an array of Procwarden::TaskState.

// Of a task invoker's session, properties and what is told of each task.
inline const QString activeTasks =
    QStringLiteral("ActiveTasks"); ///< array of Procwarden::ActiveTask: what runs
inline const QString availableTasks =
    QStringLiteral("AvailableTasks"); ///< array of Procwarden::AvailableTask: what is declared
inline const QString permissions = QStringLiteral("Permissions"); ///< array of strings: as declared
inline const QString conditions = QStringLiteral("Conditions"); ///< array of strings: as declared

// What a task invoker gives a task beside its hints.
inline const QString params = QStringLiteral("Params"); ///< array of strings: further arguments
inline const QString environment = QStringLiteral("Environment"); ///< array of strings: "NAME=value"

} // namespace DBus::Keys
