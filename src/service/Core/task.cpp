#include "Core/task.h"

namespace Core {

Task::Task(const ApplicationTaskId &taskId, pid_t pid, const InvocationContext &context, int socket,
           QObject *parent)
    : Process(taskId.text(), pid, parent)
    , m_context(context)
    , m_socket(socket)
{
}

RunningTask Task::record() const
{
    RunningTask record;
    record.id = ApplicationTaskId(id());
    record.pid = pid();
    record.context = m_context;
    record.state = state();
    return record;
}

} // namespace Core
