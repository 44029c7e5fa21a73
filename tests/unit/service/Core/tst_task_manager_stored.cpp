#include "task_manager_fixture.h"

using namespace Core;
using TestHints::of;
using TestHints::waiting;
using TestSupport::LogCapture;

/// Tasks that are there again after a restart.
class tst_TaskManagerStored : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { m_fixture = std::make_unique<TaskManagerFixture>(); }
    void init() { m_fixture->begin(); }
    void cleanup() { m_fixture->end(); }
    void cleanupTestCase() { m_fixture.reset(); }

    void autostartDecides_data();
    void autostartDecides();
    void requestIsStoredWithoutTheWish();
    void dataOfConditionsIsStored();
    void dataOfConditionsThatChangesIsStoredAgain();
    void dataIsNotStoredUnlessAskedFor();

    void storedTaskStartsAgain();
    void storedTaskHasNobodyWhoAsked();
    void storedTaskGetsItsConditionDataBack();
    void storedTaskDoesNotStoreItself();
    void storedTasksComeInKeyOrder();
    void uninstalledTaskIsForgotten();
    void taskThatCannotBeAddedStaysStored_data();
    void taskThatCannotBeAddedStaysStored();
    void limitHoldsForStoredTasks();
    void failedStartLeavesTheEntry();
    void oddEntriesAreSurvived_data();
    void oddEntriesAreSurvived();
    void stopForGoodForgetsAStoredTask();

    void thousandStoredTasksTakeNoWrite();
    void thousandForgottenTasksTakeOneWrite();
    void endOfTheServiceWritesWhatIsLeft();

private:
    /// As after a restart of the service.
    void restart()
    {
        m_fixture->makeManager();
        m_fixture->processes->running.clear();
        m_fixture->processes->starts.clear();
        m_fixture->takeEvents();
        m_fixture->manager->startAutostartTasks();
    }
    void writeStored(const QByteArray &tasks)
    {
        m_fixture->manager.reset(); // it would write its own at the end
        m_fixture->settings->write("{\"autostartedTasks\":{" + tasks + "}}");
    }

    std::unique_ptr<TaskManagerFixture> m_fixture;
};

void tst_TaskManagerStored::autostartDecides_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<bool>("stored");
    QTest::newRow("true") << QVariant(true) << true;
    QTest::newRow("false") << QVariant(false) << false;
    QTest::newRow("1") << QVariant(1) << true;
    QTest::newRow("0") << QVariant(0) << false;
    QTest::newRow("2") << QVariant(2) << false;
    QTest::newRow("3") << QVariant(3) << false;
    QTest::newRow("no number") << QVariant(QStringLiteral("yes")) << false;
}

void tst_TaskManagerStored::autostartDecides()
{
    QFETCH(QVariant, value);
    QFETCH(bool, stored);
    QVERIFY(!m_fixture->start("w1", of(TaskHints::autostart, value)));
    QCOMPARE(m_fixture->storedIds(), stored ? QStringList(m_fixture->idText("w1")) : QStringList());
}

void tst_TaskManagerStored::requestIsStoredWithoutTheWish()
{
    const TaskCGroups cgroups { { QStringLiteral("cpu.shares"), QByteArray("12") } };
    QVariantMap hints = waiting();
    hints.insert(TaskHints::autostart, true);
    hints.insert(TaskHints::cgroups, QVariant::fromValue(cgroups));
    hints.insert(QStringLiteral("Unknown"), QStringLiteral("kept"));
    QVERIFY(!m_fixture->start("w1", hints, { QStringLiteral("a"), QStringLiteral("b") },
                              { QStringLiteral("C=d") }));
    const AutostartEntry entry = m_fixture->stored("w1");
    QCOMPARE(entry.params, QStringList({ QStringLiteral("a"), QStringLiteral("b") }));
    QCOMPARE(entry.environment, QStringList(QStringLiteral("C=d")));
    QCOMPARE(entry.hints.keys(),
             QStringList({ TaskHints::cgroups, TaskHints::startDelay, QStringLiteral("Unknown") }));
    QCOMPARE(entry.hints.value(TaskHints::cgroups).value<TaskCGroups>(), cgroups);
    QCOMPARE(entry.conditionData.keys(), QStringList(QStringLiteral("StartDelay")));
}

