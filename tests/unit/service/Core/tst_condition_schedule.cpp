#include "Core/condition_schedule.h"

#include "Core/condition_watcher.h"
#include "Core/timed_proxy.h"
#include "support/bus_stand_in.h"
#include "support/log_capture.h"
#include "support/patience.h"
#include "support/private_bus.h"
#include "timed/wire.h"

#include <QDBusPendingCallWatcher>
#include <QDateTime>
#include <QSignalSpy>
#include <QtTest>

#include <memory>

using Core::ConditionSchedule;
using Core::ConditionWatcher;
using Core::TimedProxy;
using Maemo::Timed::WireEvent;
using Maemo::Timed::WireRecurrence;
using TestSupport::BusStandIn;
using TestSupport::LogCapture;
using TestSupport::PrivateBus;

namespace {

const QString task = QStringLiteral("org.example.Notes.task_Sync");
const QString add = QStringLiteral("add_event");
const QString cancel = QStringLiteral("cancel");

QVariantMap stored(quint32 cookie)
{
    return { { QStringLiteral("Schedule"), QVariantMap { { QStringLiteral("cookieId"), cookie } } } };
}

} // namespace

class tst_ConditionSchedule : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void numbersAreOfAnyList_data();
    void numbersAreOfAnyList();
    void scheduleIsSentAsItIs();
    void absentKeysAreNoLimit();
    void datesAreRead_data();
    void datesAreRead();
    void startTimeIsASingleEvent();
    void startTimeInThePastIsSentToo();

    void cookieIsStored();
    void cookieIsAnUnsignedNumber();
    void otherDataIsKept();
    void storedCookieAddsNoEvent();
    void refusalIsWarnedAbout();
    void absentDaemonIsWarnedAbout();
    void answerAfterTheConditionIsGone();

    void triggerOfTheTaskMakesItTrue();
    void triggerOfAnotherTaskDoesNot();
    void triggerBeforeTheConditionIsNotLost();
    void triggerBeforeTheAnswerCounts();
    void startOfTheTaskMakesItFalse();
    void repeatedTriggersCountAgain();
    void nothingIsHeardAfterTheEnd();
    void scheduleAndStartTimeBothHaveToFire();

    void removalCancelsTheEvent();
    void removalFindsTheCookieOfAFile_data();
    void removalFindsTheCookieOfAFile();
    void removalWithoutACookieIsSentToo();
    void removalBeforeTheAnswerCancelsWhatCameOfIt();
    void proxyOfTheProcessIsTheDefault();

private:
    QList<QDBusMessage> calls(const QString &member) const;
    void answerWithCookie(quint32 cookie);
    void trigger(const QString &eventId);
    WireEvent sent(const QVariantMap &schedule);

    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<BusStandIn> m_daemon;
    std::unique_ptr<TimedProxy> m_proxy;
};

void tst_ConditionSchedule::initTestCase()
{
    qputenv("TZ", "UTC");
    m_bus = std::make_unique<PrivateBus>();
    m_bus->useAsSessionBus();
    Maemo::Timed::registerWireTypes();
}

void tst_ConditionSchedule::init()
{
    m_daemon = std::make_unique<BusStandIn>(*m_bus, QLatin1String(Maemo::Timed::wireService),
                                            QLatin1String(Maemo::Timed::wirePath));
    m_proxy = std::make_unique<TimedProxy>(QDBusConnection::sessionBus());
}

void tst_ConditionSchedule::cleanup()
{
    m_proxy.reset();
    m_daemon.reset();
}

QList<QDBusMessage> tst_ConditionSchedule::calls(const QString &member) const
{
    QList<QDBusMessage> result;
    for (const QDBusMessage &call : m_daemon->calls()) {
        if (call.member() == member) {
            result << call;
        }
    }
    return result;
}

