#pragma once

#include "Core/condition.h"

#include <memory>

namespace Core {

class ConditionDelayPrivate;

/// "StartDelay": false, and true for good once a time has passed since the task was added.
class ConditionDelay : public Condition
{
    Q_OBJECT

public:
    explicit ConditionDelay(int seconds, QObject *parent = nullptr);
    ~ConditionDelay() override;

private:
    const std::unique_ptr<ConditionDelayPrivate> d;
};

} // namespace Core
