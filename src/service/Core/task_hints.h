#pragma once

#include <QByteArray>
#include <QHash>
#include <QLatin1String>
#include <QMetaType>
#include <QString>

/// The names of the settings that a request for a task may bring along, each one optional, in a QVariantMap.
///
/// A value of another type than the one that is given here is converted as QVariant does: what is no number
/// is 0, what is no list is empty.
namespace Core::TaskHints {

// How the process runs
inline const QLatin1String priority("Priority"); ///< integer: nice level; absent: 0
inline const QLatin1String runningTime("RunningTime"); ///< integer: s; below 1 or absent: the type's limit
inline const QLatin1String cpuLimit("CPULimit"); ///< integer: s; below 1 or absent: as "RunningTime"
inline const QLatin1String weight("Weight"); ///< integer: OOM score adjustment; absent: 0
inline const QLatin1String createIpcSocket("CreateIPCSocket"); ///< boolean: make a listening socket
inline const QLatin1String cgroups("CGroups"); ///< TaskCGroups: beside the settings of all tasks
inline const QLatin1String permissions("Permissions"); ///< string list: instead of the declared ones

// Whether it is there again after a restart
inline const QLatin1String autostart("Autostart"); ///< boolean, or integer 0, 1, 2; 1: store the task

// When it runs
inline const QLatin1String conditions("Conditions"); ///< string list: besides the declared ones
inline const QLatin1String startDelay("StartDelay"); ///< integer: s; workers only
inline const QLatin1String interval("Interval"); ///< integer: s; periodic tasks only
inline const QLatin1String schedule("Schedule"); ///< map of the lists below; scheduled tasks only
inline const QLatin1String startTime("StartTime"); ///< date and time in Qt::ISODate; scheduled tasks only

// What "Schedule" holds
inline const QLatin1String months("Months"); ///< list of integers, 0 to 11
inline const QLatin1String weekDays("WeekDays"); ///< list of integers, 0 to 6
inline const QLatin1String hours("Hours"); ///< list of integers, 0 to 23
inline const QLatin1String minutes("Minutes"); ///< list of integers, 0 to 59
inline const QLatin1String startDate("StartDate"); ///< date and time in Qt::ISODate
inline const QLatin1String endDate("EndDate"); ///< date and time in Qt::ISODate

} // namespace Core::TaskHints

namespace Core {

/// Value of the hint "CGroups": control file name, for example "cpu.shares" -> what is written to it.
using TaskCGroups = QHash<QString, QByteArray>;

/// The types of tasks that a desktop file can declare. Any other is carried along and has the rules of
/// "session-start" for its running time, but may run more than once.
namespace TaskTypes {

inline const QLatin1String worker("worker"); ///< runs once, when its conditions first hold
inline const QLatin1String periodic("periodic"); ///< at intervals
inline const QLatin1String scheduled("scheduled"); ///< at times of the calendar
inline const QLatin1String sessionStart("session-start"); ///< once in a session

} // namespace TaskTypes

} // namespace Core