void tst_TaskManagerStored::dataOfConditionsIsStored()
{
    TaskRequest request;
    request.id = m_fixture->id("scheduled");
    request.hints = QVariantMap { { TaskHints::autostart, true },
                                  { TaskHints::startTime, QStringLiteral("2100-01-01T00:00:00") } };
    request.conditionData =
        QVariantMap { { QStringLiteral("Schedule"), QVariantMap { { QStringLiteral("cookieId"), 7U } } } };
    QVERIFY(!m_fixture->manager->start(request, TaskManagerFixture::privileged()));
    QCOMPARE(m_fixture->stored("scheduled")
                 .conditionData.value(QStringLiteral("Schedule"))
                 .toMap()
                 .value(QStringLiteral("cookieId"))
                 .toUInt(),
             7U);
}

void tst_TaskManagerStored::dataOfConditionsThatChangesIsStoredAgain()
{
    QVERIFY(!m_fixture->start("w1", of(TaskHints::autostart, true), { QStringLiteral("a") }));
    FakeCondition *condition = m_fixture->addCondition("w1");
    QVERIFY(m_fixture->stored("w1").conditionData.isEmpty());
    for (const int number : { 1, 2 }) {
        condition->setConfig({ { QStringLiteral("number"), number } });
        const AutostartEntry entry = m_fixture->stored("w1");
        QCOMPARE(
            entry.conditionData.value(QStringLiteral("fake")).toMap().value(QStringLiteral("number")).toInt(),
            number);
        QCOMPARE(entry.params, QStringList(QStringLiteral("a")));
        QVERIFY(entry.hints.isEmpty());
    }
}

void tst_TaskManagerStored::dataIsNotStoredUnlessAskedFor()
{
    QVERIFY(!m_fixture->start("w1"));
    m_fixture->addCondition("w1")->setConfig({ { QStringLiteral("number"), 1 } });
    QCOMPARE(m_fixture->storedIds(), QStringList());
}

// After a restart

void tst_TaskManagerStored::storedTaskStartsAgain()
{
    const TaskCGroups cgroups { { QStringLiteral("cpu.shares"), QByteArray("12") } };
    const QVariantMap hints { { TaskHints::autostart, true },
                              { TaskHints::runningTime, 30 },
                              { TaskHints::createIpcSocket, true },
                              { TaskHints::permissions, QStringList(QStringLiteral("Email")) },
                              { TaskHints::cgroups, QVariant::fromValue(cgroups) } };
    QVERIFY(!m_fixture->start("periodic", hints, { QStringLiteral("--full") }, { QStringLiteral("A=b") }));
    const TaskStartupInfo before = m_fixture->processes->starts.constLast().info;

    const LogCapture log;
    restart();
    QCOMPARE(m_fixture->takeEvents(), QStringList(QStringLiteral("start periodic")));
    const TaskStartupInfo &after = m_fixture->processes->starts.constLast().info;
    QCOMPARE(after.command, before.command);
    QCOMPARE(after.environment, before.environment);
    QCOMPARE(after.permissions, before.permissions);
    QCOMPARE(after.cgroups, before.cgroups);
    QCOMPARE(after.cpuLimit, 30);
    QCOMPARE(after.createIpcSocket, true);
    QCOMPARE(m_fixture->record("periodic")->runningLimit.interval(), 30000);
    QCOMPARE(log.messages(QtDebugMsg).filter(QStringLiteral("autostarted")),
             QStringList(QStringLiteral("Starting autostarted task \"org.example.Notes.task_periodic\"")));
    QCOMPARE(log.warnings(), QStringList());
}

void tst_TaskManagerStored::storedTaskHasNobodyWhoAsked()
{
    QVERIFY(!m_fixture->start("w1", of(TaskHints::autostart, true)));
    restart();
    const InvocationContext &context = m_fixture->processes->starts.constLast().context;
    QCOMPARE(context.reason, InvocationContext::Autostart);
    QVERIFY(context.requestor.isEmpty());
}

void tst_TaskManagerStored::storedTaskGetsItsConditionDataBack()
{
    writeStored(R"("org.example.Notes.task_scheduled":{"hints":{"StartTime":"2100-01-01T00:00:00"},)"
                R"("conditionData":{"Schedule":{"cookieId":17}}})");
    const LogCapture log;
    restart();
    QCOMPARE(m_fixture->record("scheduled")
                 ->watcher.conditionData()
                 .value(QStringLiteral("Schedule"))
                 .toMap()
                 .value(QStringLiteral("cookieId"))
                 .toUInt(),
             17U);
    QCOMPARE(m_fixture->takeEvents(), QStringList()); // it waits for its time
    QCOMPARE(log.messages().filter(QStringLiteral("No timed cookie saved")), QStringList());
}

