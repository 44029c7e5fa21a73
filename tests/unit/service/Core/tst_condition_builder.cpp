#include "Core/condition_builder.h"

#include "Core/condition.h"
#include "Core/condition_battery.h"
#include "Core/condition_delay.h"
#include "Core/condition_idle.h"
#include "Core/condition_internet.h"
#include "Core/condition_interval.h"
#include "Core/condition_once.h"
#include "Core/condition_schedule.h"
#include "Core/condition_watcher.h"
#include "support/bus_stand_in.h"
#include "support/log_capture.h"
#include "support/private_bus.h"
#include "timed/wire.h"

#include <QDBusPendingCallWatcher>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using Core::ApplicationInfo;
using Core::ApplicationTaskId;
using Core::Condition;
using Core::ConditionBuilder;
using Core::ConditionWatcher;
using Core::Error;
using TestSupport::BusStandIn;
using TestSupport::LogCapture;
using TestSupport::PrivateBus;

Q_DECLARE_METATYPE(QVariantMap)

namespace {

const QStringList types { QStringLiteral("worker"),    QStringLiteral("periodic"),
                          QStringLiteral("scheduled"), QStringLiteral("session-start"),
                          QStringLiteral("service"),   QString(),
                          QStringLiteral("Worker") };

ApplicationInfo::TaskInfo task(const QString &type, const QStringList &conditions = {})
{
    ApplicationInfo::TaskInfo info;
    info.id = ApplicationTaskId(QStringLiteral("org.example.App.task_Sync"));
    info.type = type;
    info.conditions = conditions;
    return info;
}

/// Class of each condition, in the order of addition.
QStringList kinds(const ConditionWatcher &watcher)
{
    QStringList result;
    const QList<Condition *> conditions =
        watcher.findChildren<Condition *>(QString(), Qt::FindDirectChildrenOnly);
    for (const Condition *condition : conditions) {
        result << QString::fromLatin1(condition->metaObject()->className());
    }
    return result;
}

QVariantMap schedule(const char *key, const QVariantList &values)
{
    return { { QStringLiteral("Schedule"), QVariantMap { { QLatin1String(key), values } } } };
}

} // namespace

class tst_ConditionBuilder : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void hintsGoWithTheirType_data();
    void hintsGoWithTheirType();
    void valuesAreChecked_data();
    void valuesAreChecked();
    void schedulesAreChecked_data();
    void schedulesAreChecked();
    void listsOfAnyTypeAreChecked();
    void nothingMakesNoConditions();
    void otherKeysArePassedOver();
    void firstFailureByKeyIsReported_data();
    void firstFailureByKeyIsReported();
    void conditionsBeforeAFailureStay();
    void scheduleAndStartTimeMayBothBeGiven();

    void listedConditionsAreMade_data();
    void listedConditionsAreMade();
    void declaredConditionsComeFirst();
    void listIsForEveryType();
    void listIsNotReadAfterAFailure();
    void hintThatIsNoListIsEmpty_data();
    void hintThatIsNoListIsEmpty();
    void repeatedConditionsAreMadeAgain();
    void hugeListsAreWithstood();

    void onceIsForSessionStartAlone();
    void onceComesLast();

private:
    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<BusStandIn> m_timed; ///< never answers
    QTemporaryDir m_runtime;
};

void tst_ConditionBuilder::initTestCase()
{
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(m_runtime.path()));
    m_bus = std::make_unique<PrivateBus>();
    m_bus->useAsSessionBus();
    m_bus->useAsSystemBus();
    m_timed = std::make_unique<BusStandIn>(*m_bus, QLatin1String(Maemo::Timed::wireService),
                                           QLatin1String(Maemo::Timed::wirePath));
    m_timed->answerWith({ 1U });
}

void tst_ConditionBuilder::cleanupTestCase()
{
    // A call that is under way when the program ends counts as lost memory. This one is answered behind all
    // others.
    const QDBusPendingCallWatcher last(QDBusConnection::sessionBus().asyncCall(QDBusMessage::createMethodCall(
        QLatin1String(Maemo::Timed::wireService), QLatin1String(Maemo::Timed::wirePath),
        QStringLiteral("org.example.Test"), QStringLiteral("Last"))));
    QTRY_VERIFY(last.isFinished());
}

