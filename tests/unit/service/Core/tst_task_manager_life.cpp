#include "task_manager_fixture.h"

#include "Core/notification_manager.h"

#include <QElapsedTimer>

#include <limits>

using namespace Core;
using TestHints::of;
using TestHints::waiting;
using TestSupport::LogCapture;

/// From the request to the end: when a task is started, how long it runs, what its end leaves.
class tst_TaskManagerLife : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { m_fixture = std::make_unique<TaskManagerFixture>(); }
    void init() { m_fixture->begin(); }
    void cleanup() { m_fixture->end(); }
    void cleanupTestCase() { m_fixture.reset(); }

    void taskWithoutConditionsStartsAtOnce();
    void taskWaitsForItsConditions();
    void taskStartsWhenItsConditionsComeToHold();
    void conditionThatComesToHoldStartsTheTask();
    void conditionsThatFlapStartTheTaskEachTime();
    void failedStartIsNoFailureOfTheRequest();
    void failedStartWaitsForTheConditionsAgain();
    void conditionsHearOfTheStart_data();
    void conditionsHearOfTheStart();

    void deviceStaysAwakeWhileTheTaskRuns_data();
    void deviceStaysAwakeWhileTheTaskRuns();
    void recordAfterTheEnd_data();
    void recordAfterTheEnd();
    void endOfAnUnknownTaskIsWarnedAbout();
    void endOfAWorkerLeavesItsStoredEntry();

    void newRequestTakesThePlaceOfTheEarlierOne();
    void earlierRequestGoesBeforeTheNewOneStarts();
    void secondRequestForARunningTaskStopsNothing();

    void stopLeavesTheRecord_data();
    void stopLeavesTheRecord();
    void stopForGoodRemovesTheRecord_data();
    void stopForGoodRemovesTheRecord();
    void stopOfWhatDoesNotRunIsSuccess();
    void failedStopLeavesTheRecord();
    void stopForGoodOfATaskWithoutARecordIsWarnedAbout();
    void removalOfAnUnknownTaskChangesNothing();
    void uninstalledTaskCanBeStopped();
    void uninstalledTaskIsNotFound();

    void limitStopsTheTask();
    void limitOfATaskThatHasEndedIsWarnedAbout();
    void limitOfAWorkerThatHasEndedIsForgotten();
    void newStartBeginsTheLimitAnew();

    void progressExtendsTheLimitOfAWorker_data();
    void progressExtendsTheLimitOfAWorker();
    void progressHasToRise();
    void progressOfOthersExtendsNothing_data();
    void progressOfOthersExtendsNothing();
    void progressOfANotificationIsHeard();

private:
    /// Whether the limit of a task has been started again since forgetLimit().
    bool isExtended(const char *task) const { return m_fixture->record(task)->runningLimit.isActive(); }
    void forgetLimit(const char *task) const { m_fixture->record(task)->runningLimit.stop(); }

    std::unique_ptr<TaskManagerFixture> m_fixture;
};

// The start

void tst_TaskManagerLife::taskWithoutConditionsStartsAtOnce()
{
    QVERIFY(!m_fixture->start("w1"));
    QCOMPARE(m_fixture->takeEvents(), QStringList(QStringLiteral("start w1")));
    QVERIFY(m_fixture->record("w1")->runningLimit.isActive());
}

void tst_TaskManagerLife::taskWaitsForItsConditions()
{
    QVERIFY(!m_fixture->start("w1", waiting()));
    QCOMPARE(m_fixture->takeEvents(), QStringList());
    QVERIFY(!m_fixture->record("w1")->runningLimit.isActive());
    QCOMPARE(m_fixture->login->held(), 0);
}

void tst_TaskManagerLife::taskStartsWhenItsConditionsComeToHold()
{
    QVERIFY(!m_fixture->start("w1", of(TaskHints::startDelay, 1)));
    QVERIFY(m_fixture->takeEvents().isEmpty());
    QTRY_COMPARE(m_fixture->processes->events, QStringList(QStringLiteral("start w1")));
    QVERIFY(m_fixture->record("w1")->runningLimit.isActive());
}

