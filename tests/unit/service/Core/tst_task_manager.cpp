#include "task_manager_fixture.h"

#include <limits>

using namespace Core;
using TestHints::of;
using TestHints::waiting;
using TestSupport::LogCapture;

/// What becomes of a request: who may ask, what is refused in which order, what the process is started with.
class tst_TaskManager : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { m_fixture = std::make_unique<TaskManagerFixture>(); }
    void init() { m_fixture->begin(); }
    void cleanup() { m_fixture->end(); }
    void cleanupTestCase() { m_fixture.reset(); }

    void onlyTheApplicationItselfMayStart_data();
    void onlyTheApplicationItselfMayStart();
    void onlyTheApplicationItselfMayStop_data();
    void onlyTheApplicationItselfMayStop();
    void unknownTaskIsNotFound_data();
    void unknownTaskIsNotFound();

    void applicationHasSoManyTasks_data();
    void applicationHasSoManyTasks();
    void applicationsDoNotShareTheLimit();
    void taskCannotBeReplacedAtTheLimit();
    void replacedTaskCountsOnce();
    void limitComesBeforeTheHints();

    void runningTimeDecidesTheLimit_data();
    void runningTimeDecidesTheLimit();
    void tooLongARunningTimeIsRefused_data();
    void tooLongARunningTimeIsRefused();
    void limitOfWorkersComesFromTheEnvironment();
    void runningTimeComesBeforeTheConditions();
    void failureOfTheConditionsIsReturned_data();
    void failureOfTheConditionsIsReturned();
    void refusedRequestLeavesTheEarlierOne();

    void commandIsSplitAtSingleBlanks();
    void requestReachesTheProcess();
    void hintsOfAWrongTypeAreConverted();
    void hintDecides_data();
    void hintDecides();
    void idleTaskYields_data();
    void idleTaskYields();
    void contextSaysWhoAsked_data();
    void contextSaysWhoAsked();

private:
    std::unique_ptr<TaskManagerFixture> m_fixture;
};

// Who may

void tst_TaskManager::onlyTheApplicationItselfMayStart_data()
{
    QTest::addColumn<bool>("privileged");
    QTest::addColumn<QString>("appId");
    QTest::addColumn<bool>("may");
    QTest::newRow("itself") << false << QStringLiteral("org.example.Notes") << true;
    QTest::newRow("one of its instances") << false << QStringLiteral("org.example.Notes.instance_7") << true;
    QTest::newRow("one of its tasks") << false << QStringLiteral("org.example.Notes.task_w2") << true;
    QTest::newRow("the task itself") << false << QStringLiteral("org.example.Notes.task_w1") << true;
    QTest::newRow("another application") << false << QStringLiteral("org.example.Mail") << false;
    QTest::newRow("its name goes on") << false << QStringLiteral("org.example.Notes2") << false;
    QTest::newRow("its name begins so") << false << QStringLiteral("org.example.Note") << false;
    QTest::newRow("in another case") << false << QStringLiteral("org.example.notes") << false;
    QTest::newRow("no application") << false << QString() << false;
    QTest::newRow("no id") << false << QStringLiteral("Notes") << false;
    QTest::newRow("privileged") << true << QString() << true;
    QTest::newRow("privileged application") << true << QStringLiteral("org.example.Mail") << true;
}

void tst_TaskManager::onlyTheApplicationItselfMayStart()
{
    QFETCH(bool, privileged);
    QFETCH(QString, appId);
    QFETCH(bool, may);
    TaskRequest request;
    request.id = m_fixture->id("w1");
    const Error error = m_fixture->manager->start(request, { privileged, appId });
    QCOMPARE(error.code(), may ? Error::NoError : Error::AccessDenied);
    QCOMPARE(error.message(), may ? QString() : QStringLiteral("Cannot start another app's tasks"));
    QCOMPARE(m_fixture->processes->starts.size(), may ? 1 : 0);
    QCOMPARE(m_fixture->manager->records.size(), may ? 1 : 0);
}

void tst_TaskManager::onlyTheApplicationItselfMayStop_data()
{
    onlyTheApplicationItselfMayStart_data();
}

