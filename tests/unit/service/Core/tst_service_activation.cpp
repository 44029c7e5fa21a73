#include "Core/dbus_name_watcher.h"
#include "Core/launching_application.h"

#include "tested_launch.h"

using namespace Core;
using namespace TestSupport;

namespace {

const QString service = QStringLiteral("org.example.legacy");
const QString path = QStringLiteral("/org/example/legacy");
const QString failureWarning = QStringLiteral("Failed to setup child process");
const QString invokeWarning = QStringLiteral("Failed to invoke D-Bus method on \"org.example.legacy\"");
const QString limitWarning = QStringLiteral("App took too long to start up: \"org.example.legacy\"");
constexpr int shortLimitMs = 100;

bool killIsRefused = false;

} // namespace

// In the place of the C library's.
extern "C" int kill(pid_t pid, int signal) noexcept
{
    if (killIsRefused) {
        errno = EPERM;
        return -1;
    }
    return static_cast<int>(::syscall(SYS_kill, pid, signal));
}

/// The end of a launch whose application is a D-Bus service: the call of its method, once it owns its name.
class TestServiceActivation : public LaunchTest
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup() { end(); }

    void serviceIsCalledWhenItsNameAppears();
    void serviceThatIsThereIsCalledAtOnce();
    void argumentsAreTheFixedOnesAndTheUris_data();
    void argumentsAreTheFixedOnesAndTheUris();
    void applicationWithoutServiceIsNotWaitedFor();
    void failedCallLeavesTheProgramRunning_data();
    void failedCallLeavesTheProgramRunning();
    void limitIsTwentySeconds();
    void nameThatNeverAppearsEndsTheProcessGroup();
    void serviceThatNeverAnswersEndsTheProcessGroup();
    void deadProcessGroupIsNothingToWarnOf();
    void killThatIsRefusedIsWarnedOf();
    void nameThatAppearsTooLateIsIgnored();
    void endOfTheLaunchEndsTheWait();
    void answerAfterTheLimitIsIgnored();

private:
    void startAndReport(TestedLaunch *launch);
    void letTheServiceBeKnown();
    void endChild();

    pid_t m_pid = -1;
};

void TestServiceActivation::initTestCase()
{
    makeWorld("X-Maemo-Service=org.example.legacy");
    DBusNameWatcher::instance(); // Qt logs something of its own at the first use
}

void TestServiceActivation::init()
{
    begin();
    m_request.launchData.maemoService = service;
    m_request.launchData.maemoObjectPath = path;
    m_request.launchData.maemoMethod = QStringLiteral("org.example.legacy.Ui.open");
}

/// Starts it and waits for the report, which does not wait for the service.
void TestServiceActivation::startAndReport(TestedLaunch *launch)
{
    m_pid = launch->start();
    QVERIFY(m_pid > 0);
    QTRY_COMPARE(TestedLaunch::reports, (QList<Report> { { testAppId, m_pid, Error::NoError, QString() } }));
}

/// Waits until the name has reached the watcher, or the end of the name before it.
void TestServiceActivation::letTheServiceBeKnown()
{
    QObject guard;
    bool known = false;
    DBusNameWatcher::instance()->onNameAppeared(service, &guard, [&known] { known = true; });
    QTRY_VERIFY(known);
}

void TestServiceActivation::endChild()
{
    QCOMPARE(killChild(m_pid), 0);
    waitForChild(m_pid);
}

void TestServiceActivation::serviceIsCalledWhenItsNameAppears()
{
    QPointer<TestedLaunch> launch = make();
    startAndReport(launch);
    QCOMPARE(launch->references, 1); // the activation's; the launch has released its own
    BusStandIn legacy(m_world->bus(), QString(), path);
    QTest::qWait(50);
    QCOMPARE(legacy.calls().size(), 0);
    legacy.own(service);
    QTRY_COMPARE(legacy.calls().size(), 1);
    const QDBusMessage call = legacy.calls().first();
    QCOMPARE(call.path(), path);
    QCOMPARE(call.interface(), QStringLiteral("org.example.legacy.Ui"));
    QCOMPARE(call.member(), QStringLiteral("open"));
    QCOMPARE(call.signature(), QStringLiteral("as"));
    QTest::qWait(50);
    QVERIFY(launch);
    legacy.send(call.createReply());
    QTRY_VERIFY(!launch);
    QCOMPARE(TestedLaunch::reports.size(), 1);
    QCOMPARE(legacy.calls().size(), 1);
    QCOMPARE(m_log->messages(), QStringList());
    endChild();
}

