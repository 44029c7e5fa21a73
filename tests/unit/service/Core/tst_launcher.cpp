#include "Core/launcher.h"

#include "Core/oom_controller.h"

#include "launch_fixture.h"

#include <QPointer>

using namespace Core;
using namespace TestSupport;

class TestLauncher : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void unknownApplicationIsReportedAtOnce_data();
    void unknownApplicationIsReportedAtOnce();
    void failedPreparationIsReportedOnceAndAtOnce();
    void failedSpawnIsReportedOnceAndAtOnce();
    void childOfAFailedLaunchIsToldOf();
    void applicationIsStarted();
    void directStartSparesTheProcess_data();
    void directStartSparesTheProcess();
    void kindFollowsTheDesktopFile_data();
    void kindFollowsTheDesktopFile();
    void applicationWithBothLinesIsActivatedToo();
    void parametersReachTheLaunch();
    void everyLaunchIsItsOwn();
    void applicationThatGoesDuringItsLaunchStartsAllTheSame();
    void endOfTheLauncherEndsTheLaunches();
    void callbackMayLaunchAgain();
    void emptyCallbackIsAllowed();

private:
    void launch(const QString &id = testAppId, bool direct = false);
    Launcher::Callback reporter();

    std::unique_ptr<LaunchWorld> m_world;
    std::unique_ptr<Sailjaild> m_sailjaild;
    std::unique_ptr<LogCapture> m_log;
    OomController m_oom;
    std::unique_ptr<Launcher> m_launcher;
    QList<Report> m_reports;
    QList<Report> m_abandoned; ///< by failed launches; only process and instance count
};

void TestLauncher::initTestCase()
{
    m_world = std::make_unique<LaunchWorld>();
}

void TestLauncher::init()
{
    m_world->uninstallAll();
    m_sailjaild = std::make_unique<Sailjaild>(m_world->bus());
    m_log = std::make_unique<LogCapture>();
    m_launcher = std::make_unique<Launcher>(m_world->cgroups(), &m_oom);
    connect(m_launcher.get(), &Launcher::childAbandoned, this,
            [this](pid_t pid, const ApplicationInstanceId &id) {
                m_abandoned << Report { id.text(), pid, Error::NoError, QString() };
            });
    m_reports.clear();
    m_abandoned.clear();
}

void TestLauncher::cleanup()
{
    m_launcher.reset();
    m_log.reset();
    m_sailjaild.reset();
    QVERIFY(noChildIsLeft());
}

Launcher::Callback TestLauncher::reporter()
{
    return [this](const ApplicationInstanceId &id, pid_t pid, const Error &error) {
        m_reports << Report { id.text(), pid, error.code(), error.message() };
    };
}

void TestLauncher::launch(const QString &id, bool direct)
{
    m_launcher->launch(ApplicationId(id), {}, {}, {}, direct, reporter());
}

void TestLauncher::unknownApplicationIsReportedAtOnce_data()
{
    QTest::addColumn<QString>("id");
    QTest::newRow("unknown") << QStringLiteral("org.example.Other");
    QTest::newRow("no id") << QStringLiteral("nonsense");
    QTest::newRow("empty") << QString();
    QTest::newRow("placeholders") << QStringLiteral("%1 %2");
    QTest::newRow("huge") << QString(100000, QLatin1Char('x'));
}

void TestLauncher::unknownApplicationIsReportedAtOnce()
{
    QFETCH(QString, id);
    m_world->install(desktopFile("Exec=/bin/true"));
    launch(id);
    QCOMPARE(
        m_reports,
        QList<Report> { failure(Error::HandlerNotFound, QLatin1String("Cannot find application ") + id) });
    QVERIFY(m_launcher->children().isEmpty());
    QCOMPARE(m_log->messages(), QStringList());
    QTest::qWait(50);
    QCOMPARE(m_sailjaild->askedAllowed(), QStringList());
    QCOMPARE(m_reports.size(), 1);
}