void tst_TaskManager::onlyTheApplicationItselfMayStop()
{
    QFETCH(bool, privileged);
    QFETCH(QString, appId);
    QFETCH(bool, may);
    QVERIFY(!m_fixture->start("w1"));
    m_fixture->takeEvents();
    const Error error = m_fixture->manager->stop(m_fixture->id("w1"), true, { privileged, appId });
    QCOMPARE(error.code(), may ? Error::NoError : Error::AccessDenied);
    QCOMPARE(error.message(), may ? QString() : QStringLiteral("Cannot stop another app's tasks"));
    QCOMPARE(m_fixture->takeEvents(), may ? QStringList(QStringLiteral("stop w1")) : QStringList());
    QCOMPARE(m_fixture->manager->records.isEmpty(), may);
}

void tst_TaskManager::unknownTaskIsNotFound_data()
{
    QTest::addColumn<QString>("id");
    QTest::newRow("of a known application") << QStringLiteral("org.example.Notes.task_none");
    QTest::newRow("of an unknown application") << QStringLiteral("org.example.Mail.task_w1");
    QTest::newRow("the application") << QStringLiteral("org.example.Notes");
    QTest::newRow("an instance") << QStringLiteral("org.example.Notes.instance_1");
    QTest::newRow("in another case") << QStringLiteral("org.example.Notes.task_W1");
    QTest::newRow("empty") << QString();
    QTest::newRow("no id") << QStringLiteral("../../etc");
    QTest::newRow("huge") << QString(1000000, QLatin1Char('x'));
}

void tst_TaskManager::unknownTaskIsNotFound()
{
    QFETCH(QString, id);
    m_fixture->setTaskLimit(0); // comes later
    m_fixture->makeManager();
    TaskRequest request;
    request.id = ApplicationTaskId(id);
    const Error error = m_fixture->manager->start(request, TaskManagerFixture::privileged());
    QCOMPARE(error.code(), Error::TaskNotFound);
    QCOMPARE(error.message(), QStringLiteral("No such task: ") + id);
    QVERIFY(m_fixture->processes->starts.isEmpty());
    QVERIFY(m_fixture->manager->records.isEmpty());
}

// How many

void tst_TaskManager::applicationHasSoManyTasks_data()
{
    QTest::addColumn<int>("limit");
    QTest::addColumn<int>("added");
    QTest::newRow("none at all") << 0 << 0;
    QTest::newRow("one") << 1 << 1;
    QTest::newRow("as usual") << 5 << 5;
    QTest::newRow("any number") << -1 << 9;
    QTest::newRow("any number, too") << std::numeric_limits<int>::min() << 9;
    QTest::newRow("very many") << std::numeric_limits<int>::max() << 9;
}

void tst_TaskManager::applicationHasSoManyTasks()
{
    QFETCH(int, limit);
    QFETCH(int, added);
    m_fixture->setTaskLimit(limit);
    m_fixture->makeManager();
    for (int i = 1; i <= 9; ++i) {
        const Error error = m_fixture->start(qPrintable(QStringLiteral("w%1").arg(i)), waiting());
        QCOMPARE(error.code(), i <= added ? Error::NoError : Error::TooManyTasks);
        QCOMPARE(error.message(),
                 i <= added ? QString()
                            : QStringLiteral("Maximum number of tasks reached for org.example.Notes"));
    }
    QCOMPARE(m_fixture->manager->records.size(), added);
}

void tst_TaskManager::applicationsDoNotShareTheLimit()
{
    m_fixture->setTaskLimit(1);
    m_fixture->makeManager();
    TaskRequest request;
    // The names begin alike.
    for (const char *name : { "Notes", "Note", "Notes2", "Notes.Too" }) {
        m_fixture->install(QLatin1String(name));
        request.id = ApplicationTaskId(QStringLiteral("org.example.%1.task_w1").arg(QLatin1String(name)));
        const Error error = m_fixture->manager->start(request, TaskManagerFixture::privileged());
        QVERIFY2(!error, qPrintable(error.message()));
    }
    QCOMPARE(m_fixture->manager->records.size(), 4);
}

void tst_TaskManager::taskCannotBeReplacedAtTheLimit()
{
    for (const char *task : { "w1", "w2", "w3", "w4", "w5" }) {
        QVERIFY(!m_fixture->start(task, waiting()));
    }
    const auto before = m_fixture->record("w3");
    QCOMPARE(m_fixture->start("w3").code(), Error::TooManyTasks);
    QCOMPARE(m_fixture->record("w3"), before);
    // There is room again.
    QVERIFY(!m_fixture->manager->stop(m_fixture->id("w1"), true, TaskManagerFixture::application()));
    QVERIFY(!m_fixture->start("w3"));
    QVERIFY(m_fixture->record("w3") != before);
}

