#include "Core/application_registry.h"
#include "Core/task_hints.h"
#include "Core/task_manager.h"
#include "Core/user_settings.h"

#include "controller_fixture.h"
#include "support/log_capture.h"
#include "support/login_daemon.h"

#include <QStandardPaths>

#include <csignal>

using namespace Core;
using TestSupport::LogCapture;
using TestSupport::LoginDaemon;

namespace {

const QString app = QStringLiteral("org.example.Notes");
const ClientInfo client { false, app };

ApplicationTaskId taskOf(const char *name)
{
    return ApplicationTaskId(app + QStringLiteral(".task_") + QLatin1String(name));
}

QVariantMap limitOf(int seconds)
{
    return { { TaskHints::runningTime, seconds } };
}

QString settingsPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation)
        + QStringLiteral("/user-settings.json");
}

const QVariantMap stored { { TaskHints::autostart, true } };

} // namespace

/// Tasks that really run.
class tst_TaskManagerProcesses : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void storedTasksWaitForTheControlGroups();
    void storedTasksStartAtOnceIfTheyCan();
    void workerIsForgottenWhenItHasRun();
    void workerThatStaysIsStopped();
    void periodicTaskWaitsForItsNextTime();
    void deviceStaysAwakeAsLongAsTheProcessLives();
    void secondRequestMeetsTheRunningProcess();
    void settingsReachTheControlGroups();
    void limitEndsTheProcess();
    void limitEndsAProcessThatDoesNotWantTo();
    void programThatIsMissingFailsNoRequest();
    void taskOfABlockedApplicationWaits();
    void applicationMayGoWhileItsTaskRuns();
    void thereIsOneForTheProcess();

private:
    Error start(const char *task, const QVariantMap &hints = {}, const QStringList &params = {})
    {
        return m_manager->start(taskOf(task), params, {}, hints, client);
    }
    Error stop(const char *task, bool mustDisable)
    {
        return m_manager->stop(taskOf(task), mustDisable, client);
    }
    RunningTask running(const char *task) const { return m_fixture->controller()->taskRecord(taskOf(task)); }
    bool hasEnded(const char *task) const { return running(task).pid == 0; }
    /// Stops a task for good; false, with a warning, if there is no record of it.
    bool forget(const char *task)
    {
        const LogCapture log;
        return !stop(task, true) && log.warnings().isEmpty();
    }
    void install();

    std::unique_ptr<ControllerFixture> m_fixture;
    std::unique_ptr<LoginDaemon> m_login;
    std::unique_ptr<TaskManager> m_manager;
};

void tst_TaskManagerProcesses::initTestCase()
{
    ::signal(SIGPIPE, SIG_IGN); // as the service does
    m_fixture = std::make_unique<ControllerFixture>();
    m_login = std::make_unique<LoginDaemon>(m_fixture->bus());
    for (const char *permission : { "Base", "BaseTask" }) {
        m_fixture->tree().write(
            QStringLiteral("etc/sailjail/permissions/%1.permission").arg(QLatin1String(permission)),
            QByteArray());
    }
    install();
}

void tst_TaskManagerProcesses::install()
{
    QByteArray keys = "Exec=/bin/sleep 600\n";
    const auto addTask = [&keys](const QByteArray &name, const QByteArray &type, const QByteArray &exec) {
        keys += "[X-Task " + name + "]\nType=" + type + "\nExec=" + exec + '\n';
    };
    addTask("short", "worker", "true");
    addTask("long", "worker", "sleep 600");
    addTask("stubborn", "worker", "sh " + QFile::encodeName(m_fixture->path(QStringLiteral("stubborn"))));
    addTask("missing", "worker", "not-there");
    addTask("poll", "periodic", "sleep 600");
    addTask("session", "session-start", "sleep 600");
    m_fixture->install(app, keys);
    ApplicationRegistry::instance()->reload();
}

