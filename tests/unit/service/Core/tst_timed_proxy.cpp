#include "Core/timed_proxy.h"

#include "support/bus_stand_in.h"
#include "support/patience.h"
#include "support/private_bus.h"
#include "timed/wire.h"
#include "timed_trigger.h"

#include <QDBusError>
#include <QDBusVariant>
#include <QtTest>

using namespace Core;
using namespace TestSupport;
using Maemo::Timed::WireAction;
using Maemo::Timed::WireEvent;
using Maemo::Timed::WireRecurrence;

namespace {

const QString daemonService = QStringLiteral("org.kestrix.Procwarden.Events");
const QString daemonPath = QStringLiteral("/org/kestrix/Procwarden/Events1");
const QString taskId = QStringLiteral("org.example.Notes.task_sync");

QList<int> range(int first, int last)
{
    QList<int> values;
    for (int value = first; value <= last; ++value) {
        values << value;
    }
    return values;
}

QDateTime utc(const char *text)
{
    return QDateTime::fromString(QLatin1String(text), Qt::ISODate);
}

} // namespace

Q_DECLARE_METATYPE(Core::TimedEventSpec)

class TestTimedProxy : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void cookieIsAMetaType();
    void callIsSentAsAgreed();
    void scheduleWithHoursOnlyIsOnTheHourOfEveryDay();
    void scheduleBecomesARecurrence_data();
    void scheduleBecomesARecurrence();
    void sameStartAndEndIsASingleEvent_data();
    void sameStartAndEndIsASingleEvent();

    void cookieReachesTheCallback();
    void errorReachesTheCallback_data();
    void errorReachesTheCallback();
    void absentDaemonGivesAnError();
    void daemonThatEndsWhileAskedGivesAnError();
    void answerOfAnotherTypeGivesAnError_data();
    void answerOfAnotherTypeGivesAnError();
    void silentDaemonGivesAnErrorInTime();
    void lateAnswerCounts();
    void answersFindTheirCallbacks();
    void answerAfterTheEndOfTheProxyIsDropped();
    void callbackMayDeleteTheProxy();
    void emptyCallbackIsAllowed();
    void idThatFillsNoMessageIsRefusedAtOnce();

    void cancelIsSentAsAgreed_data();
    void cancelIsSentAsAgreed();
    void refusedCancelIsLogged();
    void absentDaemonAtCancelIsLogged();

private:
    void add(const TimedEventSpec &spec);
    WireEvent added();

    PrivateBus m_bus;
    QStringList m_results; ///< what the callbacks got: cookie, code and message
    std::unique_ptr<TimedProxy> m_proxy;
    std::unique_ptr<BusStandIn> m_daemon;
};

void TestTimedProxy::initTestCase()
{
    qputenv("TZ", "Europe/Berlin"); // not UTC, so that the two cannot be taken for each other
    m_bus.useAsSessionBus();
    QVERIFY(QDBusConnection::sessionBus().isConnected());
}

void TestTimedProxy::init()
{
    m_results.clear();
    m_daemon = std::make_unique<BusStandIn>(m_bus, daemonService, daemonPath);
    m_proxy = std::make_unique<TimedProxy>(QDBusConnection::sessionBus());
}

void TestTimedProxy::cleanup()
{
    m_proxy.reset();
    m_daemon.reset();
}

void TestTimedProxy::add(const TimedEventSpec &spec)
{
    const int before = m_results.size();
    m_proxy->addEvent(spec, [this](CookieId cookie, const Error &error) {
        m_results << QStringLiteral("%1 %2 %3").arg(cookie).arg(error.code()).arg(error.message());
    });
    QCOMPARE(m_results.size(), before); // never inside the call
}

/// The argument of the only call.
WireEvent TestTimedProxy::added()
{
    if (!QTest::qWaitFor([this] { return m_daemon->calls().size() == 1; }, patienceMs)) {
        return WireEvent();
    }
    return qdbus_cast<WireEvent>(m_daemon->calls().first().arguments().value(0));
}

void TestTimedProxy::cookieIsAMetaType()
{
    QCOMPARE(QMetaType::type("CookieId"), int(QMetaType::UInt));
}