void tst_TaskManager::replacedTaskCountsOnce()
{
    for (int i = 0; i < 10; ++i) {
        QVERIFY(!m_fixture->start("w1", waiting()));
    }
    QCOMPARE(m_fixture->manager->records.size(), 1);
}

void tst_TaskManager::limitComesBeforeTheHints()
{
    m_fixture->setTaskLimit(0);
    m_fixture->makeManager();
    QCOMPARE(m_fixture->start("periodic", of(TaskHints::runningTime, 61)).code(), Error::TooManyTasks);
}

// What is refused

void tst_TaskManager::runningTimeDecidesTheLimit_data()
{
    QTest::addColumn<QByteArray>("task");
    QTest::addColumn<QVariant>("runningTime");
    QTest::addColumn<int>("limitMs");
    for (const char *task : { "worker", "periodic", "scheduled", "session", "other" }) {
        const int usual = qstrcmp(task, "worker") == 0 ? 900000 : 60000;
        const auto row = [task](const char *name, const QVariant &runningTime, int limitMs) {
            QTest::addRow("%s, %s", task, name) << QByteArray(task) << runningTime << limitMs;
        };
        row("none", QVariant(), usual);
        row("0", 0, usual);
        row("-5", -5, usual);
        row("1", 1, 1000);
        row("60", 60, 60000);
        row("a real number", 30.0, 30000);
        row("a text", QStringLiteral("20"), 20000);
        row("no number", QStringLiteral("long"), usual);
        row("a list", QStringList(QStringLiteral("20")), usual);
        row("a map", QVariantMap(), usual);
    }
    for (const char *task : { "worker", "session", "other" }) {
        QTest::addRow("%s, 61", task) << QByteArray(task) << QVariant(61) << 61000;
        QTest::addRow("%s, long", task) << QByteArray(task) << QVariant(1000000) << 1000000000;
        QTest::addRow("%s, longer than a timer", task)
            << QByteArray(task) << QVariant(std::numeric_limits<int>::max())
            << std::numeric_limits<int>::max();
    }
}

void tst_TaskManager::runningTimeDecidesTheLimit()
{
    QFETCH(QByteArray, task);
    QFETCH(QVariant, runningTime);
    const Error error = m_fixture->start(
        task.constData(), runningTime.isValid() ? of(TaskHints::runningTime, runningTime) : QVariantMap());
    QVERIFY2(!error, qPrintable(error.message()));
    const QTimer &timer = m_fixture->record(task.constData())->runningLimit;
    QTEST(timer.interval(), "limitMs");
    QVERIFY(timer.isSingleShot());
    QCOMPARE(timer.timerType(), Qt::VeryCoarseTimer);
}

void tst_TaskManager::tooLongARunningTimeIsRefused_data()
{
    QTest::addColumn<QByteArray>("task");
    QTest::addColumn<QVariant>("runningTime");
    for (const char *task : { "periodic", "scheduled" }) {
        QTest::addRow("%s, 61", task) << QByteArray(task) << QVariant(61);
        QTest::addRow("%s, greatest", task) << QByteArray(task) << QVariant(std::numeric_limits<int>::max());
        QTest::addRow("%s, a text", task) << QByteArray(task) << QVariant(QStringLiteral("100"));
    }
}

void tst_TaskManager::tooLongARunningTimeIsRefused()
{
    QFETCH(QByteArray, task);
    QFETCH(QVariant, runningTime);
    const Error error = m_fixture->start(task.constData(), of(TaskHints::runningTime, runningTime));
    QCOMPARE(error.code(), Error::InvalidArgs);
    QCOMPARE(error.message(), QStringLiteral("RunningTime cannot be more than 60 seconds"));
    QVERIFY(m_fixture->manager->records.isEmpty());
    QVERIFY(m_fixture->processes->starts.isEmpty());
}

