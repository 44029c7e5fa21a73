// The controller's side of tasks, with real processes: start, record, end, and what tasks and applications of
// one id have to do with each other.

#include "Core/application_registry.h"
#include "Core/runtime_controller.h"

#include "child_fixture.h"
#include "controller_fixture.h"
#include "support/log_capture.h"

#include <csignal>

#include <sys/stat.h>

using Core::ApplicationId;
using Core::ApplicationInstanceId;
using Core::ApplicationState;
using Core::ApplicationTaskId;
using Core::Error;
using Core::InvocationContext;
using Core::ProcessId;
using Core::RunningTask;
using Core::RuntimeController;
using Core::StopReason;
using Core::TaskStartupInfo;
using TestSupport::LogCapture;

namespace {

const QString app = QStringLiteral("org.example.App");
const QString syncTask = QStringLiteral("org.example.App.task_sync");
const QString fetchTask = QStringLiteral("org.example.App.task_fetch");
const QString otherApps = QStringLiteral("org.example.App2.task_sync");

/// Zombies among them.
QVector<pid_t> childrenOf(pid_t pid)
{
    QFile file(QStringLiteral("/proc/%1/task/%1/children").arg(pid));
    QVector<pid_t> children;
    if (file.open(QFile::ReadOnly)) {
        const QByteArrayList pids = file.readAll().simplified().split(' ');
        for (const QByteArray &child : pids) {
            if (!child.isEmpty()) {
                children.append(child.toInt());
            }
        }
    }
    return children;
}

} // namespace

class tst_RuntimeControllerTasks : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void startBeforeTheControlGroupsAreReadyFails();

    void runningTaskHasARecord();
    void tasksComeInTheOrderOfTheirIds();
    void whatDoesNotRunHasNoRecord_data();
    void whatDoesNotRunHasNoRecord();
    void secondStartOfARunningTaskDoesNothing();
    void secondStartDuringTheEndDoesNothing();
    void taskCanBeStartedAgain();
    void taskOfABlockedApplicationIsRefused();
    void requestsSettingsGoOverThoseOfTheState();
    void failedLaunchLeavesNothing_data();
    void failedLaunchLeavesNothing();
    void failedLaunchOfAFrozenTaskIsThawed();
    void applicationAndItsTaskRunSideBySide();

    void exitIsReported_data();
    void exitIsReported();
    void recordStandsWhileTheEndIsSignalled();
    void stoppedTaskReportsItsReason();
    void stopOfWhatDoesNotRunIsRefused();
    void taskThatIgnoresSigtermIsKilled();
    void limitOfProcessorTimeEndsTheTask();
    void uninstalledApplicationsTaskRunsOn();
    void groupsOfATaskStay();

    void windowsAreNoMatterOfTasks();
    void taskIsNotThawed();
    void terminateAllStopsTasksToo();
    void waitingForTheApplicationWaitsForItsTasks();
    void killAllEndsTasksToo();

private:
    std::unique_ptr<ControllerFixture> m_fixture;
    RuntimeController *m_controller = nullptr;
    std::unique_ptr<QSignalSpy> m_started;
    std::unique_ptr<QSignalSpy> m_terminated;
    std::unique_ptr<QSignalSpy> m_changed;
};

void tst_RuntimeControllerTasks::initTestCase()
{
    ::signal(SIGPIPE, SIG_IGN); // as the service does
    m_fixture = std::make_unique<ControllerFixture>();
    m_fixture->install(app, "Exec=/bin/sleep 600\n");
    m_controller = m_fixture->controller();
}

void tst_RuntimeControllerTasks::init()
{
    m_started = std::make_unique<QSignalSpy>(m_controller, &RuntimeController::taskStarted);
    m_terminated = std::make_unique<QSignalSpy>(m_controller, &RuntimeController::taskTerminated);
    m_changed = std::make_unique<QSignalSpy>(m_controller, &RuntimeController::taskStateChanged);
}

void tst_RuntimeControllerTasks::cleanup()
{
    m_fixture->cleanUp();
}

// The first one, since only then is the controller new.
void tst_RuntimeControllerTasks::startBeforeTheControlGroupsAreReadyFails()
{
    const LogCapture log;
    const Error error =
        m_controller->startTask(ApplicationTaskId(syncTask), ControllerFixture::sleeper(), {});
    QCOMPARE(error.code(), Error::SpawnFailed);
    QCOMPARE(error.message(), QStringLiteral("Failed to setup child process"));
    QCOMPARE(m_controller->state(syncTask), ApplicationState::NotRunning);
    m_fixture->waitForGroups();
}

