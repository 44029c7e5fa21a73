#pragma once

#include "Core/process.h"
#include "Core/running_task.h"

namespace Core {

/// The record of a running task: a process without windows. It is `Launched` until it is stopped.
class Task : public Process
{
    Q_OBJECT

public:
    /// @param socket as LaunchingTask::launch() reports it
    Task(const ApplicationTaskId &taskId, pid_t pid, const InvocationContext &context, int socket,
         QObject *parent = nullptr);

    int socket() const { return m_socket; }

    /// A copy of what is known at this moment.
    RunningTask record() const;

private:
    const InvocationContext m_context;
    const int m_socket;
};

} // namespace Core
