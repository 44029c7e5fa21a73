#pragma once

#include "Core/application_task_id.h"
#include "Core/cgroup_controller.h"
#include "Core/error.h"
#include "Core/process_spawner.h"

#include <QByteArrayList>
#include <QObject>
#include <QStringList>

#include <memory>
#include <tuple>

#include <sys/types.h>

namespace Core {

enum class LaunchStep;

class Launch;

/// One start of one task's process, in one go and always in the sandbox.
///
/// Made, run and destroyed within one call of launch(): nothing of it waits on the event loop, and the only
/// calls that can block are the writes to the child. Main thread only. The service keeps no descriptor of a
/// task's socket after the launch; the socket's file stays until the task's next start.
class LaunchingTask : public QObject
{
    Q_OBJECT

public:
    /// @param controller    not owned; puts the child in its groups before it runs
    /// @param command       at least one word; a first word without a leading "/" is looked for in /usr/bin
    /// @param environment   "NAME=value" each, behind the service's own and before what names the task
    /// @param permissions   names, for the sandbox
    /// @param weight        OOM score adjustment, -1000 to 1000
    /// @param priority      nice level; 0: as the service's
    /// @param cpuLimit      s of processor time; negative: none
    /// @param createIpcSocket the task inherits a listening socket, whose number "SOLVANE_TASK_FD" tells it
    /// @returns no error, the child's pid and -1; or with a pid of -1 `SpawnFailed`, or what the composition
    ///          of the sandbox says. A child that was made by then ends by itself, and the tracker reaps it.
    static std::tuple<Error, pid_t, int> launch(CGroupController *controller, const ApplicationTaskId &taskId,
                                                const QStringList &command, const QStringList &environment,
                                                const QStringList &permissions,
                                                const CGroupController::Settings &cgroups, int weight,
                                                int priority, int cpuLimit, bool createIpcSocket);

    LaunchingTask(CGroupController *controller, const ApplicationTaskId &taskId, const QStringList &command,
                  const QStringList &environment, const QStringList &permissions,
                  const CGroupController::Settings &cgroups, int weight, int priority, int cpuLimit,
                  bool createIpcSocket);
    ~LaunchingTask() override;

    /// To be called once. After a failure a child may be left, see pid(): it ends when this object does.
    Error start();

    /// -1 until a child was made.
    pid_t pid() const { return m_pid; }

private:
    void passed(LaunchStep step) const;
    Error failedAt(LaunchStep step, const Error &error) const;
    Error failedAt(LaunchStep step, const QString &message) const;
    bool createClientSocket();
    bool setupCGroup();
    bool setupEnvironment();

    const ApplicationTaskId m_taskId;
    QByteArrayList m_command;
    const QByteArrayList m_environment;
    const QStringList m_permissions;
    ProcessSpawner m_spawner;
    const CGroupController::Settings m_cgroups;
    CGroupController *const m_controller;
    const bool m_createIpcSocket;
    const int m_oomScore;
    const int m_niceLevel;
    const int m_runningTimeLimit;
    pid_t m_pid = -1;
    int m_socket = -1; ///< listening, owned; -1: none
    const std::shared_ptr<Launch> m_launch; ///< what the history knows of it; null if it was not asked for
};

} // namespace Core