void tst_RuntimeControllerTasks::runningTaskHasARecord()
{
    InvocationContext context;
    context.reason = InvocationContext::Autostart;
    context.requestor = ProcessId(QStringLiteral("org.example.Other"));
    const LogCapture log;
    QVERIFY(!m_controller->startTask(ApplicationTaskId(syncTask), ControllerFixture::sleeper(), context));

    const RunningTask task = m_controller->taskRecord(ApplicationTaskId(syncTask));
    QCOMPARE(task.id.text(), syncTask);
    QVERIFY(task.pid > 1);
    QVERIFY(task.context == context);
    QCOMPARE(task.state, ApplicationState::Launched);
    QCOMPARE(m_controller->state(syncTask), ApplicationState::Launched);
    QVERIFY(log.messages(QtDebugMsg)
                .contains(QStringLiteral("Started task \"%1\" with PID %2").arg(syncTask).arg(task.pid)));
    QCOMPARE(log.warnings(), QStringList());

    QCOMPARE(m_started->count(), 1);
    QCOMPARE(m_started->at(0).at(0).toString(), syncTask);
    QCOMPARE(m_started->at(0).at(1).value<pid_t>(), task.pid);
    QVERIFY(m_started->at(0).at(2).value<InvocationContext>() == context);
    QCOMPARE(m_changed->count(), 0);
    for (const QString &name : ControllerFixture::controllers()) {
        QCOMPARE(m_fixture->readGroup(name, QStringLiteral("org.example.App/task_sync/cgroup.procs")),
                 QByteArray::number(task.pid));
    }
    // It is no application.
    QVERIFY(m_controller->applicationRecord(ApplicationId(syncTask)).id.isEmpty());
    QVERIFY(m_controller->runningApplications().isEmpty());
}

void tst_RuntimeControllerTasks::tasksComeInTheOrderOfTheirIds()
{
    m_fixture->startTask(otherApps);
    m_fixture->startTask(syncTask);
    m_fixture->startTask(fetchTask);
    QStringList ids;
    const QVector<RunningTask> tasks = m_controller->runningTasks();
    for (const RunningTask &task : tasks) {
        ids << task.id.text();
    }
    QCOMPARE(ids, (QStringList { fetchTask, syncTask, otherApps }));
}

void tst_RuntimeControllerTasks::whatDoesNotRunHasNoRecord_data()
{
    QTest::addColumn<QString>("id");

    QTest::newRow("another task") << fetchTask;
    QTest::newRow("an application that runs") << app;
    QTest::newRow("beginning of a task") << syncTask.chopped(1);
    QTest::newRow("empty") << QString();
    QTest::newRow("huge") << QString(100000, QLatin1Char('a'));
}

void tst_RuntimeControllerTasks::whatDoesNotRunHasNoRecord()
{
    QFETCH(QString, id);
    m_fixture->startTask(syncTask);
    m_fixture->startAndWait(app);
    const RunningTask task = m_controller->taskRecord(ApplicationTaskId(id));
    QVERIFY(task.id.isEmpty());
    QCOMPARE(task.pid, 0);
    QCOMPARE(task.state, ApplicationState::NotRunning);
}

void tst_RuntimeControllerTasks::secondStartOfARunningTaskDoesNothing()
{
    const pid_t pid = m_fixture->startTask(syncTask);
    QVERIFY(pid > 1);
    // Not even a look at the request: there is no such program.
    const TaskStartupInfo second = ControllerFixture::running({ QStringLiteral("missing") });
    QCOMPARE(m_fixture->startTask(syncTask, second), pid);
    QCOMPARE(m_started->count(), 1);
    QCOMPARE(m_controller->runningTasks().size(), 1);
}

void tst_RuntimeControllerTasks::secondStartDuringTheEndDoesNothing()
{
    const pid_t pid = m_fixture->startTask(syncTask, m_fixture->stubborn());
    QTRY_VERIFY(m_fixture->stubbornIsReady());
    QVERIFY(!m_controller->terminateTask(ApplicationTaskId(syncTask), StopReason::None));
    QCOMPARE(m_fixture->startTask(syncTask), pid);
    QCOMPARE(m_controller->state(syncTask), ApplicationState::Terminating);
    QCOMPARE(m_started->count(), 1);
}

