#pragma once

#include "Core/condition.h"

#include <memory>

namespace Core {

class ConditionIdlePrivate;

/// "idle": true while the display is switched off.
class ConditionIdle : public Condition
{
    Q_OBJECT

public:
    explicit ConditionIdle(QObject *parent = nullptr);
    ~ConditionIdle() override;

private:
    const std::unique_ptr<ConditionIdlePrivate> d;
};

} // namespace Core
