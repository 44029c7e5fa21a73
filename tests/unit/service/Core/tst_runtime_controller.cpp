#include "Core/runtime_controller.h"

#include "controller_fixture.h"
#include "support/writes.h"

#include <unistd.h>

using Core::ApplicationId;
using Core::ApplicationInstanceId;
using Core::ApplicationRecord;
using Core::ApplicationState;
using Core::Error;
using Core::InvocationContext;
using Core::RuntimeController;
using Core::StopReason;
using TestSupport::Writes;

namespace {

QByteArray read(const QString &path)
{
    QFile file(path);
    return file.open(QFile::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class tst_RuntimeController : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();

    void callbacksWaitForTheControlGroupsInOrder();
    void startMakesARecordBeforeItReports();
    void secondStartOfARunningApplicationIsRefused();
    void secondStartDuringALaunchIsRefused();
    void startDuringTheEndIsRefused();
    void severalInstancesAreToldApartByTheirPid();
    void singleCoverIsRefusedOnlyWithAWindow();
    void blockedApplicationIsRefused();
    void unknownApplicationIsRefused_data();
    void unknownApplicationIsRefused();
    void failedLaunchCanBeTriedAgain();
    void windowCountsDecideTheState_data();
    void windowCountsDecideTheState();
    void updateOfWhatDoesNotRunIsRefused();
    void eachStateIsWrittenAfterItsDelay();

private:
    std::unique_ptr<ControllerFixture> m_fixture;
    RuntimeController *m_controller = nullptr;
};

void tst_RuntimeController::initTestCase()
{
    m_fixture = std::make_unique<ControllerFixture>();
    const QByteArray sleeper = "Exec=/bin/sleep 600\n";
    for (const char *id : { "org.example.App", "org.example.App2", "policy.one.App", "policy.two.App" }) {
        m_fixture->install(QLatin1String(id), sleeper);
    }
    m_fixture->install(QStringLiteral("org.example.Many"), sleeper + "X-Nemo-Single-Instance=no\n");
    m_fixture->install(QStringLiteral("org.example.Cover"),
                       sleeper + "X-Nemo-Single-Instance=no\nX-Solvane-Single-Cover=yes\n");
    m_fixture->install(QStringLiteral("org.example.Stubborn"), "Exec=" + m_fixture->stubbornCommand() + '\n');
    m_fixture->install(QStringLiteral("org.example.Broken"),
                       "Exec=/bin/true\nX-Maemo-Service=org.example.Nowhere\n");
    m_controller = m_fixture->controller();
}

void tst_RuntimeController::cleanup()
{
    m_fixture->cleanUp();
}

// The first one, since only then is the controller new.
void tst_RuntimeController::callbacksWaitForTheControlGroupsInOrder()
{
    QStringList calls;
    m_controller->whenInitialized([&calls] { calls.append(QStringLiteral("first")); });
    m_controller->whenInitialized([&calls] { calls.append(QStringLiteral("second")); });
    // A start that comes as early waits too, rather than fail for want of a place to put the child.
    const StartOutcome *early = m_fixture->start(QStringLiteral("org.example.App"));
    QCOMPARE(calls, QStringList());

    QTRY_COMPARE(calls, QStringList({ QStringLiteral("first"), QStringLiteral("second") }));
    bool atOnce = false;
    m_controller->whenInitialized([&atOnce] { atOnce = true; });
    QVERIFY(atOnce);
    QTRY_VERIFY(early->reported);
    QVERIFY(!early->error);
}

void tst_RuntimeController::startMakesARecordBeforeItReports()
{
    QSignalSpy started(m_controller, &RuntimeController::applicationStarted);
    InvocationContext context;
    context.reason = InvocationContext::StartIntent;
    const QList<QUrl> uris = { QUrl(QStringLiteral("web://host/")) };
    ApplicationRecord seen;
    m_controller->startApplication(ApplicationId(QStringLiteral("org.example.App")), {}, uris, context,
                                   [&](const ApplicationInstanceId &instanceId, const Error &) {
                                       seen =
                                           m_controller->applicationRecord(ApplicationId(instanceId.text()));
                                   });
    QVERIFY(m_controller->runningApplications().isEmpty());

    QTRY_COMPARE(seen.id, QStringLiteral("org.example.App"));
    QCOMPARE(seen.state, ApplicationState::Launched);
    QCOMPARE(seen.context.reason, InvocationContext::StartIntent);
    QCOMPARE(seen.uris, uris);
    QVERIFY(seen.pid > 1);
    QCOMPARE(started.count(), 1);
    QCOMPARE(started.at(0).at(0).value<ApplicationRecord>().pid, seen.pid);
    QCOMPARE(getpgid(seen.pid), seen.pid);
    for (const char *controller : { "cpu", "freezer", "memory" }) {
        QCOMPARE(read(m_fixture->groupOf(QLatin1String(controller),
                                         QStringLiteral("org.example.App/app/cgroup.procs"))),
                 QByteArray::number(seen.pid));
    }
}

void tst_RuntimeController::secondStartOfARunningApplicationIsRefused()
{
    m_fixture->startAndWait(QStringLiteral("org.example.App"));
    const StartOutcome *second = m_fixture->start(QStringLiteral("org.example.App"));

    QVERIFY(second->reported);
    QCOMPARE(second->error.code(), Error::ApplicationAlreadyRunning);
    QCOMPARE(second->error.message(), QString());
    QCOMPARE(second->id.text(), QStringLiteral("org.example.App"));
}

void tst_RuntimeController::secondStartDuringALaunchIsRefused()
{
    m_fixture->holdAnswers = true;
    const StartOutcome *first = m_fixture->start(QStringLiteral("org.example.App"));
    QTRY_COMPARE(m_fixture->held(), 1);
    const StartOutcome *second = m_fixture->start(QStringLiteral("org.example.App"));
    QVERIFY(second->reported);
    QCOMPARE(second->error.code(), Error::ApplicationAlreadyLaunching);

    m_fixture->answerHeld();
    QTRY_VERIFY(first->reported);
    QVERIFY(!first->error);
    QCOMPARE(m_fixture->start(QStringLiteral("org.example.App"))->error.code(),
             Error::ApplicationAlreadyRunning);
}

void tst_RuntimeController::startDuringTheEndIsRefused()
{
    const ApplicationInstanceId id = m_fixture->startAndWait(QStringLiteral("org.example.Stubborn"));
    QVERIFY(!m_controller->terminateApplication(id, StopReason::Requested));

    QCOMPARE(m_fixture->start(QStringLiteral("org.example.Stubborn"))->error.code(),
             Error::ApplicationTerminating);
}

void tst_RuntimeController::severalInstancesAreToldApartByTheirPid()
{
    const ApplicationInstanceId one = m_fixture->startAndWait(QStringLiteral("org.example.Many"));
    const ApplicationInstanceId two = m_fixture->startAndWait(QStringLiteral("org.example.Many"));

    QVERIFY(one.text() != two.text());
    const ApplicationRecord record = m_controller->applicationRecord(ApplicationId(two.text()));
    QCOMPARE(two.text(), QStringLiteral("org.example.Many.instance_%1").arg(record.pid));
    QCOMPARE(m_controller->runningApplications().size(), 2);
}

void tst_RuntimeController::singleCoverIsRefusedOnlyWithAWindow()
{
    const ApplicationInstanceId one = m_fixture->startAndWait(QStringLiteral("org.example.Cover"));
    m_fixture->startAndWait(QStringLiteral("org.example.Cover"));

    QVERIFY(!m_controller->updateWindowStatus(one, 0, 1, 0));
    QCOMPARE(m_fixture->start(QStringLiteral("org.example.Cover"))->error.code(),
             Error::ApplicationAlreadyRunning);
}

void tst_RuntimeController::blockedApplicationIsRefused()
{
    const ApplicationId id(QStringLiteral("org.example.App"));
    m_controller->blockApplication(id);
    m_controller->blockApplication(id);
    QTest::ignoreMessage(QtDebugMsg, "Application is blocked, won't start it: \"org.example.App\"");
    QCOMPARE(m_fixture->start(id.text())->error.code(), Error::ApplicationBlocked);

    m_controller->unblockApplication(id);
    m_fixture->startAndWait(id.text());
    // What runs is not touched by a block.
    m_controller->blockApplication(id);
    QCOMPARE(m_controller->state(id.text()), ApplicationState::Launched);
    m_controller->unblockApplication(id);
}

void tst_RuntimeController::unknownApplicationIsRefused_data()
{
    QTest::addColumn<QString>("id");

    QTest::newRow("not installed") << QStringLiteral("org.example.Missing");
    QTest::newRow("empty") << QString();
    QTest::newRow("not an id") << QStringLiteral("../../etc/passwd");
    QTest::newRow("huge") << QStringLiteral("org.example.") + QString(100000, QLatin1Char('a'));
}

void tst_RuntimeController::unknownApplicationIsRefused()
{
    QFETCH(QString, id);
    const StartOutcome *outcome = m_fixture->start(id);

    QVERIFY(outcome->reported);
    QCOMPARE(outcome->error.code(), Error::HandlerNotFound);
    QCOMPARE(outcome->error.message(), QStringLiteral("Cannot find application ") + id);
    QVERIFY(m_controller->runningApplications().isEmpty());
}

void tst_RuntimeController::failedLaunchCanBeTriedAgain()
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        const StartOutcome *outcome = m_fixture->start(QStringLiteral("org.example.Broken"));
        QTRY_VERIFY(outcome->reported);
        QCOMPARE(outcome->error.code(), Error::HandlerFailed);
        QCOMPARE(outcome->error.message(), QStringLiteral("Error launching org.example.Broken"));
    }
    QVERIFY(m_controller->runningApplications().isEmpty());
}