void tst_RuntimeControllerTasks::taskCanBeStartedAgain()
{
    const TaskStartupInfo shortLived = ControllerFixture::running({ QStringLiteral("true") });
    for (int round = 1; round <= 3; ++round) {
        QVERIFY(m_fixture->startTask(syncTask, shortLived) > 1);
        QTRY_COMPARE(m_terminated->count(), round);
    }
    QVERIFY(m_controller->runningTasks().isEmpty());
}

void tst_RuntimeControllerTasks::taskOfABlockedApplicationIsRefused()
{
    m_controller->blockApplication(ApplicationId(app));
    QTest::ignoreMessage(QtDebugMsg,
                         "Application is blocked, won't start task \"org.example.App.task_sync\"");
    const Error error =
        m_controller->startTask(ApplicationTaskId(syncTask), ControllerFixture::sleeper(), {});
    QCOMPARE(error.code(), Error::ApplicationBlocked);
    QCOMPARE(error.message(), QString());
    QVERIFY(m_fixture->startTask(otherApps) > 1);

    m_controller->unblockApplication(ApplicationId(app));
    QVERIFY(m_fixture->startTask(syncTask) > 1);
    // What runs is not touched by a block; that it runs is known before the block is.
    m_controller->blockApplication(ApplicationId(app));
    QVERIFY(m_fixture->startTask(syncTask) > 1);
    m_controller->unblockApplication(ApplicationId(app));
}

void tst_RuntimeControllerTasks::requestsSettingsGoOverThoseOfTheState()
{
    TaskStartupInfo info = ControllerFixture::sleeper();
    info.cgroups = { { "cpu.shares", "64" }, { "freezer.mark", "5" } };
    QVERIFY(m_fixture->startTask(syncTask, info) > 1);
    QVERIFY(m_fixture->startTask(fetchTask) > 1);

    const QString one = QStringLiteral("org.example.App/task_sync/");
    QCOMPARE(m_fixture->readGroup(QStringLiteral("cpu"), one + QStringLiteral("cpu.shares")),
             QByteArrayLiteral("64"));
    QCOMPARE(m_fixture->readGroup(QStringLiteral("memory"), one + QStringLiteral("memory.soft")),
             QByteArrayLiteral("7"));
    QCOMPARE(m_fixture->readGroup(QStringLiteral("freezer"), one + QStringLiteral("freezer.mark")),
             QByteArrayLiteral("5"));
    // A copy: the next one gets the state's own.
    const QString two = QStringLiteral("org.example.App/task_fetch/");
    QCOMPARE(m_fixture->readGroup(QStringLiteral("cpu"), two + QStringLiteral("cpu.shares")),
             QByteArrayLiteral("128"));
    QVERIFY(m_fixture->readGroup(QStringLiteral("freezer"), two + QStringLiteral("freezer.mark")).isNull());
}

void tst_RuntimeControllerTasks::failedLaunchLeavesNothing_data()
{
    QTest::addColumn<QString>("program");
    QTest::addColumn<QByteArray>("setting");
    QTest::addColumn<bool>("socket");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("message");

    QTest::newRow("missing program") << QStringLiteral("missing") << QByteArray("cpu.shares") << false
                                     << int(Error::InvalidArgs)
                                     << QStringLiteral("/usr/bin/missing is not executable");
    QTest::newRow("setting of nothing")
        << QStringLiteral("sleep") << QByteArray("nonsense") << false << int(Error::SpawnFailed)
        << QStringLiteral("Failed to setup child process");
    QTest::newRow("setting that leads elsewhere")
        << QStringLiteral("sleep") << QByteArray("cpu./../../../escaped") << false << int(Error::SpawnFailed)
        << QStringLiteral("Failed to setup child process");
    QTest::newRow("no place for the socket")
        << QStringLiteral("sleep") << QByteArray("cpu.shares") << true << int(Error::SpawnFailed)
        << QStringLiteral("Failed to create client IPC socket");
}

