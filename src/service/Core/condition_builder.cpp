#include "Core/condition_builder.h"

#include "Core/condition_battery.h"
#include "Core/condition_delay.h"
#include "Core/condition_idle.h"
#include "Core/condition_internet.h"
#include "Core/condition_interval.h"
#include "Core/condition_once.h"
#include "Core/condition_schedule.h"
#include "Core/condition_watcher.h"

#include <QDateTime>
#include <QDebug>

#include <algorithm>

namespace Core {

namespace {

constexpr int minimumIntervalSeconds = 900;
constexpr int maximumMinutes = 4; // runs within an hour
constexpr int minimumMinuteGap = 15;

using TaskInfo = ApplicationInfo::TaskInfo;

Error invalid(const char *message)
{
    return { Error::InvalidArgs, QLatin1String(message) };
}

/// Whether all of @p values are from 0 to @p maximum.
bool areWithin(const QList<int> &values, int maximum)
{
    return std::all_of(values.cbegin(), values.cend(),
                       [maximum](int value) { return value >= 0 && value <= maximum; });
}

bool areMinutesValid(QList<int> minutes)
{
    if (minutes.size() > maximumMinutes) {
        return false;
    }
    std::sort(minutes.begin(), minutes.end());
    if (!areWithin(minutes, 59)) {
        return false;
    }
    for (int i = 1; i < minutes.size(); ++i) {
        if (minutes.at(i) - minutes.at(i - 1) < minimumMinuteGap) {
            return false;
        }
    }
    return true;
}

bool isScheduleValid(const QVariantMap &schedule)
{
    const auto numbers = [&schedule](const char *key) {
        return ConditionSchedule::numbers(schedule.value(QLatin1String(key)));
    };
    return areMinutesValid(numbers("Minutes")) && areWithin(numbers("Hours"), 23)
        && areWithin(numbers("WeekDays"), 6) && areWithin(numbers("Months"), 11);
}

Error addDelay(ConditionWatcher *watcher, const TaskInfo &task, const QVariant &value)
{
    if (task.type != QLatin1String("worker")) {
        return invalid("StartDelay not allowed for this task");
    }
    const int seconds = value.toInt();
    if (seconds < 0) {
        return invalid("Delay cannot be negative");
    }
    if (seconds > 0) {
        watcher->addCondition(new ConditionDelay(seconds));
    }
    return {};
}

Error addInterval(ConditionWatcher *watcher, const TaskInfo &task, const QVariant &value)
{
    if (task.type != QLatin1String("periodic")) {
        return invalid("Interval not allowed for this task");
    }
    const int seconds = value.toInt();
    if (seconds < minimumIntervalSeconds) {
        return invalid("Minimum interval is 15 minutes");
    }
    watcher->addCondition(new ConditionInterval(seconds));
    return {};
}

Error addSchedule(ConditionWatcher *watcher, const TaskInfo &task, const QVariant &value)
{
    if (task.type != QLatin1String("scheduled")) {
        return invalid("Schedule not allowed for this task");
    }
    const QVariantMap schedule = value.toMap();
    if (!isScheduleValid(schedule)) {
        return invalid("Task schedule invalid");
    }
    watcher->addCondition(new ConditionSchedule(task.id.text(), schedule));
    return {};
}

Error addStartTime(ConditionWatcher *watcher, const TaskInfo &task, const QVariant &value)
{
    if (task.type != QLatin1String("scheduled")) {
        return invalid("Start time not allowed for this task");
    }
    const QDateTime dateTime = QDateTime::fromString(value.toString(), Qt::ISODate);
    if (!dateTime.isValid()) {
        return invalid("Invalid start time");
    }
    watcher->addCondition(new ConditionSchedule(task.id.text(), dateTime));
    return {};
}

quint32 bearers(const QString &parameter)
{
    if (parameter.isEmpty()) {
        return 0;
    }
    if (parameter == QLatin1String("ethernet")) {
        return ConditionInternet::Ethernet;
    }
    if (parameter == QLatin1String("wifi")) {
        return ConditionInternet::Wifi;
    }
    if (parameter == QLatin1String("wifi-or-ethernet")) {
        return ConditionInternet::Wifi | ConditionInternet::Ethernet;
    }
    if (parameter == QLatin1String("cellular")) {
        return ConditionInternet::Cellular;
    }
    qWarning() << "Unknown connection type" << parameter;
    return 0;
}

/// Adds a condition of a list: `name` or `name:parameter`.
void addListed(ConditionWatcher *watcher, const QString &condition)
{
    const QStringList parts = condition.split(QLatin1Char(':'));
    const QString &name = parts.first();
    if (name == QLatin1String("battery-not-low")) {
        watcher->addCondition(new ConditionBattery(ConditionBattery::notLow));
    } else if (name == QLatin1String("charging")) {
        watcher->addCondition(new ConditionBattery(ConditionBattery::charging));
    } else if (name == QLatin1String("idle")) {
        watcher->addCondition(new ConditionIdle);
    } else if (name == QLatin1String("internet")) {
        watcher->addCondition(new ConditionInternet(bearers(parts.value(1))));
    } else {
        qWarning() << "Unsupported condition" << name;
    }
}

using Adder = Error (*)(ConditionWatcher *, const TaskInfo &, const QVariant &);

/// Null for a hint that makes no condition.
Adder adderOf(const QString &hint)
{
    if (hint == QLatin1String("StartDelay")) {
        return addDelay;
    }
    if (hint == QLatin1String("Interval")) {
        return addInterval;
    }
    if (hint == QLatin1String("Schedule")) {
        return addSchedule;
    }
    if (hint == QLatin1String("StartTime")) {
        return addStartTime;
    }
    return nullptr;
}

} // namespace

Error ConditionBuilder::build(ConditionWatcher *watcher, const TaskInfo &taskInfo, const QVariantMap &hints)
{
    // In the order of the keys: of several wrong hints, the first one by name is reported.
    for (auto hint = hints.cbegin(); hint != hints.cend(); ++hint) {
        if (const Adder add = adderOf(hint.key())) {
            if (const Error error = add(watcher, taskInfo, hint.value())) {
                return error;
            }
        }
    }
    const QStringList listed = taskInfo.conditions + hints.value(QStringLiteral("Conditions")).toStringList();
    for (const QString &condition : listed) {
        addListed(watcher, condition);
    }
    if (taskInfo.type == QLatin1String("session-start")) {
        watcher->addCondition(new ConditionOnce(taskInfo));
    }
    return {};
}

} // namespace Core