void tst_ConditionSchedule::answerWithCookie(quint32 cookie)
{
    m_daemon->setHandler([cookie](const QDBusMessage &call, const QDBusConnection &connection) {
        connection.send(call.member() == add ? call.createReply(cookie) : call.createReply(true));
    });
}

/// Calls the service as the daemon does, and waits until the call has been handled.
void tst_ConditionSchedule::trigger(const QString &eventId)
{
    QDBusConnection caller = m_bus->connect();
    QDBusMessage call = QDBusMessage::createMethodCall(
        QDBusConnection::sessionBus().baseService(), QStringLiteral("/org/kestrix/Procwarden/Timed"),
        QStringLiteral("org.kestrix.Procwarden.Timed"), QStringLiteral("EventTriggered"));
    call << QVariantMap { { QStringLiteral("eventId"), eventId } };
    QDBusPendingCallWatcher watcher(caller.asyncCall(call));
    QSignalSpy finished(&watcher, &QDBusPendingCallWatcher::finished);
    QVERIFY(finished.wait(patienceMs));
    QVERIFY(!watcher.isError());
    m_bus->disconnect(caller);
}

/// The event that is made of a schedule.
WireEvent tst_ConditionSchedule::sent(const QVariantMap &schedule)
{
    ConditionSchedule condition(task, schedule, nullptr, m_proxy.get());
    condition.restoreConfig({});
    if (!QTest::qWaitFor([this] { return calls(add).size() == 1; }, patienceMs)) {
        return WireEvent();
    }
    return qdbus_cast<WireEvent>(calls(add).first().arguments().value(0));
}

void tst_ConditionSchedule::numbersAreOfAnyList_data()
{
    QTest::addColumn<QVariant>("list");
    QTest::addColumn<QList<int>>("numbers");

    const QList<int> expected { 45, 0 };
    QTest::newRow("variants") << QVariant(QVariantList { 45, 0 }) << expected;
    QTest::newRow("integers") << QVariant::fromValue(QList<int> { 45, 0 }) << expected;
    QTest::newRow("unsigned") << QVariant::fromValue(QList<uint> { 45, 0 }) << expected;
    QTest::newRow("doubles") << QVariant::fromValue(QList<double> { 45, 0 }) << expected;
    QTest::newRow("texts") << QVariant(QStringList { QStringLiteral("45"), QStringLiteral("x") }) << expected;
    QTest::newRow("odd ones") << QVariant(QVariantList { 45, QVariantMap() }) << expected;
    QTest::newRow("empty") << QVariant(QVariantList()) << QList<int>();
    QTest::newRow("nothing") << QVariant() << QList<int>();
    QTest::newRow("number") << QVariant(45) << QList<int>();
    QTest::newRow("text") << QVariant(QStringLiteral("45")) << QList<int>();
    QTest::newRow("map") << QVariant(QVariantMap { { QStringLiteral("a"), 45 } }) << QList<int>();
}

void tst_ConditionSchedule::numbersAreOfAnyList()
{
    QFETCH(const QVariant, list);
    QFETCH(const QList<int>, numbers);

    QCOMPARE(ConditionSchedule::numbers(list), numbers);
}

void tst_ConditionSchedule::scheduleIsSentAsItIs()
{
    const WireEvent event = sent({
        { QStringLiteral("Months"), QVariantList { 11, 0 } },
        { QStringLiteral("WeekDays"), QVariantList { 6, 0 } },
        { QStringLiteral("Hours"), QVariantList { 23, 3 } },
        { QStringLiteral("Minutes"), QVariantList { 45, 0, 15 } },
        { QStringLiteral("StartDate"), QStringLiteral("2026-01-02T03:04:05") },
        { QStringLiteral("EndDate"), QStringLiteral("2027-01-02T03:04:05") },
        { QStringLiteral("Other"), 1 },
    });
    QCOMPARE(event.attributes.value(QStringLiteral("eventId")), task);
    QCOMPARE(event.recurrences.size(), 1);
    const WireRecurrence &recurrence = event.recurrences.first();
    QCOMPARE(recurrence.months, (QList<int> { 0, 11 }));
    QCOMPARE(recurrence.daysOfWeek, (QList<int> { 0, 6 }));
    QCOMPARE(recurrence.hours, (QList<int> { 3, 23 }));
    QCOMPARE(recurrence.minutes, (QList<int> { 0, 15, 45 }));
    QVERIFY2(recurrence.start.startsWith(QLatin1String("2026-01-02T03:04")), qPrintable(recurrence.start));
    QVERIFY2(recurrence.end.startsWith(QLatin1String("2027-01-02T03:04")), qPrintable(recurrence.end));
}

