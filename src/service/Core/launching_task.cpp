// The steps of a launch, each of which ends it when it fails:
//
//   sandbox       who the task belongs to
//   socket        if the task wants one; before the fork, so that the child inherits it
//   command line  composed by the sandbox
//   fork          the child blocks on its pipe
//   setup         score, nice level, time limit, journal, control groups, environment
//   exec          the child is released
//
// A child that was made before the failure finds its pipe closed and leaves with status 1.

#include "Core/launching_task.h"

#include "Core/application_registry.h"
#include "Core/child_ipc.h"
#include "Core/chronicle.h"
#include "Core/firejail.h"
#include "Core/process_setup.h"
#include "Core/runtime_tracker.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Core {

namespace {

constexpr int socketBacklog = 8; // connections that wait until the task accepts

QByteArrayList toUtf8(const QStringList &texts)
{
    QByteArrayList bytes;
    bytes.reserve(texts.size());
    for (const QString &text : texts) {
        bytes << text.toUtf8();
    }
    return bytes;
}

// Runs in the child: nothing here may allocate.
void setupChild(ChildIPC &ipc)
{
    ProcessSetup::becomeRealUser(ipc);
    if (!ProcessSetup::receiveOomScore(ipc)) {
        ChildIPC::die("Could not set OOM score\n");
    }
    if (!ProcessSetup::receiveNiceLevel(ipc)) {
        ChildIPC::die("Could not set nice level\n");
    }
    if (!ProcessSetup::receiveMaxRunningTime(ipc)) {
        ChildIPC::die("Could not set max running time\n");
    }
    ProcessSetup::receiveJournalIdentifier(ipc);
}

} // namespace

std::tuple<Error, pid_t, int> LaunchingTask::launch(
    CGroupController *controller, const ApplicationTaskId &taskId, const QStringList &command,
    const QStringList &environment, const QStringList &permissions, const CGroupController::Settings &cgroups,
    int weight, int priority, int cpuLimit, bool createIpcSocket)
{
    constexpr int noSocket = -1; // who starts a task has no use for the service's end
    LaunchingTask launching(controller, taskId, command, environment, permissions, cgroups, weight, priority,
                            cpuLimit, createIpcSocket);
    const Error error = launching.start();
    if (!error) {
        return { error, launching.pid(), noSocket };
    }
    if (launching.pid() > 0) {
        // Nobody else waits for it, since it gets no record.
        RuntimeTracker::instance()->abandonProcess(launching.pid(), [] {});
    }
    return { error, -1, noSocket };
}

LaunchingTask::LaunchingTask(CGroupController *controller, const ApplicationTaskId &taskId,
                             const QStringList &command, const QStringList &environment,
                             const QStringList &permissions, const CGroupController::Settings &cgroups,
                             int weight, int priority, int cpuLimit, bool createIpcSocket)
    : m_taskId(taskId)
    , m_command(toUtf8(command))
    , m_environment(toUtf8(environment))
    , m_permissions(permissions)
    , m_cgroups(cgroups)
    , m_controller(controller)
    , m_createIpcSocket(createIpcSocket)
    , m_oomScore(weight)
    , m_niceLevel(priority)
    , m_runningTimeLimit(cpuLimit)
    , m_launch(Chronicle::instance()->launchUnderWay(taskId.text()))
{
}

LaunchingTask::~LaunchingTask()
{
    if (m_socket >= 0) {
        ::close(m_socket);
    }
}