void tst_TaskManager::limitOfWorkersComesFromTheEnvironment()
{
    qputenv("PROCWARDEN_WORKER_MAX_TIME", "77");
    m_fixture->makeManager();
    qunsetenv("PROCWARDEN_WORKER_MAX_TIME"); // read once
    QVERIFY(!m_fixture->start("worker"));
    QVERIFY(!m_fixture->start("periodic"));
    QCOMPARE(m_fixture->record("worker")->runningLimit.interval(), 77000);
    QCOMPARE(m_fixture->record("periodic")->runningLimit.interval(), 60000);
}

void tst_TaskManager::runningTimeComesBeforeTheConditions()
{
    QVariantMap hints = of(TaskHints::runningTime, 61);
    hints.insert(TaskHints::interval, 1);
    QCOMPARE(m_fixture->start("periodic", hints).message(),
             QStringLiteral("RunningTime cannot be more than 60 seconds"));
}

void tst_TaskManager::failureOfTheConditionsIsReturned_data()
{
    QTest::addColumn<QByteArray>("task");
    QTest::addColumn<QVariantMap>("hints");
    QTest::addColumn<QString>("message");
    QTest::newRow("interval") << QByteArray("periodic") << of(TaskHints::interval, 899)
                              << QStringLiteral("Minimum interval is 15 minutes");
    QTest::newRow("delay") << QByteArray("worker") << of(TaskHints::startDelay, -1)
                           << QStringLiteral("Delay cannot be negative");
    QTest::newRow("type") << QByteArray("session") << of(TaskHints::startDelay, 1)
                          << QStringLiteral("StartDelay not allowed for this task");
}

void tst_TaskManager::failureOfTheConditionsIsReturned()
{
    QFETCH(QByteArray, task);
    QFETCH(QVariantMap, hints);
    hints.insert(TaskHints::autostart, true);
    const Error error = m_fixture->start(task.constData(), hints);
    QCOMPARE(error.code(), Error::InvalidArgs);
    QTEST(error.message(), "message");
    QVERIFY(m_fixture->manager->records.isEmpty());
    QVERIFY(m_fixture->processes->starts.isEmpty());
    QVERIFY(m_fixture->storedIds().isEmpty());
}

void tst_TaskManager::refusedRequestLeavesTheEarlierOne()
{
    QVERIFY(!m_fixture->start("periodic", of(TaskHints::autostart, true)));
    m_fixture->addCondition("periodic");
    const auto before = m_fixture->record("periodic");
    const AutostartEntry stored = m_fixture->stored("periodic");
    m_fixture->takeEvents();
    const LogCapture log;
    QVERIFY(m_fixture->start("periodic", of(TaskHints::interval, 1)));
    QVERIFY(m_fixture->start("periodic", of(TaskHints::runningTime, 61)));
    QCOMPARE(m_fixture->record("periodic"), before);
    QCOMPARE(m_fixture->stored("periodic"), stored);
    QCOMPARE(m_fixture->takeEvents(), QStringList());
    QCOMPARE(log.messages(), QStringList());
}

// What the process gets

void tst_TaskManager::commandIsSplitAtSingleBlanks()
{
    QVERIFY(!m_fixture->start("w1", {}, { QStringLiteral("--a b"), QString(), QStringLiteral("\"c\"") }));
    QCOMPARE(m_fixture->processes->starts.constLast().info.command,
             QStringList({ QStringLiteral("/bin/task"), QString(), QStringLiteral("--go"),
                           QStringLiteral("--a b"), QString(), QStringLiteral("\"c\"") }));
}

