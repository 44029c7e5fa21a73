#pragma once

#include "Core/condition.h"

#include <memory>

namespace Core {

class ConditionIntervalPrivate;

/// "Interval": true when made, and false for a time after each start of the task.
///
/// Nothing is kept: after a restart of the service the task runs at once.
class ConditionInterval : public Condition
{
    Q_OBJECT

public:
    explicit ConditionInterval(int seconds, QObject *parent = nullptr);
    ~ConditionInterval() override;

    void taskWasTriggered() override;

private:
    const std::unique_ptr<ConditionIntervalPrivate> d;
};

} // namespace Core
