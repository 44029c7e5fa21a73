#include "DBus/introspect.h"

#include "Core/chronicle.h"
#include "Core/dbus_name_watcher.h"
#include "Core/group_report.h"
#include "Core/launch_plan.h"
#include "Core/memory_monitor.h"
#include "Core/oom_controller.h"
#include "Core/runtime_controller.h"

#include "Core/application_registry.h"
#include "Core/application_task_id.h"
#include "Core/client_info.h"
#include "Core/process_id.h"

#include <QDBusArgument>
#include <QDBusMetaType>

#include <algorithm>

using Core::ApplicationId;
using Core::Chronicle;
using Core::RuntimeController;

namespace DBus {

namespace {

const QString kindApplication = QStringLiteral("application");
const QString kindTask = QStringLiteral("task");
constexpr int endsInStatus = 5;

QString applicationOf(const QString &id)
{
    return Core::ProcessId(id).toString();
}

/// Whether @p client may know of @p id.
bool mayAsk(const Core::ClientInfo &client, const QString &id)
{
    return client.privileged || (!id.isEmpty() && applicationOf(client.appId) == applicationOf(id));
}

Core::Error refused(const QString &id)
{
    return Core::Error(Core::Error::AccessDenied, QStringLiteral("Not allowed to ask about %1").arg(id));
}

template<typename Value>
void insertKnown(QVariantMap &map, const char *key, const std::optional<Value> &value)
{
    if (value) {
        map.insert(QLatin1String(key), QVariant::fromValue(*value));
    }
}

void insertTime(QVariantMap &map, const char *key, const QDateTime &time)
{
    if (time.isValid()) {
        map.insert(QLatin1String(key), time.toMSecsSinceEpoch());
    }
}

QVariantMap toMap(const Core::LaunchAccount &launch)
{
    QVariantMap map;
    insertTime(map, "Asked", launch.asked);
    for (auto step = launch.stepsMs.cbegin(); step != launch.stepsMs.cend(); ++step) {
        map.insert(Core::launchStepName(step.key()), step.value());
    }
    if (!launch.failedAt.isEmpty()) {
        map.insert(QStringLiteral("FailedAt"), launch.failedAt);
        map.insert(QStringLiteral("Error"), launch.error);
    }
    return map;
}

void insertLaunch(QVariantMap &map, const Core::LaunchAccount &launch)
{
    if (launch.asked.isValid()) {
        map.insert(QStringLiteral("Launch"), toMap(launch));
    }
}

/// What holds for everything that runs.
QVariantMap describe(const QString &id, const QString &kind, pid_t pid, Core::ApplicationState state,
                     const Core::InvocationContext &context)
{
    QVariantMap map {
        { QStringLiteral("Id"), id },
        { QStringLiteral("Kind"), kind },
        { QStringLiteral("Pid"), int(pid) },
        { QStringLiteral("State"), uint(state) },
        { QStringLiteral("StartReason"), Core::wireStartReason(context.reason) },
        { QStringLiteral("RequestorId"), context.requestor.text() },
    };
    insertTime(map, "Since", Chronicle::instance()->runsSince(id));
    insertLaunch(map, Chronicle::instance()->launchOf(id));

    const Core::GroupReport groups = Core::GroupReport::read(pid);
    map.insert(QStringLiteral("Groups"), QVariant::fromValue(groups.directories));
    insertKnown(map, "Frozen", groups.frozen);
    if (groups.processes) {
        map.insert(QStringLiteral("Processes"), uint(*groups.processes));
    }
    insertKnown(map, "MemoryKb", groups.memoryKb);
    insertKnown(map, "CpuMs", groups.cpuMs);
    return map;
}

/// All that runs and that @p wanted is true for, in the order of the ids.
QList<QVariantMap> describeRunning(const std::function<bool(const QString &)> &wanted)
{
    const RuntimeController *controller = RuntimeController::instance();
    QMap<QString, QVariantMap> found;
    const auto applications = controller->runningApplications();
    for (const Core::ApplicationRecord &record : applications) {
        if (!wanted(record.id)) {
            continue;
        }
        QVariantMap map = describe(record.id, kindApplication, record.pid, record.state, record.context);
        map.insert(QStringLiteral("ActiveWindows"), record.activeWindowCount);
        map.insert(QStringLiteral("InactiveWindows"), record.inactiveWindowCount);
        map.insert(QStringLiteral("HiddenWindows"), record.hiddenWindowCount);
        map.insert(QStringLiteral("Uris"), QUrl::toStringList(record.uris));
        found.insert(record.id, map);
    }
    const auto tasks = controller->runningTasks();
    for (const Core::RunningTask &task : tasks) {
        if (wanted(task.id.text())) {
            found.insert(task.id.text(),
                         describe(task.id.text(), kindTask, task.pid, task.state, task.context));
        }
    }
    if (found.isEmpty()) {
        return {};
    }
    const auto victims = controller->oomVictims();
    for (int i = 0; i < victims.size(); ++i) {
        const auto entry = found.find(victims.at(i).id);
        if (entry != found.end()) {
            entry->insert(QStringLiteral("OomRank"), uint(i + 1));
        }
    }
    return found.values();
}

/// Who it was is for those who may ask about everybody; an application hears of others only which one it was.
void insertRequestor(QVariantMap &map, const Core::Requestor &requestor, bool mayKnowAll)
{
    if (!requestor.id.isEmpty()) {
        map.insert(QStringLiteral("RequestorId"), requestor.id);
    }
    if (!mayKnowAll) {
        return;
    }
    if (!requestor.bus.isEmpty()) {
        map.insert(QStringLiteral("RequestorBus"), requestor.bus);
    }
    insertKnown(map, "RequestorUid", requestor.uid);
    if (requestor.pid > 0) {
        map.insert(QStringLiteral("RequestorPid"), int(requestor.pid));
    }
    if (!requestor.program.isEmpty()) {
        map.insert(QStringLiteral("RequestorProgram"), requestor.program);
    }
}

QVariantMap toMap(const Core::Ending &ending, const Core::ClientInfo &client)
{
    QVariantMap map {
        { QStringLiteral("Id"), ending.id },
        { QStringLiteral("Kind"), ending.isTask ? kindTask : kindApplication },
        { QStringLiteral("ExitStatus"), ending.exitStatus },
        { QStringLiteral("StopReason"), uint(ending.stopReason) },
        { QStringLiteral("Decision"), Core::decisionName(ending.decision) },
        { QStringLiteral("Detail"), ending.detail },
    };
    if (ending.pid > 0) {
        map.insert(QStringLiteral("Pid"), int(ending.pid));
    }
    insertTime(map, "Started", ending.started);
    insertTime(map, "Ended", ending.ended);
    if (ending.requestor) {
        insertRequestor(map, *ending.requestor, client.privileged);
    }
    insertLaunch(map, ending.launch);
    return map;
}

QList<QVariantMap> toMaps(const QList<Core::Ending> &endings, const Core::ClientInfo &client)
{
    QList<QVariantMap> maps;
    for (const Core::Ending &ending : endings) {
        maps.append(toMap(ending, client));
    }
    return maps;
}

} // namespace

Introspect::Introspect(QObject *parent)
    : Context(parent)
{
    qDBusRegisterMetaType<QList<QVariantMap>>();
    qDBusRegisterMetaType<QMap<QString, QString>>();
    qDBusRegisterMetaType<QMap<QString, QList<uint>>>();
    qDBusRegisterMetaType<QList<uint>>();
    qDBusRegisterMetaType<Core::LaunchCheck>();
    qDBusRegisterMetaType<QList<Core::LaunchCheck>>();
    Chronicle::instance()->follow(RuntimeController::instance(), Core::DBusNameWatcher::instance());
}

QList<QVariantMap> Introspect::ListRunning()
{
    const Core::ClientInfo client = clientInfo();
    return describeRunning([&client](const QString &id) { return mayAsk(client, id); });
}

QVariantMap Introspect::GetStatus(const QString &id)
{
    const Core::ClientInfo client = clientInfo();
    if (!mayAsk(client, id)) {
        sendError(refused(id));
        return {};
    }
    const RuntimeController *controller = RuntimeController::instance();
    const ApplicationId application(applicationOf(id));
    const auto isMeant = [&id](const QString &runningId) {
        return runningId == id || applicationOf(runningId) == id;
    };
    QVariantMap status {
        { QStringLiteral("Installed"),
          !Core::ApplicationRegistry::instance()->desktopFile(application).isEmpty() },
        { QStringLiteral("Running"), QVariant::fromValue(describeRunning(isMeant)) },
        { QStringLiteral("Launching"), controller->isLaunching(application) },
        { QStringLiteral("Blocked"), controller->isBlocked(application) },
    };
    const bool isTask = Core::ApplicationTaskId(id).isValid();
    insertLaunch(status, Chronicle::instance()->lastLaunch(isTask ? id : application.text()));
    const QList<QVariantMap> ends = toMaps(Chronicle::instance()->endings(id, endsInStatus), client);
    status.insert(QStringLiteral("History"), QVariant::fromValue(ends));
    if (!ends.isEmpty()) {
        status.insert(QStringLiteral("LastEnd"), ends.first());
    }
    return status;
}

QList<QVariantMap> Introspect::GetHistory(const QString &id, uint limit)
{
    const Core::ClientInfo client = clientInfo();
    // Without an id, an application asks about itself.
    const QString asked = id.isEmpty() && !client.privileged ? applicationOf(client.appId) : id;
    if (!client.privileged && !mayAsk(client, asked)) {
        sendError(refused(id));
        return {};
    }
    constexpr uint most = Chronicle::maximumEndings;
    return toMaps(Chronicle::instance()->endings(asked, static_cast<int>(std::min(limit, most))), client);
}

QVariantMap Introspect::GetMemory()
{
    if (!clientInfo().privileged) {
        sendError(refused(QStringLiteral("the memory")));
        return {};
    }
    const RuntimeController *controller = RuntimeController::instance();
    const Core::MemoryMonitor *monitor = Core::MemoryMonitor::instance();
    (void)controller->oomController().readMemoryLevel();
    const Core::MemoryReading &reading = controller->oomController().lastReading();
    QList<QVariantMap> candidates;
    const auto victims = controller->oomVictims();
    for (const Core::OomVictim &victim : victims) {
        candidates.append({ { QStringLiteral("Id"), victim.id },
                            { QStringLiteral("Pid"), int(victim.pid) },
                            { QStringLiteral("Rule"), victim.rule } });
    }
    return {
        { QStringLiteral("Level"), Core::wireMemoryLevel(reading.level) },
        { QStringLiteral("TotalKb"), quint64(reading.totalKb) },
        { QStringLiteral("AvailableKb"), quint64(reading.availableKb) },
        { QStringLiteral("SwapTotalKb"), quint64(reading.swapTotalKb) },
        { QStringLiteral("SwapFreeKb"), quint64(reading.swapFreeKb) },
        { QStringLiteral("Percent"), double(reading.percent) },
        { QStringLiteral("IntervalMs"), uint(monitor->isActive() ? monitor->intervalMs() : 0) },
        { QStringLiteral("Candidates"), QVariant::fromValue(candidates) },
    };
}

QVariantMap Introspect::Explain(const QString &id)
{
    if (!mayAsk(clientInfo(), id)) {
        sendError(refused(id));
        return {};
    }
    // The checks quote it, and a reply must not be longer than the bus lets the question be.
    if (id.size() > Chronicle::maximumIdLength) {
        sendError({ Core::Error::InvalidArgs, QStringLiteral("Not an application ID") });
        return {};
    }
    const Core::LaunchPlan plan = Core::LaunchPlan::make(ApplicationId(id));
    return {
        { QStringLiteral("Program"), plan.program },
        { QStringLiteral("Arguments"), plan.arguments },
        { QStringLiteral("Environment"), plan.environment },
        { QStringLiteral("Counts"), QVariant::fromValue(plan.counts) },
        { QStringLiteral("Checks"), QVariant::fromValue(plan.checks) },
    };
}

} // namespace DBus
