#include "events_object.h"

#include "event_samples.h"
#include "idle_end.h"
#include "manager_stand_in.h"
#include "support/patience.h"
#include "units.h"

#include <QDBusConnectionInterface>
#include <QDBusPendingCallWatcher>
#include <QDir>
#include <QtTest>

#include <ctime>
#include <memory>

using namespace Eventd;
using namespace EventSamples;
using namespace TestSupport;
using Maemo::Timed::WireEvent;
using Maemo::Timed::WireRecurrence;

namespace {

const QString path = QStringLiteral("/org/kestrix/Procwarden/Events1");
const QString interface = QStringLiteral("org.kestrix.Procwarden.Events1");

QString error(const char *name)
{
    return QLatin1String("org.freedesktop.DBus.Error.") + QLatin1String(name);
}

} // namespace

class TestEventsObject : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void addedEventIsKeptAndItsTimerStarted();
    void wakingTimerIsForAManagerThatMayWake();
    void eventThatMakesNoSenseIsRefused();
    void eventThatIsNeverDueIsRefused_data();
    void eventThatIsNeverDueIsRefused();
    void pastEventIsFiredAtOnce();
    void eventForANameOfSomebodyElseIsRefused_data();
    void eventForANameOfSomebodyElseIsRefused();
    void absentManagerLeavesNoEvent();
    void managerThatCannotStartTheTimerLeavesNoEvent();
    void fullDiskIsTold();
    void otherSignatureIsRefused();

    void cancelledEventIsGone();
    void cancelOfAnUnknownCookieIsRefused_data();
    void cancelOfAnUnknownCookieIsRefused();
    void cancelBySomebodyElseIsRefused();
    void brokenEventMayBeCancelled();
    void cancelSucceedsWithoutAManager();

    void restoreOfNothingAsksNothing();
    void restoreLeavesGoodEventsAlone();
    void restorePutsUnitsRight();
    void restoreRemovesUnitsWithoutAnEvent();
    void restoreFiresWhatIsOverdue();
    void restoreSkipsBrokenRecords();
    void restoreWithoutAManagerPutsFilesRight();

    void busyUntilAnswered();
    void idleProgramGivesTheNameBackFirst();
    void busyProgramDoesNotEnd();

private:
    QDBusMessage call(const QString &method, const QVariant &argument);
    QDBusMessage finish(QDBusPendingCallWatcher *watcher);
    QDBusMessage add(const WireEvent &event)
    {
        return call(QStringLiteral("add_event"), QVariant::fromValue(event));
    }
    QDBusMessage cancel(Cookie cookie) { return call(QStringLiteral("cancel"), cookie); }
    Cookie kept(const WireEvent &event);
    QString file(const QString &name) const { return m_directory->filePath(name); }

    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<QTemporaryDir> m_directory;
    std::unique_ptr<ManagerStandIn> m_systemd;
    std::unique_ptr<EventStore> m_store;
    std::unique_ptr<UserManager> m_manager;
    std::unique_ptr<EventsObject> m_events;
    QDBusConnection m_server { QString() };
    QDBusConnection m_client { QString() }; ///< owns the name that the samples call
};

void TestEventsObject::initTestCase()
{
    Maemo::Timed::registerWireTypes();
}

void TestEventsObject::init()
{
    m_bus = std::make_unique<PrivateBus>();
    m_directory = std::make_unique<QTemporaryDir>();
    m_systemd = std::make_unique<ManagerStandIn>(*m_bus);
    m_store = std::make_unique<EventStore>(EventStore::Directories { file(QStringLiteral("data")),
                                                                     file(QStringLiteral("units")),
                                                                     file(QStringLiteral("stamps")) },
                                           QStringLiteral("/bin/true"));
    m_server = m_bus->connect();
    m_client = m_bus->connect();
    m_manager = std::make_unique<UserManager>(m_server, nullptr, 1000);
    m_events = std::make_unique<EventsObject>(m_server, m_store.get(), m_manager.get());
    QVERIFY(m_server.registerObject(path, m_events.get(), QDBusConnection::ExportAllSlots));
    QVERIFY(m_client.registerService(service));
}

void TestEventsObject::cleanup()
{
    m_events.reset();
    m_manager.reset();
    m_store.reset();
    m_systemd.reset();
    m_server = m_client = QDBusConnection(QString());
    m_bus.reset();
    m_directory.reset();
}