void tst_TaskManagerLife::conditionThatComesToHoldStartsTheTask()
{
    QVERIFY(!m_fixture->start("w1"));
    FakeCondition *first = m_fixture->addCondition("w1");
    FakeCondition *second = m_fixture->addCondition("w1", QStringLiteral("second"));
    m_fixture->takeEvents();
    first->setSatisfied(false);
    second->setSatisfied(false);
    first->setSatisfied(true);
    QCOMPARE(m_fixture->takeEvents(), QStringList()); // one is not enough
    second->setSatisfied(true);
    QCOMPARE(m_fixture->takeEvents(), QStringList(QStringLiteral("start w1")));
}

void tst_TaskManagerLife::conditionsThatFlapStartTheTaskEachTime()
{
    QVERIFY(!m_fixture->start("w1"));
    FakeCondition *condition = m_fixture->addCondition("w1");
    m_fixture->takeEvents();
    for (int i = 0; i < 1000; ++i) {
        condition->setSatisfied(false);
        condition->setSatisfied(true);
    }
    QCOMPARE(m_fixture->takeEvents().size(), 1000); // the controller knows that it runs
    QTRY_COMPARE(m_fixture->login->held(), 1);
}

void tst_TaskManagerLife::failedStartIsNoFailureOfTheRequest()
{
    m_fixture->processes->startError = Error(Error::SpawnFailed, QStringLiteral("no"));
    QVERIFY(!m_fixture->start("periodic", of(TaskHints::autostart, true)));
    const auto record = m_fixture->record("periodic");
    QVERIFY(record);
    QVERIFY(!record->runningLimit.isActive());
    QCOMPARE(m_fixture->storedIds(), QStringList(m_fixture->idText("periodic")));
    // A hold that begins and ends leaves none of this one.
    m_fixture->processes->startError = Error();
    QVERIFY(!m_fixture->start("w1"));
    QTRY_COMPARE(m_fixture->login->held(), 1);
    m_fixture->endProcess("w1");
    QTRY_COMPARE(m_fixture->login->held(), 0);
}

void tst_TaskManagerLife::failedStartWaitsForTheConditionsAgain()
{
    m_fixture->processes->startError = Error(Error::SpawnFailed, QStringLiteral("no"));
    QVERIFY(!m_fixture->start("periodic"));
    FakeCondition *condition = m_fixture->addCondition("periodic");
    QCOMPARE(m_fixture->takeEvents(), QStringList(QStringLiteral("start periodic")));
    condition->setSatisfied(false);
    condition->setSatisfied(true);
    QCOMPARE(m_fixture->takeEvents(), QStringList(QStringLiteral("start periodic"))); // nothing was triggered
    QVERIFY(!m_fixture->record("periodic")->runningLimit.isActive());

    m_fixture->processes->startError = Error();
    condition->setSatisfied(false);
    condition->setSatisfied(true);
    QCOMPARE(m_fixture->takeEvents(),
             QStringList({ QStringLiteral("start periodic"), QStringLiteral("fake triggered") }));
    QVERIFY(m_fixture->record("periodic")->runningLimit.isActive());
}

void tst_TaskManagerLife::conditionsHearOfTheStart_data()
{
    QTest::addColumn<bool>("hear");
    QTest::newRow("worker") << false;
    QTest::newRow("periodic") << true;
    QTest::newRow("scheduled") << true;
    QTest::newRow("session") << true;
    QTest::newRow("other") << true;
}

void tst_TaskManagerLife::conditionsHearOfTheStart()
{
    QFETCH(bool, hear);
    const QByteArray task = QTest::currentDataTag();
    const QString name = QString::fromLatin1(task);
    m_fixture->processes->startError = Error(Error::Failed, QString()); // so that a session's task stays
    QVERIFY(!m_fixture->start(task.constData()));
    FakeCondition *condition = m_fixture->addCondition(task.constData());
    m_fixture->processes->startError = Error();
    m_fixture->takeEvents();
    condition->setSatisfied(false);
    condition->setSatisfied(true);
    QStringList expected(QStringLiteral("start ") + name);
    if (hear) {
        expected.append(QStringLiteral("fake triggered"));
    }
    QCOMPARE(m_fixture->takeEvents(), expected);
}

// The device, the record

void tst_TaskManagerLife::deviceStaysAwakeWhileTheTaskRuns_data()
{
    QTest::addColumn<bool>("awake");
    QTest::newRow("worker") << true;
    QTest::newRow("periodic") << true;
    QTest::newRow("scheduled") << true;
    QTest::newRow("session") << false;
    QTest::newRow("other") << false;
}