void tst_RuntimeControllerTasks::failedLaunchLeavesNothing()
{
    QFETCH(QString, program);
    QFETCH(QByteArray, setting);
    QFETCH(bool, socket);
    QFETCH(int, code);
    QFETCH(QString, message);
    const LogCapture log;
    // In the place of the sockets' directory.
    m_fixture->tree().write(QStringLiteral("runtime/applications"), QByteArray());
    TaskStartupInfo info = ControllerFixture::running({ program, QStringLiteral("600") });
    info.cgroups = { { setting, "1" } };
    info.createIpcSocket = socket;
    const Error error = m_controller->startTask(ApplicationTaskId(syncTask), info, {});
    QCOMPARE(int(error.code()), code);
    QCOMPARE(error.message(), message);
    QCOMPARE(
        log.warnings().last(),
        QStringLiteral("Could not start task \"%1\" Error(%2, \"%3\")").arg(syncTask).arg(code).arg(message));
    QFile::remove(m_fixture->path(QStringLiteral("runtime/applications")));

    QCOMPARE(m_controller->state(syncTask), ApplicationState::NotRunning);
    QVERIFY(m_controller->runningTasks().isEmpty());
    // The child that was made is gone, and no zombie.
    QTRY_COMPARE(childrenOf(::getpid()), QVector<pid_t>());
    QCOMPARE(m_started->count(), 0);
    QCOMPARE(m_terminated->count(), 0);
    QVERIFY(m_fixture->startTask(syncTask) > 1);
}

void tst_RuntimeControllerTasks::failedLaunchOfAFrozenTaskIsThawed()
{
    const LogCapture log;
    TaskStartupInfo info = ControllerFixture::sleeper();
    info.cgroups = { { "freezer.state", "FROZEN" }, { "nonsense", "1" } };
    QVERIFY(m_controller->startTask(ApplicationTaskId(syncTask), info, {}));
    QCOMPARE(m_fixture->readGroup(QStringLiteral("freezer"),
                                  QStringLiteral("org.example.App/task_sync/freezer.state")),
             QByteArrayLiteral("INACTIVE"));
}

void tst_RuntimeControllerTasks::applicationAndItsTaskRunSideBySide()
{
    const pid_t task = m_fixture->startTask(syncTask);
    m_fixture->startAndWait(app);
    QCOMPARE(m_controller->runningApplications().size(), 1);
    QCOMPARE(m_controller->runningTasks().size(), 1);

    QSignalSpy terminated(m_controller, &RuntimeController::applicationTerminated);
    QVERIFY(!m_controller->terminateApplication(ApplicationInstanceId(app), StopReason::Requested));
    QTRY_COMPARE(terminated.count(), 1);
    QCOMPARE(m_controller->taskRecord(ApplicationTaskId(syncTask)).pid, task);
    QCOMPARE(m_terminated->count(), 0);
}

void tst_RuntimeControllerTasks::exitIsReported_data()
{
    QTest::addColumn<QStringList>("command");
    QTest::addColumn<int>("status");

    const auto shell = [](const char *script) {
        return QStringList { QStringLiteral("sh"), QStringLiteral("-c"), QLatin1String(script) };
    };
    QTest::newRow("at once") << QStringList { QStringLiteral("true") } << 0;
    QTest::newRow("with a code") << shell("exit 3") << W_EXITCODE(3, 0);
    QTest::newRow("by a signal") << shell("kill -KILL $$") << W_EXITCODE(0, SIGKILL);
}

void tst_RuntimeControllerTasks::exitIsReported()
{
    QFETCH(QStringList, command);
    QFETCH(int, status);
    const pid_t pid = m_fixture->startTask(syncTask, ControllerFixture::running(command));
    QVERIFY(pid > 1);
    QTRY_COMPARE(m_terminated->count(), 1);
    QCOMPARE(m_terminated->at(0).at(0).toString(), syncTask);
    QCOMPARE(m_terminated->at(0).at(1).value<pid_t>(), pid);
    QCOMPARE(m_terminated->at(0).at(2).toInt(), status);
    QCOMPARE(m_terminated->at(0).at(3).value<StopReason>(), StopReason::None);
    QCOMPARE(m_changed->count(), 0);
    QCOMPARE(m_controller->state(syncTask), ApplicationState::NotRunning);
}

void tst_RuntimeControllerTasks::recordStandsWhileTheEndIsSignalled()
{
    QVector<RunningTask> seen;
    const auto connection = connect(m_controller, &RuntimeController::taskTerminated, this, [this, &seen] {
        seen.append(m_controller->taskRecord(ApplicationTaskId(syncTask)));
    });
    const pid_t pid = m_fixture->startTask(syncTask, ControllerFixture::running({ QStringLiteral("true") }));
    QTRY_COMPARE(seen.size(), 1);
    disconnect(connection);
    QCOMPARE(seen.first().pid, pid);
    QVERIFY(m_controller->runningTasks().isEmpty());
}