void tst_TaskManagerProcesses::init()
{
    QFile::remove(settingsPath());
    QTest::ignoreMessage(QtWarningMsg,
                         qPrintable(QStringLiteral("Couldn't read config file \"%1\"").arg(settingsPath())));
    m_manager = std::make_unique<TaskManager>();
}

void tst_TaskManagerProcesses::cleanup()
{
    m_manager.reset();
    m_fixture->cleanUp();
    QDir(m_fixture->path(QStringLiteral("runtime/applications"))).removeRecursively();
    QTRY_COMPARE(m_login->held(), 0);
}

void tst_TaskManagerProcesses::cleanupTestCase()
{
    m_login.reset();
    m_fixture.reset();
}

// The first one, since only then is the controller new.
void tst_TaskManagerProcesses::storedTasksWaitForTheControlGroups()
{
    UserSettings().setAutostartEntry(taskOf("long").text(), {});
    auto gone = std::make_unique<TaskManager>();
    gone->initialize();
    gone.reset(); // the controller still has its callback
    m_manager = std::make_unique<TaskManager>();
    m_manager->initialize();
    QVERIFY(hasEnded("long"));
    QTRY_VERIFY(!hasEnded("long"));
    QCOMPARE(running("long").context.reason, InvocationContext::Autostart);
    QVERIFY(running("long").context.requestor.isEmpty());
}

void tst_TaskManagerProcesses::storedTasksStartAtOnceIfTheyCan()
{
    m_fixture->waitForGroups();
    UserSettings().setAutostartEntry(taskOf("long").text(), {});
    m_manager = std::make_unique<TaskManager>();
    m_manager->initialize();
    QVERIFY(!hasEnded("long"));
}

void tst_TaskManagerProcesses::workerIsForgottenWhenItHasRun()
{
    m_fixture->waitForGroups();
    QVERIFY(!start("short", stored));
    QVERIFY(!hasEnded("short"));
    QTRY_VERIFY(hasEnded("short"));
    QTest::ignoreMessage(QtWarningMsg, "Task already removed: \"org.example.Notes.task_short\"");
    QVERIFY(!stop("short", true));
    m_manager.reset();
    QCOMPARE(UserSettings().autostartEntries().keys(), QStringList(taskOf("short").text()));
}

void tst_TaskManagerProcesses::workerThatStaysIsStopped()
{
    QVERIFY(!start("long"));
    const QSignalSpy ended(m_fixture->controller(), &RuntimeController::taskTerminated);
    QVERIFY(!stop("long", false));
    QCOMPARE(running("long").state, ApplicationState::Terminating);
    QTRY_COMPARE(ended.count(), 1);
    QCOMPARE(ended.constFirst().at(2).toInt(), SIGTERM); // nobody had to kill it
    QCOMPARE(ended.constFirst().at(3).value<StopReason>(), StopReason::None);
    QVERIFY(!forget("long"));
}

void tst_TaskManagerProcesses::periodicTaskWaitsForItsNextTime()
{
    QVERIFY(!start("poll", { { TaskHints::interval, 900 } }));
    QVERIFY(!hasEnded("poll"));
    QVERIFY(!stop("poll", false));
    QTRY_VERIFY(hasEnded("poll"));
    QVERIFY(forget("poll"));
}

void tst_TaskManagerProcesses::deviceStaysAwakeAsLongAsTheProcessLives()
{
    QVERIFY(!start("poll"));
    QVERIFY(!start("long"));
    QTRY_COMPARE(m_login->held(), 1);
    QVERIFY(!stop("long", false));
    QTRY_VERIFY(hasEnded("long"));
    QCOMPARE(m_login->held(), 1);
    QVERIFY(!stop("poll", false));
    QTRY_COMPARE(m_login->held(), 0);
}

void tst_TaskManagerProcesses::secondRequestMeetsTheRunningProcess()
{
    QVERIFY(!start("poll"));
    const pid_t pid = running("poll").pid;
    QVERIFY(pid > 1);
    QVERIFY(!start("poll", limitOf(1)));
    QCOMPARE(running("poll").pid, pid);
    QTRY_VERIFY(hasEnded("poll")); // by the new limit
    QVERIFY(forget("poll"));
}