void TestLauncher::failedPreparationIsReportedOnceAndAtOnce()
{
    m_sailjaild->allowed = 0;
    m_world->install(desktopFile("Exec=/bin/true\nX-Maemo-Service=org.example.legacy"));
    launch();
    const QList<Report> expected { failure(Error::HandlerFailed,
                                           QStringLiteral("Error launching org.example.Notes")) };
    QCOMPARE(m_reports, expected);
    QVERIFY(m_launcher->children().isEmpty());
    QCOMPARE(m_log->warnings(),
             (QStringList { QStringLiteral("Failed to locate D-Bus service file for \"org.example.legacy\""),
                            QStringLiteral("Error preparing launch for \"org.example.Notes\"") }));
    // The daemon was asked before, and its answer finds nobody.
    QTRY_COMPARE(m_sailjaild->askedAllowed().size(), 1);
    QTest::qWait(50);
    QCOMPARE(m_reports, expected);
}

void TestLauncher::failedSpawnIsReportedOnceAndAtOnce()
{
    m_world->install(desktopFile("Exec=/bin/true", "Sandboxing=Disabled"));
    {
        const NoPipes none;
        launch();
    }
    QCOMPARE(
        m_reports,
        QList<Report> { failure(Error::HandlerFailed, QStringLiteral("Error launching org.example.Notes")) });
    QVERIFY(m_launcher->children().isEmpty());
    QCOMPARE(m_log->warnings(),
             (QStringList { QStringLiteral("Failed to create IPC pipe to child process"),
                            QStringLiteral("Failed to start child process") }));
}

void TestLauncher::childOfAFailedLaunchIsToldOf()
{
    m_sailjaild->allowed = 0;
    m_world->install(desktopFile("Exec=/bin/true", "Sandboxing=Disabled"));
    launch();
    QTRY_COMPARE(m_reports.size(), 1);
    QCOMPARE(m_abandoned.size(), 1);
    QCOMPARE(m_abandoned.first().instanceId, testAppId);
    const int status = waitForChild(m_abandoned.first().pid);
    QVERIFY(WIFEXITED(status));
    QCOMPARE(WEXITSTATUS(status), 1);
}

void TestLauncher::applicationIsStarted()
{
    const QString recorder = m_world->recorder();
    m_world->install(desktopFile("Exec=" + recorder.toUtf8() + " x", "Sandboxing=Disabled"));
    launch();
    QCOMPARE(m_reports.size(), 0);
    QTRY_COMPARE(m_reports.size(), 1);
    const pid_t pid = m_reports.first().pid;
    QVERIFY(pid > 1);
    QCOMPARE(m_reports, (QList<Report> { { testAppId, pid, Error::NoError, QString() } }));
    QCOMPARE(m_abandoned.size(), 0);
    QCOMPARE(waitForChild(pid), 0);
    QCOMPARE(m_world->recorded(), (QStringList { recorder, QStringLiteral("x") }));
    QTRY_VERIFY(m_launcher->children().isEmpty());
    QCOMPARE(m_log->messages(), QStringList());
}

void TestLauncher::directStartSparesTheProcess_data()
{
    QTest::addColumn<bool>("direct");
    QTest::addColumn<QByteArray>("score");
    QTest::newRow("direct") << true << QByteArray("-100");
    QTest::newRow("for somebody else") << false << QByteArray("0");
}

void TestLauncher::directStartSparesTheProcess()
{
    QFETCH(bool, direct);
    m_world->install(desktopFile("Exec=/bin/true", "Sandboxing=Disabled"));
    launch(testAppId, direct);
    QTRY_COMPARE(m_reports.size(), 1);
    const pid_t pid = m_reports.first().pid;
    QCOMPARE(waitForChild(pid), 0);
    QTEST(m_world->readBelow(QStringLiteral("proc/%1/oom_score_adj").arg(pid)), "score");
}

void TestLauncher::kindFollowsTheDesktopFile_data()
{
    QTest::addColumn<QByteArray>("keys");
    QTest::addColumn<QByteArray>("sandboxKeys");
    QTest::addColumn<bool>("overDBus");
    QTest::addColumn<QString>("ran");
    const QByteArray none;
    const QByteArray service = "X-Maemo-Service=org.example.legacy";
    const QByteArray line = "ExecDBus=@BIN@/dbus";
    const QString window = QStringLiteral("window");
    const QString dbus = QStringLiteral("dbus");
    const QString legacy = QStringLiteral("legacy");
    QTest::newRow("plain") << none << none << false << window;
    QTest::newRow("plain, over D-Bus") << none << none << true << window;
    QTest::newRow("line for D-Bus, not asked") << none << line << false << window;
    QTest::newRow("line for D-Bus, asked") << none << line << true << dbus;
    QTest::newRow("service") << service << none << false << legacy;
    QTest::newRow("service, over D-Bus") << service << none << true << legacy;
    QTest::newRow("both, not asked") << service << line << false << window;
    QTest::newRow("both, asked") << service << line << true << dbus;
}

