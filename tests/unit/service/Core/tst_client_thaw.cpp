// The moment that a frozen application gets to act on what it is told.

#include "runtime_fixture.h"

#include "support/log_capture.h"
#include "support/writes.h"

using Core::ApplicationInstanceId;
using Core::ApplicationState;
using Core::RuntimeController;
using Core::StopReason;
using Core::UnfreezeReason;
using TestSupport::LogCapture;
using TestSupport::Writes;

namespace {

const QString frozen = QStringLiteral("policy.two.App");

const QString noTime = QStringLiteral("Notification unfreeze timeout is invalid!");

} // namespace

class tst_ClientThaw : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();

    void hiddenApplicationRunsForAWhile();
    void onlyAHiddenApplicationIsThawed_data();
    void onlyAHiddenApplicationIsThawed();
    void whatLeftHiddenKeepsItsState();
    void stateThatHasNoSettingsIsLeftAlone();
    void endInBetweenIsTheEndOfIt();
    void firstOfSeveralEndsTheMoment();
    void unknownApplicationIsLeftAlone_data();
    void unknownApplicationIsLeftAlone();
    void withoutTimeEachCallIsWarnedAbout_data();
    void withoutTimeEachCallIsWarnedAbout();
    void thereIsNoTimeForAnotherReason();

private:
    void makeController(int thawMs);
    void start(const QString &id, ApplicationState state);
    void setState(const QString &id, ApplicationState state);
    void letRun(const QString &id) { m_controller->letClientRun(id, UnfreezeReason::Notification); }

    std::unique_ptr<RuntimeFixture> m_runtime;
    RuntimeController *m_controller = nullptr;
};

void tst_ClientThaw::initTestCase()
{
    m_runtime = std::make_unique<RuntimeFixture>();
    m_runtime->install(frozen);
}

void tst_ClientThaw::cleanup()
{
    m_runtime->end();
}

void tst_ClientThaw::makeController(int thawMs)
{
    m_runtime->configure("NotificationUnfreezeMsec=" + QByteArray::number(thawMs) + '\n');
    m_runtime->makeController();
    m_controller = m_runtime->controller();
}

void tst_ClientThaw::setState(const QString &id, ApplicationState state)
{
    const ApplicationInstanceId instance(id);
    switch (state) {
    case ApplicationState::Active:
        m_controller->updateWindowStatus(instance, 1, 0, 0);
        QTRY_COMPARE(m_runtime->frozenState(id), QByteArrayLiteral("active"));
        break;
    case ApplicationState::Inactive:
        m_controller->updateWindowStatus(instance, 0, 1, 0);
        QTRY_COMPARE(m_runtime->frozenState(id), QByteArrayLiteral("inactive"));
        break;
    case ApplicationState::Hidden:
        m_controller->updateWindowStatus(instance, 0, 0, 1);
        QTRY_COMPARE(m_runtime->frozenState(id), QByteArrayLiteral("hidden"));
        break;
    case ApplicationState::Terminating:
        m_controller->terminateApplication(instance, StopReason::Requested);
        break;
    case ApplicationState::Launched:
    case ApplicationState::NotRunning:
        break;
    }
}

void tst_ClientThaw::start(const QString &id, ApplicationState state)
{
    if (state != ApplicationState::NotRunning) {
        QVERIFY(m_runtime->start(id) > 0);
    }
    setState(id, state);
    QCOMPARE(m_controller->state(id), state);
}

void tst_ClientThaw::hiddenApplicationRunsForAWhile()
{
    makeController(400);
    start(frozen, ApplicationState::Hidden);
    QSignalSpy changes(m_controller, &RuntimeController::applicationStateChanged);
    QElapsedTimer timer;
    timer.start();
    letRun(frozen);
    QCOMPARE(m_runtime->frozenState(frozen), QByteArrayLiteral("inactive")); // at once
    QCOMPARE(m_controller->state(frozen), ApplicationState::Hidden);

    QTRY_COMPARE(m_runtime->frozenState(frozen), QByteArrayLiteral("hidden"));
    QVERIFY(timer.elapsed() >= 350); // a coarse timer may be a little early
    QCOMPARE(m_controller->state(frozen), ApplicationState::Hidden);
    QCOMPARE(changes.count(), 0);
}

void tst_ClientThaw::onlyAHiddenApplicationIsThawed_data()
{
    QTest::addColumn<ApplicationState>("state");

    QTest::newRow("launched") << ApplicationState::Launched;
    QTest::newRow("active") << ApplicationState::Active;
    QTest::newRow("inactive") << ApplicationState::Inactive;
    QTest::newRow("terminating") << ApplicationState::Terminating;
    QTest::newRow("not running") << ApplicationState::NotRunning;
}

void tst_ClientThaw::onlyAHiddenApplicationIsThawed()
{
    QFETCH(ApplicationState, state);
    makeController(10);
    start(frozen, state);
    m_runtime->forgetFrozenState(frozen);
    const LogCapture log;
    letRun(frozen);
    QCOMPARE(m_controller->state(frozen), state);
    QVERIFY(RuntimeFixture::waitTicks(3, 10));
    QCOMPARE(m_runtime->frozenState(frozen), QByteArray());
    QVERIFY(!log.warnings().contains(noTime));
}