void tst_ConditionSchedule::absentKeysAreNoLimit()
{
    const WireEvent event = sent({});
    QCOMPARE(event.recurrences.size(), 1);
    QCOMPARE(event.time, QString());
    const WireRecurrence &recurrence = event.recurrences.first();
    QCOMPARE(recurrence.months.size(), 12);
    QCOMPARE(recurrence.daysOfWeek.size(), 7);
    QCOMPARE(recurrence.hours.size(), 24);
    QCOMPARE(recurrence.minutes, QList<int> { 0 });
    QCOMPARE(recurrence.start, QString());
    QCOMPARE(recurrence.end, QString());
}

void tst_ConditionSchedule::datesAreRead_data()
{
    QTest::addColumn<QVariant>("start");
    QTest::addColumn<bool>("valid");

    QTest::newRow("local") << QVariant(QStringLiteral("2026-01-02T03:04:05")) << true;
    QTest::newRow("UTC") << QVariant(QStringLiteral("2026-01-02T03:04:05Z")) << true;
    QTest::newRow("date") << QVariant(QStringLiteral("2026-01-02")) << true;
    QTest::newRow("empty") << QVariant(QString()) << false;
    QTest::newRow("none") << QVariant(QStringLiteral("tomorrow")) << false;
    QTest::newRow("number") << QVariant(20260102) << false;
    QTest::newRow("list") << QVariant(QVariantList { 1 }) << false;
}

void tst_ConditionSchedule::datesAreRead()
{
    QFETCH(const QVariant, start);
    QFETCH(const bool, valid);

    const WireEvent event = sent({ { QStringLiteral("StartDate"), start } });
    QCOMPARE(event.recurrences.size(), 1);
    QCOMPARE(!event.recurrences.first().start.isEmpty(), valid);
}

void tst_ConditionSchedule::startTimeIsASingleEvent()
{
    ConditionSchedule condition(task, QDateTime(QDate(2030, 2, 3), QTime(4, 5, 6)), nullptr, m_proxy.get());
    condition.restoreConfig({});
    QTRY_COMPARE(calls(add).size(), 1);
    const auto event = qdbus_cast<WireEvent>(calls(add).first().arguments().value(0));
    QVERIFY2(event.time.startsWith(QLatin1String("2030-02-03T04:05")), qPrintable(event.time));
    QCOMPARE(event.recurrences.size(), 0);
    QCOMPARE(event.attributes.value(QStringLiteral("eventId")), task);
}

void tst_ConditionSchedule::startTimeInThePastIsSentToo()
{
    ConditionSchedule condition(task, QDateTime(QDate(2001, 2, 3), QTime(4, 5)), nullptr, m_proxy.get());
    condition.restoreConfig({});
    QTRY_COMPARE(calls(add).size(), 1);
    QVERIFY(!condition.isSatisfied());
}

void tst_ConditionSchedule::cookieIsStored()
{
    answerWithCookie(7);
    ConditionWatcher watcher;
    QSignalSpy changes(&watcher, &ConditionWatcher::conditionDataChanged);
    const LogCapture log;
    watcher.addCondition(new ConditionSchedule(task, QVariantMap(), nullptr, m_proxy.get()));
    QVERIFY(!watcher.allSatisfied());
    QCOMPARE(watcher.conditionData(), (QVariantMap { { QStringLiteral("Schedule"), QVariant() } }));
    QVERIFY(changes.wait(patienceMs));
    QCOMPARE(changes.size(), 1);
    QCOMPARE(watcher.conditionData(), stored(7));
    QCOMPARE(log.messages(), QStringList(QStringLiteral("No timed cookie saved, creating new event QMap()")));
}

