#include "task_manager_fixture.h"

#include "Core/timed_proxy.h"
#include "timed/wire.h"

using namespace Core;
using TestHints::of;
using TestSupport::BusStandIn;
using TestSupport::LogCapture;

namespace {

const QString add = QStringLiteral("add_event");
const QString cancel = QStringLiteral("cancel");

QVariantMap scheduleAt(int hour)
{
    return of(TaskHints::schedule, QVariantMap { { TaskHints::hours, QVariantList { hour } } });
}

QVariantMap stored(QVariantMap hints)
{
    hints.insert(TaskHints::autostart, true);
    return hints;
}

} // namespace

/// Scheduled tasks, whose times are kept by the timed daemon.
class tst_TaskManagerTimed : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { m_fixture = std::make_unique<TaskManagerFixture>(); }
    void init();
    void cleanup();
    void cleanupTestCase() { m_fixture.reset(); }

    void eventIsStoredOnceItIsKnown();
    void eventIsNotStoredUnlessAskedFor();
    void storedEventIsNotMadeAgain();
    void eventStartsTheTaskEachTime();
    void eventOfAnotherTaskStartsNothing();
    void removedTaskHasNoEvent();
    void replacedTaskHasNoEvent();
    void refusedTaskHasNoEvent();
    void absentDaemonFailsNoRequest();

private:
    /// Names of the calls that the daemon got, the argument behind that of a cancel.
    QStringList calls() const
    {
        QStringList calls;
        for (const QDBusMessage &call : m_daemon->calls()) {
            calls.append(call.member());
            if (call.member() == cancel) {
                calls.last() += QLatin1Char(' ') + call.arguments().value(0).toString();
            }
        }
        return calls;
    }
    static uint cookieOf(const AutostartEntry &entry)
    {
        return entry.conditionData.value(QStringLiteral("Schedule"))
            .toMap()
            .value(QStringLiteral("cookieId"))
            .toUInt();
    }

    std::unique_ptr<TaskManagerFixture> m_fixture;
    std::unique_ptr<BusStandIn> m_daemon;
    uint m_lastCookie = 0;
};

void tst_TaskManagerTimed::init()
{
    m_fixture->begin();
    m_lastCookie = 16;
    m_daemon = std::make_unique<BusStandIn>(m_fixture->bus(), QLatin1String(Maemo::Timed::wireService),
                                            QLatin1String(Maemo::Timed::wirePath));
    m_daemon->setHandler([this](const QDBusMessage &call, const QDBusConnection &connection) {
        connection.send(call.member() == add ? call.createReply(++m_lastCookie) : call.createReply(true));
    });
}

void tst_TaskManagerTimed::cleanup()
{
    m_fixture->end();
    m_daemon.reset();
}

void tst_TaskManagerTimed::eventIsStoredOnceItIsKnown()
{
    QVERIFY(!m_fixture->start("scheduled", stored(scheduleAt(3))));
    QCOMPARE(m_fixture->takeEvents(), QStringList());
    QVERIFY(m_fixture->stored("scheduled").conditionData.contains(QStringLiteral("Schedule")));
    QCOMPARE(cookieOf(m_fixture->stored("scheduled")), 0U);
    QTRY_COMPARE(cookieOf(m_fixture->stored("scheduled")), 17U);
    QTRY_COMPARE(cookieOf(UserSettings().autostartEntries().value(m_fixture->idText("scheduled"))), 17U);
}

void tst_TaskManagerTimed::eventIsNotStoredUnlessAskedFor()
{
    QVERIFY(!m_fixture->start("scheduled", scheduleAt(3)));
    const auto record = m_fixture->record("scheduled");
    QTRY_VERIFY(record->watcher.conditionData()
                    .value(QStringLiteral("Schedule"))
                    .toMap()
                    .contains(QStringLiteral("cookieId")));
    QCOMPARE(m_fixture->storedIds(), QStringList());
}