void tst_TaskManagerLife::deviceStaysAwakeWhileTheTaskRuns()
{
    QFETCH(bool, awake);
    const QByteArray task = QTest::currentDataTag();
    QVERIFY(!m_fixture->start(task.constData()));
    // A hold that begins and ends meanwhile: what is left then is the task's own.
    QVERIFY(!m_fixture->start("w1"));
    QTRY_COMPARE(m_fixture->login->held(), 1);
    m_fixture->endProcess("w1");
    if (awake) {
        QCOMPARE(m_fixture->login->held(), 1);
        m_fixture->endProcess(task.constData());
    }
    QTRY_COMPARE(m_fixture->login->held(), 0);
}

void tst_TaskManagerLife::recordAfterTheEnd_data()
{
    QTest::addColumn<bool>("stays");
    QTest::newRow("worker") << false;
    QTest::newRow("periodic") << true;
    QTest::newRow("scheduled") << true;
    QTest::newRow("session") << true;
    QTest::newRow("other") << true;
}

void tst_TaskManagerLife::recordAfterTheEnd()
{
    QFETCH(bool, stays);
    const QByteArray task = QTest::currentDataTag();
    QVERIFY(!m_fixture->start(task.constData()));
    m_fixture->addCondition(task.constData());
    m_fixture->takeEvents();
    const LogCapture log;
    m_fixture->endProcess(task.constData());
    QCOMPARE(!m_fixture->record(task.constData()).isNull(), stays);
    QCOMPARE(m_fixture->takeEvents(), QStringList()); // no condition hears of it, and nothing starts
    QCOMPARE(log.warnings(), QStringList());
}

void tst_TaskManagerLife::endOfAnUnknownTaskIsWarnedAbout()
{
    QTest::ignoreMessage(QtWarningMsg, "Termination of unknown task \"org.example.Notes.task_w1\"");
    m_fixture->manager->onTaskTerminated(m_fixture->idText("w1"));
    QTest::ignoreMessage(QtWarningMsg, "Termination of unknown task \"\"");
    m_fixture->manager->onTaskTerminated(QString());
}

void tst_TaskManagerLife::endOfAWorkerLeavesItsStoredEntry()
{
    QVERIFY(!m_fixture->start("w1", of(TaskHints::autostart, true)));
    m_fixture->endProcess("w1");
    QVERIFY(!m_fixture->record("w1"));
    QCOMPARE(m_fixture->storedIds(), QStringList(m_fixture->idText("w1")));
}

// Another request

void tst_TaskManagerLife::newRequestTakesThePlaceOfTheEarlierOne()
{
    QVERIFY(!m_fixture->start("periodic", of(TaskHints::autostart, true), { QStringLiteral("old") }));
    m_fixture->addCondition("periodic");
    m_fixture->takeEvents();
    const LogCapture log;
    QVERIFY(!m_fixture->start("periodic", {}, { QStringLiteral("new") }));
    QCOMPARE(log.messages(QtDebugMsg).filter(QStringLiteral("Removing previous")),
             QStringList(QStringLiteral("Removing previous task \"org.example.Notes.task_periodic\"")));
    QCOMPARE(log.warnings(), QStringList());
    QCOMPARE(m_fixture->manager->records.size(), 1);
    QCOMPARE(m_fixture->record("periodic")->startupInfo.command.last(), QStringLiteral("new"));
    QCOMPARE(m_fixture->storedIds(), QStringList()); // the new one did not ask for it
}

void tst_TaskManagerLife::earlierRequestGoesBeforeTheNewOneStarts()
{
    QVERIFY(!m_fixture->start("periodic", of(TaskHints::autostart, true)));
    m_fixture->addCondition("periodic");
    m_fixture->takeEvents();
    QStringList storedAtStart { QStringLiteral("not asked") };
    m_fixture->processes->onStart = [&] {
        storedAtStart = m_fixture->storedIds();
    };
    QVERIFY(!m_fixture->start("periodic", of(TaskHints::autostart, true)));
    QCOMPARE(m_fixture->takeEvents(),
             QStringList({ QStringLiteral("fake removed"), QStringLiteral("start periodic") }));
    QCOMPARE(storedAtStart, QStringList()); // stored behind the first attempt
    QCOMPARE(m_fixture->storedIds(), QStringList(m_fixture->idText("periodic")));
}