void tst_TaskManager::requestReachesTheProcess()
{
    const TaskCGroups cgroups { { QStringLiteral("memory.limit_in_bytes"), QByteArray("1000\0x", 6) },
                                { QStringLiteral("cpu.shares"), QByteArray("512") } };
    const QVariantMap hints { { TaskHints::priority, 10 },
                              { TaskHints::runningTime, 30 },
                              { TaskHints::cpuLimit, 20 },
                              { TaskHints::weight, 300 },
                              { TaskHints::createIpcSocket, true },
                              { TaskHints::cgroups, QVariant::fromValue(cgroups) },
                              { TaskHints::permissions, QStringList(QStringLiteral("Email")) } };
    QVERIFY(!m_fixture->start("w1", hints, { QStringLiteral("--full") }, { QStringLiteral("A=b") }));
    QCOMPARE(m_fixture->processes->starts.size(), 1);
    const FakeProcesses::Start &start = m_fixture->processes->starts.constLast();
    QCOMPARE(start.id, m_fixture->id("w1"));
    QCOMPARE(start.info.command,
             QStringList({ QStringLiteral("/bin/task"), QString(), QStringLiteral("--go"),
                           QStringLiteral("--full") }));
    QCOMPARE(start.info.environment, QStringList(QStringLiteral("A=b")));
    QCOMPARE(start.info.permissions, QStringList(QStringLiteral("Email")));
    QCOMPARE(start.info.cgroups,
             (CGroupController::Settings { { "memory.limit_in_bytes", QByteArray("1000\0x", 6) },
                                           { "cpu.shares", "512" } }));
    QCOMPARE(start.info.weight, 300);
    QCOMPARE(start.info.priority, 10);
    QCOMPARE(start.info.cpuLimit, 20);
    QCOMPARE(start.info.createIpcSocket, true);
}

void tst_TaskManager::hintsOfAWrongTypeAreConverted()
{
    QVariantMap hints;
    for (const QLatin1String name : { TaskHints::priority, TaskHints::runningTime, TaskHints::cpuLimit,
                                      TaskHints::weight, TaskHints::createIpcSocket, TaskHints::cgroups,
                                      TaskHints::permissions, TaskHints::autostart, TaskHints::conditions }) {
        hints.insert(name, QVariantMap { { QStringLiteral("cpu.shares"), 1 } });
    }
    hints.insert(QStringLiteral("Unknown"), 5);
    QVERIFY(!m_fixture->start("w1", hints));
    const TaskStartupInfo &info = m_fixture->processes->starts.constLast().info;
    QCOMPARE(info.permissions, QStringList()); // given, and empty
    QVERIFY(info.cgroups.isEmpty());
    QCOMPARE(info.weight, 0);
    QCOMPARE(info.priority, 0);
    QCOMPARE(info.cpuLimit, 0); // both are given, as 0
    QCOMPARE(info.createIpcSocket, false);
    QVERIFY(m_fixture->storedIds().isEmpty());
}

void tst_TaskManager::hintDecides_data()
{
    QTest::addColumn<QVariantMap>("hints");
    QTest::addColumn<QString>("what");
    const auto row = [](const char *name, const QVariantMap &hints, const QString &what) {
        QTest::newRow(name) << hints << what;
    };
    const auto cpuLimits = [](int cpuLimit, int runningTime) {
        return QVariantMap { { TaskHints::cpuLimit, cpuLimit }, { TaskHints::runningTime, runningTime } };
    };
    row("nothing", {}, QStringLiteral("weight 0 priority 0 cpu -1 socket 0 Internet,Audio,BaseTask"));
    row("weight", of(TaskHints::weight, -7),
        QStringLiteral("weight -7 priority 0 cpu -1 socket 0 Internet,Audio,BaseTask"));
    row("priority", of(TaskHints::priority, 19.0),
        QStringLiteral("weight 0 priority 19 cpu -1 socket 0 Internet,Audio,BaseTask"));
    row("socket", of(TaskHints::createIpcSocket, true),
        QStringLiteral("weight 0 priority 0 cpu -1 socket 1 Internet,Audio,BaseTask"));
    row("no socket", of(TaskHints::createIpcSocket, false),
        QStringLiteral("weight 0 priority 0 cpu -1 socket 0 Internet,Audio,BaseTask"));
    row("permissions", of(TaskHints::permissions, QStringList({ QStringLiteral("A"), QStringLiteral("B") })),
        QStringLiteral("weight 0 priority 0 cpu -1 socket 0 A,B"));
    row("no permissions", of(TaskHints::permissions, QStringList()),
        QStringLiteral("weight 0 priority 0 cpu -1 socket 0 "));
    row("one permission", of(TaskHints::permissions, QStringLiteral("A")),
        QStringLiteral("weight 0 priority 0 cpu -1 socket 0 A"));
    const auto cpuRow = [&row](const char *name, const QVariantMap &hints, int cpuLimit) {
        row(name, hints,
            QStringLiteral("weight 0 priority 0 cpu %1 socket 0 Internet,Audio,BaseTask").arg(cpuLimit));
    };
    cpuRow("processor time", of(TaskHints::cpuLimit, 10), 10);
    cpuRow("running time", of(TaskHints::runningTime, 10), 10);
    cpuRow("processor time over running time", cpuLimits(10, 20), 10);
    cpuRow("more processor time than running time", cpuLimits(20, 10), 20);
    cpuRow("no processor time", cpuLimits(0, 30), 30);
    cpuRow("negative processor time", cpuLimits(-4, 30), 30);
    cpuRow("processor time of 0 alone", of(TaskHints::cpuLimit, 0), -1);
    cpuRow("running time of 0 alone", of(TaskHints::runningTime, 0), 0);
    cpuRow("both 0", cpuLimits(0, 0), 0);
    cpuRow("running time of -5", of(TaskHints::runningTime, -5), -5);
}