QDBusMessage TestEventsObject::finish(QDBusPendingCallWatcher *watcher)
{
    if (!QTest::qWaitFor([watcher] { return watcher->isFinished(); }, patienceMs)) {
        return QDBusMessage();
    }
    return watcher->reply();
}

QDBusMessage TestEventsObject::call(const QString &method, const QVariant &argument)
{
    QDBusMessage message = QDBusMessage::createMethodCall(m_server.baseService(), path, interface, method);
    message << argument;
    QDBusPendingCallWatcher watcher(m_client.asyncCall(message));
    return finish(&watcher);
}

/// Adds an event that must be taken, and forgets what the manager was asked for it.
Cookie TestEventsObject::kept(const WireEvent &event)
{
    const QDBusMessage answer = add(event);
    m_systemd->daemon.clearCalls();
    return answer.arguments().value(0).toUInt();
}

void TestEventsObject::addedEventIsKeptAndItsTimerStarted()
{
    WireRecurrence recurrence = daily({ 23, 3, 3 });
    const QDBusMessage answer = add(recurrent({ recurrence }));
    QCOMPARE(answer.signature(), QStringLiteral("u"));
    const Cookie cookie = answer.arguments().first().toUInt();
    QCOMPARE(m_store->cookies(), QList<Cookie> { cookie });
    QCOMPARE(m_systemd->calls(),
             QStringList { QStringLiteral("StartUnit %1 replace").arg(Units::timerName(cookie)) });
    WireEvent event;
    QVERIFY(m_store->find(cookie, &event) == EventStore::State::Good);
    QCOMPARE(event.recurrences.first().hours, QList<int>({ 3, 23 }));
    QVERIFY(add(recurrent({ recurrence })).arguments().first().toUInt() != cookie);
}

void TestEventsObject::wakingTimerIsForAManagerThatMayWake()
{
    QFile status(QStringLiteral("/proc/self/status")); // of the manager's stand-in
    QVERIFY(status.open(QIODevice::ReadOnly));
    timespec time {};
    const bool wakes =
        hasWakeCapability(status.readAll()) && ::clock_gettime(CLOCK_REALTIME_ALARM, &time) == 0;
    const Cookie cookie = kept(recurrent({ daily({ 3 }) }));
    QFile timer(file(QLatin1String("units/") + Units::timerName(cookie)));
    QVERIFY(timer.open(QIODevice::ReadOnly));
    QCOMPARE(timer.readAll().contains("\nWakeSystem=true\n"), wakes);
}

void TestEventsObject::eventThatMakesNoSenseIsRefused()
{
    const QDBusMessage answer = add(recurrent({ daily({ 24 }) }));
    QCOMPARE(answer.errorName(), error("InvalidArgs"));
    QCOMPARE(answer.errorMessage(), QStringLiteral("The recurrence has 24 among its hours"));
    QCOMPARE(m_store->cookies(), QList<Cookie>());
    QVERIFY(m_systemd->calls().isEmpty());
}

void TestEventsObject::eventThatIsNeverDueIsRefused_data()
{
    QTest::addColumn<Maemo::Timed::WireEvent>("event");
    WireRecurrence recurrence = daily({ 3 });
    recurrence.end = QStringLiteral("2020-01-01T00:00:00Z");
    QTest::newRow("its end has passed") << recurrent({ recurrence });
    recurrence.start = QStringLiteral("2199-01-01T00:00:00Z");
    recurrence.end = QStringLiteral("2198-01-01T00:00:00Z");
    QTest::newRow("it ends before it starts") << recurrent({ recurrence });
    recurrence = daily({ 3 });
    recurrence.months = { 1 };
    recurrence.daysOfMonth = { 30, 31 };
    QTest::newRow("30 February") << recurrent({ recurrence });
    recurrence = daily({ 3 });
    recurrence.start = QStringLiteral("2200-06-01T00:00:00Z");
    QTest::newRow("after all that the manager knows") << recurrent({ recurrence });
}

void TestEventsObject::eventThatIsNeverDueIsRefused()
{
    QFETCH(Maemo::Timed::WireEvent, event);
    const QDBusMessage answer = add(event);
    QCOMPARE(answer.errorName(), error("InvalidArgs"));
    QCOMPARE(answer.errorMessage(), QStringLiteral("The event is never due"));
    QCOMPARE(m_store->cookies(), QList<Cookie>());
}

