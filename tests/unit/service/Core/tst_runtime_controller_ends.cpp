// How what runs comes to its end, and who hears of it.

#include "Core/runtime_controller.h"
#include "Core/runtime_controller_p.h"

#include "controller_fixture.h"

#include <csignal>

using Core::ApplicationId;
using Core::ApplicationInstanceId;
using Core::ApplicationState;
using Core::Error;
using Core::RuntimeController;
using Core::StopReason;

namespace {

QByteArray read(const QString &path)
{
    QFile file(path);
    return file.open(QFile::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class tst_RuntimeControllerEnds : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();

    void lastWindowClosedEndsTheApplication();
    void applicationThatIgnoresSigtermIsKilled();
    void terminationReportsItsReason();
    void terminateAllGoesByPrefix();
    void waitingEndsWithTheLastInstance();
    void waitingForNothingEndsAtOnce();
    void killAllEndsEverything();
    void killTimeoutOfTheEnvironment_data();
    void killTimeoutOfTheEnvironment();

private:
    std::unique_ptr<ControllerFixture> m_fixture;
    RuntimeController *m_controller = nullptr;
};

void tst_RuntimeControllerEnds::initTestCase()
{
    m_fixture = std::make_unique<ControllerFixture>();
    const QByteArray sleeper = "Exec=/bin/sleep 600\n";
    for (const char *id : { "org.example.App", "org.example.App2", "policy.one.App", "policy.two.App" }) {
        m_fixture->install(QLatin1String(id), sleeper);
    }
    m_fixture->install(QStringLiteral("org.example.Many"), sleeper + "X-Nemo-Single-Instance=no\n");
    m_fixture->install(QStringLiteral("org.example.Stubborn"), "Exec=" + m_fixture->stubbornCommand() + '\n');
    m_controller = m_fixture->controller();
}

void tst_RuntimeControllerEnds::cleanup()
{
    m_fixture->cleanUp();
}

void tst_RuntimeControllerEnds::lastWindowClosedEndsTheApplication()
{
    const ApplicationInstanceId id = m_fixture->startAndWait(QStringLiteral("policy.two.App"));
    m_controller->updateWindowStatus(id, 1, 0, 0);
    QSignalSpy terminated(m_controller, &RuntimeController::applicationTerminated);
    QSignalSpy changes(m_controller, &RuntimeController::applicationStateChanged);
    m_controller->updateWindowStatus(id, 0, 0, 0);

    QTRY_COMPARE(terminated.count(), 1);
    QCOMPARE(terminated.at(0).at(2).toInt(), SIGTERM); // the raw status: no exit code, the signal's number
    QCOMPARE(terminated.at(0).at(3).value<StopReason>(), StopReason::None);
    QCOMPARE(changes.count(), 1);
    QCOMPARE(changes.at(0).at(1).value<ApplicationState>(), ApplicationState::Terminating);
}

void tst_RuntimeControllerEnds::applicationThatIgnoresSigtermIsKilled()
{
    const ApplicationInstanceId id = m_fixture->startAndWait(QStringLiteral("org.example.Stubborn"));
    QTRY_VERIFY(m_fixture->stubbornIsReady());
    QSignalSpy terminated(m_controller, &RuntimeController::applicationTerminated);

    QVERIFY(!m_controller->terminateApplication(id, StopReason::Requested));
    QTRY_COMPARE(terminated.count(), 1);
    QCOMPARE(terminated.at(0).at(2).toInt(), SIGKILL);
}

void tst_RuntimeControllerEnds::terminationReportsItsReason()
{
    QSignalSpy terminated(m_controller, &RuntimeController::applicationTerminated);
    const ApplicationInstanceId id = m_fixture->startAndWait(QStringLiteral("org.example.App"));
    const pid_t pid = m_controller->applicationRecord(ApplicationId(id.text())).pid;

    QVERIFY(!m_controller->terminateApplication(id, StopReason::Requested));
    QTRY_COMPARE(terminated.count(), 1);
    QCOMPARE(terminated.at(0).at(0).toString(), id.text());
    QCOMPARE(terminated.at(0).at(1).value<pid_t>(), pid);
    QCOMPARE(terminated.at(0).at(3).value<StopReason>(), StopReason::Requested);
    QCOMPARE(m_controller->terminateApplication(id, StopReason::Requested).code(), Error::NotRunning);
}

void tst_RuntimeControllerEnds::terminateAllGoesByPrefix()
{
    m_fixture->startAndWait(QStringLiteral("org.example.App"));
    m_fixture->startAndWait(QStringLiteral("org.example.App2"));
    m_fixture->startAndWait(QStringLiteral("policy.one.App"));

    QVERIFY(
        !m_controller->terminateAll(ApplicationId(QStringLiteral("org.example.App")), StopReason::Requested));
    QTRY_COMPARE(m_controller->runningApplications().size(), 1);
    QCOMPARE(m_controller->runningApplications().at(0).id, QStringLiteral("policy.one.App"));
    QVERIFY(
        !m_controller->terminateAll(ApplicationId(QStringLiteral("org.example.App")), StopReason::Requested));
}

void tst_RuntimeControllerEnds::waitingEndsWithTheLastInstance()
{
    const ApplicationInstanceId one = m_fixture->startAndWait(QStringLiteral("org.example.Many"));
    const ApplicationInstanceId two = m_fixture->startAndWait(QStringLiteral("org.example.Many"));
    QStringList ended;
    m_controller->waitForNotRunning(ApplicationId(QStringLiteral("org.example.Many")),
                                    [&ended] { ended.append(QStringLiteral("exact")); });
    // Waits by prefix too, but only the end of an application with this very id would be noticed.
    m_controller->waitForNotRunning(ApplicationId(QStringLiteral("org.example.Man")),
                                    [&ended] { ended.append(QStringLiteral("prefix")); });

    m_controller->terminateApplication(one, StopReason::Requested);
    QTRY_COMPARE(m_controller->runningApplications().size(), 1);
    QCOMPARE(ended, QStringList());
    m_controller->terminateApplication(two, StopReason::Requested);
    QTRY_COMPARE(ended, QStringList(QStringLiteral("exact")));
}

void tst_RuntimeControllerEnds::waitingForNothingEndsAtOnce()
{
    bool ended = false;
    m_controller->waitForNotRunning(ApplicationId(QStringLiteral("org.example.App")),
                                    [&ended] { ended = true; });
    QVERIFY(ended);
}

void tst_RuntimeControllerEnds::killAllEndsEverything()
{
    QSignalSpy terminated(m_controller, &RuntimeController::applicationTerminated);
    m_fixture->startAndWait(QStringLiteral("org.example.Stubborn"));
    const ApplicationInstanceId frozen = m_fixture->startAndWait(QStringLiteral("policy.two.App"));
    const QString freezer =
        m_fixture->groupOf(QStringLiteral("freezer"), QStringLiteral("policy.two.App/app/freezer.state"));
    m_controller->updateWindowStatus(frozen, 0, 0, 1);
    QTRY_COMPARE(read(freezer), QByteArrayLiteral("HIDDEN"));

    m_controller->killAll();
    QCOMPARE(read(freezer), QByteArrayLiteral("INACTIVE"));
    QCOMPARE(m_controller->runningApplications().size(), 2);
    QTRY_COMPARE(terminated.count(), 2);
    QCOMPARE(terminated.at(0).at(2).toInt(), SIGKILL);
    QCOMPARE(terminated.at(1).at(2).toInt(), SIGKILL);
}

void tst_RuntimeControllerEnds::killTimeoutOfTheEnvironment_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<int>("timeoutMs");

    QTest::newRow("unset") << QByteArray() << 2000;
    QTest::newRow("empty") << QByteArrayLiteral("") << 2000;
    QTest::newRow("a number") << QByteArrayLiteral("500") << 500;
    QTest::newRow("zero") << QByteArrayLiteral("0") << 2000;
    QTest::newRow("negative") << QByteArrayLiteral("-1") << 2000;
    QTest::newRow("no number") << QByteArrayLiteral("5s") << 2000;
    QTest::newRow("too large") << QByteArrayLiteral("99999999999") << 2000;
}

void tst_RuntimeControllerEnds::killTimeoutOfTheEnvironment()
{
    QFETCH(QByteArray, value);
    QFETCH(int, timeoutMs);
    if (value.isNull()) {
        qunsetenv("PROCWARDEN_KILL_TIMEOUT");
    } else {
        qputenv("PROCWARDEN_KILL_TIMEOUT", value);
    }
    QCOMPARE(Core::killTimeoutFromEnvironment(), timeoutMs);
}

QTEST_GUILESS_MAIN(tst_RuntimeControllerEnds)
#include "tst_runtime_controller_ends.moc"