void tst_ClientThaw::whatLeftHiddenKeepsItsState()
{
    makeController(50);
    start(frozen, ApplicationState::Hidden);
    Writes writes(m_runtime->freezerPath(frozen));
    letRun(frozen);
    m_controller->updateWindowStatus(ApplicationInstanceId(frozen), 1, 0, 0);
    // The thaw, the new state and the end of the moment, the latter two in either order.
    QTRY_COMPARE(writes.count(), 3);
    QCOMPARE(m_runtime->frozenState(frozen), QByteArrayLiteral("active"));
    QVERIFY(RuntimeFixture::waitTicks(3, 10));
    QCOMPARE(writes.count(), 3);
}

void tst_ClientThaw::stateThatHasNoSettingsIsLeftAlone()
{
    makeController(30);
    start(frozen, ApplicationState::Hidden);
    // So that it outlives the request, which would overtake a stop that is still under way.
    const pid_t pid = m_runtime->pidOf(frozen);
    QVERIFY(RuntimeFixture::stop(pid));
    letRun(frozen);
    setState(frozen, ApplicationState::Terminating);
    m_runtime->forgetFrozenState(frozen);
    QVERIFY(RuntimeFixture::waitTicks(6, 10));
    QCOMPARE(m_controller->state(frozen), ApplicationState::Terminating);
    QCOMPARE(m_runtime->frozenState(frozen), QByteArray());
}

void tst_ClientThaw::endInBetweenIsTheEndOfIt()
{
    makeController(30);
    start(frozen, ApplicationState::Hidden);
    letRun(frozen);
    RuntimeFixture::killGroup(m_runtime->pidOf(frozen));
    QTRY_COMPARE(m_controller->state(frozen), ApplicationState::NotRunning);
    m_runtime->forgetFrozenState(frozen);
    QVERIFY(RuntimeFixture::waitTicks(6, 10));
    QCOMPARE(m_runtime->frozenState(frozen), QByteArray());
}

void tst_ClientThaw::firstOfSeveralEndsTheMoment()
{
    makeController(50);
    start(frozen, ApplicationState::Hidden);
    Writes writes(m_runtime->freezerPath(frozen));
    letRun(frozen);
    letRun(frozen);
    QCOMPARE(writes.count(), 2);
    QCOMPARE(m_runtime->frozenState(frozen), QByteArrayLiteral("inactive"));
    // Each has a timer of its own. Whichever fires first freezes it again, and the other one changes nothing.
    QTRY_VERIFY(writes.count() >= 3);
    QCOMPARE(m_runtime->frozenState(frozen), QByteArrayLiteral("hidden"));
    QTRY_COMPARE(writes.count(), 4);
    QCOMPARE(m_runtime->frozenState(frozen), QByteArrayLiteral("hidden"));
}

void tst_ClientThaw::unknownApplicationIsLeftAlone_data()
{
    QTest::addColumn<QString>("id");

    QTest::newRow("empty") << QString();
    QTest::newRow("beginning of one") << QStringLiteral("policy.two");
    QTest::newRow("instance of one") << frozen + QStringLiteral(".instance_1");
    QTest::newRow("no id") << QStringLiteral("../../etc");
    QTest::newRow("huge") << QString(1000000, QLatin1Char('x'));
}

void tst_ClientThaw::unknownApplicationIsLeftAlone()
{
    QFETCH(QString, id);
    makeController(10);
    start(frozen, ApplicationState::Hidden);
    const LogCapture log;
    letRun(id);
    QCOMPARE(m_runtime->frozenState(frozen), QByteArrayLiteral("hidden"));
    QCOMPARE(log.messages(), QStringList());
}

void tst_ClientThaw::withoutTimeEachCallIsWarnedAbout_data()
{
    QTest::addColumn<int>("thawMs");

    QTest::newRow("zero") << 0;
    QTest::newRow("negative") << -5000;
}

void tst_ClientThaw::withoutTimeEachCallIsWarnedAbout()
{
    QFETCH(int, thawMs);
    makeController(thawMs);
    start(frozen, ApplicationState::Hidden);
    const LogCapture log;
    letRun(frozen);
    letRun(frozen);
    letRun(QStringLiteral("org.example.Missing"));
    QCOMPARE(log.messages(), QStringList({ noTime, noTime, noTime }));
    QCOMPARE(m_runtime->frozenState(frozen), QByteArrayLiteral("hidden"));
}

void tst_ClientThaw::thereIsNoTimeForAnotherReason()
{
    makeController(50);
    start(frozen, ApplicationState::Hidden);
    const LogCapture log;
    m_controller->letClientRun(frozen, static_cast<UnfreezeReason>(1));
    QCOMPARE(log.messages(), QStringList(noTime));
    QCOMPARE(m_runtime->frozenState(frozen), QByteArrayLiteral("hidden"));
}

QTEST_GUILESS_MAIN(tst_ClientThaw)
#include "tst_client_thaw.moc"
