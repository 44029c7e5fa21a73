#include "Core/launch_plan.h"

#include "Core/application_command.h"
#include "Core/application_instance_id.h"
#include "Core/application_launch_data.h"
#include "Core/application_registry.h"
#include "Core/command_line.h"
#include "Core/debug_params.h"
#include "Core/firejail.h"
#include "Core/launching_application.h"
#include "Core/runtime_controller.h"
#include "Core/service_file.h"

#include <QDBusArgument>
#include <QFileInfo>
#include <QStandardPaths>

#include <mdesktopentry.h>

namespace Core {

namespace {

constexpr qint64 noInstance = 0;
constexpr qint64 longestPid = 4194304; // no kernel counts further

QStringList toTexts(const QByteArrayList &bytes)
{
    QStringList texts;
    for (const QByteArray &entry : bytes) {
        texts.append(QString::fromUtf8(entry));
    }
    return texts;
}

uint bytesOf(const QByteArrayList &list)
{
    uint bytes = 0;
    for (const QByteArray &entry : list) {
        bytes += static_cast<uint>(entry.size()) + 1;
    }
    return bytes;
}

QStringList declaredPermissions(const QString &desktopFile)
{
    const MDesktopEntry entry(desktopFile);
    for (const char *group : { "X-Application", "X-Sailjail", "Sailjail" }) {
        const QString text = entry.value(QLatin1String(group), QStringLiteral("Permissions"));
        if (!text.isEmpty()) {
            return text.split(QLatin1Char(';'), Qt::SkipEmptyParts);
        }
    }
    return {};
}

QString permissionsText(const QStringList &permissions)
{
    QStringList known;
    QStringList unknown;
    for (const QString &permission : permissions) {
        (Firejail::isPermission(permission) ? known : unknown).append(permission);
    }
    const QString comma = QStringLiteral(", ");
    QString text =
        QStringLiteral("permissions: ") + (known.isEmpty() ? QStringLiteral("none") : known.join(comma));
    if (!unknown.isEmpty()) {
        text += QStringLiteral("; not installed, so left out: ") + unknown.join(comma);
    }
    return text;
}

/// Collects the plan; each step says whether the next one makes sense.
class Planner
{
public:
    explicit Planner(const ApplicationId &appId)
        : m_appId(appId)
    {
    }

    LaunchPlan take()
    {
        if (checkInstalled()) {
            checkStart();
            if (composeArguments()) {
                checkCount("Arguments", m_arguments, ProcessSpawner::maximumArguments);
            }
            checkCount("Environment", m_environment, ProcessSpawner::maximumEnvironment);
        }
        m_plan.arguments = toTexts(m_arguments);
        return m_plan;
    }

private:
    bool check(const char *name, bool passed, const QString &text)
    {
        m_plan.checks.append({ QString::fromLatin1(name), passed, text });
        return passed;
    }

    bool checkInstalled();
    void composeEnvironment();
    void checkStart();
    bool composeArguments();
    bool composeServiceArguments();
    void checkCount(const char *name, const QByteArrayList &list, size_t limit);

