#pragma once

#include "Core/block_list.h"
#include "Core/candidate.h"
#include "Core/cgroup_controller.h"
#include "Core/launcher.h"
#include "Core/memory_level.h"
#include "Core/oom_controller.h"
#include "Core/runtime_controller.h"
#include "Core/state_table.h"
#include "Core/termination_waiters.h"

#include <QHash>
#include <QMap>
#include <QStringList>
#include <QTimer>

namespace Core {

class Application;
class Process;
class ResourceConfiguration;

/// How long a process has between SIGTERM and SIGKILL, in ms: what `PROCWARDEN_KILL_TIMEOUT` says if that is
/// a decimal number above 0, else the default.
int killTimeoutFromEnvironment();

class RuntimeControllerPrivate
{
public:
    explicit RuntimeControllerPrivate(RuntimeController *owner);
    ~RuntimeControllerPrivate();

    void loadStates(const ResourceConfiguration &configuration);
    void runInitializationCallbacks();

    Error checkStart(const ApplicationId &appId) const;
    bool hasApplicationWithWindows(const ApplicationId &appId) const;
    bool hasRecordOf(const QString &idPrefix) const;

    void addApplication(const ApplicationInstanceId &instanceId, pid_t pid, const InvocationContext &context,
                        const QList<QUrl> &uris);
    void onApplicationStateChanged(const Application &application, ApplicationState state);
    void onProcessTerminated(const QString &id, int exitStatus);
    void onChildAbandoned(pid_t pid, const ApplicationInstanceId &instanceId);
    Error terminate(const QString &id, StopReason reason);

    // Tasks
    Error startTask(const ApplicationTaskId &taskId, const TaskStartupInfo &startupInfo,
                    const InvocationContext &context);
    void thawTask(const QString &fullTaskId);
    void addTask(const ApplicationTaskId &taskId, pid_t pid, const InvocationContext &context, int socket);

    // When memory runs short
    void onMemoryLevelChanged(MemoryLevel level);
    void refreshMonitoring();
    void runOomKiller();
    QVector<Candidate> oomCandidates() const;
    void killSubprocess(const Candidate &victim);
    void logVictim(const Candidate &victim, const QString &choice, bool onlySubprocess) const;
    void letClientRun(const QString &appId, UnfreezeReason reason);

    RuntimeController *const q;
    StateTable states;
    CGroupController::Settings backgroundSettings; // of every task
    CGroupController cgroups;
    OomController oomController;
    Launcher launcher;
    QMap<QString, Process *> records; // whole id text -> record, removed by onProcessTerminated()
    QStringList launching; // application ids whose launch is under way, removed by its completion
    int killTimeoutMs;
    bool initialized = false;
    QVector<std::function<void()>> initializationCallbacks;
    BlockList blocked;
    TerminationWaiters waiters;
    QHash<pid_t, int>
        killedSubprocesses; // record's pid -> kills, emptied when the level is no longer critical
    QTimer earlyOomTimer; // runs exactly while the level is critical
};

} // namespace Core
