// The controller's side of tasks. A task has a record like an application's, yet no windows, thus no states
// of its own: it gets its control group settings at the start, and is `Launched` until it is stopped.

#include "Core/runtime_controller.h"
#include "Core/runtime_controller_p.h"

#include "Core/chronicle.h"
#include "Core/launching_task.h"
#include "Core/runtime_tracker.h"
#include "Core/task.h"
#include "Core/task_startup_info.h"

#include <QDebug>

namespace Core {

namespace {

const QByteArray freezerFile = QByteArrayLiteral("freezer.state");

} // namespace

Error RuntimeControllerPrivate::startTask(const ApplicationTaskId &taskId, const TaskStartupInfo &startupInfo,
                                          const InvocationContext &context)
{
    if (records.contains(taskId.text())) {
        return Error();
    }
    if (blocked.contains(taskId.applicationId())) {
        qDebug() << "Application is blocked, won't start task" << taskId.text();
        return Error(Error::ApplicationBlocked, QString());
    }
    CGroupController::Settings settings = backgroundSettings;
    for (auto setting = startupInfo.cgroups.cbegin(); setting != startupInfo.cgroups.cend(); ++setting) {
        settings.insert(setting.key(), setting.value());
    }
    const auto launch = Chronicle::instance()->launchAsked(taskId.text());
    const auto [error, pid, socket] = LaunchingTask::launch(
        &cgroups, taskId, startupInfo.command, startupInfo.environment, startupInfo.permissions, settings,
        startupInfo.weight, startupInfo.priority, startupInfo.cpuLimit, startupInfo.createIpcSocket);
    if (error) {
        // Started by its conditions, a task has nobody else who would hear of it.
        qWarning() << "Could not start task" << taskId.text() << error;
        Chronicle::instance()->launchFailed(launch, error);
        // The child that was made ends when it finds its pipe closed, which it cannot while it is frozen.
        if (settings.contains(freezerFile)) {
            thawTask(taskId.text());
        }
        return error;
    }
    addTask(taskId, pid, context, socket);
    qDebug() << "Started task" << taskId.text() << "with PID" << pid;
    return Error();
}

/// Tasks have no states; the group of one is frozen only if the request for its start has asked for that.
void RuntimeControllerPrivate::thawTask(const QString &fullTaskId)
{
    cgroups.applyState(ApplicationTaskId(fullTaskId), states.stateName(ApplicationState::Inactive));
}

void RuntimeControllerPrivate::addTask(const ApplicationTaskId &taskId, pid_t pid,
                                       const InvocationContext &context, int socket)
{
    // Before anything else: an exit that is seen from here on finds its entry.
    RuntimeTracker::instance()->addProcess(pid, taskId.text());

    auto *task = new Task(taskId, pid, context, socket, q);
    records.insert(task->id(), task);
    QObject::connect(task, &Process::stateChanged, q,
                     [this, task](ApplicationState state) { emit q->taskStateChanged(task->id(), state); });
    refreshMonitoring();
    emit q->taskStarted(taskId.text(), pid, context);
}

Error RuntimeController::startTask(const ApplicationTaskId &taskId, const TaskStartupInfo &startupInfo,
                                   const InvocationContext &context)
{
    return d->startTask(taskId, startupInfo, context);
}

Error RuntimeController::terminateTask(const ApplicationTaskId &taskId, StopReason reason)
{
    return d->terminate(taskId.text(), reason);
}

RunningTask RuntimeController::taskRecord(const ApplicationTaskId &taskId) const
{
    const auto *task = qobject_cast<const Task *>(d->records.value(taskId.text()));
    return task ? task->record() : RunningTask();
}

QVector<RunningTask> RuntimeController::runningTasks() const
{
    QVector<RunningTask> running;
    for (const Process *process : qAsConst(d->records)) {
        if (const auto *task = qobject_cast<const Task *>(process)) {
            running.append(task->record());
        }
    }
    return running;
}

} // namespace Core