void TestTimedProxy::callIsSentAsAgreed()
{
    add({ taskId, {}, {}, {}, {}, {}, {} });
    const WireEvent event = added();
    const QDBusMessage call = m_daemon->calls().value(0);
    QCOMPARE(call.interface(), QStringLiteral("org.kestrix.Procwarden.Events1"));
    QCOMPARE(call.member(), QStringLiteral("add_event"));
    QCOMPARE(call.signature(), QStringLiteral("(a{ss}bsa(aiaiaiaiaiaiss)a(ssssbb))"));

    const QMap<QString, QString> attributes {
        { QStringLiteral("eventId"), taskId },
        { QStringLiteral("APPLICATION"), QStringLiteral("Procwarden") },
    };
    QCOMPARE(event.attributes, attributes);
    QVERIFY(event.userMode);
    QCOMPARE(event.actions.size(), 1);
    const WireAction action = event.actions.first();
    QCOMPARE(action.service, QStringLiteral("org.kestrix.Procwarden"));
    QCOMPARE(action.method, QStringLiteral("EventTriggered"));
    QCOMPARE(action.path, TimedTrigger::path);
    QCOMPARE(action.interface, TimedTrigger::interface);
    QVERIFY(action.sendAttributes);
    QVERIFY(action.whenTriggered);
}

void TestTimedProxy::scheduleWithHoursOnlyIsOnTheHourOfEveryDay()
{
    add({ taskId, {}, {}, {}, {}, { 3 }, {} });
    const WireEvent event = added();
    QCOMPARE(event.time, QString());
    QCOMPARE(event.recurrences.size(), 1);
    const WireRecurrence recurrence = event.recurrences.first();
    QCOMPARE(recurrence.months, range(0, 11));
    QCOMPARE(recurrence.daysOfMonth, range(1, 31));
    QCOMPARE(recurrence.daysOfWeek, range(0, 6));
    QCOMPARE(recurrence.hours, QList<int>({ 3 }));
    QCOMPARE(recurrence.minutes, QList<int>({ 0 }));
    QCOMPARE(recurrence.seconds, QList<int>());
    QCOMPARE(recurrence.start, QString());
    QCOMPARE(recurrence.end, QString());
}

void TestTimedProxy::scheduleBecomesARecurrence_data()
{
    QTest::addColumn<TimedEventSpec>("spec");
    QTest::addColumn<QString>("months");
    QTest::addColumn<QString>("weekDays");
    QTest::addColumn<QString>("hours");
    QTest::addColumn<QString>("minutes");
    QTest::addColumn<QString>("start");
    QTest::addColumn<QString>("end");

    const QString none;
    const QString allMonths = QStringLiteral("0 1 2 3 4 5 6 7 8 9 10 11");
    const QString allDays = QStringLiteral("0 1 2 3 4 5 6");
    const QString allHours = QStringLiteral("0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23");
    const QString onTheHour = QStringLiteral("0");
    const QDateTime start = utc("2027-01-02T03:04:05Z");
    const QDateTime end = utc("2027-02-03T04:05:06Z");

    QTest::newRow("nothing") << TimedEventSpec { taskId, {}, {}, {}, {}, {}, {} } << allMonths << allDays
                             << allHours << onTheHour << none << none;
    QTest::newRow("everything")
        << TimedEventSpec { taskId, start, end, { 0, 11 }, { 0, 6 }, { 23 }, { 0, 15 } } << "0 11"
        << "0 6"
        << "23"
        << "0 15"
        << "2027-01-02T03:04:05Z"
        << "2027-02-03T04:05:06Z";
    QTest::newRow("a start") << TimedEventSpec { taskId, start, {}, {}, {}, {}, {} } << allMonths << allDays
                             << allHours << onTheHour << "2027-01-02T03:04:05Z" << none;
    QTest::newRow("an end") << TimedEventSpec { taskId, {}, end, {}, {}, {}, {} } << allMonths << allDays
                            << allHours << onTheHour << none << "2027-02-03T04:05:06Z";
    QTest::newRow("an end before the start")
        << TimedEventSpec { taskId, end, start, {}, {}, {}, {} } << allMonths << allDays << allHours
        << onTheHour << "2027-02-03T04:05:06Z"
        << "2027-01-02T03:04:05Z";
    QTest::newRow("a local start")
        << TimedEventSpec { taskId, QDateTime(QDate(2027, 1, 2), QTime(3, 4)), {}, {}, {}, {}, {} }
        << allMonths << allDays << allHours << onTheHour << "2027-01-02T02:04:00Z" << none;
    QTest::newRow("in any order, and twice")
        << TimedEventSpec { taskId, {}, {}, { 5, 1, 5 }, { 3, 2 }, { 9, 8, 9 }, { 45, 0, 30 } } << "1 5"
        << "2 3"
        << "8 9"
        << "0 30 45" << none << none;
    QTest::newRow("nonsense is the daemon's affair")
        << TimedEventSpec { taskId, {}, {}, { 12 }, { -1 }, { 99 }, { 60 } } << "12"
        << "-1"
        << "99"
        << "60" << none << none;
}

