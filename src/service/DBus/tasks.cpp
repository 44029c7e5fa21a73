#include "DBus/tasks.h"

#include "Core/chronicle.h"
#include "Core/client_info.h"
#include "Core/error.h"
#include "Core/process_id.h"
#include "Core/runtime_controller.h"
#include "Core/task_hints.h"
#include "Core/task_manager.h"
#include "DBus/client_registry.h"
#include "DBus/keys.h"
#include "DBus/types.h"

#include "Core/application_registry.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDebug>
#include <QSet>

using Core::ApplicationState;
using Core::ApplicationTaskId;
using Core::RuntimeController;

namespace DBus {

namespace {

/// Ids of the tasks that run and are not being stopped.
QSet<QString> activeTasks()
{
    QSet<QString> active;
    const QVector<Core::RunningTask> running = RuntimeController::instance()->runningTasks();
    for (const Core::RunningTask &task : running) {
        if (task.state != ApplicationState::Terminating) {
            active.insert(task.id.text());
        }
    }
    return active;
}

/// Every task that the application declares, an array of Procwarden::TaskState.
QVariant taskStateList(const Core::Identifier &appId)
{
    const QSet<QString> active = activeTasks();
    QVector<Procwarden::TaskState> states;
    const QList<Core::ApplicationInfo::TaskInfo> tasks = Core::ApplicationRegistry::instance()->tasks(appId);
    for (const Core::ApplicationInfo::TaskInfo &task : tasks) {
        states.append({ task.id.taskName(), active.contains(task.id.text()) ? 1U : 0U, {} });
    }
    QDBusArgument argument;
    argument << states;
    return QVariant::fromValue(argument);
}

void tellState(const QString &fullTaskId)
{
    const ApplicationTaskId taskId(fullTaskId);
    const QString busName = ClientRegistry::instance()->busName(taskId.toString());
    if (busName.isEmpty()) {
        return;
    }
    auto signal = QDBusMessage::createTargetedSignal(
        busName, QStringLiteral("/org/kestrix/Procwarden/Tasks1"),
        QStringLiteral("org.kestrix.Procwarden.Tasks1"), QStringLiteral("StateChanged"));
    signal << taskStateList(taskId);
    QDBusConnection::sessionBus().send(signal);
}

/// The others are for task invokers.
bool isForApplications(const QString &hint)
{
    namespace Hints = Core::TaskHints;
    static const QSet<QString> names {
        Hints::startDelay, Hints::interval, Hints::runningTime, Hints::priority,
        Hints::startTime,  Hints::schedule, Hints::autostart,   Hints::createIpcSocket,
    };
    return names.contains(hint);
}

bool validateHints(const QVariantMap &hints)
{
    for (auto hint = hints.cbegin(); hint != hints.cend(); ++hint) {
        if (!isForApplications(hint.key())) {
            qWarning() << "Client passed invalid key:" << hint.key();
            return false;
        }
        if (hint.key() == Core::TaskHints::autostart && hint->userType() != QMetaType::Bool) {
            qWarning() << "Autostart needs to be a boolean";
            return false;
        }
    }
    return true;
}

} // namespace

Tasks::Tasks(QObject *parent)
    : Context(parent)
{
    Procwarden::registerTypes();

    auto *controller = RuntimeController::instance();
    connect(controller, &RuntimeController::taskStarted, this, &tellState);
    connect(controller, &RuntimeController::taskTerminated, this, &tellState);
    Core::TaskManager::instance()->initialize();
}

Tasks::~Tasks() = default;

QVariantMap Tasks::GetAll()
{
    const Core::ClientInfo client = clientInfo();
    ClientRegistry::instance()->addClient(client.appId, message().service());
    return { { Keys::state, taskStateList(Core::ProcessId(client.appId)) } };
}

void Tasks::Start(const QString &fullTaskId, const QStringList &params, const QJsonObject &hints)
{
    qDebug() << Q_FUNC_INFO << fullTaskId;
    const Core::ClientInfo client = clientInfo();
    ClientRegistry::instance()->addClient(client.appId, message().service());

    const QVariantMap hintMap = hints.toVariantMap();
    if (!validateHints(hintMap)) {
        sendErrorReply(QDBusError::InvalidArgs, QStringLiteral("Invalid start hints"));
        return;
    }
    const auto error =
        Core::TaskManager::instance()->start(ApplicationTaskId(fullTaskId), params, {}, hintMap, client);
    if (error) {
        sendError(error);
    }
}

void Tasks::Stop(const QString &fullTaskId, bool mustDisable)
{
    qDebug() << Q_FUNC_INFO << fullTaskId << mustDisable;
    const Caller who = caller();
    const auto error =
        Core::TaskManager::instance()->stop(ApplicationTaskId(fullTaskId), mustDisable, who.info);
    if (error) {
        sendError(error);
        return;
    }
    Core::Chronicle::instance()->requestedBy(fullTaskId, who.requestor);
}

} // namespace DBus
