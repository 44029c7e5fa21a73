#pragma once

#include "Core/application_state.h"
#include "Core/application_task_id.h"
#include "Core/invocation_context.h"

#include <QMetaType>

#include <sys/types.h>

namespace Core {

/// The process of a task as it was when somebody asked. An empty id means that none was found.
struct RunningTask
{
    ApplicationTaskId id;
    pid_t pid = 0;
    InvocationContext context;
    ApplicationState state = ApplicationState::NotRunning;
};

} // namespace Core

Q_DECLARE_METATYPE(Core::RunningTask)
