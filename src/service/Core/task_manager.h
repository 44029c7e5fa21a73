#pragma once

#include "Core/application_task_id.h"
#include "Core/client_info.h"
#include "Core/error.h"

#include <QObject>
#include <QStringList>
#include <QVariantMap>

#include <memory>

namespace Core {

class TaskManagerPrivate;

/// Owns every background task that somebody has asked for, from the request until the task is removed.
///
/// Checks the request, has the process started whenever all conditions of the task hold, limits the time that
/// it runs, keeps the device awake meanwhile, and stores the tasks that are to be there again after a
/// restart. It runs nothing itself: the runtime controller does. Main thread only.
class TaskManager : public QObject
{
    Q_OBJECT

public:
    /// The one of the service, made on first use and never destroyed.
    static TaskManager *instance();

    explicit TaskManager(QObject *parent = nullptr);
    ~TaskManager() override;

    /// Has the stored tasks added once the control groups can be used: at once if they can. Called once.
    void initialize();

    /// Adds the task, in place of an earlier request for it, and starts it if its conditions hold.
    ///
    /// Success does not say that it runs: its conditions may have to be waited for, and a failed start is
    /// tried again when they next come to hold.
    /// @param environment "NAME=value" each, besides the service's own
    /// @param hints see task_hints.h; unknown keys are passed over
    /// @returns `AccessDenied` if the client is another application and not privileged, `TaskNotFound` if
    ///          nobody has declared the task, `TooManyTasks` if the application has as many as it may, this
    ///          one's earlier request included, `InvalidArgs` if hints are out of range or not for this type
    ///          of task. An earlier request stands then.
    Error start(const ApplicationTaskId &taskId, const QStringList &params, const QStringList &environment,
                const QVariantMap &hints, const ClientInfo &clientInfo);

    /// Stops the process of the task, if it runs.
    /// @param mustDisable also forgets the task, and that it is stored. Otherwise it is started again when
    ///        its conditions next come to hold; a worker never is.
    /// @returns `AccessDenied` as for start(), or why the process could not be stopped. Nothing is forgotten
    ///          then.
    Error stop(const ApplicationTaskId &taskId, bool mustDisable, const ClientInfo &clientInfo);

private:
    const std::unique_ptr<TaskManagerPrivate> d;
};

} // namespace Core