void tst_ConditionBuilder::hintsGoWithTheirType_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("failure");
    QTest::addColumn<QString>("kind");

    struct Row
    {
        const char *key;
        QVariant value;
        const char *type;
        const char *failure;
        const char *kind;
    };
    const QList<Row> rows {
        { "StartDelay", 10, "worker", "StartDelay not allowed for this task", "Core::ConditionDelay" },
        { "Interval", 900, "periodic", "Interval not allowed for this task", "Core::ConditionInterval" },
        { "Schedule", QVariantMap(), "scheduled", "Schedule not allowed for this task",
          "Core::ConditionSchedule" },
        { "StartTime", QStringLiteral("2030-01-01T00:00:00"), "scheduled",
          "Start time not allowed for this task", "Core::ConditionSchedule" },
    };
    for (const Row &row : rows) {
        for (const QString &type : types) {
            const bool allowed = type == QLatin1String(row.type);
            QTest::addRow("%s, %s", row.key, qPrintable(type))
                << type << QString::fromLatin1(row.key) << row.value
                << (allowed ? QString() : QString::fromLatin1(row.failure))
                << (allowed ? QString::fromLatin1(row.kind) : QString());
        }
    }
}

void tst_ConditionBuilder::hintsGoWithTheirType()
{
    QFETCH(const QString, type);
    QFETCH(const QString, key);
    QFETCH(const QVariant, value);
    QFETCH(const QString, failure);
    QFETCH(const QString, kind);

    ConditionWatcher watcher;
    const Error error = ConditionBuilder::build(&watcher, task(type), { { key, value } });
    QCOMPARE(error.code(), failure.isEmpty() ? Error::NoError : Error::InvalidArgs);
    QCOMPARE(error.message(), failure);
    QCOMPARE(kinds(watcher), kind.isEmpty() ? QStringList() : QStringList(kind));
}

void tst_ConditionBuilder::valuesAreChecked_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("failure");
    QTest::addColumn<int>("conditions");

    const QString worker = QStringLiteral("worker");
    const QString delay = QStringLiteral("StartDelay");
    const QString negative = QStringLiteral("Delay cannot be negative");
    QTest::newRow("delay 0") << worker << delay << QVariant(0) << QString() << 0;
    QTest::newRow("delay 1") << worker << delay << QVariant(1) << QString() << 1;
    QTest::newRow("delay -1") << worker << delay << QVariant(-1) << negative << 0;
    QTest::newRow("delay as text") << worker << delay << QVariant(QStringLiteral("5")) << QString() << 1;
    QTest::newRow("delay of no number")
        << worker << delay << QVariant(QStringLiteral("abc")) << QString() << 0;
    QTest::newRow("delay of a list") << worker << delay << QVariant(QVariantList { 5 }) << QString() << 0;
    QTest::newRow("longest delay") << worker << delay << QVariant(std::numeric_limits<int>::max())
                                   << QString() << 1;

    const QString periodic = QStringLiteral("periodic");
    const QString interval = QStringLiteral("Interval");
    const QString minimum = QStringLiteral("Minimum interval is 15 minutes");
    QTest::newRow("interval 899") << periodic << interval << QVariant(899) << minimum << 0;
    QTest::newRow("interval 900") << periodic << interval << QVariant(900) << QString() << 1;
    QTest::newRow("interval 0") << periodic << interval << QVariant(0) << minimum << 0;
    QTest::newRow("interval -900") << periodic << interval << QVariant(-900) << minimum << 0;
    QTest::newRow("interval of no number")
        << periodic << interval << QVariant(QStringLiteral("abc")) << minimum << 0;
    QTest::newRow("interval as text")
        << periodic << interval << QVariant(QStringLiteral("901")) << QString() << 1;
    QTest::newRow("interval as double") << periodic << interval << QVariant(900.0) << QString() << 1;
    QTest::newRow("interval of nothing") << periodic << interval << QVariant() << minimum << 0;
    QTest::newRow("longest interval")
        << periodic << interval << QVariant(std::numeric_limits<int>::max()) << QString() << 1;

    const QString scheduled = QStringLiteral("scheduled");
    const QString time = QStringLiteral("StartTime");
    const QString badTime = QStringLiteral("Invalid start time");
    QTest::newRow("time") << scheduled << time << QVariant(QStringLiteral("2030-01-01T12:30:00")) << QString()
                          << 1;
    QTest::newRow("time of UTC") << scheduled << time << QVariant(QStringLiteral("2030-01-01T12:30:00Z"))
                                 << QString() << 1;
    QTest::newRow("past time") << scheduled << time << QVariant(QStringLiteral("2001-01-01T12:30:00"))
                               << QString() << 1;
    QTest::newRow("empty time") << scheduled << time << QVariant(QString()) << badTime << 0;
    QTest::newRow("no time") << scheduled << time << QVariant(QStringLiteral("tomorrow")) << badTime << 0;
    QTest::newRow("time that is not")
        << scheduled << time << QVariant(QStringLiteral("2030-02-30T12:30:00")) << badTime << 0;
    QTest::newRow("time of a number") << scheduled << time << QVariant(1893456000) << badTime << 0;
    QTest::newRow("time of a map") << scheduled << time << QVariant(QVariantMap()) << badTime << 0;
}