void TestTimedProxy::scheduleBecomesARecurrence()
{
    QFETCH(TimedEventSpec, spec);
    add(spec);
    const WireEvent event = added();
    QCOMPARE(event.time, QString());
    QCOMPARE(event.recurrences.size(), 1);
    const WireRecurrence recurrence = event.recurrences.first();
    const auto text = [](const QList<int> &values) {
        QStringList texts;
        for (const int value : values) {
            texts << QString::number(value);
        }
        return texts.join(QLatin1Char(' '));
    };
    QCOMPARE(recurrence.daysOfMonth, range(1, 31));
    QTEST(text(recurrence.months), "months");
    QTEST(text(recurrence.daysOfWeek), "weekDays");
    QTEST(text(recurrence.hours), "hours");
    QTEST(text(recurrence.minutes), "minutes");
    QTEST(recurrence.start, "start");
    QTEST(recurrence.end, "end");
}

void TestTimedProxy::sameStartAndEndIsASingleEvent_data()
{
    QTest::addColumn<TimedEventSpec>("spec");
    QTest::addColumn<QString>("time");

    const QDateTime local(QDate(2027, 1, 2), QTime(3, 4, 59, 999));
    const QDateTime other = utc("2027-12-31T23:59:00Z");
    QTest::newRow("local, the seconds go")
        << TimedEventSpec { taskId, local, local, {}, {}, {}, {} } << "2027-01-02T03:04";
    QTest::newRow("the clock reading counts, not the zone")
        << TimedEventSpec { taskId, other, other, {}, {}, {}, {} } << "2027-12-31T23:59";
    QTest::newRow("whatever the lists say")
        << TimedEventSpec { taskId, local, local, { 1 }, { 2 }, { 3 }, { 4 } } << "2027-01-02T03:04";
    QTest::newRow("the same in another zone")
        << TimedEventSpec { taskId, other, other.toLocalTime(), {}, {}, {}, {} } << "2027-12-31T23:59";
    const QDateTime past(QDate(2001, 2, 3), QTime(4, 5));
    QTest::newRow("past") << TimedEventSpec { taskId, past, past, {}, {}, {}, {} } << "2001-02-03T04:05";
}

void TestTimedProxy::sameStartAndEndIsASingleEvent()
{
    QFETCH(TimedEventSpec, spec);
    add(spec);
    const WireEvent event = added();
    QTEST(event.time, "time");
    QVERIFY(event.recurrences.isEmpty());
    QCOMPARE(event.actions.size(), 1);
    QCOMPARE(event.attributes.value(QStringLiteral("eventId")), taskId);
}

void TestTimedProxy::cookieReachesTheCallback()
{
    m_daemon->answerWith({ 4294967294u });
    add({ taskId, {}, {}, {}, {}, {}, {} });
    QTRY_COMPARE(m_results, QStringList({ QStringLiteral("4294967294 0 ") }));
}

void TestTimedProxy::errorReachesTheCallback_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("code");
    const auto name = [](QDBusError::ErrorType type) {
        return QDBusError::errorString(type);
    };
    QTest::newRow("access denied") << name(QDBusError::AccessDenied) << int(Error::AccessDenied);
    QTest::newRow("invalid arguments") << name(QDBusError::InvalidArgs) << int(Error::InvalidArgs);
    QTest::newRow("failed") << name(QDBusError::Failed) << int(Error::Failed);
    QTest::newRow("unknown method") << name(QDBusError::UnknownMethod) << int(Error::Failed);
    QTest::newRow("not supported") << name(QDBusError::NotSupported) << int(Error::Failed);
    QTest::newRow("of its own") << "org.example.Error.Busy" << int(Error::Failed);
}