void tst_RuntimeControllerTasks::stoppedTaskReportsItsReason()
{
    QSignalSpy applications(m_controller, &RuntimeController::applicationStateChanged);
    QSignalSpy ends(m_controller, &RuntimeController::applicationTerminated);
    m_fixture->startTask(syncTask);
    QVERIFY(!m_controller->terminateTask(ApplicationTaskId(syncTask), StopReason::Requested));
    QCOMPARE(m_changed->count(), 1);
    QCOMPARE(m_changed->at(0).at(0).toString(), syncTask);
    QCOMPARE(m_changed->at(0).at(1).value<ApplicationState>(), ApplicationState::Terminating);
    QCOMPARE(m_controller->taskRecord(ApplicationTaskId(syncTask)).state, ApplicationState::Terminating);
    QTRY_COMPARE(m_terminated->count(), 1);
    QCOMPARE(m_terminated->at(0).at(2).toInt(), SIGTERM);
    QCOMPARE(m_terminated->at(0).at(3).value<StopReason>(), StopReason::Requested);
    // Those who follow applications hear nothing of it.
    QCOMPARE(applications.count(), 0);
    QCOMPARE(ends.count(), 0);
}

void tst_RuntimeControllerTasks::stopOfWhatDoesNotRunIsRefused()
{
    m_fixture->startTask(syncTask);
    const Error error = m_controller->terminateTask(ApplicationTaskId(fetchTask), StopReason::None);
    QCOMPARE(error.code(), Error::NotRunning);
    QCOMPARE(error.message(), QStringLiteral("Application not running: org.example.App.task_fetch"));
    QCOMPARE(m_controller->state(syncTask), ApplicationState::Launched);
}

void tst_RuntimeControllerTasks::taskThatIgnoresSigtermIsKilled()
{
    const pid_t pid = m_fixture->startTask(syncTask, m_fixture->stubborn());
    QTRY_VERIFY(m_fixture->stubbornIsReady());
    QTRY_COMPARE(childrenOf(pid).size(), 1);
    const pid_t child = childrenOf(pid).first();
    QVERIFY(!m_controller->terminateTask(ApplicationTaskId(syncTask), StopReason::None));
    QTRY_COMPARE(m_terminated->count(), 1);
    QCOMPARE(m_terminated->at(0).at(2).toInt(), SIGKILL);
    // With all that it started; whether that has been reaped is not the service's to see to.
    QVERIFY(waitUntilDead(child));
}

void tst_RuntimeControllerTasks::limitOfProcessorTimeEndsTheTask()
{
    TaskStartupInfo info = ControllerFixture::running(
        { QStringLiteral("sh"), QStringLiteral("-c"), QStringLiteral("while :; do :; done") });
    info.cpuLimit = 0; // the kernel takes it as a second
    m_fixture->startTask(syncTask, info);
    QTRY_COMPARE_WITH_TIMEOUT(m_terminated->count(), 1, childLimitMs);
    QCOMPARE(m_terminated->at(0).at(2).toInt() & 0x7f, SIGXCPU);
}

void tst_RuntimeControllerTasks::uninstalledApplicationsTaskRunsOn()
{
    const QString id = QStringLiteral("org.example.Passing");
    const QString task = id + QStringLiteral(".task_sync");
    m_fixture->install(id, "Exec=/bin/sleep 600\n");
    auto *registry = Core::ApplicationRegistry::instance();
    registry->reload();
    QVERIFY(!registry->desktopFile(ApplicationId(id)).isEmpty());
    const pid_t pid = m_fixture->startTask(task, m_fixture->stubborn());

    QVERIFY(QFile::remove(m_fixture->path(QStringLiteral("usr/share/applications/%1.desktop").arg(id))));
    registry->reload();
    QVERIFY(registry->desktopFile(ApplicationId(id)).isEmpty());
    QCOMPARE(m_controller->taskRecord(ApplicationTaskId(task)).pid, pid);
    QTRY_VERIFY(m_fixture->stubbornIsReady());
    QVERIFY(!m_controller->terminateAll(ApplicationId(id), StopReason::Requested));
    QTRY_COMPARE(m_terminated->count(), 1);
    QCOMPARE(m_terminated->at(0).at(3).value<StopReason>(), StopReason::Requested);
}