void TestLauncher::kindFollowsTheDesktopFile()
{
    QFETCH(QByteArray, keys);
    QFETCH(QByteArray, sandboxKeys);
    QFETCH(bool, overDBus);
    QFETCH(QString, ran);
    const QByteArray bin = m_world->path(QStringLiteral("bin")).toUtf8();
    const QStringList programs { QStringLiteral("window"), QStringLiteral("dbus"), QStringLiteral("legacy") };
    for (const QString &program : programs) {
        m_world->recorder(program);
    }
    m_world->write(QStringLiteral("data/dbus-1/services/org.example.legacy.service"),
                   "[D-BUS Service]\nName=org.example.legacy\nExec=" + bin + "/legacy\n");
    m_world->install(desktopFile(keys + "\nExec=" + bin + "/window",
                                 "Sandboxing=Disabled\n" + QByteArray(sandboxKeys).replace("@BIN@", bin)));
    m_launcher->launch(ApplicationId(testAppId), {}, { { QStringLiteral("startDBus"), overDBus } }, {}, false,
                       reporter());
    QTRY_COMPARE(m_reports.size(), 1);
    QCOMPARE(waitForChild(m_reports.first().pid), 0);
    for (const QString &program : programs) {
        QCOMPARE(!m_world->recorded(program).isEmpty(), program == ran);
    }
}

void TestLauncher::applicationWithBothLinesIsActivatedToo()
{
    BusStandIn legacy(m_world->bus(), QStringLiteral("org.example.legacy"), QStringLiteral("/"));
    legacy.answerWith({});
    m_world->install(desktopFile(
        "Exec=/bin/true %u\nX-Maemo-Service=org.example.legacy\nX-Maemo-Method=org.example.legacy.open",
        "ExecDBus=/bin/true\nSandboxing=Disabled"));
    const QString uri = QStringLiteral("https://host/");
    m_launcher->launch(ApplicationId(testAppId), {}, {}, { QUrl(uri) }, false, reporter());
    QTRY_COMPARE(m_reports.size(), 1);
    QCOMPARE(waitForChild(m_reports.first().pid), 0);
    QTRY_COMPARE(legacy.calls().size(), 1);
    QCOMPARE(legacy.calls().first().path(), QStringLiteral("/"));
    QCOMPARE(legacy.calls().first().arguments().value(0).toStringList(), QStringList { uri });
    QTRY_VERIFY(m_launcher->children().isEmpty());
}

void TestLauncher::parametersReachTheLaunch()
{
    const QString recorder = m_world->recorder();
    m_world->install(desktopFile("Exec=/bin/false\nX-Nemo-Single-Instance=no"));
    DebugParams debug;
    debug.noSandbox = true;
    debug.commandLineParams = QStringList { recorder, QStringLiteral("%U"), QStringLiteral("end") };
    m_launcher->launch(ApplicationId(testAppId), debug, {},
                       { QUrl(QStringLiteral("x:a")), QUrl(QStringLiteral("file:///b")) }, false, reporter());
    QTRY_COMPARE(m_reports.size(), 1);
    const pid_t pid = m_reports.first().pid;
    QCOMPARE(m_reports.first().instanceId, QStringLiteral("org.example.Notes.instance_%1").arg(pid));
    QCOMPARE(waitForChild(pid), 0);
    QCOMPARE(m_world->recorded(),
             (QStringList { recorder, QStringLiteral("x:a"), QStringLiteral("/b"), QStringLiteral("end") }));
}

