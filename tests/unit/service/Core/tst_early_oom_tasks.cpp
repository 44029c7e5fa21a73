// Tasks among what dies when memory is critical, with real processes whose scores the test makes up.

#include "early_oom_fixture.h"

#include "support/log_capture.h"

using Core::ApplicationState;
using Core::MemoryLevel;
using Core::MemoryMonitor;
using Core::RuntimeController;
using Core::StopReason;
using TestSupport::LogCapture;

namespace {

const QString app = QStringLiteral("org.example.One");
const QString firstTask = QStringLiteral("org.example.One.task_first");
const QString secondTask = QStringLiteral("org.example.Two.task_second");

} // namespace

class tst_EarlyOomTasks : public EarlyOomTest
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init() { makeController(); }
    void cleanup() { end(); }

    void taskDiesBeforeAnApplication();
    void applicationWithAGreaterAdjustmentDiesBeforeATask();
    void taskWithTheGreaterScoreDiesFirst_data();
    void taskWithTheGreaterScoreDiesFirst();
    void deathOfATaskIsAnnouncedAndReported();
    void childOfATaskDiesAlone();
    void monitorRunsWhileThereIsATask();
};

void tst_EarlyOomTasks::initTestCase()
{
    m_runtime = std::make_unique<RuntimeFixture>();
    m_runtime->install(app);
}

void tst_EarlyOomTasks::taskDiesBeforeAnApplication()
{
    QVERIFY(m_runtime->start(app) > 0); // never active: nothing of its own speaks for it
    QVERIFY(m_runtime->startTask(secondTask) > 0);
    m_runtime->setScores(m_runtime->pidOf(app), 0, 900); // only of two tasks does this score count
    const LogCapture log;
    m_runtime->setLevel(MemoryLevel::Critical);
    // A request may have had it frozen, and would then hide behind itself whoever is next.
    QCOMPARE(m_runtime->tree().read(
                 QStringLiteral("freezer/procwarden/user-1/org.example.Two/task_second/freezer.state")),
             QByteArrayLiteral("inactive"));
    QTRY_COMPARE(endedTasks(), QStringList(secondTask));
    QCOMPARE(m_ended->count(), 0);
    QCOMPARE(log.warnings().filter(QStringLiteral("chosen by task before application")).size(), 1);
    pass();
    QTRY_COMPARE(m_ended->count(), 1);
}

void tst_EarlyOomTasks::applicationWithAGreaterAdjustmentDiesBeforeATask()
{
    QVERIFY(m_runtime->start(app) > 0);
    QVERIFY(m_runtime->startTask(secondTask) > 0);
    m_runtime->setScores(m_runtime->pidOf(app), 1, 0);
    m_runtime->setScores(m_runtime->pidOf(secondTask), 0, 900);
    m_runtime->setLevel(MemoryLevel::Critical);
    QTRY_COMPARE(m_ended->count(), 1);
    QCOMPARE(endedTasks(), QStringList());
}

void tst_EarlyOomTasks::taskWithTheGreaterScoreDiesFirst_data()
{
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("second");

    QTest::newRow("in the order of the ids") << 500 << 499;
    QTest::newRow("against the order of the ids") << 499 << 500;
}

void tst_EarlyOomTasks::taskWithTheGreaterScoreDiesFirst()
{
    QFETCH(int, first);
    QFETCH(int, second);
    QVERIFY(m_runtime->startTask(firstTask) > 0);
    QVERIFY(m_runtime->startTask(secondTask) > 0);
    m_runtime->setScores(m_runtime->pidOf(firstTask), 0, first);
    m_runtime->setScores(m_runtime->pidOf(secondTask), 0, second);
    const QStringList order { first > second ? firstTask : secondTask,
                              first > second ? secondTask : firstTask };
    m_runtime->setLevel(MemoryLevel::Critical);
    QTRY_COMPARE(endedTasks(), order.mid(0, 1));
    pass();
    QTRY_COMPARE(endedTasks(), order);
}

void tst_EarlyOomTasks::deathOfATaskIsAnnouncedAndReported()
{
    const pid_t pid = m_runtime->startTask(firstTask);
    QVERIFY(pid > 0);
    QSignalSpy changes(m_controller, &RuntimeController::taskStateChanged);
    m_runtime->setLevel(MemoryLevel::Critical);
    QCOMPARE(m_selected->count(), 1);
    QCOMPARE(m_selected->at(0).at(0).toString(), firstTask);
    QCOMPARE(changes.count(), 1);
    QCOMPARE(changes.at(0).at(1).value<ApplicationState>(), ApplicationState::Inactive);
    QTRY_COMPARE(m_endedTasks->count(), 1);
    QCOMPARE(m_endedTasks->at(0).at(1).value<pid_t>(), pid);
    QCOMPARE(m_endedTasks->at(0).at(2).toInt(), SIGKILL);
    QCOMPARE(m_endedTasks->at(0).at(3).value<StopReason>(), StopReason::OomKilled);
}

void tst_EarlyOomTasks::childOfATaskDiesAlone()
{
    const pid_t leader = m_runtime->startTask(firstTask, 1);
    QVERIFY(leader > 0);
    const QVector<pid_t> children = m_runtime->childrenOf(firstTask);
    QCOMPARE(children.size(), 1);
    m_runtime->setGroup(firstTask, { leader, children.at(0) });
    m_runtime->setScores(children.at(0), 300);
    m_runtime->setLevel(MemoryLevel::Critical);
    QTRY_VERIFY(!RuntimeFixture::isAlive(children.at(0)));
    QVERIFY(RuntimeFixture::isAlive(leader));
    QCOMPARE(m_selected->count(), 0);
    QVERIFY(!m_controller->terminateTask(Core::ApplicationTaskId(firstTask), StopReason::Requested));
    QTRY_COMPARE(m_endedTasks->count(), 1);
    QCOMPARE(m_endedTasks->at(0).at(3).value<StopReason>(), StopReason::Requested);
}

void tst_EarlyOomTasks::monitorRunsWhileThereIsATask()
{
    const MemoryMonitor *monitor = MemoryMonitor::instance();
    QVERIFY(!monitor->isActive());
    QVERIFY(m_runtime->startTask(firstTask) > 0);
    QVERIFY(monitor->isActive());
    QVERIFY(!m_controller->terminateTask(Core::ApplicationTaskId(firstTask), StopReason::None));
    QVERIFY(monitor->isActive());
    QTRY_COMPARE(m_endedTasks->count(), 1);
    QVERIFY(!monitor->isActive());
}

QTEST_GUILESS_MAIN(tst_EarlyOomTasks)
#include "tst_early_oom_tasks.moc"
