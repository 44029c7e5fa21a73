#pragma once

#include "Core/application_id.h"
#include "Core/application_instance_id.h"
#include "Core/application_record.h"
#include "Core/application_state.h"
#include "Core/debug_params.h"
#include "Core/error.h"
#include "Core/running_task.h"

#include <QObject>
#include <QVariantMap>
#include <QVector>

#include <functional>
#include <memory>

namespace Core {

class OomController;
class RuntimeControllerPrivate;
struct TaskStartupInfo;

/// One who would be killed if memory ran short.
struct OomVictim
{
    QString id;
    pid_t pid = -1; ///< the process that would go first
    QString rule; ///< what puts it before the next one; empty for the last
};

/// Why a frozen application may run for a while.
enum class UnfreezeReason {
    Notification = 0, ///< it has been told of the memory level
};

/// Knows what runs: the one owner of the records of all running applications and tasks.
///
/// Decides whether a start may go ahead, follows each record through its states, applies the control group
/// settings of each state, stops processes in two steps, and tells the rest of the service by signals.
/// Main thread only. The others hold ids and ask again; a record lives from the launch's success until
/// the exit.
class RuntimeController : public QObject
{
    Q_OBJECT

public:
    /// Runs once, when the launch has ended: with the new instance's id and no error, or with the reason why
    /// nothing runs. It may run before the start call returns. The record exists by then.
    using StartApplicationCb = std::function<void(const ApplicationInstanceId &, const Error &)>;

    /// The one controller of the process, made on first use and never destroyed.
    static RuntimeController *instance();

    /// Reads the state configuration and asks for the delegated control groups.
    explicit RuntimeController(QObject *parent = nullptr);
    ~RuntimeController() override;

    // Starting

    /// Starts an application. Refusals: `ApplicationAlreadyRunning`, `ApplicationTerminating` and
    /// `ApplicationAlreadyLaunching` of one that allows one instance, or one with a window;
    /// `ApplicationBlocked`; and all that the launcher reports. While the control groups are not ready the
    /// launch waits for them.
    void startApplication(const ApplicationId &appId, const DebugParams &debugParams,
                          const QVariantMap &hints, const QList<QUrl> &uris, const InvocationContext &context,
                          const StartApplicationCb &callback);
    void startApplication(const ApplicationId &appId, const QVariantMap &hints, const QList<QUrl> &uris,
                          const InvocationContext &context, const StartApplicationCb &callback);

    /// Starts a task's process, always in the sandbox, and returns when it runs or does not. Of a task that
    /// runs already this is a success and starts nothing. Refusals: `ApplicationBlocked`, and all that the
    /// launch reports; among them that the control groups are not ready, see whenInitialized(). Whether the
    /// application declares such a task is for the caller to know.
    Error startTask(const ApplicationTaskId &taskId, const TaskStartupInfo &startupInfo,
                    const InvocationContext &context);

    /// No start of @p appId, nor of its tasks, succeeds until unblockApplication(). What runs already is not
    /// touched.
    void blockApplication(const ApplicationId &appId);
    void unblockApplication(const ApplicationId &appId);

    // Stopping

    /// SIGTERM to the process group now, SIGKILL after the kill time-out. `NotRunning` if there is no such
    /// instance or task, `Failed` if the signal could not be sent. A frozen instance gets its signals when
    /// it is thawed.
    Error terminateApplication(const ApplicationInstanceId &instanceId, StopReason reason);
    Error terminateTask(const ApplicationTaskId &taskId, StopReason reason);

    /// Stops every record whose id begins with the text of @p appId; the last failure is returned, and none
    /// keeps the others from being stopped.
    Error terminateAll(const ApplicationId &appId, StopReason reason);

    /// Runs @p callback when no record's id begins with the text of @p appId: at once, or after the exit
    /// that leaves none. Waiters are released by the exit of an application with exactly that id.
    void waitForNotRunning(const ApplicationId &appId, const std::function<void()> &callback);

    /// SIGKILL to every process group, thawing what is frozen. For the end of the service.
    void killAll();

    // Following

    /// Takes the compositor's window counts, which decide the state; an application with no windows left is
    /// stopped. `NotRunning` if there is no such instance, or if the id is a task's.
    Error updateWindowStatus(const ApplicationInstanceId &instanceId, int active, int inactive, int hidden);

    /// Look-ups go by the whole text of the id. What is not found is `NotRunning` with an empty id.
    ApplicationRecord applicationRecord(const ApplicationId &appId) const;
    RunningTask taskRecord(const ApplicationTaskId &taskId) const;
    ApplicationState state(const QString &id) const;
    /// In the order of the ids.
    QVector<ApplicationRecord> runningApplications() const;
    QVector<RunningTask> runningTasks() const;

    bool isLaunching(const ApplicationId &appId) const;
    bool isBlocked(const ApplicationId &appId) const;

    /// Everything that runs in the order in which it would be killed. Reads the scores of all of it.
    QVector<OomVictim> oomVictims() const;
    /// What memory is judged by.
    const OomController &oomController() const;

    /// Lets a hidden, thus frozen, application run for a while so that it can act on what it is told, without
    /// a change of state or a signal. Any other application, and one that does not run, is left alone.
    void letClientRun(const QString &appId, UnfreezeReason reason);

    /// Runs @p callback once the control groups can be used: at once if they can.
    void whenInitialized(const std::function<void()> &callback);

signals:
    void applicationStarted(const Core::ApplicationRecord &appRecord);
    /// @param exitStatus the raw status word of waitpid(2)
    void applicationTerminated(const QString &appId, pid_t pid, int exitStatus, Core::StopReason reason);
    void applicationStateChanged(const QString &appId, Core::ApplicationState state);

    void taskStarted(const QString &fullTaskId, pid_t pid, const Core::InvocationContext &context);
    /// The record still stands meanwhile: who looks the task up then finds it.
    /// @param exitStatus the raw status word of waitpid(2)
    void taskTerminated(const QString &fullTaskId, pid_t pid, int exitStatus, Core::StopReason reason);
    void taskStateChanged(const QString &fullTaskId, Core::ApplicationState state);

    /// The early out-of-memory killer is about to kill all of it.
    void processSelectedByOom(const QString &processId);

private:
    const std::unique_ptr<RuntimeControllerPrivate> d;
};

} // namespace Core