void TestEventsObject::pastEventIsFiredAtOnce()
{
    const Cookie cookie = add(single(QStringLiteral("2020-01-01T00:00"))).arguments().value(0).toUInt();
    QVERIFY(cookie > 0);
    QTRY_COMPARE(m_systemd->calls(),
                 QStringList({ QStringLiteral("StartUnit %1 replace").arg(Units::timerName(cookie)),
                               QStringLiteral("StartUnit %1 replace").arg(Units::serviceName(cookie)) }));
}

void TestEventsObject::eventForANameOfSomebodyElseIsRefused_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("somebody's") << "org.freedesktop.systemd1";
    QTest::newRow("nobody's") << "org.example.Nobody";
    QTest::newRow("the bus's") << "org.freedesktop.DBus";
}

void TestEventsObject::eventForANameOfSomebodyElseIsRefused()
{
    QFETCH(QString, name);
    WireEvent event = recurrent({ daily({ 3 }) });
    event.actions.first().service = name;
    const QDBusMessage answer = add(event);
    QCOMPARE(answer.errorName(), error("AccessDenied"));
    QCOMPARE(answer.errorMessage(), QStringLiteral("The caller does not own ") + name);
    QCOMPARE(m_store->cookies(), QList<Cookie>());
}

void TestEventsObject::absentManagerLeavesNoEvent()
{
    m_systemd.reset();
    const char *const text = "The systemd user manager is not on the session bus";
    QTest::ignoreMessage(QtWarningMsg, text);
    const QDBusMessage answer = add(recurrent({ daily({ 3 }) }));
    QCOMPARE(answer.errorName(), error("Failed"));
    QCOMPARE(answer.errorMessage(), QLatin1String(text));
    QCOMPARE(m_store->cookies(), QList<Cookie>());
    QCOMPARE(m_store->leftovers(), QList<Cookie>());
}

void TestEventsObject::managerThatCannotStartTheTimerLeavesNoEvent()
{
    m_systemd->jobResult = QStringLiteral("failed");
    QTest::ignoreMessage(QtWarningMsg,
                         QRegularExpression(QStringLiteral("^The systemd user manager could not start "
                                                           "procwarden-event-[0-9]+\\.timer: failed$")));
    QCOMPARE(add(recurrent({ daily({ 3 }) })).errorName(), error("Failed"));
    QCOMPARE(m_store->cookies(), QList<Cookie>());
    QCOMPARE(m_store->leftovers(), QList<Cookie>());
}

void TestEventsObject::fullDiskIsTold()
{
    // As good as a full disk: there is no directory to write to.
    QFile inTheWay(file(QStringLiteral("data")));
    QVERIFY(inTheWay.open(QIODevice::WriteOnly));
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^Cannot make .*/data/events: ")));
    const QDBusMessage answer = add(recurrent({ daily({ 3 }) }));
    QCOMPARE(answer.errorName(), error("Failed"));
    QVERIFY(answer.errorMessage().startsWith(QLatin1String("Cannot make ")));
    QVERIFY(m_systemd->calls().isEmpty());
}

void TestEventsObject::otherSignatureIsRefused()
{
    QCOMPARE(call(QStringLiteral("add_event"), QStringLiteral("tomorrow")).errorName(),
             error("UnknownMethod"));
    QCOMPARE(call(QStringLiteral("add_event"), QVariantMap()).errorName(), error("UnknownMethod"));
    QCOMPARE(call(QStringLiteral("cancel"), 17).errorName(), error("UnknownMethod"));
}

void TestEventsObject::cancelledEventIsGone()
{
    const Cookie cookie = kept(recurrent({ daily({ 3 }) }));
    const Cookie other = kept(recurrent({ daily({ 3 }) }));
    const QDBusMessage answer = cancel(cookie);
    QCOMPARE(answer.type(), QDBusMessage::ReplyMessage);
    QCOMPARE(answer.signature(), QString());
    QCOMPARE(m_store->cookies(), QList<Cookie> { other });
    QCOMPARE(m_systemd->calls(),
             QStringList { QStringLiteral("StopUnit %1 replace").arg(Units::timerName(cookie)) });
    QCOMPARE(cancel(cookie).errorName(), error("InvalidArgs"));
}

void TestEventsObject::cancelOfAnUnknownCookieIsRefused_data()
{
    QTest::addColumn<quint32>("cookie");
    QTest::newRow("0") << 0u;
    QTest::newRow("1") << 1u;
    QTest::newRow("what clients without one say") << 4294967295u;
}