void tst_TaskManagerProcesses::settingsReachTheControlGroups()
{
    const TaskCGroups cgroups { { QStringLiteral("cpu.shares"), QByteArray("77") } };
    QVERIFY(!start("long", { { TaskHints::cgroups, QVariant::fromValue(cgroups) } }));
    QCOMPARE(m_fixture->readGroup(QStringLiteral("cpu"), app + QStringLiteral("/task_long/cpu.shares")),
             QByteArray("77"));
    QCOMPARE(m_fixture->readGroup(QStringLiteral("memory"), app + QStringLiteral("/task_long/memory.soft")),
             QByteArray("7"));
}

void tst_TaskManagerProcesses::limitEndsTheProcess()
{
    const LogCapture log;
    QVERIFY(!start("long", limitOf(1)));
    QTRY_VERIFY(hasEnded("long"));
    QCOMPARE(log.messages(QtDebugMsg).filter(QStringLiteral("exhausted")),
             QStringList(QStringLiteral("Running time exhausted for task \"org.example.Notes.task_long\"")));
    QCOMPARE(log.warnings(), QStringList());
}

void tst_TaskManagerProcesses::limitEndsAProcessThatDoesNotWantTo()
{
    // So that it cannot be asked to end before it refuses to.
    QVERIFY(!start("stubborn", limitOf(2)));
    QTRY_VERIFY(m_fixture->stubbornIsReady());
    const QSignalSpy ended(m_fixture->controller(), &RuntimeController::taskTerminated);
    QTRY_COMPARE(ended.count(), 1);
    QCOMPARE(ended.constFirst().at(2).toInt(), SIGKILL);
}

void tst_TaskManagerProcesses::programThatIsMissingFailsNoRequest()
{
    {
        const LogCapture log;
        QVERIFY(!start("missing", stored));
    }
    QVERIFY(hasEnded("missing"));
    QVERIFY(forget("missing"));
    QCOMPARE(m_login->held(), 0);
}

void tst_TaskManagerProcesses::taskOfABlockedApplicationWaits()
{
    m_fixture->controller()->blockApplication(ApplicationId(app));
    QVERIFY(!start("session"));
    QVERIFY(hasEnded("session"));
    m_fixture->controller()->unblockApplication(ApplicationId(app));
    // Nothing was triggered, so that it is not the session's one start.
    QVERIFY(!start("session"));
    QVERIFY(!hasEnded("session"));
}

void tst_TaskManagerProcesses::applicationMayGoWhileItsTaskRuns()
{
    QVERIFY(!start("poll", stored));
    const pid_t pid = running("poll").pid;
    QVERIFY(QFile::remove(m_fixture->path(QStringLiteral("usr/share/applications/%1.desktop").arg(app))));
    ApplicationRegistry::instance()->reload();

    QCOMPARE(start("poll").code(), Error::TaskNotFound);
    QCOMPARE(running("poll").pid, pid);
    QVERIFY(!stop("poll", false));
    QTRY_VERIFY(hasEnded("poll"));

    m_manager = std::make_unique<TaskManager>(); // the next run of the service
    m_manager->initialize();
    QVERIFY(hasEnded("poll"));
    m_manager.reset();
    QVERIFY(UserSettings().autostartEntries().isEmpty());
    install();
}

// The last one, since that object stays.
void tst_TaskManagerProcesses::thereIsOneForTheProcess()
{
    const LogCapture log;
    TaskManager *const manager = TaskManager::instance();
    QVERIFY(manager);
    QCOMPARE(TaskManager::instance(), manager);
    QVERIFY(!manager->start(taskOf("long"), {}, {}, {}, client));
    QVERIFY(!hasEnded("long"));
    QVERIFY(!manager->stop(taskOf("long"), true, client));
}

QTEST_GUILESS_MAIN(tst_TaskManagerProcesses)

#include "tst_task_manager_processes.moc"