void tst_ConditionSchedule::cookieIsAnUnsignedNumber()
{
    answerWithCookie(4000000000);
    ConditionSchedule condition(task, QVariantMap(), nullptr, m_proxy.get());
    QCOMPARE(condition.name(), QStringLiteral("Schedule"));
    condition.restoreConfig({});
    QTRY_COMPARE(condition.config().size(), 1);
    const QVariant cookie = condition.config().value(QStringLiteral("cookieId"));
    QCOMPARE(int(cookie.type()), int(QVariant::UInt));
    QCOMPARE(cookie.toUInt(), 4000000000U);
}

void tst_ConditionSchedule::otherDataIsKept()
{
    answerWithCookie(7);
    ConditionSchedule condition(task, QVariantMap(), nullptr, m_proxy.get());
    condition.restoreConfig({ { QStringLiteral("other"), 1 } });
    QTRY_COMPARE(condition.config().size(), 2);
    QCOMPARE(condition.config().value(QStringLiteral("other")), QVariant(1));
}

void tst_ConditionSchedule::storedCookieAddsNoEvent()
{
    answerWithCookie(8);
    ConditionWatcher watcher;
    watcher.setConditionData(stored(7));
    QSignalSpy changes(&watcher, &ConditionWatcher::conditionDataChanged);
    watcher.addCondition(new ConditionSchedule(task, QVariantMap(), nullptr, m_proxy.get()));
    trigger(task); // its answer comes behind that of any call before it
    QVERIFY(watcher.allSatisfied());
    QCOMPARE(m_daemon->calls().size(), 0);
    QCOMPARE(changes.size(), 0);
    QCOMPARE(watcher.conditionData(), stored(7));
}

void tst_ConditionSchedule::refusalIsWarnedAbout()
{
    m_daemon->setHandler([](const QDBusMessage &call, const QDBusConnection &connection) {
        connection.send(call.createErrorReply(QDBusError::InvalidArgs, QStringLiteral("no such hour")));
    });
    ConditionSchedule condition(task, QVariantMap(), nullptr, m_proxy.get());
    QSignalSpy configured(&condition, &ConditionSchedule::configChanged);
    const LogCapture log;
    condition.restoreConfig({});
    QTRY_COMPARE(log.messages().size(), 3);
    QCOMPARE(log.warnings(),
             QStringList(QStringLiteral("Could not create timed event for \"org.example.Notes.task_Sync\"")));
    QVERIFY(log.messages().last().contains(QLatin1String("no such hour"))); // for whoever asks why
    QVERIFY(!condition.isSatisfied());
    QCOMPARE(configured.size(), 0);
    QCOMPARE(m_daemon->calls().size(), 1); // nothing tries again
}

void tst_ConditionSchedule::absentDaemonIsWarnedAbout()
{
    m_daemon->leave();
    ConditionSchedule condition(task, QVariantMap(), nullptr, m_proxy.get());
    const LogCapture log;
    condition.restoreConfig({});
    QTRY_COMPARE(
        log.warnings(),
        QStringList(QStringLiteral("Could not create timed event for \"org.example.Notes.task_Sync\"")));
    QVERIFY(!condition.isSatisfied());
}

void tst_ConditionSchedule::answerAfterTheConditionIsGone()
{
    auto condition = std::make_unique<ConditionSchedule>(task, QVariantMap(), nullptr, m_proxy.get());
    condition->restoreConfig({});
    QTRY_COMPARE(calls(add).size(), 1);
    condition.reset(); // the service ends; the event stays
    m_daemon->send(calls(add).first().createReply(7U));
    trigger(task);
    QCOMPARE(calls(cancel).size(), 0);
}