void tst_TaskManagerLife::secondRequestForARunningTaskStopsNothing()
{
    QVERIFY(!m_fixture->start("periodic"));
    QTRY_COMPARE(m_fixture->login->held(), 1);
    m_fixture->takeEvents();
    QVERIFY(!m_fixture->start("periodic", of(TaskHints::runningTime, 20)));
    QCOMPARE(m_fixture->takeEvents(), QStringList(QStringLiteral("start periodic")));
    const QTimer &limit = m_fixture->record("periodic")->runningLimit;
    QVERIFY(limit.isActive());
    QCOMPARE(limit.interval(), 20000);
    QVERIFY(limit.remainingTime() > 15000);
    QTRY_COMPARE(m_fixture->login->held(), 1);
    m_fixture->endProcess("periodic");
    QTRY_COMPARE(m_fixture->login->held(), 0);
}

// The stop

void tst_TaskManagerLife::stopLeavesTheRecord_data()
{
    QTest::addColumn<QByteArray>("task");
    for (const char *task : { "worker", "periodic", "scheduled", "session" }) {
        QTest::newRow(task) << QByteArray(task);
    }
}

void tst_TaskManagerLife::stopLeavesTheRecord()
{
    QFETCH(QByteArray, task);
    QVERIFY(!m_fixture->start(task.constData(), of(TaskHints::autostart, true)));
    m_fixture->addCondition(task.constData());
    m_fixture->takeEvents();
    const ApplicationTaskId id = m_fixture->id(task.constData());
    QVERIFY(!m_fixture->manager->stop(id, false, TaskManagerFixture::application()));
    QCOMPARE(m_fixture->takeEvents(), QStringList(QStringLiteral("stop ") + id.taskName()));
    QCOMPARE(m_fixture->processes->stopReasons, QVector<StopReason> { StopReason::None });
    QVERIFY(m_fixture->record(task.constData()));
    QCOMPARE(m_fixture->storedIds(), QStringList(id.text()));
}

void tst_TaskManagerLife::stopForGoodRemovesTheRecord_data()
{
    stopLeavesTheRecord_data();
}

void tst_TaskManagerLife::stopForGoodRemovesTheRecord()
{
    QFETCH(QByteArray, task);
    QVERIFY(!m_fixture->start(task.constData(), of(TaskHints::autostart, true)));
    m_fixture->addCondition(task.constData());
    m_fixture->takeEvents();
    const ApplicationTaskId id = m_fixture->id(task.constData());
    {
        const LogCapture log;
        QVERIFY(!m_fixture->manager->stop(id, true, TaskManagerFixture::application()));
        QCOMPARE(log.warnings(), QStringList());
    }
    QCOMPARE(m_fixture->takeEvents(),
             QStringList({ QStringLiteral("stop ") + id.taskName(), QStringLiteral("fake removed") }));
    QVERIFY(m_fixture->manager->records.isEmpty());
    QCOMPARE(m_fixture->storedIds(), QStringList());
    QTRY_COMPARE(m_fixture->login->held(), 0); // although the process has not ended yet
    QTest::ignoreMessage(QtWarningMsg,
                         qPrintable(QStringLiteral("Termination of unknown task \"%1\"").arg(id.text())));
    m_fixture->endProcess(task.constData());
}

void tst_TaskManagerLife::stopOfWhatDoesNotRunIsSuccess()
{
    QVERIFY(!m_fixture->start("w1", waiting()));
    QVERIFY(!m_fixture->manager->stop(m_fixture->id("w1"), false, TaskManagerFixture::application()));
    QVERIFY(m_fixture->record("w1"));
    QVERIFY(!m_fixture->manager->stop(m_fixture->id("w1"), true, TaskManagerFixture::application()));
    QVERIFY(!m_fixture->record("w1"));
    QVERIFY(!m_fixture->manager->stop(m_fixture->id("w2"), false, TaskManagerFixture::application()));
}

void tst_TaskManagerLife::failedStopLeavesTheRecord()
{
    QVERIFY(!m_fixture->start("w1", of(TaskHints::autostart, true)));
    m_fixture->processes->stopError = Error(Error::Failed, QStringLiteral("no right"));
    for (const bool mustDisable : { false, true }) {
        const Error error =
            m_fixture->manager->stop(m_fixture->id("w1"), mustDisable, TaskManagerFixture::application());
        QCOMPARE(error.code(), Error::Failed);
        QCOMPARE(error.message(), QStringLiteral("no right"));
        QVERIFY(m_fixture->record("w1"));
        QCOMPARE(m_fixture->storedIds(), QStringList(m_fixture->idText("w1")));
    }
}

