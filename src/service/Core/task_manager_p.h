#pragma once

#include "Core/application_info.h"
#include "Core/application_state.h"
#include "Core/condition_watcher.h"
#include "Core/invocation_context.h"
#include "Core/keepalive.h"
#include "Core/task_config.h"
#include "Core/task_manager.h"
#include "Core/task_startup_info.h"
#include "Core/user_settings.h"

#include <QMap>
#include <QSharedPointer>
#include <QTimer>

#include <functional>

namespace Core {

/// Who runs the processes of tasks: operations of the runtime controller, for which a test may stand in.
struct TaskProcesses
{
    /// Success also if the task runs already.
    std::function<Error(const ApplicationTaskId &, const TaskStartupInfo &, const InvocationContext &)> start;
    /// `NotRunning` if there is nothing to stop.
    std::function<Error(const ApplicationTaskId &, StopReason)> terminate;
    /// Calls back once processes can be started: at once if they can.
    std::function<void(const std::function<void()> &)> whenInitialized;

    static TaskProcesses ofTheRuntimeController();
};

/// What somebody wants of a task.
struct TaskRequest
{
    ApplicationTaskId id;
    QStringList params; ///< behind the declared command
    QStringList environment;
    QVariantMap hints;
    InvocationContext context;
    QVariantMap conditionData; ///< as it was stored; empty for a new request
};

/// One task: waiting for its conditions, or running. Which of the two is for the runtime controller to know.
struct TaskRecord
{
    TaskStartupInfo startupInfo;
    InvocationContext context; ///< who asked
    /// Ends the process. Not stopped when the process ends sooner: it then finds nothing to stop.
    QTimer runningLimit;
    bool isWorker = false;
    bool holdsKeepalive = false;
    ConditionWatcher watcher;
    KeepaliveSwitch keepalive;
    float lastProgress = 0; ///< the greatest one reported so far
};

class TaskManagerPrivate
{
public:
    /// @param owner context of every connection; it outlives this object
    TaskManagerPrivate(QObject *owner, const TaskProcesses &taskProcesses);

    /// The context of the request is made here.
    Error start(TaskRequest request, const ClientInfo &clientInfo);
    Error stop(const ApplicationTaskId &taskId, bool mustDisable, const ClientInfo &clientInfo);
    void startAutostartTasks();

    Error addTask(const TaskRequest &request, const ApplicationInfo::TaskInfo &taskInfo);
    bool isAtLimit(const ApplicationTaskId &taskId) const;
    Error makeRecord(const TaskRequest &request, const ApplicationInfo::TaskInfo &taskInfo,
                     QSharedPointer<TaskRecord> &record);
    void startWhenSatisfied(const ApplicationTaskId &taskId, TaskRecord &record);
    void saveAutostart(const TaskRequest &request, const QVariantMap &conditionData);
    Error startNow(const ApplicationTaskId &taskId);
    void removeTask(const ApplicationTaskId &taskId);

    void runningTimeExhausted(const QString &fullTaskId);
    void onTaskTerminated(const QString &fullTaskId);
    void onProgressUpdated(const ClientInfo &clientInfo, float progress);

    QObject *const q;
    const TaskProcesses processes;
    // Whole id text -> record, removed by removeTask(), a worker's also by onTaskTerminated(). In order, so
    // that the tasks of an application stand side by side.
    QMap<QString, QSharedPointer<TaskRecord>> records;
    UserSettings settings;
    TaskConfig config;
    const qint32 workerMaxTime; // s
};

} // namespace Core