void tst_ConditionSchedule::triggerOfTheTaskMakesItTrue()
{
    ConditionSchedule condition(task, QVariantMap(), nullptr, m_proxy.get());
    condition.restoreConfig(stored(7).first().toMap());
    QVERIFY(!condition.isSatisfied());
    trigger(task);
    QVERIFY(condition.isSatisfied());
}

void tst_ConditionSchedule::triggerOfAnotherTaskDoesNot()
{
    ConditionSchedule condition(task, QVariantMap(), nullptr, m_proxy.get());
    condition.restoreConfig(stored(7).first().toMap());
    trigger(QStringLiteral("org.example.Notes.task_Sync2"));
    trigger(QStringLiteral("org.example.Notes"));
    trigger(task.toUpper());
    QVERIFY(!condition.isSatisfied());
}

void tst_ConditionSchedule::triggerBeforeTheConditionIsNotLost()
{
    trigger(task);
    ConditionWatcher watcher;
    watcher.setConditionData(stored(7));
    watcher.addCondition(new ConditionSchedule(task, QVariantMap(), nullptr, m_proxy.get()));
    QVERIFY(watcher.allSatisfied());
}

void tst_ConditionSchedule::triggerBeforeTheAnswerCounts()
{
    ConditionSchedule condition(task, QVariantMap(), nullptr, m_proxy.get());
    condition.restoreConfig({});
    QTRY_COMPARE(calls(add).size(), 1);
    trigger(task);
    QVERIFY(condition.isSatisfied());
    m_daemon->send(calls(add).first().createReply(7U));
    QTRY_COMPARE(condition.config().size(), 1);
    QVERIFY(condition.isSatisfied());
}

void tst_ConditionSchedule::startOfTheTaskMakesItFalse()
{
    ConditionSchedule condition(task, QVariantMap(), nullptr, m_proxy.get());
    condition.restoreConfig(stored(7).first().toMap());
    trigger(task);
    condition.taskWasTriggered();
    QVERIFY(!condition.isSatisfied());
    QCOMPARE(m_daemon->calls().size(), 0); // the event stays the daemon's
}

void tst_ConditionSchedule::repeatedTriggersCountAgain()
{
    ConditionSchedule condition(task, QVariantMap(), nullptr, m_proxy.get());
    condition.restoreConfig(stored(7).first().toMap());
    QSignalSpy changes(&condition, &ConditionSchedule::isSatisfiedChanged);
    for (int i = 0; i < 3; ++i) {
        trigger(task);
        trigger(task);
        condition.taskWasTriggered();
    }
    QCOMPARE(changes.size(), 6);
}

void tst_ConditionSchedule::nothingIsHeardAfterTheEnd()
{
    auto condition = std::make_unique<ConditionSchedule>(task, QVariantMap(), nullptr, m_proxy.get());
    condition->restoreConfig(stored(7).first().toMap());
    QSignalSpy changes(condition.get(), &ConditionSchedule::isSatisfiedChanged);
    condition.reset();
    trigger(task);
    QCOMPARE(changes.size(), 0);
}

void tst_ConditionSchedule::scheduleAndStartTimeBothHaveToFire()
{
    // Both have the task's id, so one trigger is for both; what differs is who still waits.
    ConditionWatcher watcher;
    watcher.setConditionData(stored(7));
    auto *schedule = new ConditionSchedule(task, QVariantMap(), nullptr, m_proxy.get());
    auto *startTime =
        new ConditionSchedule(task, QDateTime(QDate(2030, 2, 3), QTime(4, 5)), nullptr, m_proxy.get());
    watcher.addCondition(schedule);
    watcher.addCondition(startTime);
    QVERIFY(!watcher.allSatisfied());
    trigger(task);
    QVERIFY(schedule->isSatisfied());
    QVERIFY(startTime->isSatisfied());
    QVERIFY(watcher.allSatisfied());
    startTime->taskWasTriggered();
    QVERIFY(!watcher.allSatisfied());
}