void tst_TaskManagerLife::stopForGoodOfATaskWithoutARecordIsWarnedAbout()
{
    QTest::ignoreMessage(QtWarningMsg, "Task already removed: \"org.example.Notes.task_w1\"");
    QVERIFY(!m_fixture->manager->stop(m_fixture->id("w1"), true, TaskManagerFixture::application()));
}

void tst_TaskManagerLife::removalOfAnUnknownTaskChangesNothing()
{
    QVERIFY(!m_fixture->start("w1", of(TaskHints::autostart, true)));
    m_fixture->endProcess("w1"); // the entry stays, the record does not
    QTest::ignoreMessage(QtWarningMsg, "Task already removed: \"org.example.Notes.task_w1\"");
    m_fixture->manager->removeTask(m_fixture->id("w1"));
    QCOMPARE(m_fixture->storedIds(), QStringList(m_fixture->idText("w1")));
}

void tst_TaskManagerLife::uninstalledTaskCanBeStopped()
{
    QVERIFY(!m_fixture->start("periodic", of(TaskHints::autostart, true)));
    m_fixture->uninstall(QStringLiteral("Notes"));
    const LogCapture log;
    m_fixture->endProcess("periodic");
    QVERIFY(m_fixture->record("periodic"));
    QVERIFY(!m_fixture->manager->stop(m_fixture->id("periodic"), true, TaskManagerFixture::application()));
    QVERIFY(!m_fixture->record("periodic"));
    QCOMPARE(m_fixture->storedIds(), QStringList());
    QCOMPARE(log.warnings(), QStringList());
}

void tst_TaskManagerLife::uninstalledTaskIsNotFound()
{
    QVERIFY(!m_fixture->start("periodic"));
    m_fixture->uninstall(QStringLiteral("Notes"));
    const auto before = m_fixture->record("periodic");
    QCOMPARE(m_fixture->start("periodic").code(), Error::TaskNotFound);
    QCOMPARE(m_fixture->record("periodic"), before);
}

// The limit

void tst_TaskManagerLife::limitStopsTheTask()
{
    QElapsedTimer elapsed;
    elapsed.start();
    QVERIFY(!m_fixture->start("w1", of(TaskHints::runningTime, 1)));
    m_fixture->takeEvents();
    const LogCapture log;
    QTRY_COMPARE(m_fixture->processes->events, QStringList(QStringLiteral("stop w1")));
    QVERIFY(elapsed.elapsed() >= 500); // the timer goes by whole seconds
    QCOMPARE(m_fixture->processes->stopReasons, QVector<StopReason> { StopReason::None });
    QCOMPARE(log.messages(QtDebugMsg).filter(QStringLiteral("exhausted")),
             QStringList(QStringLiteral("Running time exhausted for task \"org.example.Notes.task_w1\"")));
    QCOMPARE(log.warnings(), QStringList());
    QVERIFY(m_fixture->record("w1")); // until the process has ended
}

void tst_TaskManagerLife::limitOfATaskThatHasEndedIsWarnedAbout()
{
    QVERIFY(!m_fixture->start("periodic", of(TaskHints::runningTime, 1)));
    const LogCapture log;
    m_fixture->endProcess("periodic");
    QVERIFY(m_fixture->record("periodic")->runningLimit.isActive());
    QTRY_COMPARE(log.warnings(),
                 QStringList(QStringLiteral("Error stopping task: Error(8, \"not running\")")));
    QVERIFY(m_fixture->record("periodic"));
}

void tst_TaskManagerLife::limitOfAWorkerThatHasEndedIsForgotten()
{
    QVERIFY(!m_fixture->start("w1", of(TaskHints::runningTime, 1)));
    m_fixture->endProcess("w1");
    QVERIFY(!m_fixture->start("w2", of(TaskHints::runningTime, 2)));
    m_fixture->takeEvents();
    QTRY_COMPARE(m_fixture->processes->events, QStringList(QStringLiteral("stop w2")));
}