// The next start of the task uses them again.
void tst_RuntimeControllerTasks::groupsOfATaskStay()
{
    m_fixture->startTask(syncTask, ControllerFixture::running({ QStringLiteral("true") }));
    QTRY_COMPARE(m_terminated->count(), 1);
    for (const QString &name : ControllerFixture::controllers()) {
        QVERIFY(QFile::exists(m_fixture->groupOf(name, QStringLiteral("org.example.App/task_sync"))));
    }
}

void tst_RuntimeControllerTasks::windowsAreNoMatterOfTasks()
{
    m_fixture->startTask(syncTask);
    const Error error = m_controller->updateWindowStatus(ApplicationInstanceId(syncTask), 0, 0, 0);
    QCOMPARE(error.code(), Error::NotRunning);
    QCOMPARE(error.message(), QStringLiteral("Not an application ID: org.example.App.task_sync"));
    QCOMPARE(m_controller->state(syncTask), ApplicationState::Launched);
    QCOMPARE(m_changed->count(), 0);
}

void tst_RuntimeControllerTasks::taskIsNotThawed()
{
    m_fixture->startTask(syncTask);
    m_controller->letClientRun(syncTask, Core::UnfreezeReason::Notification);
    QVERIFY(
        m_fixture
            ->readGroup(QStringLiteral("freezer"), QStringLiteral("org.example.App/task_sync/freezer.state"))
            .isNull());
}

void tst_RuntimeControllerTasks::terminateAllStopsTasksToo()
{
    m_fixture->startAndWait(app);
    m_fixture->startTask(syncTask);
    m_fixture->startTask(fetchTask);
    const QString other = QStringLiteral("org.other.App.task_sync");
    m_fixture->startTask(other);
    QVERIFY(!m_controller->terminateAll(ApplicationId(app), StopReason::Requested));
    QTRY_COMPARE(m_terminated->count(), 2);
    for (const QList<QVariant> &end : qAsConst(*m_terminated)) {
        QCOMPARE(end.at(3).value<StopReason>(), StopReason::Requested);
    }
    QTRY_VERIFY(m_controller->runningApplications().isEmpty());
    QCOMPARE(m_controller->state(other), ApplicationState::Launched);
}

void tst_RuntimeControllerTasks::waitingForTheApplicationWaitsForItsTasks()
{
    m_fixture->startAndWait(app);
    m_fixture->startTask(syncTask);
    int ended = 0;
    m_controller->waitForNotRunning(ApplicationId(app), [&ended] { ++ended; });

    QVERIFY(!m_controller->terminateApplication(ApplicationInstanceId(app), StopReason::Requested));
    QTRY_VERIFY(m_controller->runningApplications().isEmpty());
    QCOMPARE(ended, 0);
    QVERIFY(!m_controller->terminateTask(ApplicationTaskId(syncTask), StopReason::Requested));
    QTRY_COMPARE(ended, 1);
    QVERIFY(m_controller->runningTasks().isEmpty());
}

void tst_RuntimeControllerTasks::killAllEndsTasksToo()
{
    const pid_t pid = m_fixture->startTask(syncTask, m_fixture->stubborn());
    const LogCapture log;
    m_controller->killAll();
    QVERIFY(log.messages(QtDebugMsg)
                .contains(QStringLiteral("Killing process \"%1\" with pid %2").arg(syncTask).arg(pid)));
    QCOMPARE(log.warnings(), QStringList());
    // A request may have had it frozen.
    QCOMPARE(m_fixture->readGroup(QStringLiteral("freezer"),
                                  QStringLiteral("org.example.App/task_sync/freezer.state")),
             QByteArrayLiteral("INACTIVE"));
    QCOMPARE(m_controller->runningTasks().size(), 1);
    QTRY_COMPARE(m_terminated->count(), 1);
    QCOMPARE(m_terminated->at(0).at(2).toInt(), SIGKILL);
    QCOMPARE(m_terminated->at(0).at(3).value<StopReason>(), StopReason::None);
}

QTEST_GUILESS_MAIN(tst_RuntimeControllerTasks)
#include "tst_runtime_controller_tasks.moc"