void tst_ConditionBuilder::valuesAreChecked()
{
    QFETCH(const QString, type);
    QFETCH(const QString, key);
    QFETCH(const QVariant, value);
    QFETCH(const QString, failure);
    QFETCH(const int, conditions);

    ConditionWatcher watcher;
    const Error error = ConditionBuilder::build(&watcher, task(type), { { key, value } });
    QCOMPARE(error.code(), failure.isEmpty() ? Error::NoError : Error::InvalidArgs);
    QCOMPARE(error.message(), failure);
    QCOMPARE(kinds(watcher).size(), conditions);
}

void tst_ConditionBuilder::schedulesAreChecked_data()
{
    QTest::addColumn<QVariantMap>("hints");
    QTest::addColumn<bool>("valid");

    QTest::newRow("empty") << schedule("Minutes", {}) << true;
    QTest::newRow("no keys") << QVariantMap { { QStringLiteral("Schedule"), QVariantMap() } } << true;
    QTest::newRow("no map") << QVariantMap { { QStringLiteral("Schedule"), 7 } } << true; // reads as empty
    QTest::newRow("minutes 0, 14") << schedule("Minutes", { 0, 14 }) << false;
    QTest::newRow("minutes 0, 15") << schedule("Minutes", { 0, 15 }) << true;
    QTest::newRow("minutes not sorted") << schedule("Minutes", { 45, 0, 15, 30 }) << true;
    QTest::newRow("minutes around the hour") << schedule("Minutes", { 0, 59 }) << true;
    QTest::newRow("minutes too close when sorted") << schedule("Minutes", { 30, 0, 40 }) << false;
    QTest::newRow("five minutes") << schedule("Minutes", { 0, 15, 30, 45, 59 }) << false;
    QTest::newRow("minute twice") << schedule("Minutes", { 5, 5 }) << false;
    QTest::newRow("minute 59") << schedule("Minutes", { 59 }) << true;
    QTest::newRow("minute 60") << schedule("Minutes", { 60 }) << false;
    QTest::newRow("minute -1") << schedule("Minutes", { -1 }) << false;
    QTest::newRow("lowest and highest minute")
        << schedule("Minutes", { std::numeric_limits<int>::min(), std::numeric_limits<int>::max() }) << false;
    QTest::newRow("hours") << schedule("Hours", { 23, 0, 0, 12 }) << true;
    QTest::newRow("hour 24") << schedule("Hours", { 24 }) << false;
    QTest::newRow("hour -1") << schedule("Hours", { 0, -1 }) << false;
    QTest::newRow("week days") << schedule("WeekDays", { 6, 0, 6 }) << true;
    QTest::newRow("week day 7") << schedule("WeekDays", { 7 }) << false;
    QTest::newRow("week day -1") << schedule("WeekDays", { -1 }) << false;
    QTest::newRow("months") << schedule("Months", { 0 }) << true;
    QTest::newRow("month 11") << schedule("Months", { 11, 11, 3 }) << true;
    QTest::newRow("month 12") << schedule("Months", { 12 }) << false;
    QTest::newRow("month -1") << schedule("Months", { -1 }) << false;
    QVariantList many;
    for (int i = 0; i < 100000; ++i) {
        many << i % 24;
    }
    QTest::newRow("huge list of hours") << schedule("Hours", many) << true;
    QTest::newRow("huge list of minutes") << schedule("Minutes", many) << false;
    QTest::newRow("dates that are none")
        << QVariantMap { { QStringLiteral("Schedule"),
                           QVariantMap { { QStringLiteral("StartDate"), QStringLiteral("x") },
                                         { QStringLiteral("EndDate"), 7 } } } }
        << true;
}