void TestServiceActivation::serviceThatIsThereIsCalledAtOnce()
{
    BusStandIn legacy(m_world->bus(), service, path);
    legacy.answerWith({});
    letTheServiceBeKnown();
    QPointer<TestedLaunch> launch = make();
    startAndReport(launch);
    QTRY_VERIFY(!launch);
    QCOMPARE(legacy.calls().size(), 1);
    QCOMPARE(m_log->messages(), QStringList());
    endChild();
}

void TestServiceActivation::argumentsAreTheFixedOnesAndTheUris_data()
{
    QTest::addColumn<QString>("fixed");
    QTest::addColumn<QStringList>("uris");
    QTest::addColumn<QStringList>("arguments");
    const QStringList uris { QStringLiteral("file:///tmp/a%20b"), QStringLiteral("https://host/c?d=e") };
    const QStringList texts { QStringLiteral("/tmp/a b"), QStringLiteral("https://host/c?d=e") };
    QTest::newRow("nothing") << QString() << QStringList() << QStringList();
    QTest::newRow("URIs") << QString() << uris << texts;
    QTest::newRow("one") << QStringLiteral("a b") << QStringList() << QStringList { QStringLiteral("a b") };
    QTest::newRow("empty parts are kept")
        << QStringLiteral(";a;;b;") << QStringList()
        << QStringList { QString(), QStringLiteral("a"), QString(), QStringLiteral("b"), QString() };
    QTest::newRow("both") << QStringLiteral("a;b") << uris
                          << (QStringList { QStringLiteral("a"), QStringLiteral("b") } + texts);
}

void TestServiceActivation::argumentsAreTheFixedOnesAndTheUris()
{
    QFETCH(QString, fixed);
    QFETCH(QStringList, uris);
    m_request.launchData.maemoFixedArgs = fixed;
    for (const QString &uri : qAsConst(uris)) {
        m_request.uris << QUrl(uri);
    }
    BusStandIn legacy(m_world->bus(), service, path);
    legacy.answerWith({});
    QPointer<TestedLaunch> launch = make();
    startAndReport(launch);
    QTRY_COMPARE(legacy.calls().size(), 1);
    QTEST(legacy.calls().first().arguments().value(0).toStringList(), "arguments");
    QTRY_VERIFY(!launch);
    endChild();
}

void TestServiceActivation::applicationWithoutServiceIsNotWaitedFor()
{
    m_request.launchData.maemoService.clear();
    QPointer<TestedLaunch> launch = make();
    startAndReport(launch);
    QTRY_VERIFY(!launch);
    endChild();
}

void TestServiceActivation::failedCallLeavesTheProgramRunning_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QString>("warning");
    QTest::newRow("error") << QStringLiteral("org.example.legacy.Ui.open") << QString();
    QTest::newRow("no interface") << QStringLiteral("open")
                                  << QStringLiteral("Invalid interface.method name: \"open\"");
    QTest::newRow("no method") << QStringLiteral("org.example.")
                               << QStringLiteral("Missing method name from \"org.example.\"");
}

void TestServiceActivation::failedCallLeavesTheProgramRunning()
{
    QFETCH(QString, method);
    QFETCH(QString, warning);
    m_request.launchData.maemoMethod = method;
    BusStandIn legacy(m_world->bus(), service, path);
    legacy.setHandler([](const QDBusMessage &call, const QDBusConnection &connection) {
        connection.send(call.createErrorReply(QDBusError::Failed, QStringLiteral("no")));
    });
    letTheServiceBeKnown();
    QPointer<TestedLaunch> launch = make();
    startAndReport(launch);
    QTRY_VERIFY(!launch);
    QStringList warnings { invokeWarning, failureWarning };
    if (!warning.isEmpty()) {
        warnings.prepend(warning);
    }
    QCOMPARE(m_log->warnings(), warnings);
    QCOMPARE(TestedLaunch::reports.size(), 1);
    QVERIFY(staysAlive(m_pid));
    endChild();
}

void TestServiceActivation::limitIsTwentySeconds()
{
    const std::unique_ptr<TestedLaunch> launch(make());
    QCOMPARE(launch->activationLimitMs(), 20000);
}