void tst_RuntimeController::windowCountsDecideTheState_data()
{
    QTest::addColumn<QString>("id");
    QTest::addColumn<int>("active");
    QTest::addColumn<int>("inactive");
    QTest::addColumn<int>("hidden");
    QTest::addColumn<ApplicationState>("state");

    const QString never = QStringLiteral("org.example.App");
    const QString mostly = QStringLiteral("policy.one.App");
    const QString always = QStringLiteral("policy.two.App");
    QTest::newRow("active beats all") << always << 1 << 1 << 1 << ApplicationState::Active;
    QTest::newRow("inactive beats hidden") << always << 0 << 2 << 1 << ApplicationState::Inactive;
    QTest::newRow("hidden, always frozen") << always << 0 << 0 << 1 << ApplicationState::Hidden;
    QTest::newRow("hidden, frozen unless used") << mostly << 0 << 0 << 1 << ApplicationState::Hidden;
    QTest::newRow("hidden, never frozen") << never << 0 << 0 << 1 << ApplicationState::Inactive;
    QTest::newRow("negative counts are none") << always << -1 << -1 << 1 << ApplicationState::Hidden;
    QTest::newRow("none") << always << 0 << 0 << 0 << ApplicationState::Terminating;
    QTest::newRow("negative hidden is none") << never << 0 << 0 << -1 << ApplicationState::Terminating;
}