void tst_ConditionBuilder::schedulesAreChecked()
{
    QFETCH(const QVariantMap, hints);
    QFETCH(const bool, valid);

    ConditionWatcher watcher;
    const Error error = ConditionBuilder::build(&watcher, task(QStringLiteral("scheduled")), hints);
    QCOMPARE(error.code(), valid ? Error::NoError : Error::InvalidArgs);
    QCOMPARE(error.message(), valid ? QString() : QStringLiteral("Task schedule invalid"));
    QCOMPARE(kinds(watcher).size(), valid ? 1 : 0);
}

void tst_ConditionBuilder::listsOfAnyTypeAreChecked()
{
    const QList<QVariant> lists { QVariant::fromValue(QList<int> { 24 }),
                                  QVariant::fromValue(QList<double> { 24 }),
                                  QVariant(QStringList { QStringLiteral("24") }) };
    for (const QVariant &list : lists) {
        ConditionWatcher watcher;
        const Error error = ConditionBuilder::build(
            &watcher, task(QStringLiteral("scheduled")),
            { { QStringLiteral("Schedule"), QVariantMap { { QStringLiteral("Hours"), list } } } });
        QCOMPARE(error.message(), QStringLiteral("Task schedule invalid"));
    }
}

void tst_ConditionBuilder::nothingMakesNoConditions()
{
    ConditionWatcher watcher;
    QVERIFY(!ConditionBuilder::build(&watcher, task(QStringLiteral("worker")),
                                     { { QStringLiteral("StartDelay"), 0 } }));
    QCOMPARE(kinds(watcher), QStringList());
    QVERIFY(watcher.allSatisfied());
    QCOMPARE(watcher.conditionData(), QVariantMap());
}

void tst_ConditionBuilder::otherKeysArePassedOver()
{
    ConditionWatcher watcher;
    const LogCapture log;
    const Error error = ConditionBuilder::build(&watcher, task(QStringLiteral("worker")),
                                                { { QStringLiteral("Autostart"), true },
                                                  { QStringLiteral("Weight"), QVariantMap() },
                                                  { QStringLiteral("interval"), 1 },
                                                  { QString(), QVariant() } });
    QVERIFY(!error);
    QCOMPARE(kinds(watcher), QStringList());
    QCOMPARE(log.messages(), QStringList());
}

void tst_ConditionBuilder::firstFailureByKeyIsReported_data()
{
    QTest::addColumn<QVariantMap>("hints");
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("failure");

    const QVariant bad(QVariantMap { { QStringLiteral("Hours"), QVariantList { 24 } } });
    QTest::newRow("interval, schedule")
        << QVariantMap { { QStringLiteral("Interval"), 1 }, { QStringLiteral("Schedule"), bad } }
        << QStringLiteral("periodic") << QStringLiteral("Minimum interval is 15 minutes");
    QTest::newRow("schedule, start delay")
        << QVariantMap { { QStringLiteral("Schedule"), bad }, { QStringLiteral("StartDelay"), 1 } }
        << QStringLiteral("scheduled") << QStringLiteral("Task schedule invalid");
    QTest::newRow("start delay, start time")
        << QVariantMap { { QStringLiteral("StartDelay"), -1 }, { QStringLiteral("StartTime"), 1 } }
        << QStringLiteral("worker") << QStringLiteral("Delay cannot be negative");
    QTest::newRow("good interval, schedule")
        << QVariantMap { { QStringLiteral("Interval"), 900 }, { QStringLiteral("Schedule"), bad } }
        << QStringLiteral("periodic") << QStringLiteral("Schedule not allowed for this task");
}

void tst_ConditionBuilder::firstFailureByKeyIsReported()
{
    QFETCH(const QVariantMap, hints);
    QFETCH(const QString, type);
    QFETCH(const QString, failure);

    ConditionWatcher watcher;
    QCOMPARE(ConditionBuilder::build(&watcher, task(type), hints).message(), failure);
}