void TestEventsObject::cancelOfAnUnknownCookieIsRefused()
{
    QFETCH(quint32, cookie);
    kept(recurrent({ daily({ 3 }) }));
    const QDBusMessage answer = cancel(cookie);
    QCOMPARE(answer.errorName(), error("InvalidArgs"));
    QCOMPARE(answer.errorMessage(), QStringLiteral("No event has the cookie %1").arg(cookie));
    QVERIFY(m_systemd->calls().isEmpty());
}

void TestEventsObject::cancelBySomebodyElseIsRefused()
{
    const Cookie cookie = kept(recurrent({ daily({ 3 }) }));
    QVERIFY(m_client.unregisterService(service));
    const QDBusMessage answer = cancel(cookie);
    QCOMPARE(answer.errorName(), error("AccessDenied"));
    QCOMPARE(m_store->cookies(), QList<Cookie> { cookie });
    QVERIFY(m_systemd->calls().isEmpty());
}

void TestEventsObject::brokenEventMayBeCancelled()
{
    const Cookie cookie = kept(recurrent({ daily({ 3 }) }));
    QFile record(file(QStringLiteral("data/events/%1.json").arg(cookie)));
    QVERIFY(record.open(QIODevice::WriteOnly | QIODevice::Truncate));
    record.close();
    QCOMPARE(cancel(cookie).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(m_store->cookies(), QList<Cookie>());
}

void TestEventsObject::cancelSucceedsWithoutAManager()
{
    const Cookie cookie = kept(recurrent({ daily({ 3 }) }));
    m_systemd.reset();
    QTest::ignoreMessage(QtWarningMsg, "The systemd user manager is not on the session bus");
    QCOMPARE(cancel(cookie).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(m_store->cookies(), QList<Cookie>());
}

void TestEventsObject::restoreOfNothingAsksNothing()
{
    m_events->restore();
    QVERIFY(!m_events->isBusy());
    QVERIFY(!QFile::exists(file(QStringLiteral("data"))));
}

void TestEventsObject::restoreLeavesGoodEventsAlone()
{
    kept(recurrent({ daily({ 3 }) }));
    m_events->restore();
    QVERIFY(m_events->isBusy());
    QTRY_VERIFY(!m_events->isBusy());
    QCOMPARE(m_systemd->calls(), QStringList());
}

void TestEventsObject::restorePutsUnitsRight()
{
    const Cookie first = kept(recurrent({ daily({ 3 }) }));
    kept(recurrent({ daily({ 3 }) }));
    const Cookie third = kept(recurrent({ daily({ 3 }) }));
    QVERIFY(QFile::remove(file(QLatin1String("units/") + Units::timerName(first))));
    QVERIFY(QFile::remove(file(QLatin1String("units/") + Units::serviceName(third))));
    m_events->restore();
    QTRY_COMPARE(m_systemd->calls(),
                 QStringList({ QStringLiteral("Reload"),
                               QStringLiteral("StartUnit %1 replace").arg(Units::timerName(first)),
                               QStringLiteral("StartUnit %1 replace").arg(Units::timerName(third)) }));
    QVERIFY(QFile::exists(file(QLatin1String("units/") + Units::timerName(first))));
    QTRY_VERIFY(!m_events->isBusy());
}

void TestEventsObject::restoreRemovesUnitsWithoutAnEvent()
{
    const Cookie cookie = kept(recurrent({ daily({ 3 }) }));
    QVERIFY(QFile::remove(file(QStringLiteral("data/events/%1.json").arg(cookie))));
    m_events->restore();
    QTRY_COMPARE(m_systemd->calls(),
                 QStringList { QStringLiteral("StopUnit %1 replace").arg(Units::timerName(cookie)) });
    QCOMPARE(m_store->leftovers(), QList<Cookie>());
    QVERIFY(!QFile::exists(file(QLatin1String("units/") + Units::timerName(cookie))));
}

void TestEventsObject::restoreFiresWhatIsOverdue()
{
    // Neither has a start to come; both should have been removed when they were fired.
    Cookie past = 0;
    Cookie ended = 0;
    WireRecurrence recurrence = daily({ 3 });
    recurrence.end = QStringLiteral("2020-01-01T00:00:00Z");
    QCOMPARE(m_store->add(single(QStringLiteral("2020-01-01T00:00")), true, &past), Failure());
    QCOMPARE(m_store->add(recurrent({ recurrence }), true, &ended), Failure());
    kept(recurrent({ daily({ 3 }) }));
    m_events->restore();
    const QStringList starts { QStringLiteral("StartUnit %1 replace").arg(Units::serviceName(past)),
                               QStringLiteral("StartUnit %1 replace").arg(Units::serviceName(ended)) };
    QTRY_COMPARE(m_systemd->calls().filter(QStringLiteral(".service")), starts);
}

void TestEventsObject::restoreSkipsBrokenRecords()
{
    const Cookie broken = kept(recurrent({ daily({ 3 }) }));
    const Cookie good = kept(recurrent({ daily({ 3 }) }));
    QFile record(file(QStringLiteral("data/events/%1.json").arg(broken)));
    QVERIFY(record.open(QIODevice::WriteOnly | QIODevice::Truncate));
    record.close();
    QVERIFY(QFile::remove(file(QLatin1String("units/") + Units::timerName(good))));
    QTest::ignoreMessage(
        QtWarningMsg,
        qUtf8Printable(QStringLiteral("The record of this event makes no sense: %1").arg(broken)));
    m_events->restore();
    QTRY_COMPARE(m_systemd->calls(),
                 QStringList({ QStringLiteral("Reload"),
                               QStringLiteral("StartUnit %1 replace").arg(Units::timerName(good)) }));
    QCOMPARE(m_store->cookies(), QList<Cookie>({ broken, good }));
}

void TestEventsObject::restoreWithoutAManagerPutsFilesRight()
{
    const Cookie cookie = kept(recurrent({ daily({ 3 }) }));
    const QString timer = file(QLatin1String("units/") + Units::timerName(cookie));
    QVERIFY(QFile::remove(timer));
    m_systemd.reset();
    QTest::ignoreMessage(QtWarningMsg, "The systemd user manager is not on the session bus");
    m_events->restore();
    QTRY_VERIFY(!m_events->isBusy());
    QVERIFY(QFile::exists(timer));
}

void TestEventsObject::busyUntilAnswered()
{
    QSignalSpy changes(m_events.get(), &EventsObject::busyChanged);
    m_systemd->jobResult.clear();
    QDBusMessage message =
        QDBusMessage::createMethodCall(m_server.baseService(), path, interface, QStringLiteral("add_event"));
    message << QVariant::fromValue(recurrent({ daily({ 3 }) }));
    QDBusPendingCallWatcher watcher(m_client.asyncCall(message));
    QTRY_COMPARE(m_systemd->calls().size(), 1);
    QVERIFY(m_events->isBusy());
    m_systemd.reset();
    m_systemd = std::make_unique<ManagerStandIn>(*m_bus);
    // The job that never ended is given up in time.
    QTest::ignoreMessage(
        QtWarningMsg,
        QRegularExpression(QStringLiteral("^The systemd user manager does not start .* in time$")));
    QVERIFY(QTest::qWaitFor([&] { return watcher.isFinished(); }, patienceMs));
    QCOMPARE(watcher.reply().errorName(), error("Failed"));
    QVERIFY(!m_events->isBusy());
    QCOMPARE(changes.size(), 2);
    QCOMPARE(m_store->cookies(), QList<Cookie>());
}

void TestEventsObject::idleProgramGivesTheNameBackFirst()
{
    const QString name = QStringLiteral("org.example.Idle");
    QVERIFY(m_server.registerService(name));
    IdleEnd idle(
        m_server, name, [this] { return m_events->isBusy(); }, 50, 200);
    QSignalSpy over(&idle, &IdleEnd::over);
    QTRY_VERIFY(!m_client.interface()->isServiceRegistered(name).value());
    QCOMPARE(over.size(), 0);
    // What was on its way is answered.
    QCOMPARE(add(recurrent({ daily({ 3 }) })).signature(), QStringLiteral("u"));
    QTRY_COMPARE(over.size(), 1);
}

void TestEventsObject::busyProgramDoesNotEnd()
{
    const QString name = QStringLiteral("org.example.Idle");
    QVERIFY(m_server.registerService(name));
    int asked = 0;
    bool busy = true;
    IdleEnd idle(
        m_server, name,
        [&] {
            ++asked;
            return busy;
        },
        10, 10);
    QSignalSpy over(&idle, &IdleEnd::over);
    QTRY_VERIFY(asked > 2);
    QVERIFY(m_client.interface()->isServiceRegistered(name).value());
    QCOMPARE(over.size(), 0);
    busy = false;
    QTRY_COMPARE(over.size(), 1);
}

QTEST_GUILESS_MAIN(TestEventsObject)

#include "tst_events_object.moc"
