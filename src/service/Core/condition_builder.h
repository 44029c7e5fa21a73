#pragma once

#include "Core/application_info.h"
#include "Core/error.h"

#include <QVariantMap>

namespace Core {

class ConditionWatcher;

/// Makes the conditions of a task from its declaration and the hints of whoever starts it.
class ConditionBuilder
{
public:
    /// Adds to @p watcher what @p hints ("StartDelay", "Interval", "Schedule", "StartTime", "Conditions";
    /// other keys are passed over) and @p taskInfo ask for, as far as the task's type allows it.
    /// @returns InvalidArgs, with the reason for the caller, at the first hint that is wrong or that the type
    ///          does not allow. Some conditions may be in the watcher by then; it has to be discarded.
    ///          A condition in a list that nobody knows is only warned about, and the task runs without it.
    [[nodiscard]] static Error build(ConditionWatcher *watcher, const ApplicationInfo::TaskInfo &taskInfo,
                                     const QVariantMap &hints);
};

} // namespace Core