void tst_ConditionBuilder::conditionsBeforeAFailureStay()
{
    ConditionWatcher watcher;
    const Error error =
        ConditionBuilder::build(&watcher, task(QStringLiteral("periodic")),
                                { { QStringLiteral("Interval"), 900 }, { QStringLiteral("StartDelay"), 1 } });
    QCOMPARE(error.code(), Error::InvalidArgs);
    QCOMPARE(kinds(watcher), QStringList(QStringLiteral("Core::ConditionInterval")));
}

void tst_ConditionBuilder::scheduleAndStartTimeMayBothBeGiven()
{
    ConditionWatcher watcher;
    const Error error =
        ConditionBuilder::build(&watcher, task(QStringLiteral("scheduled")),
                                { { QStringLiteral("Schedule"), QVariantMap() },
                                  { QStringLiteral("StartTime"), QStringLiteral("2030-01-01T00:00:00") } });
    QVERIFY(!error);
    QCOMPARE(kinds(watcher).size(), 2);
    QCOMPARE(watcher.conditionData().keys(), QStringList(QStringLiteral("Schedule")));
    QVERIFY(!watcher.allSatisfied());
}

void tst_ConditionBuilder::listedConditionsAreMade_data()
{
    QTest::addColumn<QString>("condition");
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("warning");

    const QString battery = QStringLiteral("Core::ConditionBattery");
    const QString idle = QStringLiteral("Core::ConditionIdle");
    const QString internet = QStringLiteral("Core::ConditionInternet");
    QTest::newRow("battery-not-low") << "battery-not-low" << battery << "";
    QTest::newRow("battery-not-low, parameter") << "battery-not-low:50" << battery << "";
    QTest::newRow("charging") << "charging" << battery << "";
    QTest::newRow("charging, parameter") << "charging:fast" << battery << "";
    QTest::newRow("idle") << "idle" << idle << "";
    QTest::newRow("idle, parameter") << "idle:" << idle << "";
    QTest::newRow("internet") << "internet" << internet << "";
    QTest::newRow("internet, empty") << "internet:" << internet << "";
    QTest::newRow("ethernet") << "internet:ethernet" << internet << "";
    QTest::newRow("wifi") << "internet:wifi" << internet << "";
    QTest::newRow("wifi-or-ethernet") << "internet:wifi-or-ethernet" << internet << "";
    QTest::newRow("cellular") << "internet:cellular" << internet << "";
    QTest::newRow("further parts") << "internet:wifi:bluetooth:" << internet << "";
    QTest::newRow("empty second part") << "internet::wifi" << internet << "";
    QTest::newRow("bluetooth") << "internet:bluetooth" << internet << "Unknown connection type \"bluetooth\"";
    QTest::newRow("other case") << "internet:WiFi" << internet << "Unknown connection type \"WiFi\"";
    QTest::newRow("blank") << "internet: wifi" << internet << "Unknown connection type \" wifi\"";
    QTest::newRow("battery") << "battery"
                             << ""
                             << "Unsupported condition \"battery\"";
    QTest::newRow("once") << "once"
                          << ""
                          << "Unsupported condition \"once\"";
    QTest::newRow("name only") << "moon:full"
                               << ""
                               << "Unsupported condition \"moon\"";
    QTest::newRow("empty") << ""
                           << ""
                           << "Unsupported condition \"\"";
    QTest::newRow("no name") << ":wifi"
                             << ""
                             << "Unsupported condition \"\"";
}

void tst_ConditionBuilder::listedConditionsAreMade()
{
    QFETCH(const QString, condition);
    QFETCH(const QString, kind);
    QFETCH(const QString, warning);

    for (const bool declared : { true, false }) {
        ConditionWatcher watcher;
        const LogCapture log;
        const QStringList list(condition);
        const Error error = ConditionBuilder::build(
            &watcher, task(QStringLiteral("worker"), declared ? list : QStringList()),
            declared ? QVariantMap() : QVariantMap { { QStringLiteral("Conditions"), list } });
        QVERIFY(!error);
        QCOMPARE(log.warnings(), warning.isEmpty() ? QStringList() : QStringList(warning));
        QCOMPARE(kinds(watcher), kind.isEmpty() ? QStringList() : QStringList(kind));
        QCOMPARE(watcher.allSatisfied(), kind.isEmpty());
    }
}