void tst_TaskManagerLife::newStartBeginsTheLimitAnew()
{
    QVERIFY(!m_fixture->start("periodic"));
    FakeCondition *condition = m_fixture->addCondition("periodic");
    m_fixture->endProcess("periodic");
    forgetLimit("periodic");
    condition->setSatisfied(false);
    QVERIFY(!isExtended("periodic"));
    condition->setSatisfied(true);
    QVERIFY(isExtended("periodic"));
}

// Progress

void tst_TaskManagerLife::progressExtendsTheLimitOfAWorker_data()
{
    QTest::addColumn<float>("progress");
    QTest::addColumn<bool>("extends");
    QTest::newRow("some") << 0.3F << true;
    QTest::newRow("the least") << std::numeric_limits<float>::denorm_min() << true;
    QTest::newRow("nearly all") << 0.999F << true;
    QTest::newRow("none") << 0.0F << false;
    QTest::newRow("all") << 1.0F << false;
    QTest::newRow("more than all") << 1.5F << false;
    QTest::newRow("negative") << -0.5F << false;
    QTest::newRow("infinite") << std::numeric_limits<float>::infinity() << false;
    QTest::newRow("no number") << std::numeric_limits<float>::quiet_NaN() << false;
}

void tst_TaskManagerLife::progressExtendsTheLimitOfAWorker()
{
    QFETCH(float, progress);
    QFETCH(bool, extends);
    QVERIFY(!m_fixture->start("w1"));
    forgetLimit("w1");
    m_fixture->manager->onProgressUpdated({ false, m_fixture->idText("w1") }, progress);
    QCOMPARE(isExtended("w1"), extends);
    QCOMPARE(m_fixture->record("w1")->lastProgress, extends ? progress : 0.0F);
}

void tst_TaskManagerLife::progressHasToRise()
{
    QVERIFY(!m_fixture->start("w1"));
    const ClientInfo client { false, m_fixture->idText("w1") };
    const QVector<QPair<float, bool>> reports { { 0.2F, true },  { 0.2F, false }, { 0.1F, false },
                                                { 0.3F, true },  { 1.0F, false }, { 0.9F, true },
                                                { 0.95F, true }, { 0.0F, false } };
    for (const auto &[progress, extends] : reports) {
        forgetLimit("w1");
        m_fixture->manager->onProgressUpdated(client, progress);
        QCOMPARE(isExtended("w1"), extends);
    }
    // Another run begins at 0.
    m_fixture->endProcess("w1");
    QVERIFY(!m_fixture->start("w1"));
    forgetLimit("w1");
    m_fixture->manager->onProgressUpdated(client, 0.1F);
    QVERIFY(isExtended("w1"));
}

void tst_TaskManagerLife::progressOfOthersExtendsNothing_data()
{
    QTest::addColumn<QByteArray>("task");
    QTest::addColumn<QString>("client");
    const auto row = [](const char *task, const char *client) {
        QTest::addRow("%s for %s", client, task) << QByteArray(task) << QString::fromLatin1(client);
    };
    row("periodic", "org.example.Notes.task_periodic");
    row("scheduled", "org.example.Notes.task_scheduled");
    row("session", "org.example.Notes.task_session");
    row("other", "org.example.Notes.task_other");
    row("w1", "org.example.Notes.task_w2");
    row("w1", "org.example.Mail.task_w1");
    row("w1", "org.example.Notes");
    row("w1", "org.example.Notes.instance_1");
    row("w1", "");
    row("w1", "task_w1");
}

void tst_TaskManagerLife::progressOfOthersExtendsNothing()
{
    QFETCH(QByteArray, task);
    QFETCH(QString, client);
    QVERIFY(!m_fixture->start(task.constData()));
    forgetLimit(task.constData());
    m_fixture->manager->onProgressUpdated({ true, client }, 0.5F);
    QVERIFY(!isExtended(task.constData()));
    QCOMPARE(m_fixture->record(task.constData())->lastProgress, 0.0F);
}

void tst_TaskManagerLife::progressOfANotificationIsHeard()
{
    QVERIFY(!m_fixture->start("w1"));
    forgetLimit("w1");
    emit NotificationManager::instance()->notificationProgressUpdated(0.5F,
                                                                      { false, m_fixture->idText("w1") });
    QVERIFY(isExtended("w1"));
    QCOMPARE(m_fixture->record("w1")->lastProgress, 0.5F);
}

QTEST_GUILESS_MAIN(tst_TaskManagerLife)

#include "tst_task_manager_life.moc"