void TestServiceActivation::nameThatNeverAppearsEndsTheProcessGroup()
{
    // The program starts another, which would hold the pipe open.
    int ends[2];
    QCOMPARE(::pipe(ends), 0);
    const QByteArray script =
        m_world->script(QStringLiteral("forker"), "sleep 60 & echo ready; wait\n").toUtf8();
    QPointer<TestedLaunch> launch = make({ script });
    launch->setActivationLimitMs(3000); // time for the program to come up
    launch->onPrepare = [launch, &ends] {
        return launch->stdoutFile.open(ends[1], QIODevice::WriteOnly, QFile::AutoCloseHandle);
    };
    startAndReport(launch);
    char text[16] = {};
    QCOMPARE(::read(ends[0], text, sizeof(text)), ssize_t(6));
    QTRY_VERIFY(!launch);
    const int status = waitForChild(m_pid);
    QVERIFY(WIFSIGNALED(status));
    QCOMPARE(WTERMSIG(status), SIGKILL);
    pollfd end { ends[0], POLLIN, 0 };
    QCOMPARE(::poll(&end, 1, childLimitMs), 1);
    QCOMPARE(::read(ends[0], text, sizeof(text)), ssize_t(0)); // nobody of the group is left
    ::close(ends[0]);
    QCOMPARE(m_log->warnings(), (QStringList { limitWarning, failureWarning }));
    QCOMPARE(TestedLaunch::reports.size(), 1);
}

void TestServiceActivation::serviceThatNeverAnswersEndsTheProcessGroup()
{
    BusStandIn legacy(m_world->bus(), service, path);
    letTheServiceBeKnown();
    QPointer<TestedLaunch> launch = make();
    launch->setActivationLimitMs(shortLimitMs);
    startAndReport(launch);
    QTRY_VERIFY(!launch);
    QTRY_COMPARE(legacy.calls().size(), 1);
    const int status = waitForChild(m_pid);
    QVERIFY(WIFSIGNALED(status));
    QCOMPARE(m_log->warnings(), (QStringList { limitWarning, failureWarning }));
}

void TestServiceActivation::deadProcessGroupIsNothingToWarnOf()
{
    QPointer<TestedLaunch> launch = make({ "/bin/true" });
    launch->setActivationLimitMs(shortLimitMs);
    startAndReport(launch);
    QCOMPARE(waitForChild(m_pid), 0);
    QTRY_VERIFY(!launch);
    QCOMPARE(m_log->warnings(), (QStringList { limitWarning, failureWarning }));
}

void TestServiceActivation::killThatIsRefusedIsWarnedOf()
{
    QPointer<TestedLaunch> launch = make();
    launch->setActivationLimitMs(shortLimitMs);
    killIsRefused = true;
    startAndReport(launch);
    QTRY_VERIFY(!launch);
    killIsRefused = false;
    QCOMPARE(m_log->warnings(),
             (QStringList { limitWarning, failureWarning,
                            QStringLiteral("Failed to kill process group %1").arg(m_pid) }));
    endChild();
}

void TestServiceActivation::nameThatAppearsTooLateIsIgnored()
{
    QPointer<TestedLaunch> launch = make();
    launch->setActivationLimitMs(shortLimitMs);
    startAndReport(launch);
    QTRY_VERIFY(!launch);
    waitForChild(m_pid);
    BusStandIn legacy(m_world->bus(), service, path);
    letTheServiceBeKnown();
    QTest::qWait(50);
    QCOMPARE(legacy.calls().size(), 0);
}

void TestServiceActivation::endOfTheLaunchEndsTheWait()
{
    QPointer<TestedLaunch> launch = make();
    constexpr int limitMs = 2500; // not over before it is deleted
    launch->setActivationLimitMs(limitMs);
    startAndReport(launch);
    QVERIFY(launch);
    delete launch;
    BusStandIn legacy(m_world->bus(), service, path);
    letTheServiceBeKnown();
    QTest::qWait(limitMs + shortLimitMs);
    QCOMPARE(legacy.calls().size(), 0);
    QCOMPARE(m_log->messages(), QStringList());
    QVERIFY(staysAlive(m_pid));
    endChild();
}

void TestServiceActivation::answerAfterTheLimitIsIgnored()
{
    BusStandIn legacy(m_world->bus(), service, path);
    letTheServiceBeKnown();
    QPointer<TestedLaunch> launch = make();
    launch->setActivationLimitMs(shortLimitMs);
    startAndReport(launch);
    QTRY_VERIFY(!launch);
    QTRY_COMPARE(legacy.calls().size(), 1);
    legacy.send(legacy.calls().first().createReply());
    waitForChild(m_pid);
    QTest::qWait(50);
    QCOMPARE(m_log->warnings(), (QStringList { limitWarning, failureWarning }));
}

QTEST_GUILESS_MAIN(TestServiceActivation)
#include "tst_service_activation.moc"