void tst_ConditionBuilder::declaredConditionsComeFirst()
{
    ConditionWatcher watcher;
    const Error error = ConditionBuilder::build(
        &watcher, task(QStringLiteral("worker"), { QStringLiteral("idle"), QStringLiteral("internet") }),
        { { QStringLiteral("Conditions"), QStringList { QStringLiteral("charging") } },
          { QStringLiteral("StartDelay"), 5 } });
    QVERIFY(!error);
    QCOMPARE(kinds(watcher),
             (QStringList { QStringLiteral("Core::ConditionDelay"), QStringLiteral("Core::ConditionIdle"),
                            QStringLiteral("Core::ConditionInternet"),
                            QStringLiteral("Core::ConditionBattery") }));
}

void tst_ConditionBuilder::listIsForEveryType()
{
    for (const QString &type : types) {
        ConditionWatcher watcher;
        QVERIFY(!ConditionBuilder::build(&watcher, task(type, { QStringLiteral("idle") }), {}));
        QVERIFY(kinds(watcher).contains(QStringLiteral("Core::ConditionIdle")));
    }
}

void tst_ConditionBuilder::listIsNotReadAfterAFailure()
{
    ConditionWatcher watcher;
    const LogCapture log;
    QVERIFY(ConditionBuilder::build(&watcher, task(QStringLiteral("worker"), { QStringLiteral("moon") }),
                                    { { QStringLiteral("Interval"), 900 } }));
    QCOMPARE(log.messages(), QStringList());
}

void tst_ConditionBuilder::hintThatIsNoListIsEmpty_data()
{
    QTest::addColumn<QVariant>("conditions");

    QTest::newRow("nothing") << QVariant();
    QTest::newRow("number") << QVariant(7);
    QTest::newRow("map") << QVariant(QVariantMap { { QStringLiteral("idle"), true } });
    QTest::newRow("empty") << QVariant(QStringList());
}

void tst_ConditionBuilder::hintThatIsNoListIsEmpty()
{
    QFETCH(const QVariant, conditions);

    ConditionWatcher watcher;
    QVERIFY(!ConditionBuilder::build(&watcher, task(QStringLiteral("worker")),
                                     { { QStringLiteral("Conditions"), conditions } }));
    QCOMPARE(kinds(watcher), QStringList());
}

void tst_ConditionBuilder::repeatedConditionsAreMadeAgain()
{
    ConditionWatcher watcher;
    const QStringList list { QStringLiteral("idle") };
    QVERIFY(!ConditionBuilder::build(&watcher, task(QStringLiteral("worker"), list),
                                     { { QStringLiteral("Conditions"), list } }));
    QCOMPARE(kinds(watcher).size(), 2);
}

void tst_ConditionBuilder::hugeListsAreWithstood()
{
    QStringList list;
    for (int i = 0; i < 2000; ++i) {
        list << QStringLiteral("charging") << QStringLiteral("internet:wifi") << QStringLiteral("idle")
             << QString(10000, QLatin1Char(':'));
    }
    ConditionWatcher watcher;
    const LogCapture log;
    QVERIFY(!ConditionBuilder::build(&watcher, task(QStringLiteral("worker"), list), {}));
    QCOMPARE(kinds(watcher).size(), 6000);
    QCOMPARE(log.warnings().size(), 2000);
}

void tst_ConditionBuilder::onceIsForSessionStartAlone()
{
    for (const QString &type : types) {
        ConditionWatcher watcher;
        QVERIFY(!ConditionBuilder::build(&watcher, task(type), {}));
        const bool expected = type == QLatin1String("session-start");
        QCOMPARE(kinds(watcher),
                 expected ? QStringList(QStringLiteral("Core::ConditionOnce")) : QStringList());
    }
}

void tst_ConditionBuilder::onceComesLast()
{
    ConditionWatcher watcher;
    QVERIFY(!ConditionBuilder::build(
        &watcher, task(QStringLiteral("session-start"), { QStringLiteral("idle") }),
        { { QStringLiteral("Conditions"), QStringList(QStringLiteral("charging")) } }));
    QCOMPARE(kinds(watcher),
             (QStringList { QStringLiteral("Core::ConditionIdle"), QStringLiteral("Core::ConditionBattery"),
                            QStringLiteral("Core::ConditionOnce") }));
    watcher.taskWasTriggered();
    QVERIFY(QFile::exists(m_runtime.filePath(QStringLiteral("applications/org.example.App/Sync.launched"))));
}

QTEST_GUILESS_MAIN(tst_ConditionBuilder)
#include "tst_condition_builder.moc"