    const ApplicationId m_appId;
    QString m_desktopFile;
    ApplicationLaunchData m_launchData;
    QByteArrayList m_arguments;
    QByteArrayList m_environment;
    LaunchPlan m_plan;
};

bool Planner::checkInstalled()
{
    const ApplicationRegistry *registry = ApplicationRegistry::instance();
    m_desktopFile = registry->desktopFile(m_appId);
    if (!check("Installed", !m_desktopFile.isEmpty(),
               m_desktopFile.isEmpty() ? QStringLiteral("Cannot find application %1").arg(m_appId.toString())
                                       : m_desktopFile)) {
        return false;
    }
    m_launchData = registry->launchData(m_appId);
    composeEnvironment();
    return true;
}

/// The pid, of which the instance id is made where several may run, is not known: counted is the longest one.
void Planner::composeEnvironment()
{
    const auto environmentOf = [this](const ApplicationInstanceId &instance) {
        return LaunchingApplication::environmentFor(
            m_appId, instance, QFileInfo(m_desktopFile).completeBaseName(), DebugParams());
    };
    if (m_launchData.singleInstance) {
        m_environment = environmentOf(ApplicationInstanceId(m_appId, noInstance));
        m_plan.environment = toTexts(m_environment);
        return;
    }
    m_environment = environmentOf(ApplicationInstanceId(m_appId, longestPid));
    m_plan.environment =
        toTexts(environmentOf(ApplicationInstanceId(m_appId.text() + QStringLiteral(".instance_PID"))));
}

void Planner::checkStart()
{
    const RuntimeController *controller = RuntimeController::instance();
    const bool runs = controller->state(m_appId.text()) != ApplicationState::NotRunning;
    const bool launches = controller->isLaunching(m_appId);
    const bool free = !m_launchData.singleInstance || (!runs && !launches);
    check("Instances", free,
          !m_launchData.singleInstance ? QStringLiteral("several may run")
              : runs                   ? QStringLiteral("it runs, and only one instance may")
              : launches               ? QStringLiteral("it is being launched, and only one instance may")
                                       : QStringLiteral("none runs"));
    const bool blocked = controller->isBlocked(m_appId);
    check("Block", !blocked, blocked ? QStringLiteral("launches are prevented") : QStringLiteral("none"));
}

bool Planner::composeArguments()
{
    if (!m_launchData.maemoService.isEmpty() && m_launchData.execDBus.isEmpty()) {
        return composeServiceArguments();
    }
    const ApplicationCommand command =
        ApplicationCommand::make(m_launchData, DebugParams(), QVariantMap(), {});
    m_plan.program = QString::fromUtf8(command.program);
    m_arguments = command.argv;
    if (!command.sandboxed) {
        const QFileInfo program(m_plan.program);
        return check("Program", program.isFile() && program.isExecutable(),
                     m_plan.program + QStringLiteral(", outside the sandbox"));
    }
    Firejail firejail;
    fillFirejail(firejail, m_appId, m_launchData, DebugParams(), m_desktopFile, command.program);
    const QStringList permissions =
        declaredPermissions(m_desktopFile) + QStringList { QStringLiteral("Base") };
    const auto [vector, error] = firejail.computeArgv(m_arguments, permissions);
    if (error) {
        return check("Sandbox", false, error.message());
    }
    m_arguments = vector;
    return check("Sandbox", true, permissionsText(permissions));
}

/// What the bus would start for the legacy service is run as it stands.
bool Planner::composeServiceArguments()
{
    const QString path =
        QStandardPaths::locate(QStandardPaths::GenericDataLocation,
                               QStringLiteral("dbus-1/services/%1.service").arg(m_launchData.maemoService));
    const QString line = path.isEmpty() ? QString() : readExecLine(path);
    if (line.isEmpty()) {
        return check("Service", false,
                     path.isEmpty() ? QStringLiteral("no D-Bus service file for ") + m_launchData.maemoService
                                    : QStringLiteral("no Exec line in ") + path);
    }
    m_arguments = splitCommandLine(line);
    m_plan.program = QString::fromUtf8(m_arguments.first());
    return check("Service", true, path);
}

void Planner::checkCount(const char *name, const QByteArrayList &list, size_t limit)
{
    const QString title = QString::fromLatin1(name);
    const auto count = static_cast<uint>(list.size());
    const uint bytes = bytesOf(list);
    constexpr auto byteLimit = static_cast<uint>(ProcessSpawner::maximumListBytes);
    m_plan.counts.insert(title, { count, static_cast<uint>(limit) });
    m_plan.counts.insert(title + QStringLiteral("Bytes"), { bytes, byteLimit });
    check(name, count <= limit && bytes <= byteLimit,
          QStringLiteral("%1 of %2, %3 of %4 bytes").arg(count).arg(limit).arg(bytes).arg(byteLimit));
}

} // namespace

LaunchPlan LaunchPlan::make(const ApplicationId &appId)
{
    // Organisation and name as the application declares them.
    const ApplicationRegistry *registry = ApplicationRegistry::instance();
    const ApplicationId installed = registry->applicationForDesktopFile(registry->desktopFile(appId));
    return Planner(installed.isEmpty() ? appId : installed).take();
}

QDBusArgument &operator<<(QDBusArgument &argument, const LaunchCheck &check)
{
    argument.beginStructure();
    argument << check.name << check.passed << check.text;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, LaunchCheck &check)
{
    argument.beginStructure();
    argument >> check.name >> check.passed >> check.text;
    argument.endStructure();
    return argument;
}

} // namespace Core
