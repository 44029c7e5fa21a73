#pragma once

#include "Core/condition.h"

#include <QList>

#include <memory>

class QDateTime;
class QVariant;

namespace Core {

class ConditionSchedulePrivate;
class Error;
class TimedProxy;

/// "Schedule": false, true when the timed daemon says that the time has come, and false again once the task
/// has been started.
///
/// The event is the daemon's and outlives this service; its cookie is kept in the data, under "cookieId".
class ConditionSchedule : public Condition
{
    Q_OBJECT

public:
    /// @p schedule has "StartDate" and "EndDate" (ISO 8601) and the number lists "Months", "WeekDays",
    /// "Hours" and "Minutes", all of them optional. @p proxy must outlive the condition; none stands for the
    /// one of the process, which is then made at the latest when the data is loaded.
    ConditionSchedule(const QString &eventId, const QVariantMap &schedule, QObject *parent = nullptr,
                      TimedProxy *proxy = nullptr);
    /// Once, at @p dateTime.
    ConditionSchedule(const QString &eventId, const QDateTime &dateTime, QObject *parent = nullptr,
                      TimedProxy *proxy = nullptr);
    ~ConditionSchedule() override;

    /// The list of any type that D-Bus or JSON gives, as numbers; empty for what is no list.
    [[nodiscard]] static QList<int> numbers(const QVariant &list);

    /// Makes the event, unless the data says that there is one, and listens.
    void conditionDataLoaded() override;
    void taskWasTriggered() override;
    /// Cancels the event.
    void taskRemoved() override;

private:
    void setupTimed();
    void addEvent();
    void eventAdded(quint32 cookie, const Error &error);

    const std::unique_ptr<ConditionSchedulePrivate> d;
};

} // namespace Core
