#include "Core/task_rules.h"

#include "Core/task_hints.h"

#include <QTest>

using Core::TaskRules;

class tst_TaskRules : public QObject
{
    Q_OBJECT

private slots:
    void typeDecides_data();
    void typeDecides();
    void environmentGivesTheLimitOfWorkers_data();
    void environmentGivesTheLimitOfWorkers();
    void autostartIsABooleanOrANumber_data();
    void autostartIsABooleanOrANumber();
    void namesAreThoseOfTheInterface_data();
    void namesAreThoseOfTheInterface();
};

void tst_TaskRules::typeDecides_data()
{
    QTest::addColumn<bool>("isWorker");
    QTest::addColumn<bool>("holdsKeepalive");
    QTest::addColumn<int>("defaultLimit");
    QTest::addColumn<int>("greatestLimit");
    QTest::newRow("worker") << true << true << 1234 << 0;
    QTest::newRow("periodic") << false << true << 60 << 60;
    QTest::newRow("scheduled") << false << true << 60 << 60;
    QTest::newRow("session-start") << false << false << 60 << 0;
    QTest::newRow("another") << false << false << 60 << 0;
    QTest::newRow("") << false << false << 60 << 0;
    QTest::newRow("Worker") << false << false << 60 << 0;
}

void tst_TaskRules::typeDecides()
{
    const TaskRules rules = TaskRules::forType(QString::fromLatin1(QTest::currentDataTag()), 1234);
    QTEST(rules.isWorker, "isWorker");
    QTEST(rules.holdsKeepalive, "holdsKeepalive");
    QTEST(rules.defaultLimit, "defaultLimit");
    QTEST(rules.greatestLimit, "greatestLimit");
}

void tst_TaskRules::environmentGivesTheLimitOfWorkers_data()
{
    QTest::addColumn<QByteArray>("value"); // null: not set
    QTest::addColumn<int>("seconds");
    QTest::newRow("not set") << QByteArray() << 900;
    QTest::newRow("empty") << QByteArray("") << 900;
    QTest::newRow("a number") << QByteArray("1200") << 1200;
    QTest::newRow("one") << QByteArray("1") << 1;
    QTest::newRow("zero") << QByteArray("0") << 900;
    QTest::newRow("negative") << QByteArray("-1") << 900;
    QTest::newRow("a word") << QByteArray("long") << 900;
    QTest::newRow("with a unit") << QByteArray("10s") << 900;
    QTest::newRow("a fraction") << QByteArray("1.5") << 900;
    QTest::newRow("greatest") << QByteArray("2147483647") << 2147483647;
    QTest::newRow("too large") << QByteArray("2147483648") << 900;
}

void tst_TaskRules::environmentGivesTheLimitOfWorkers()
{
    QFETCH(QByteArray, value);
    if (value.isNull()) {
        qunsetenv("PROCWARDEN_WORKER_MAX_TIME");
    } else {
        qputenv("PROCWARDEN_WORKER_MAX_TIME", value);
    }
    QTEST(Core::workerMaxTimeFromEnvironment(), "seconds");
    qunsetenv("PROCWARDEN_WORKER_MAX_TIME");
}

void tst_TaskRules::autostartIsABooleanOrANumber_data()
{
    QTest::addColumn<QVariant>("hint");
    QTest::addColumn<int>("value");
    QTest::newRow("true") << QVariant(true) << 1;
    QTest::newRow("false") << QVariant(false) << 0;
    QTest::newRow("0") << QVariant(0) << 0;
    QTest::newRow("1") << QVariant(1) << 1;
    QTest::newRow("2") << QVariant(2) << 2;
    QTest::newRow("3") << QVariant(3) << 0;
    QTest::newRow("-1") << QVariant(-1) << 0;
    QTest::newRow("1.0") << QVariant(1.0) << 1;
    QTest::newRow("unsigned 1") << QVariant(1U) << 1;
    QTest::newRow("text 1") << QVariant(QStringLiteral("1")) << 1;
    QTest::newRow("text true") << QVariant(QStringLiteral("true")) << 0;
    QTest::newRow("list") << QVariant(QStringList(QStringLiteral("1"))) << 0;
    QTest::newRow("map") << QVariant(QVariantMap()) << 0;
    QTest::newRow("invalid") << QVariant() << 0;
}

void tst_TaskRules::autostartIsABooleanOrANumber()
{
    QFETCH(QVariant, hint);
    QTEST(Core::autostartValue({ { QStringLiteral("Autostart"), hint } }), "value");
    QCOMPARE(Core::autostartValue({ { QStringLiteral("autostart"), hint } }), 0);
    QCOMPARE(Core::autostartValue({}), 0);
}

void tst_TaskRules::namesAreThoseOfTheInterface_data()
{
    QTest::addColumn<QString>("name");
    const auto row = [](const char *text, QLatin1String name) {
        QTest::newRow(text) << QString(name);
    };
    row("Priority", Core::TaskHints::priority);
    row("RunningTime", Core::TaskHints::runningTime);
    row("CPULimit", Core::TaskHints::cpuLimit);
    row("Weight", Core::TaskHints::weight);
    row("CreateIPCSocket", Core::TaskHints::createIpcSocket);
    row("CGroups", Core::TaskHints::cgroups);
    row("Permissions", Core::TaskHints::permissions);
    row("Autostart", Core::TaskHints::autostart);
    row("Conditions", Core::TaskHints::conditions);
    row("StartDelay", Core::TaskHints::startDelay);
    row("Interval", Core::TaskHints::interval);
    row("Schedule", Core::TaskHints::schedule);
    row("StartTime", Core::TaskHints::startTime);
    row("Months", Core::TaskHints::months);
    row("WeekDays", Core::TaskHints::weekDays);
    row("Hours", Core::TaskHints::hours);
    row("Minutes", Core::TaskHints::minutes);
    row("StartDate", Core::TaskHints::startDate);
    row("EndDate", Core::TaskHints::endDate);
}

void tst_TaskRules::namesAreThoseOfTheInterface()
{
    QTEST(QString::fromLatin1(QTest::currentDataTag()), "name");
}

QTEST_APPLESS_MAIN(tst_TaskRules)

#include "tst_task_rules.moc"