void tst_TaskManager::hintDecides()
{
    QFETCH(QVariantMap, hints);
    QVERIFY(!m_fixture->start("w1", hints));
    const TaskStartupInfo &info = m_fixture->processes->starts.constLast().info;
    QTEST(QStringLiteral("weight %1 priority %2 cpu %3 socket %4 %5")
              .arg(info.weight)
              .arg(info.priority)
              .arg(info.cpuLimit)
              .arg(info.createIpcSocket)
              .arg(info.permissions.join(QLatin1Char(','))),
          "what");
}

void tst_TaskManager::idleTaskYields_data()
{
    QTest::addColumn<QByteArray>("task");
    QTest::addColumn<QStringList>("conditions");
    QTest::addColumn<QByteArray>("shares");
    const auto row = [](const char *name, const char *task, const QStringList &conditions,
                        const char *shares) {
        QTest::newRow(name) << QByteArray(task) << conditions << QByteArray(shares);
    };
    row("declared", "idle", {}, "64");
    row("asked for", "w1", { QStringLiteral("charging"), QStringLiteral("idle") }, "64");
    row("with a parameter", "w1", { QStringLiteral("idle:now:or never") }, "64");
    row("asked for twice", "idle", { QStringLiteral("idle") }, "64");
    row("not at all", "w1", { QStringLiteral("charging") }, "512");
    row("name goes on", "w1", { QStringLiteral("idler") }, "512");
    row("as a parameter", "w1", { QStringLiteral("internet:idle") }, "512");
    row("in another case", "w1", { QStringLiteral("Idle") }, "512");
    row("with a blank", "w1", { QStringLiteral(" idle") }, "512");
    row("nothing", "w1", {}, "512");
}

void tst_TaskManager::idleTaskYields()
{
    QFETCH(QByteArray, task);
    QFETCH(QStringList, conditions);
    const TaskCGroups cgroups { { QStringLiteral("cpu.shares"), QByteArray("512") },
                                { QStringLiteral("memory.swappiness"), QByteArray("1") } };
    const LogCapture log; // of conditions that nobody knows
    QVERIFY(!m_fixture->start(
        task.constData(),
        { { TaskHints::conditions, conditions }, { TaskHints::cgroups, QVariant::fromValue(cgroups) } }));
    const TaskStartupInfo &info = m_fixture->record(task.constData())->startupInfo;
    QTEST(info.cgroups.value("cpu.shares"), "shares");
    QCOMPARE(info.cgroups.value("memory.swappiness"), QByteArray("1"));
    QCOMPARE(info.cgroups.size(), 2);
}

void tst_TaskManager::contextSaysWhoAsked_data()
{
    QTest::addColumn<QString>("appId");
    QTest::newRow("nobody") << QString();
    QTest::newRow("an application") << QStringLiteral("org.example.Notes");
    QTest::newRow("an instance") << QStringLiteral("org.example.Notes.instance_3");
    QTest::newRow("a task") << QStringLiteral("org.example.Mail.task_fetch");
}

void tst_TaskManager::contextSaysWhoAsked()
{
    QFETCH(QString, appId);
    TaskRequest request;
    request.id = m_fixture->id("w1");
    QVERIFY(!m_fixture->manager->start(request, { true, appId }));
    const InvocationContext &context = m_fixture->processes->starts.constLast().context;
    QCOMPARE(context.reason, InvocationContext::NoReason);
    QCOMPARE(context.requestor.text(), appId);
}

QTEST_GUILESS_MAIN(tst_TaskManager)

#include "tst_task_manager.moc"