void tst_TaskManagerStored::storedTaskDoesNotStoreItself()
{
    QVERIFY(!m_fixture->start("w1", of(TaskHints::autostart, true)));
    m_fixture->manager.reset();
    const QByteArray before = m_fixture->settings->read();
    m_fixture->settings->startCounting();
    restart();
    m_fixture->addCondition("w1")->setConfig({ { QStringLiteral("number"), 1 } });
    QCoreApplication::processEvents();
    QCOMPARE(m_fixture->settings->writes(), 0);
    QCOMPARE(m_fixture->settings->read(), before);
    // It comes back any number of times.
    restart();
    QCOMPARE(m_fixture->takeEvents(), QStringList(QStringLiteral("start w1")));
}

void tst_TaskManagerStored::storedTasksComeInKeyOrder()
{
    m_fixture->install(QStringLiteral("Alpha"));
    writeStored(R"("org.example.Notes.task_w2":{},"org.example.Notes.task_w1":{},)"
                R"("org.example.Alpha.task_w3":{})");
    restart();
    QCOMPARE(
        m_fixture->takeEvents(),
        QStringList({ QStringLiteral("start w3"), QStringLiteral("start w1"), QStringLiteral("start w2") }));
}

void tst_TaskManagerStored::uninstalledTaskIsForgotten()
{
    writeStored(R"("org.example.Mail.task_fetch":{},"org.example.Notes.task_none":{},"odd":{},"":{},)"
                R"("org.example.Notes.task_w1":{})");
    const LogCapture log;
    restart();
    QCOMPARE(m_fixture->takeEvents(), QStringList(QStringLiteral("start w1")));
    QCOMPARE(m_fixture->storedIds(), QStringList(m_fixture->idText("w1")));
    QCOMPARE(
        log.messages(QtDebugMsg).filter(QStringLiteral("Removing missing")),
        QStringList({ QStringLiteral("Removing missing autostarted task \"\""),
                      QStringLiteral("Removing missing autostarted task \"odd\""),
                      QStringLiteral("Removing missing autostarted task \"org.example.Mail.task_fetch\""),
                      QStringLiteral("Removing missing autostarted task \"org.example.Notes.task_none\"") }));
    QCOMPARE(log.warnings(), QStringList());
    QCoreApplication::processEvents();
    QCOMPARE(UserSettings().autostartEntries().keys(), QStringList(m_fixture->idText("w1")));
}

void tst_TaskManagerStored::taskThatCannotBeAddedStaysStored_data()
{
    QTest::addColumn<QByteArray>("stored");
    QTest::addColumn<QString>("warning");
    QTest::newRow("running time") << QByteArray(
        R"("org.example.Notes.task_periodic":{"hints":{"RunningTime":61}})")
                                  << QStringLiteral(
                                         "Error starting task \"org.example.Notes.task_periodic\" : "
                                         "Error(4, \"RunningTime cannot be more than 60 seconds\")");
    QTest::newRow("hint of another type")
        << QByteArray(R"("org.example.Notes.task_w1":{"hints":{"Interval":900}})")
        << QStringLiteral("Error starting task \"org.example.Notes.task_w1\" : "
                          "Error(4, \"Interval not allowed for this task\")");
}

void tst_TaskManagerStored::taskThatCannotBeAddedStaysStored()
{
    QFETCH(QByteArray, stored);
    QFETCH(QString, warning);
    writeStored(stored + R"(,"org.example.Notes.task_w9":{})");
    const LogCapture log;
    restart();
    QCOMPARE(log.warnings(), QStringList(warning));
    QCOMPARE(m_fixture->takeEvents(), QStringList(QStringLiteral("start w9"))); // the others go on
    QCOMPARE(m_fixture->storedIds().size(), 2);
}

void tst_TaskManagerStored::limitHoldsForStoredTasks()
{
    QByteArray stored;
    for (int i = 1; i <= 6; ++i) {
        stored += (i > 1 ? ",\"" : "\"") + m_fixture->idText("w").toUtf8() + QByteArray::number(i) + "\":{}";
    }
    writeStored(stored);
    const LogCapture log;
    restart();
    QCOMPARE(m_fixture->manager->records.size(), 5);
    QCOMPARE(
        log.warnings(),
        QStringList(QStringLiteral("Error starting task \"org.example.Notes.task_w6\" : "
                                   "Error(14, \"Maximum number of tasks reached for org.example.Notes\")")));
    QCOMPARE(m_fixture->storedIds().size(), 6);
}

