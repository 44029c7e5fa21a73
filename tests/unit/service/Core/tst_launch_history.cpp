// What the history keeps of the launches that the runtime controller carries out.

#include "Core/application_registry.h"
#include "Core/chronicle.h"
#include "Core/dbus_name_watcher.h"

#include "controller_fixture.h"
#include "support/log_capture.h"

#include <csignal>

using namespace Core;
using TestSupport::LogCapture;

namespace {

const QString one = QStringLiteral("org.example.One");
const QString many = QStringLiteral("org.example.Many");
const QString syncTask = QStringLiteral("org.example.One.task_sync");
const QList<LaunchStep> stepsOfATask { LaunchStep::Spawned, LaunchStep::Grouped, LaunchStep::Released };

} // namespace

class TestLaunchHistory : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void taskHasItsTimes();
    void failedTaskTellsItsStep_data();
    void failedTaskTellsItsStep();
    void refusedTaskIsNoLaunch();
    void unknownApplicationFailsWhenAsked();
    void launchesThatOverlapAreToldApart();

private:
    static QList<Ending> endings(const QString &id) { return Chronicle::instance()->endings(id); }

    std::unique_ptr<ControllerFixture> m_fixture;
    RuntimeController *m_controller = nullptr;
    int m_endings = 0; ///< before the test
};

void TestLaunchHistory::initTestCase()
{
    ::signal(SIGPIPE, SIG_IGN); // as the service does
    m_fixture = std::make_unique<ControllerFixture>();
    m_fixture->install(one, "Exec=/bin/sleep 600\n");
    m_fixture->install(many, "Exec=/bin/sleep 600\nX-Nemo-Single-Instance=no\n");
    m_controller = m_fixture->controller();
    Chronicle::instance()->follow(m_controller, DBusNameWatcher::instance());
    m_fixture->waitForGroups();
}

void TestLaunchHistory::init()
{
    m_endings = endings(QString()).size();
}

void TestLaunchHistory::cleanup()
{
    m_fixture->cleanUp();
}

void TestLaunchHistory::taskHasItsTimes()
{
    QVERIFY(m_fixture->startTask(syncTask) > 1);
    const LaunchAccount launch = Chronicle::instance()->launchOf(syncTask);
    QVERIFY(launch.asked.isValid());
    QCOMPARE(launch.stepsMs.keys(), stepsOfATask);
    QVERIFY(launch.asked <= Chronicle::instance()->runsSince(syncTask));
    QVERIFY(!m_controller->terminateTask(ApplicationTaskId(syncTask), StopReason::None));
    QTRY_COMPARE(endings(QString()).size(), m_endings + 1);
    QCOMPARE(endings(syncTask).first().launch.stepsMs, launch.stepsMs);
}

void TestLaunchHistory::failedTaskTellsItsStep_data()
{
    QTest::addColumn<QString>("program");
    QTest::addColumn<QByteArray>("setting");
    QTest::addColumn<bool>("socket");
    QTest::addColumn<bool>("spawned"); // and no further
    QTest::addColumn<QString>("detail");

    QTest::newRow("missing program") << "missing" << QByteArray("cpu.shares") << false << false
                                     << "at \"Prepared\": /usr/bin/missing is not executable";
    QTest::newRow("no place for the socket") << "sleep" << QByteArray("cpu.shares") << true << false
                                             << "at \"Prepared\": Failed to create client IPC socket";
    QTest::newRow("setting of nothing") << "sleep" << QByteArray("nonsense") << false << true
                                        << "at \"Grouped\": Failed to setup child process";
}

void TestLaunchHistory::failedTaskTellsItsStep()
{
    QFETCH(QString, program);
    QFETCH(QByteArray, setting);
    QFETCH(bool, socket);
    QFETCH(bool, spawned);
    QFETCH(QString, detail);
    const LogCapture log;
    // In the place of the sockets' directory.
    m_fixture->tree().write(QStringLiteral("runtime/applications"), QByteArray());
    TaskStartupInfo info = ControllerFixture::running({ program, QStringLiteral("600") });
    info.cgroups = { { setting, "1" } };
    info.createIpcSocket = socket;
    QVERIFY(m_controller->startTask(ApplicationTaskId(syncTask), info, {}));
    QFile::remove(m_fixture->path(QStringLiteral("runtime/applications")));

    QCOMPARE(endings(QString()).size(), m_endings + 1);
    const Ending ending = endings(syncTask).first();
    QCOMPARE(ending.decision, Decision::LaunchFailed);
    QVERIFY(ending.isTask);
    QVERIFY(ending.pid < 0);
    QCOMPARE(ending.detail, detail);
    QCOMPARE(ending.launch.stepsMs.keys(),
             spawned ? QList<LaunchStep> { LaunchStep::Spawned } : QList<LaunchStep>());
    QVERIFY(Chronicle::instance()->launchOf(syncTask).asked.isNull());
}

/// Of an application that is blocked, and of a task that runs.
void TestLaunchHistory::refusedTaskIsNoLaunch()
{
    QVERIFY(m_fixture->startTask(syncTask) > 1);
    const LaunchAccount launch = Chronicle::instance()->lastLaunch(syncTask);
    QVERIFY(m_fixture->startTask(syncTask) > 1);
    const QString other = QStringLiteral("org.example.One.task_other");
    m_controller->blockApplication(ApplicationId(one));
    QVERIFY(m_controller->startTask(ApplicationTaskId(other), ControllerFixture::sleeper(), {}));
    m_controller->unblockApplication(ApplicationId(one));
    QCOMPARE(Chronicle::instance()->lastLaunch(syncTask).asked, launch.asked);
    QVERIFY(Chronicle::instance()->lastLaunch(other).asked.isNull());
    QCOMPARE(endings(QString()).size(), m_endings);
}

void TestLaunchHistory::unknownApplicationFailsWhenAsked()
{
    const QString gone = QStringLiteral("org.example.Gone");
    const StartOutcome *outcome = m_fixture->start(gone);
    QTRY_VERIFY(outcome->reported);
    QCOMPARE(endings(gone).size(), 1);
    QCOMPARE(endings(gone).first().detail,
             QStringLiteral("at \"Asked\": Cannot find application org.example.Gone"));
}

/// Both are asked for before either may run.
void TestLaunchHistory::launchesThatOverlapAreToldApart()
{
    m_fixture->holdAnswers = true;
    const StartOutcome *first = m_fixture->start(many);
    QTRY_COMPARE(m_fixture->held(), 1);
    const QDateTime between = QDateTime::currentDateTimeUtc();
    QTRY_VERIFY(QDateTime::currentDateTimeUtc() > between.addMSecs(1));
    const StartOutcome *second = m_fixture->start(many);
    QTRY_COMPARE(m_fixture->held(), 2);
    m_fixture->holdAnswers = false;
    m_fixture->answerHeld();
    QTRY_VERIFY(first->reported && second->reported);

    const LaunchAccount firstLaunch = Chronicle::instance()->launchOf(first->id.text());
    const LaunchAccount secondLaunch = Chronicle::instance()->launchOf(second->id.text());
    QVERIFY(firstLaunch.asked <= between);
    QVERIFY(secondLaunch.asked > between);
    const QList<LaunchStep> steps { LaunchStep::Allowed, LaunchStep::Spawned, LaunchStep::Grouped,
                                    LaunchStep::Released };
    QCOMPARE(firstLaunch.stepsMs.keys(), steps);
    QCOMPARE(secondLaunch.stepsMs.keys(), steps);
}

QTEST_GUILESS_MAIN(TestLaunchHistory)

#include "tst_launch_history.moc"