void TestLauncher::everyLaunchIsItsOwn()
{
    m_world->install(desktopFile("Exec=/bin/true\nX-Nemo-Single-Instance=no", "Sandboxing=Disabled"));
    m_world->install("[Desktop Entry]\nType=Application\nName=Denied\nExec=/bin/true\n",
                     QStringLiteral("denied"));
    const auto answer = [](const QDBusMessage &call, const QDBusConnection &connection) {
        const bool denied = call.arguments().first().toString() == QLatin1String("denied");
        connection.send(call.createReply(denied ? 0 : 1));
    };
    m_sailjaild->object.setHandler(answer);
    constexpr int rounds = 10;
    for (int round = 0; round < rounds; ++round) {
        launch();
        launch(QStringLiteral("org.kestrix.denied"));
    }
    QTRY_COMPARE(m_reports.size(), 2 * rounds);
    QSet<pid_t> pids;
    int failures = 0;
    for (const Report &report : qAsConst(m_reports)) {
        if (report.code == Error::AccessDenied) {
            ++failures;
        } else {
            pids << report.pid;
        }
    }
    QCOMPARE(pids.size(), rounds);
    QCOMPARE(failures, rounds);
    QTRY_VERIFY(m_launcher->children().isEmpty());
    int zero = 0;
    for (int child = 0; child < 2 * rounds; ++child) {
        int status = 0;
        QVERIFY(::waitpid(-1, &status, 0) > 0);
        zero += status == 0 ? 1 : 0;
    }
    QCOMPARE(zero, rounds);
}

void TestLauncher::applicationThatGoesDuringItsLaunchStartsAllTheSame()
{
    m_sailjaild->holdsAllowed = true;
    const QString output = m_world->path(QStringLiteral("out"));
    const QString script = m_world->script(QStringLiteral("teller"),
                                           "echo $SOLVANE_PACKAGE_NAME >\"" + output.toUtf8() + "\"\n");
    m_world->install(desktopFile("Exec=" + script.toUtf8(), "Sandboxing=Disabled"));
    launch();
    m_world->uninstallAll();
    QTRY_COMPARE(m_sailjaild->askedAllowed(), QStringList { testPackage });
    m_sailjaild->answerAllowed();
    QTRY_COMPARE(m_reports.size(), 1);
    QCOMPARE(waitForChild(m_reports.first().pid), 0);
    QCOMPARE(LaunchWorld::read(output), testPackage.toUtf8() + '\n');
}

void TestLauncher::endOfTheLauncherEndsTheLaunches()
{
    m_sailjaild->holdsAllowed = true;
    m_world->install(desktopFile("Exec=/bin/true", "Sandboxing=Disabled"));
    launch();
    launch();
    QTRY_COMPARE(m_sailjaild->askedAllowed().size(), 2);
    m_launcher.reset();
    for (int child = 0; child < 2; ++child) {
        int status = 0;
        QVERIFY(::waitpid(-1, &status, 0) > 0);
        QVERIFY(WIFEXITED(status));
        QCOMPARE(WEXITSTATUS(status), 1);
    }
    m_sailjaild->answerAllowed();
    QTest::qWait(50);
    QCOMPARE(m_reports, QList<Report>());
}

void TestLauncher::callbackMayLaunchAgain()
{
    m_world->install(desktopFile("Exec=/bin/true", "Sandboxing=Disabled"));
    int launches = 0;
    Launcher::Callback again;
    again = [&](const ApplicationInstanceId &, pid_t pid, const Error &) {
        if (pid > 0) {
            waitForChild(pid);
        }
        if (++launches < 3) {
            // In the place of the one that runs now, known and unknown applications in turns.
            m_launcher->launch(ApplicationId(launches == 1 ? QStringLiteral("org.example.Other") : testAppId),
                               {}, {}, {}, false, again);
        }
    };
    m_launcher->launch(ApplicationId(testAppId), {}, {}, {}, false, again);
    QTRY_COMPARE(launches, 3);
    QTRY_VERIFY(m_launcher->children().isEmpty());
}

void TestLauncher::emptyCallbackIsAllowed()
{
    m_launcher->launch(ApplicationId(QStringLiteral("org.example.Other")), {}, {}, {}, false, nullptr);
    m_world->install(desktopFile("X-Maemo-Service=org.example.legacy"));
    m_launcher->launch(ApplicationId(testAppId), {}, {}, {}, false, nullptr);
    m_world->install(desktopFile("Exec=/bin/true", "Sandboxing=Disabled"));
    m_launcher->launch(ApplicationId(testAppId), {}, {}, {}, false, nullptr);
    QTRY_VERIFY(m_launcher->children().isEmpty());
    QVERIFY(::waitpid(-1, nullptr, 0) > 0);
}

QTEST_GUILESS_MAIN(TestLauncher)
#include "tst_launcher.moc"