void tst_TaskManagerStored::failedStartLeavesTheEntry()
{
    writeStored(R"("org.example.Notes.task_w1":{})");
    m_fixture->processes->startError = Error(Error::SpawnFailed, QStringLiteral("no"));
    const LogCapture log;
    restart();
    QVERIFY(m_fixture->record("w1"));
    QCOMPARE(m_fixture->storedIds(), QStringList(m_fixture->idText("w1")));
    QCOMPARE(log.warnings(), QStringList());
}

void tst_TaskManagerStored::oddEntriesAreSurvived_data()
{
    QTest::addColumn<QByteArray>("entry");
    QTest::newRow("null") << QByteArray("null");
    QTest::newRow("a list") << QByteArray("[]");
    QTest::newRow("hints of wrong types")
        << QByteArray(R"({"hints":{"RunningTime":[],"CGroups":7,"Permissions":{},"Conditions":1.5,)"
                      R"("StartDelay":"x","Weight":"heavy","Autostart":null}})");
    QTest::newRow("condition data of wrong types")
        << QByteArray(R"({"conditionData":{"StartDelay":[1],"Schedule":"cookie"}})");
    QTest::newRow("lists of wrong types") << QByteArray(R"({"params":{},"environment":5})");
}

void tst_TaskManagerStored::oddEntriesAreSurvived()
{
    QFETCH(QByteArray, entry);
    writeStored(R"("org.example.Notes.task_w1":)" + entry);
    const LogCapture log;
    restart();
    QCOMPARE(m_fixture->takeEvents(), QStringList(QStringLiteral("start w1")));
    QCOMPARE(m_fixture->storedIds(), QStringList(m_fixture->idText("w1")));
}

void tst_TaskManagerStored::stopForGoodForgetsAStoredTask()
{
    writeStored(R"("org.example.Notes.task_w1":{})");
    restart();
    QVERIFY(!m_fixture->manager->stop(m_fixture->id("w1"), true, TaskManagerFixture::application()));
    QCoreApplication::processEvents();
    QVERIFY(UserSettings().autostartEntries().isEmpty());
}

// Writes

void tst_TaskManagerStored::thousandStoredTasksTakeNoWrite()
{
    m_fixture->setTaskLimit(-1);
    QByteArray stored;
    for (int app = 0; app < 112; ++app) {
        const QString name = QStringLiteral("App%1").arg(app);
        m_fixture->install(name);
        for (int task = 1; task <= 9; ++task) {
            stored += QStringLiteral(R"(%1"org.example.%2.task_w%3":{"hints":{"StartDelay":3600}})")
                          .arg(stored.isEmpty() ? QString() : QStringLiteral(","), name)
                          .arg(task)
                          .toUtf8();
        }
    }
    writeStored(stored);
    m_fixture->settings->startCounting();
    restart();
    QCoreApplication::processEvents();
    QCOMPARE(m_fixture->manager->records.size(), 1008);
    QCOMPARE(m_fixture->settings->writes(), 0);
}

void tst_TaskManagerStored::thousandForgottenTasksTakeOneWrite()
{
    QByteArray stored = R"("org.example.Notes.task_w1":{})";
    for (int app = 0; app < 1000; ++app) {
        stored += ",\"org.example.Gone" + QByteArray::number(app) + ".task_w1\":{}";
    }
    writeStored(stored);
    m_fixture->settings->startCounting();
    restart();
    QCOMPARE(m_fixture->settings->writes(), 0);
    QCoreApplication::processEvents();
    QCOMPARE(m_fixture->settings->writes(), 1);
    QCOMPARE(m_fixture->storedIds(), QStringList(m_fixture->idText("w1")));
}

void tst_TaskManagerStored::endOfTheServiceWritesWhatIsLeft()
{
    QVERIFY(!m_fixture->start("w1", of(TaskHints::autostart, true)));
    QVERIFY(UserSettings().autostartEntries().isEmpty());
    m_fixture->manager.reset();
    QCOMPARE(UserSettings().autostartEntries().keys(), QStringList(m_fixture->idText("w1")));
}

QTEST_GUILESS_MAIN(tst_TaskManagerStored)

#include "tst_task_manager_stored.moc"
