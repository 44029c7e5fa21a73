#include "DBus/task_invoker_session.h"

#include "Core/chronicle.h"
#include "Core/client_info.h"
#include "Core/error.h"
#include "Core/runtime_controller.h"
#include "Core/task_hints.h"
#include "Core/task_manager.h"
#include "DBus/keys.h"

#include "Core/application_registry.h"

#include <QDBusArgument>
#include <QDebug>

using Core::ApplicationRegistry;
using Core::ApplicationTaskId;
using Core::RuntimeController;

namespace DBus {

namespace {

using TaskInfo = Core::ApplicationInfo::TaskInfo;

/// What the bus delivers in a form that only it can read is made what the task manager takes, or left out.
QVariantMap cleanHints(const QVariantMap &hints)
{
    QVariantMap cleaned;
    for (auto hint = hints.cbegin(); hint != hints.cend(); ++hint) {
        if (hint->userType() != qMetaTypeId<QDBusArgument>()) {
            cleaned.insert(hint.key(), hint.value());
            continue;
        }
        const auto argument = hint->value<QDBusArgument>();
        // The bus library ends the program that reads a map of other types.
        if (hint.key() == Core::TaskHints::cgroups
            && argument.currentSignature() == QLatin1String("a{say}")) {
            cleaned.insert(hint.key(), QVariant::fromValue(qdbus_cast<Core::TaskCGroups>(argument)));
            continue;
        }
        qWarning() << "Unexpected complex D-Bus type for hint" << hint.key();
    }
    return cleaned;
}

} // namespace

class TaskInvokerSessionPrivate
{
public:
    TaskInvokerSessionPrivate(const QString &type, TaskInvokerSession *owner)
        : taskType(type)
        , q(owner)
    {
    }

    bool isOfType(const ApplicationTaskId &taskId) const
    {
        return ApplicationRegistry::instance()->taskInfo(taskId).type == taskType;
    }
    void onTaskChanged(const QString &fullTaskId);

    const QString taskType;
    TaskInvokerSession *const q;
};

void TaskInvokerSessionPrivate::onTaskChanged(const QString &fullTaskId)
{
    if (isOfType(ApplicationTaskId(fullTaskId))) {
        emit q->activeTasksChanged();
    }
}

TaskInvokerSession::TaskInvokerSession(const QString &taskType, QObject *parent)
    : Context(parent)
    , d(std::make_unique<TaskInvokerSessionPrivate>(taskType, this))
{
    auto *controller = RuntimeController::instance();
    const auto onTaskChanged = [this](const QString &fullTaskId) {
        d->onTaskChanged(fullTaskId);
    };
    connect(controller, &RuntimeController::taskStarted, this, onTaskChanged);
    connect(controller, &RuntimeController::taskTerminated, this, onTaskChanged);
    connect(ApplicationRegistry::instance(), &ApplicationRegistry::manifestsChanged, this,
            &TaskInvokerSession::availableTasksChanged);
}

TaskInvokerSession::~TaskInvokerSession() = default;

QString TaskInvokerSession::sessionPath() const
{
    return pathOf(d->taskType);
}

QString TaskInvokerSession::pathOf(const QString &taskType)
{
    return QStringLiteral("/org/kestrix/Procwarden/TaskInvokerSessions/") + taskType;
}

QVector<Procwarden::AvailableTask> TaskInvokerSession::availableTasks() const
{
    QVector<Procwarden::AvailableTask> available;
    const QList<TaskInfo> tasks = ApplicationRegistry::instance()->tasksOfType(d->taskType);
    for (const TaskInfo &task : tasks) {
        available.append({ task.id.text(),
                           {
                               { Keys::permissions, task.permissions },
                               { Keys::conditions, task.conditions },
                           } });
    }
    return available;
}

QVector<Procwarden::ActiveTask> TaskInvokerSession::activeTasks() const
{
    QVector<Procwarden::ActiveTask> active;
    const QVector<Core::RunningTask> running = RuntimeController::instance()->runningTasks();
    for (const Core::RunningTask &task : running) {
        if (d->isOfType(task.id)) {
            active.append({ task.id.text(), task.pid, {} });
        }
    }
    return active;
}

int TaskInvokerSession::Start(const QString &fullTaskId, const QVariantMap &startupInfo,
                              const QVariantMap &hints)
{
    qDebug() << Q_FUNC_INFO << fullTaskId;
    const ApplicationTaskId taskId(fullTaskId);
    const QStringList params = startupInfo.value(Keys::params).toStringList();
    const QStringList environment = startupInfo.value(Keys::environment).toStringList();
    const auto error =
        Core::TaskManager::instance()->start(taskId, params, environment, cleanHints(hints), clientInfo());
    if (error) {
        sendError(error);
        return 0;
    }
    return RuntimeController::instance()->taskRecord(taskId).pid;
}

void TaskInvokerSession::Stop(const QString &fullTaskId)
{
    qDebug() << Q_FUNC_INFO << fullTaskId;
    const Caller who = caller();
    const auto error = Core::TaskManager::instance()->stop(ApplicationTaskId(fullTaskId), true, who.info);
    if (error) {
        sendError(error);
        return;
    }
    Core::Chronicle::instance()->requestedBy(fullTaskId, who.requestor);
}

} // namespace DBus
