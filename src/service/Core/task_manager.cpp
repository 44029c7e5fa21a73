#include "Core/task_manager.h"

#include "Core/application_registry.h"
#include "Core/chronicle.h"
#include "Core/condition_builder.h"
#include "Core/notification_manager.h"
#include "Core/process_id.h"
#include "Core/runtime_controller.h"
#include "Core/task_hints.h"
#include "Core/task_manager_p.h"
#include "Core/task_rules.h"

#include <QDebug>
#include <QPointer>

#include <algorithm>
#include <limits>

// The life of a task:
//
//   no record --addTask--> waiting --conditions hold, startNow succeeds--> running
//                             ^                                              |
//                             +----------- the process ends -----------------+
//                                          (a worker: no record)
//
// removeTask, and a new request for the same task, end the record in either state. What is stored for the
// next run of the service ends with removeTask only, or when nobody declares the task any more.

namespace Core {

namespace {

const QLatin1String basePermission("BaseTask"); // what every task needs
const QLatin1String idleCondition("idle");
const QByteArray sharesWhenIdle("64"); // a quarter of the other tasks': a user who comes back does not wait

CGroupController::Settings toSettings(const TaskCGroups &cgroups)
{
    CGroupController::Settings settings;
    for (auto it = cgroups.cbegin(); it != cgroups.cend(); ++it) {
        settings.insert(it.key().toUtf8(), it.value());
    }
    return settings;
}

/// What a condition asks of the process, besides holding it back until it holds.
void applyConditionHints(TaskStartupInfo &info, const ApplicationInfo::TaskInfo &taskInfo,
                         const QVariantMap &hints)
{
    const QStringList conditions = taskInfo.conditions + hints.value(TaskHints::conditions).toStringList();
    for (const QString &condition : conditions) {
        if (condition.section(QLatin1Char(':'), 0, 0) == idleCondition) {
            info.cgroups.insert(QByteArrayLiteral("cpu.shares"), sharesWhenIdle);
        }
    }
}

TaskStartupInfo startupInfoFor(const TaskRequest &request, const ApplicationInfo::TaskInfo &taskInfo)
{
    const QVariantMap &hints = request.hints;
    TaskStartupInfo info;
    info.command = taskInfo.exec.split(QLatin1Char(' ')) + request.params; // quotes mean nothing here
    info.environment = request.environment;
    info.permissions = hints.value(TaskHints::permissions, taskInfo.permissions + QStringList(basePermission))
                           .toStringList();
    info.cgroups = toSettings(hints.value(TaskHints::cgroups).value<TaskCGroups>());
    info.weight = hints.value(TaskHints::weight).toInt();
    info.priority = hints.value(TaskHints::priority).toInt();
    info.cpuLimit = hints.value(TaskHints::cpuLimit, -1).toInt();
    if (info.cpuLimit < 1) {
        info.cpuLimit = hints.value(TaskHints::runningTime, -1).toInt();
    }
    info.createIpcSocket = hints.value(TaskHints::createIpcSocket).toBool();
    applyConditionHints(info, taskInfo, hints);
    return info;
}

/// For a timer, whose intervals end where a great number of seconds does not.
int toMilliseconds(qint32 seconds)
{
    return static_cast<int>(std::min<qint64>(seconds * Q_INT64_C(1000), std::numeric_limits<int>::max()));
}

bool isOtherApplication(const ApplicationTaskId &taskId, const ClientInfo &clientInfo)
{
    return !clientInfo.privileged && ProcessId(clientInfo.appId).toString() != taskId.toString();
}

} // namespace

TaskProcesses TaskProcesses::ofTheRuntimeController()
{
    RuntimeController *controller = RuntimeController::instance();
    return {
        [controller](const ApplicationTaskId &taskId, const TaskStartupInfo &startupInfo,
                     const InvocationContext &context) {
            return controller->startTask(taskId, startupInfo, context);
        },
        [controller](const ApplicationTaskId &taskId, StopReason reason) {
            return controller->terminateTask(taskId, reason);
        },
        [controller](const std::function<void()> &callback) { controller->whenInitialized(callback); },
    };
}

TaskManagerPrivate::TaskManagerPrivate(QObject *owner, const TaskProcesses &taskProcesses)
    : q(owner)
    , processes(taskProcesses)
    , workerMaxTime(workerMaxTimeFromEnvironment())
{
    QObject::connect(
        NotificationManager::instance(), &NotificationManager::notificationProgressUpdated, q,
        [this](float progress, const ClientInfo &clientInfo) { onProgressUpdated(clientInfo, progress); });
}

// Requests

Error TaskManagerPrivate::start(TaskRequest request, const ClientInfo &clientInfo)
{
    if (isOtherApplication(request.id, clientInfo)) {
        return Error(Error::AccessDenied, QStringLiteral("Cannot start another app's tasks"));
    }
    const ApplicationInfo::TaskInfo taskInfo = ApplicationRegistry::instance()->taskInfo(request.id);
    if (taskInfo.id.isEmpty()) {
        return Error(Error::TaskNotFound, QStringLiteral("No such task: %1").arg(request.id.text()));
    }
    request.context = { InvocationContext::NoReason, ProcessId(clientInfo.appId) };
    return addTask(request, taskInfo);
}

Error TaskManagerPrivate::stop(const ApplicationTaskId &taskId, bool mustDisable,
                               const ClientInfo &clientInfo)
{
    if (isOtherApplication(taskId, clientInfo)) {
        return Error(Error::AccessDenied, QStringLiteral("Cannot stop another app's tasks"));
    }
    Chronicle::instance()->decide(taskId.text(), Decision::Stopped);
    const Error error = processes.terminate(taskId, StopReason::None);
    if (error && error.code() != Error::NotRunning) {
        return error;
    }
    if (mustDisable) {
        removeTask(taskId);
    }
    return {};
}

void TaskManagerPrivate::startAutostartTasks()
{
    const QMap<QString, AutostartEntry> entries = settings.autostartEntries();
    for (auto it = entries.cbegin(); it != entries.cend(); ++it) {
        const ApplicationTaskId taskId(it.key());
        const ApplicationInfo::TaskInfo taskInfo = ApplicationRegistry::instance()->taskInfo(taskId);
        if (taskInfo.id.isEmpty()) {
            qDebug() << "Removing missing autostarted task" << it.key();
            settings.removeAutostartEntry(it.key());
            continue;
        }
        qDebug() << "Starting autostarted task" << it.key();
        const Error error = addTask({ taskId,
                                      it->params,
                                      it->environment,
                                      it->hints,
                                      { InvocationContext::Autostart, ProcessId() },
                                      it->conditionData },
                                    taskInfo);
        if (error) {
            qWarning() << "Error starting task" << it.key() << ":" << error;
        }
    }
}

// Records

/// The order matters: whoever is refused leaves an earlier request for the same task as it is.
Error TaskManagerPrivate::addTask(const TaskRequest &request, const ApplicationInfo::TaskInfo &taskInfo)
{
    if (isAtLimit(request.id)) {
        return Error(Error::TooManyTasks,
                     QStringLiteral("Maximum number of tasks reached for %1").arg(request.id.toString()));
    }
    QSharedPointer<TaskRecord> record;
    const Error error = makeRecord(request, taskInfo, record);
    if (error) {
        return error;
    }
    const QString key = request.id.text();
    if (records.contains(key)) {
        qDebug() << "Removing previous task" << key;
        removeTask(request.id);
    }
    records.insert(key, record);
    startWhenSatisfied(request.id, *record);
    if (autostartValue(request.hints) == 1) {
        const ConditionWatcher *watcher = &record->watcher;
        saveAutostart(request, watcher->conditionData());
        QObject::connect(watcher, &ConditionWatcher::conditionDataChanged, q,
                         [this, request, watcher] { saveAutostart(request, watcher->conditionData()); });
    }
    return {};
}

bool TaskManagerPrivate::isAtLimit(const ApplicationTaskId &taskId) const
{
    const int limit = config.maxTasksPerApp();
    if (limit < 0) {
        return false;
    }
    const QString prefix = taskId.toString() + QStringLiteral(".task_");
    int count = 0;
    for (auto it = records.lowerBound(prefix); it != records.cend() && it.key().startsWith(prefix); ++it) {
        ++count;
    }
    return count >= limit;
}

Error TaskManagerPrivate::makeRecord(const TaskRequest &request, const ApplicationInfo::TaskInfo &taskInfo,
                                     QSharedPointer<TaskRecord> &record)
{
    const TaskRules rules = TaskRules::forType(taskInfo.type, workerMaxTime);
    const qint32 runningTime = request.hints.value(TaskHints::runningTime, -1).toInt();
    if (rules.greatestLimit > 0 && runningTime > rules.greatestLimit) {
        return Error(Error::InvalidArgs, QStringLiteral("RunningTime cannot be more than 60 seconds"));
    }

    record = QSharedPointer<TaskRecord>::create();
    record->startupInfo = startupInfoFor(request, taskInfo);
    record->context = request.context;
    record->isWorker = rules.isWorker;
    record->holdsKeepalive = rules.holdsKeepalive;
    record->runningLimit.setSingleShot(true);
    record->runningLimit.setTimerType(Qt::VeryCoarseTimer);
    record->runningLimit.setInterval(toMilliseconds(runningTime >= 1 ? runningTime : rules.defaultLimit));
    QObject::connect(&record->runningLimit, &QTimer::timeout, q,
                     [this, fullTaskId = request.id.text()] { runningTimeExhausted(fullTaskId); });

    record->watcher.setConditionData(request.conditionData);
    const Error error = ConditionBuilder::build(&record->watcher, taskInfo, request.hints);
    if (error) {
        // A timed event may be on its way, and would set off an earlier request for the same task.
        record->watcher.taskRemoved();
    }
    return error;
}

/// A start that fails is not reported to anybody: the controller has logged it, and the task waits until its
/// conditions come to hold again.
void TaskManagerPrivate::startWhenSatisfied(const ApplicationTaskId &taskId, TaskRecord &record)
{
    if (record.watcher.allSatisfied()) {
        startNow(taskId);
    }
    QObject::connect(&record.watcher, &ConditionWatcher::allSatisfiedChanged, q,
                     [this, taskId](bool allSatisfied) {
                         if (allSatisfied) {
                             startNow(taskId);
                         }
                     });
}

/// A task that comes back from the settings does not get here, since what is stored does not ask for it: its
/// entry stays as it was.
void TaskManagerPrivate::saveAutostart(const TaskRequest &request, const QVariantMap &conditionData)
{
    QVariantMap hints = request.hints;
    hints.remove(TaskHints::autostart);
    settings.setAutostartEntry(request.id.text(),
                               { request.params, request.environment, hints, conditionData });
}

Error TaskManagerPrivate::startNow(const ApplicationTaskId &taskId)
{
    const QSharedPointer<TaskRecord> record = records.value(taskId.text());
    const Error error = processes.start(taskId, record->startupInfo, record->context);
    if (error) {
        return error;
    }
    if (record->holdsKeepalive) {
        record->keepalive.on();
    }
    if (!record->isWorker) {
        record->watcher.taskWasTriggered();
    }
    record->runningLimit.start();
    return {};
}

void TaskManagerPrivate::removeTask(const ApplicationTaskId &taskId)
{
    const QString key = taskId.text();
    const QSharedPointer<TaskRecord> record = records.value(key);
    if (!record) {
        qWarning() << "Task already removed:" << key;
        return;
    }
    record->watcher.taskRemoved();
    records.remove(key);
    settings.removeAutostartEntry(key);
}

// What happens to a task

void TaskManagerPrivate::runningTimeExhausted(const QString &fullTaskId)
{
    qDebug() << "Running time exhausted for task" << fullTaskId;
    Chronicle::instance()->decide(fullTaskId, Decision::TimeLimit);
    const Error error = processes.terminate(ApplicationTaskId(fullTaskId), StopReason::None);
    if (error) {
        qWarning() << "Error stopping task:" << error;
    }
}

void TaskManagerPrivate::onTaskTerminated(const QString &fullTaskId)
{
    const QSharedPointer<TaskRecord> record = records.value(fullTaskId);
    if (!record) {
        qWarning() << "Termination of unknown task" << fullTaskId;
        return;
    }
    if (record->holdsKeepalive) {
        record->keepalive.off();
    }
    if (record->isWorker) {
        records.remove(fullTaskId);
    }
}

/// A worker that reports its progress through a notification is not cut off as long as it gets on.
void TaskManagerPrivate::onProgressUpdated(const ClientInfo &clientInfo, float progress)
{
    const ApplicationTaskId taskId(clientInfo.appId);
    const QSharedPointer<TaskRecord> record =
        taskId.isValid() ? records.value(taskId.text()) : QSharedPointer<TaskRecord>();
    if (record && record->isWorker && progress > record->lastProgress && progress < 1.0F) {
        record->runningLimit.start();
        record->lastProgress = progress;
    }
}

TaskManager *TaskManager::instance()
{
    static auto *manager = new TaskManager;
    return manager;
}

TaskManager::TaskManager(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<TaskManagerPrivate>(this, TaskProcesses::ofTheRuntimeController()))
{
    connect(RuntimeController::instance(), &RuntimeController::taskTerminated, this,
            [this](const QString &fullTaskId) { d->onTaskTerminated(fullTaskId); });
}

TaskManager::~TaskManager() = default;

void TaskManager::initialize()
{
    d->processes.whenInitialized([manager = QPointer<TaskManager>(this)] {
        if (manager) {
            manager->d->startAutostartTasks();
        }
    });
}

Error TaskManager::start(const ApplicationTaskId &taskId, const QStringList &params,
                         const QStringList &environment, const QVariantMap &hints,
                         const ClientInfo &clientInfo)
{
    return d->start({ taskId, params, environment, hints, {}, {} }, clientInfo);
}

Error TaskManager::stop(const ApplicationTaskId &taskId, bool mustDisable, const ClientInfo &clientInfo)
{
    return d->stop(taskId, mustDisable, clientInfo);
}

} // namespace Core
