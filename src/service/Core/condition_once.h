#pragma once

#include "Core/application_info.h"
#include "Core/condition.h"

#include <memory>

namespace Core {

class ConditionOncePrivate;

/// "once": true until the task has been started in this session of the user.
///
/// A file in the runtime directory, which goes with the session, remembers the start.
class ConditionOnce : public Condition
{
    Q_OBJECT

public:
    explicit ConditionOnce(const ApplicationInfo::TaskInfo &task, QObject *parent = nullptr);
    ~ConditionOnce() override;

    /// Leaves the file. Where it cannot be made, that is warned about, and the task still does not run again
    /// as long as this service lives.
    void taskWasTriggered() override;

private:
    const std::unique_ptr<ConditionOncePrivate> d;
};

} // namespace Core