void tst_RuntimeController::windowCountsDecideTheState()
{
    QFETCH(QString, id);
    QFETCH(int, active);
    QFETCH(int, inactive);
    QFETCH(int, hidden);
    QFETCH(ApplicationState, state);
    const ApplicationInstanceId instance = m_fixture->startAndWait(id);
    QSignalSpy changes(m_controller, &RuntimeController::applicationStateChanged);

    QVERIFY(!m_controller->updateWindowStatus(instance, active, inactive, hidden));
    QCOMPARE(m_controller->state(id), state);
    QCOMPARE(changes.count(), 1);
    QCOMPARE(changes.at(0).at(0).toString(), id);
    QCOMPARE(changes.at(0).at(1).value<ApplicationState>(), state);
    const ApplicationRecord record = m_controller->applicationRecord(ApplicationId(id));
    QCOMPARE(record.activeWindowCount, active);
    QCOMPARE(record.inactiveWindowCount, inactive);
    QCOMPARE(record.hiddenWindowCount, hidden);
}

void tst_RuntimeController::updateOfWhatDoesNotRunIsRefused()
{
    const Error error =
        m_controller->updateWindowStatus(ApplicationInstanceId(QStringLiteral("org.example.App")), 1, 0, 0);
    QCOMPARE(error.code(), Error::NotRunning);
    QCOMPARE(error.message(), QStringLiteral("Application not running: org.example.App"));
    QCOMPARE(m_controller->state(QStringLiteral("org.example.App")), ApplicationState::NotRunning);
    QVERIFY(m_controller->applicationRecord(ApplicationId(QStringLiteral("org.example.App"))).id.isEmpty());
}

void tst_RuntimeController::eachStateIsWrittenAfterItsDelay()
{
    const ApplicationInstanceId id = m_fixture->startAndWait(QStringLiteral("policy.two.App"));
    const QString freezer =
        m_fixture->groupOf(QStringLiteral("freezer"), QStringLiteral("policy.two.App/app/freezer.state"));

    QFile::remove(freezer); // an earlier test may have left it
    m_controller->updateWindowStatus(id, 1, 0, 0);
    QCOMPARE(read(freezer), QByteArray()); // a delay of 0 is the next turn of the event loop
    QTRY_COMPARE(read(freezer), QByteArrayLiteral("ACTIVE"));

    // Leaving a state does not call off what its entry has armed: the later timer of the earlier state wins.
    Writes writes(freezer); // the one in between may be over when somebody looks
    m_controller->updateWindowStatus(id, 0, 0, 1);
    m_controller->updateWindowStatus(id, 0, 1, 0);
    QTRY_COMPARE(writes.count(), 2);
    QCOMPARE(read(freezer), QByteArrayLiteral("HIDDEN"));
}

QTEST_GUILESS_MAIN(tst_RuntimeController)
#include "tst_runtime_controller.moc"