Error LaunchingTask::start()
{
    const ApplicationRegistry *registry = ApplicationRegistry::instance();
    Firejail firejail;
    firejail.setOrganizationName(m_taskId.organisation());
    firejail.setApplicationName(m_taskId.name());
    firejail.setCertificateId(registry->certificateId(m_taskId));
    firejail.setDesktopFile(registry->desktopFile(m_taskId));

    if (m_createIpcSocket) {
        if (!createClientSocket()) {
            return failedAt(LaunchStep::Prepared, QStringLiteral("Failed to create client IPC socket"));
        }
        firejail.setKeepFds({ m_socket });
    }

    Q_ASSERT_X(!m_command.isEmpty(), "LaunchingTask::start", "a task without a command");
    if (!m_command.first().startsWith('/')) {
        m_command.first().prepend("/usr/bin/");
    }
    const auto [arguments, error] = firejail.computeArgv(m_command, m_permissions);
    if (error) {
        return failedAt(LaunchStep::Prepared, error);
    }
    m_spawner.setArguments(arguments);
    const pid_t child = m_spawner.spawn(setupChild);
    if (child < 0) {
        return failedAt(LaunchStep::Spawned, QStringLiteral("Failed to start child process"));
    }
    m_pid = child;
    passed(LaunchStep::Spawned);

    ProcessSetup setup(&m_spawner);
    const bool isSetUp = setup.sendOomScore(m_pid, m_oomScore) && setup.sendNiceLevel(m_niceLevel)
        && setup.sendMaxRunningTime(m_runningTimeLimit) && setup.sendJournalIdentifier(m_taskId.toString());
    if (!isSetUp || !setupCGroup() || !setupEnvironment()) {
        return failedAt(isSetUp ? LaunchStep::Grouped : LaunchStep::SetUp,
                        QStringLiteral("Failed to setup child process"));
    }
    if (!m_spawner.exec()) {
        return failedAt(LaunchStep::Released, QStringLiteral("Failed to execute child process"));
    }
    passed(LaunchStep::Released);
    return Error();
}

void LaunchingTask::passed(LaunchStep step) const
{
    if (m_launch) {
        m_launch->pass(step);
    }
}

/// Tells the history which step it was. @returns @p error
Error LaunchingTask::failedAt(LaunchStep step, const Error &error) const
{
    if (m_launch) {
        m_launch->fail(step);
    }
    return error;
}

Error LaunchingTask::failedAt(LaunchStep step, const QString &message) const
{
    return failedAt(step, Error(Error::SpawnFailed, message));
}

bool LaunchingTask::createClientSocket()
{
    const QString path = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation)
        + QStringLiteral("/applications/%1/%2.socket").arg(m_taskId.toString(), m_taskId.taskName());
    QDir().mkpath(QFileInfo(path).path());
    QFile::remove(path);

    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const QByteArray bytes = path.toUtf8();
    std::memcpy(address.sun_path, bytes.constData(),
                std::min(static_cast<size_t>(bytes.size()), sizeof(address.sun_path) - 1));

    // Inherited by the child on purpose, unlike every other descriptor of the service.
    m_socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (m_socket < 0) {
        qWarning() << "Socket connection failed, errno =" << errno;
        return false;
    }
    const int reuse = 1;
    if (::setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse)) < 0) {
        qWarning() << "Failed to set socket reuse option, errno =" << errno;
    }
    if (::bind(m_socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) < 0) {
        qWarning() << "Socket bind failed, errno =" << errno;
        return false;
    }
    if (::listen(m_socket, socketBacklog) < 0) {
        qWarning() << "Socket listen failed, errno =" << errno;
        return false;
    }
    return true;
}

bool LaunchingTask::setupCGroup()
{
    if (!m_controller->setupTask(m_taskId, m_pid, m_cgroups)) {
        qWarning() << "Could not setup cgroup";
        return false;
    }
    passed(LaunchStep::Grouped);
    return true;
}

bool LaunchingTask::setupEnvironment()
{
    QByteArrayList environment;
    for (char **entry = environ; entry && *entry; ++entry) {
        environment << QByteArray(*entry);
    }
    // Of two entries of one name the first one counts for most programs, so a request may choose another
    // platform than the one below.
    environment << m_environment << "SOLVANE_APP_ID=" + m_taskId.toString().toUtf8()
                << "SOLVANE_TASK_ID=" + m_taskId.taskName().toUtf8() << "QT_QPA_PLATFORM=minimal";
    if (m_socket >= 0) {
        environment << "SOLVANE_TASK_FD=" + QByteArray::number(m_socket);
    }
    m_spawner.setEnvironment(environment);
    return true;
}

} // namespace Core
