#include "DBus/control.h"

#include "Core/chronicle.h"
#include "Core/runtime_controller.h"
#include "DBus/keys.h"

#include "Core/application_registry.h"
#include "Core/client_info.h"
#include "Core/process_id.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDebug>

using Core::ApplicationId;
using Core::ApplicationInstanceId;
using Core::ApplicationRecord;
using Core::ApplicationState;
using Core::InvocationContext;
using Core::RuntimeController;
using Core::StopReason;

namespace DBus {

namespace {

QStringList toTexts(const QList<QUrl> &uris)
{
    QStringList texts;
    texts.reserve(uris.size());
    for (const QUrl &uri : uris) {
        texts.append(uri.toString());
    }
    return texts;
}

/// "Pid", "StartReason" and "RequestorId": what the reply to a start and the signal of it both tell.
QVariantMap startDetails(const ApplicationRecord &record)
{
    return {
        { Keys::pid, int(record.pid) },
        { Keys::startReason, Core::wireStartReason(record.context.reason) },
        { Keys::requestorId, record.context.requestor.toString() },
    };
}

} // namespace

class ControlPrivate
{
public:
    explicit ControlPrivate(Control *owner);

    void onStarted(const ApplicationRecord &record);
    void onTerminated(const QString &id, pid_t pid, int exitStatus, StopReason reason);
    void onStateChanged(const QString &id, ApplicationState state);

    Control *const q;
};

ControlPrivate::ControlPrivate(Control *owner)
    : q(owner)
{
    Procwarden::registerTypes();

    auto *controller = RuntimeController::instance();
    QObject::connect(controller, &RuntimeController::applicationStarted, q,
                     [this](const ApplicationRecord &record) { onStarted(record); });
    QObject::connect(controller, &RuntimeController::applicationTerminated, q,
                     [this](const QString &id, pid_t pid, int exitStatus, StopReason reason) {
                         onTerminated(id, pid, exitStatus, reason);
                     });
    QObject::connect(controller, &RuntimeController::processSelectedByOom, q, &Control::SelectedByOom);
    QObject::connect(controller, &RuntimeController::applicationStateChanged, q,
                     [this](const QString &id, ApplicationState state) { onStateChanged(id, state); });
}

void ControlPrivate::onStarted(const ApplicationRecord &record)
{
    QVariantMap details = startDetails(record);
    details.insert(Keys::uris, toTexts(record.uris));
    emit q->Started(record.id, details);
}

void ControlPrivate::onTerminated(const QString &id, pid_t pid, int exitStatus, StopReason reason)
{
    emit q->Terminated(id,
                       {
                           { Keys::pid, int(pid) },
                           { Keys::exitStatus, exitStatus },
                           { Keys::stopReason, uint(reason) },
                       });
}

void ControlPrivate::onStateChanged(const QString &id, ApplicationState state)
{
    emit q->StateChanged(id, { { Keys::state, uint(state) } });
}

Control::Control(QObject *parent)
    : Context(parent)
    , d(std::make_unique<ControlPrivate>(this))
{
}

Control::~Control() = default;

void Control::Reload()
{
    qDebug() << Q_FUNC_INFO;
    Core::ApplicationRegistry::instance()->reload();
}

void Control::Start(const QString &appId)
{
    qDebug() << Q_FUNC_INFO << appId;
    StartDebug(appId, QVariantMap());
}

void Control::StartDebug(const QString &appId, const QVariantMap &debugParams)
{
    qDebug() << Q_FUNC_INFO << appId;
    const Core::ClientInfo client = clientInfo();

    setDelayedReply(true);
    InvocationContext context;
    context.reason = InvocationContext::DirectStart;
    context.requestor = Core::ProcessId(client.appId);
    const auto reply = [connection = connection(), message = message()](
                           const ApplicationInstanceId &instanceId, const Core::Error &error) {
        if (error) {
            sendError(connection, message, error);
            return;
        }
        const auto record =
            RuntimeController::instance()->applicationRecord(ApplicationId(instanceId.text()));
        connection.send(message.createReply({ instanceId.text(), startDetails(record) }));
    };
    RuntimeController::instance()->startApplication(
        ApplicationId(appId), Core::DebugParams::fromMap(debugParams), QVariantMap(), {}, context, reply);
}

void Control::Terminate(const QString &appInstanceId)
{
    qDebug() << Q_FUNC_INFO << appInstanceId;
    const auto error = RuntimeController::instance()->terminateApplication(
        ApplicationInstanceId(appInstanceId), StopReason::Requested);
    if (error) {
        sendError(error);
        return;
    }
    Core::Chronicle::instance()->requestedBy(appInstanceId, caller().requestor);
}

void Control::GetRunningApplications(QVector<Procwarden::RunningApplication> &apps,
                                     QVector<Procwarden::RunningService> &services)
{
    qDebug() << Q_FUNC_INFO;
    const QVector<ApplicationRecord> records = RuntimeController::instance()->runningApplications();
    const QVariantMap noUris = { { Keys::uris, QStringList() } }; // shared by all that were started without
    apps.reserve(records.size());
    for (const ApplicationRecord &record : records) {
        Procwarden::RunningApplication app;
        app.id = record.id;
        app.pid = record.pid;
        app.startReason = Core::wireStartReason(record.context.reason);
        app.state = quint32(record.state);
        app.details = record.uris.isEmpty() ? noUris : QVariantMap { { Keys::uris, toTexts(record.uris) } };
        apps.append(app);
    }

    const QVector<Core::RunningTask> tasks = RuntimeController::instance()->runningTasks();
    services.reserve(tasks.size());
    for (const Core::RunningTask &task : tasks) {
        Procwarden::RunningService service;
        service.appId = task.id.toString();
        service.taskName = task.id.taskName();
        service.pid = task.pid;
        service.startReason = Core::wireStartReason(task.context.reason);
        services.append(service);
    }
}

} // namespace DBus