void TestTimedProxy::errorReachesTheCallback()
{
    QFETCH(QString, name);
    QFETCH(int, code);
    m_daemon->setHandler([name](const QDBusMessage &call, const QDBusConnection &connection) {
        connection.send(call.createErrorReply(name, QStringLiteral("not this one")));
    });
    add({ taskId, {}, {}, {}, {}, {}, {} });
    QTRY_COMPARE(m_results, QStringList({ QStringLiteral("0 %1 not this one").arg(code) }));
}

void TestTimedProxy::absentDaemonGivesAnError()
{
    m_daemon->leave();
    add({ taskId, {}, {}, {}, {}, {}, {} });
    QTRY_COMPARE(m_results.size(), 1);
    QCOMPARE(m_results.first(),
             QStringLiteral("0 1 The name %1 was not provided by any .service files").arg(daemonService));
}

void TestTimedProxy::daemonThatEndsWhileAskedGivesAnError()
{
    add({ taskId, {}, {}, {}, {}, {}, {} });
    QTRY_COMPARE(m_daemon->calls().size(), 1);
    m_daemon->leave();
    QTRY_COMPARE(m_results.size(), 1);
    QVERIFY2(m_results.first().startsWith(QLatin1String("0 1 ")), qUtf8Printable(m_results.first()));
}

void TestTimedProxy::answerOfAnotherTypeGivesAnError_data()
{
    QTest::addColumn<QVariantList>("answer");
    QTest::newRow("nothing") << QVariantList();
    QTest::newRow("a signed number") << QVariantList { 17 };
    QTest::newRow("a long number") << QVariantList { QVariant(17ull) };
    QTest::newRow("text") << QVariantList { QStringLiteral("17") };
    QTest::newRow("a variant") << QVariantList { QVariant::fromValue(QDBusVariant(17u)) };
    QTest::newRow("a map") << QVariantList { QVariantMap { { QStringLiteral("cookie"), 17u } } };
}

void TestTimedProxy::answerOfAnotherTypeGivesAnError()
{
    QFETCH(QVariantList, answer);
    m_daemon->answerWith(answer);
    add({ taskId, {}, {}, {}, {}, {}, {} });
    QTRY_COMPARE(m_results.size(), 1);
    QVERIFY2(m_results.first().startsWith(QLatin1String("0 1 Unexpected reply signature")),
             qUtf8Printable(m_results.first()));
}

void TestTimedProxy::silentDaemonGivesAnErrorInTime()
{
    m_proxy.reset();
    m_proxy = std::make_unique<TimedProxy>(QDBusConnection::sessionBus(), nullptr, 50);
    add({ taskId, {}, {}, {}, {}, {}, {} });
    QTRY_COMPARE(m_daemon->calls().size(), 1);
    QTRY_COMPARE(m_results.size(), 1);
    QVERIFY2(m_results.first().startsWith(QLatin1String("0 1 ")), qUtf8Printable(m_results.first()));

    // What it says after that is heard by nobody.
    m_daemon->send(m_daemon->calls().first().createReply(17u));
    m_daemon->answerWith({ 18u });
    add({ taskId, {}, {}, {}, {}, {}, {} });
    QTRY_COMPARE(m_results.size(), 2);
    QCOMPARE(m_results.last(), QStringLiteral("18 0 "));
}

void TestTimedProxy::lateAnswerCounts()
{
    add({ taskId, {}, {}, {}, {}, {}, {} });
    QTRY_COMPARE(m_daemon->calls().size(), 1);
    // The service goes on meanwhile.
    TimedTrigger::send(m_bus, { QVariantMap { { QStringLiteral("eventId"), taskId } } });
    QVERIFY(m_results.isEmpty());
    m_daemon->send(m_daemon->calls().first().createReply(17u));
    QTRY_COMPARE(m_results, QStringList({ QStringLiteral("17 0 ") }));
}

void TestTimedProxy::answersFindTheirCallbacks()
{
    add({ QStringLiteral("first"), {}, {}, {}, {}, {}, {} });
    add({ QStringLiteral("second"), {}, {}, {}, {}, {}, {} });
    QTRY_COMPARE(m_daemon->calls().size(), 2);
    m_daemon->send(m_daemon->calls().at(1).createReply(2u));
    QTRY_COMPARE(m_results, QStringList({ QStringLiteral("2 0 ") }));
    m_daemon->send(m_daemon->calls().at(0).createReply(1u));
    QTRY_COMPARE(m_results, QStringList({ QStringLiteral("2 0 "), QStringLiteral("1 0 ") }));
}