void tst_TaskManagerTimed::storedEventIsNotMadeAgain()
{
    QVERIFY(!m_fixture->start("scheduled", stored(scheduleAt(3))));
    QTRY_COMPARE(cookieOf(m_fixture->stored("scheduled")), 17U);
    m_fixture->makeManager()->startAutostartTasks();
    QVERIFY(!m_fixture->start("w1")); // something else to wait for
    QVERIFY(m_fixture->record("scheduled"));
    // The stored cookie is the one that the removal names.
    QVERIFY(!m_fixture->manager->stop(m_fixture->id("scheduled"), true, TaskManagerFixture::application()));
    QTRY_COMPARE(calls(), QStringList({ add, cancel + QStringLiteral(" 17") }));
}

void tst_TaskManagerTimed::eventStartsTheTaskEachTime()
{
    QVERIFY(!m_fixture->start("scheduled", scheduleAt(3)));
    QTRY_COMPARE(calls(), QStringList(add));
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(m_fixture->takeEvents(), QStringList());
        emit TimedProxy::instance()->eventTriggered(m_fixture->idText("scheduled"));
        QCOMPARE(m_fixture->takeEvents(), QStringList(QStringLiteral("start scheduled")));
        m_fixture->endProcess("scheduled");
    }
}

void tst_TaskManagerTimed::eventOfAnotherTaskStartsNothing()
{
    QVERIFY(!m_fixture->start("scheduled", scheduleAt(3)));
    emit TimedProxy::instance()->eventTriggered(m_fixture->idText("schedule"));
    emit TimedProxy::instance()->eventTriggered(QString());
    QCOMPARE(m_fixture->takeEvents(), QStringList());
}

void tst_TaskManagerTimed::removedTaskHasNoEvent()
{
    QVERIFY(!m_fixture->start("scheduled", stored(scheduleAt(3))));
    QTRY_COMPARE(cookieOf(m_fixture->stored("scheduled")), 17U);
    QVERIFY(!m_fixture->manager->stop(m_fixture->id("scheduled"), true, TaskManagerFixture::application()));
    QTRY_COMPARE(calls(), QStringList({ add, cancel + QStringLiteral(" 17") }));
    emit TimedProxy::instance()->eventTriggered(m_fixture->idText("scheduled"));
    QVERIFY(m_fixture->processes->starts.isEmpty());
}

void tst_TaskManagerTimed::replacedTaskHasNoEvent()
{
    QVERIFY(!m_fixture->start("scheduled", stored(scheduleAt(3))));
    QTRY_COMPARE(cookieOf(m_fixture->stored("scheduled")), 17U);
    QVERIFY(!m_fixture->start("scheduled", stored(scheduleAt(4))));
    QTRY_COMPARE(cookieOf(m_fixture->stored("scheduled")), 18U);
    QCOMPARE(calls(), QStringList({ add, add, cancel + QStringLiteral(" 17") }));
}

void tst_TaskManagerTimed::refusedTaskHasNoEvent()
{
    QVERIFY(!m_fixture->start("scheduled", stored(scheduleAt(3))));
    QTRY_COMPARE(cookieOf(m_fixture->stored("scheduled")), 17U);
    m_daemon->clearCalls();
    QVariantMap hints = scheduleAt(4); // this is in order, and an event is asked for
    hints.insert(TaskHints::startTime, QStringLiteral("soon"));
    QCOMPARE(m_fixture->start("scheduled", hints).message(), QStringLiteral("Invalid start time"));
    QTRY_COMPARE(
        calls(),
        QStringList({ add, cancel + QStringLiteral(" 4294967295"), cancel + QStringLiteral(" 18") }));
    QCOMPARE(cookieOf(m_fixture->stored("scheduled")), 17U);
}

void tst_TaskManagerTimed::absentDaemonFailsNoRequest()
{
    m_daemon.reset();
    const LogCapture log;
    QVERIFY(!m_fixture->start("scheduled", stored(scheduleAt(3))));
    QTRY_COMPARE(log.warnings().size(), 1);
    QVERIFY(log.warnings().constFirst().startsWith(
        QStringLiteral("Could not create timed event for \"org.example.Notes.task_scheduled\"")));
    QVERIFY(m_fixture->record("scheduled"));
    QCOMPARE(m_fixture->storedIds(), QStringList(m_fixture->idText("scheduled")));
}

QTEST_GUILESS_MAIN(tst_TaskManagerTimed)

#include "tst_task_manager_timed.moc"