void tst_ConditionSchedule::removalCancelsTheEvent()
{
    answerWithCookie(8);
    ConditionSchedule condition(task, QVariantMap(), nullptr, m_proxy.get());
    condition.restoreConfig(stored(7).first().toMap());
    condition.taskRemoved();
    QTRY_COMPARE(calls(cancel).size(), 1);
    QCOMPARE(calls(cancel).first().signature(), QStringLiteral("u"));
    QCOMPARE(calls(cancel).first().arguments().first().toUInt(), 7U);
}

void tst_ConditionSchedule::removalFindsTheCookieOfAFile_data()
{
    QTest::addColumn<QVariant>("stored");
    QTest::addColumn<quint32>("cancelled");

    QTest::newRow("number of JSON") << QVariant(4000000000.0) << 4000000000U;
    QTest::newRow("text") << QVariant(QStringLiteral("7")) << 7U;
    QTest::newRow("nonsense") << QVariant(QStringLiteral("x")) << 0U;
    QTest::newRow("map") << QVariant(QVariantMap()) << 0U;
}

void tst_ConditionSchedule::removalFindsTheCookieOfAFile()
{
    QFETCH(const QVariant, stored);
    QFETCH(const quint32, cancelled);

    answerWithCookie(8);
    ConditionSchedule condition(task, QVariantMap(), nullptr, m_proxy.get());
    condition.restoreConfig({ { QStringLiteral("cookieId"), stored } });
    condition.taskRemoved();
    QTRY_COMPARE(calls(cancel).size(), 1);
    QCOMPARE(calls(cancel).first().arguments().first().toUInt(), cancelled);
    QCOMPARE(calls(add).size(), 0);
}

void tst_ConditionSchedule::removalWithoutACookieIsSentToo()
{
    m_daemon->setHandler([](const QDBusMessage &call, const QDBusConnection &connection) {
        connection.send(call.createErrorReply(QDBusError::InvalidArgs, QStringLiteral("no")));
    });
    ConditionSchedule condition(task, QVariantMap(), nullptr, m_proxy.get());
    const LogCapture log;
    condition.restoreConfig({});
    QTRY_COMPARE(log.warnings().size(), 1);
    condition.taskRemoved();
    QTRY_COMPARE(calls(cancel).size(), 1);
    QCOMPARE(calls(cancel).first().arguments().first().toUInt(), 4294967295U);
    QTRY_COMPARE(log.warnings().size(), 2);
    QVERIFY(log.warnings().last().startsWith(QLatin1String("Error cancelling timed event:")));
}

void tst_ConditionSchedule::removalBeforeTheAnswerCancelsWhatCameOfIt()
{
    auto condition = std::make_unique<ConditionSchedule>(task, QVariantMap(), nullptr, m_proxy.get());
    condition->restoreConfig({});
    condition->taskRemoved();
    condition.reset();
    QTRY_COMPARE(calls(cancel).size(), 1);
    QCOMPARE(calls(cancel).first().arguments().first().toUInt(), 4294967295U);
    m_daemon->send(calls(add).first().createReply(7U));
    QTRY_COMPARE(calls(cancel).size(), 2); // nobody else knows of it
    QCOMPARE(calls(cancel).last().arguments().first().toUInt(), 7U);
}

void tst_ConditionSchedule::proxyOfTheProcessIsTheDefault()
{
    m_proxy.reset(); // its object gives place
    answerWithCookie(7);
    ConditionSchedule condition(task, QVariantMap());
    condition.restoreConfig({});
    QTRY_COMPARE(condition.config().size(), 1);
    trigger(task);
    QVERIFY(condition.isSatisfied());
}

QTEST_GUILESS_MAIN(tst_ConditionSchedule)
#include "tst_condition_schedule.moc"