void TestTimedProxy::answerAfterTheEndOfTheProxyIsDropped()
{
    add({ taskId, {}, {}, {}, {}, {}, {} });
    m_proxy->removeEvent(1);
    QTRY_COMPARE(m_daemon->calls().size(), 2);
    m_proxy.reset();
    m_daemon->send(m_daemon->calls().at(0).createReply(17u));
    m_daemon->send(m_daemon->calls().at(1).createReply());
    // Answers come in order: with that of another proxy the first one's have come.
    m_proxy = std::make_unique<TimedProxy>(QDBusConnection::sessionBus());
    m_daemon->answerWith({ 18u });
    add({ taskId, {}, {}, {}, {}, {}, {} });
    QTRY_COMPARE(m_results, QStringList({ QStringLiteral("18 0 ") }));
}

void TestTimedProxy::callbackMayDeleteTheProxy()
{
    m_daemon->answerWith({ 17u });
    bool called = false;
    m_proxy->addEvent({ taskId, {}, {}, {}, {}, {}, {} }, [&](CookieId, const Error &) {
        m_proxy.reset();
        called = true;
    });
    QTRY_VERIFY(called);
}

void TestTimedProxy::emptyCallbackIsAllowed()
{
    m_daemon->answerWith({ 17u });
    m_proxy->addEvent({ taskId, {}, {}, {}, {}, {}, {} }, {});
    add({ taskId, {}, {}, {}, {}, {}, {} });
    QTRY_COMPARE(m_results.size(), 1);
}

void TestTimedProxy::idThatFillsNoMessageIsRefusedAtOnce()
{
    add({ QString(9 * 1024 * 1024, QLatin1Char('x')), {}, {}, {}, {}, {}, {} });
    QTRY_COMPARE(m_results, QStringList({ QStringLiteral("0 1 Message is too large") }));
    QVERIFY(m_daemon->calls().isEmpty());
    QVERIFY(QDBusConnection::sessionBus().isConnected());
}

void TestTimedProxy::cancelIsSentAsAgreed_data()
{
    QTest::addColumn<quint32>("cookie");
    QTest::newRow("a cookie") << 17u;
    QTest::newRow("none") << 4294967295u;
    QTest::newRow("0") << 0u;
}

void TestTimedProxy::cancelIsSentAsAgreed()
{
    QFETCH(quint32, cookie);
    m_daemon->answerWith({});
    m_proxy->removeEvent(cookie);
    QTRY_COMPARE(m_daemon->calls().size(), 1);
    const QDBusMessage call = m_daemon->calls().first();
    QCOMPARE(call.interface(), QStringLiteral("org.kestrix.Procwarden.Events1"));
    QCOMPARE(call.member(), QStringLiteral("cancel"));
    QCOMPARE(call.signature(), QStringLiteral("u"));
    QCOMPARE(call.arguments(), QVariantList { cookie });
}

void TestTimedProxy::refusedCancelIsLogged()
{
    m_daemon->setHandler([](const QDBusMessage &call, const QDBusConnection &connection) {
        connection.send(call.createErrorReply(QDBusError::InvalidArgs, QStringLiteral("who?")));
    });
    QTest::ignoreMessage(
        QtWarningMsg,
        "Error cancelling timed event: QDBusError(\"org.freedesktop.DBus.Error.InvalidArgs\", \"who?\")");
    m_proxy->removeEvent(17);
    // The answer to a later call comes behind it.
    QTRY_COMPARE(m_daemon->calls().size(), 1);
    m_daemon->answerWith({ 18u });
    add({ taskId, {}, {}, {}, {}, {}, {} });
    QTRY_COMPARE(m_results.size(), 1);
}

void TestTimedProxy::absentDaemonAtCancelIsLogged()
{
    m_daemon->leave();
    QTest::ignoreMessage(QtWarningMsg,
                         "Error cancelling timed event: "
                         "QDBusError(\"org.freedesktop.DBus.Error.ServiceUnknown\", \"The name "
                         "org.kestrix.Procwarden.Events was not provided by any .service files\")");
    m_proxy->removeEvent(17);
    add({ taskId, {}, {}, {}, {}, {}, {} });
    QTRY_COMPARE(m_results.size(), 1);
}

QTEST_GUILESS_MAIN(TestTimedProxy)

#include "tst_timed_proxy.moc"
