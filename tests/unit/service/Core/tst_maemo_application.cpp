#include "Core/maemo_application.h"

#include "launch_fixture.h"

#include <QPointer>

using namespace Core;
using namespace TestSupport;

namespace {

class TestedMaemo : public MaemoApplication
{
public:
    using MaemoApplication::MaemoApplication;

    using MaemoApplication::pendingSteps;
    using MaemoApplication::prepare;
    using MaemoApplication::spawner;
    using MaemoApplication::stderrFile;
    using MaemoApplication::stdoutFile;
};

const QString service = QStringLiteral("org.example.legacy");
const QString serviceFile = QStringLiteral("dbus-1/services/org.example.legacy.service");

} // namespace

class TestMaemoApplication : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void lineOfTheServiceFileIsRunAsItStands_data();
    void lineOfTheServiceFileIsRunAsItStands();
    void theUsersServiceFileWins();
    void missingServiceFileStopsTheLaunch();
    void serviceFileWithoutLineStopsTheLaunch_data();
    void serviceFileWithoutLineStopsTheLaunch();
    void permissionsAreAskedForUnlessUnsandboxed_data();
    void permissionsAreAskedForUnlessUnsandboxed();
    void refusalEndsTheLaunch();
    void onlyTheEnvironmentOfADebugStartMatters();

private:
    TestedMaemo *make();
    void writeServiceFile(const QByteArray &content);

    std::unique_ptr<LaunchWorld> m_world;
    std::unique_ptr<Sailjaild> m_sailjaild;
    std::unique_ptr<LogCapture> m_log;
    LaunchRequest m_request;
    QList<Report> m_reports;
};

void TestMaemoApplication::initTestCase()
{
    m_world = std::make_unique<LaunchWorld>();
}

void TestMaemoApplication::init()
{
    m_world->uninstallAll();
    m_world->install(desktopFile("X-Maemo-Service=org.example.legacy"));
    m_sailjaild = std::make_unique<Sailjaild>(m_world->bus());
    m_log = std::make_unique<LogCapture>();
    m_reports.clear();
    m_request = {};
    m_request.appId = ApplicationId(testAppId);
    m_request.launchData.maemoService = service;
}

void TestMaemoApplication::cleanup()
{
    m_log.reset();
    m_sailjaild.reset();
    QVERIFY(noChildIsLeft());
}

TestedMaemo *TestMaemoApplication::make()
{
    auto *launch = new TestedMaemo(m_request, m_world->cgroups());
    launch->setCallback([this](const ApplicationInstanceId &id, pid_t pid, const Error &error) {
        m_reports << Report { id.text(), pid, error.code(), error.message() };
    });
    return launch;
}

void TestMaemoApplication::writeServiceFile(const QByteArray &content)
{
    m_world->write(QLatin1String("data/") + serviceFile, content);
}

void TestMaemoApplication::lineOfTheServiceFileIsRunAsItStands_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArrayList>("argv");
    const QByteArray head = "[D-BUS Service]\nName=org.example.legacy\n";
    QTest::newRow("absolute") << head + "Exec=/usr/bin/legacy --dbus\n"
                              << QByteArrayList { "/usr/bin/legacy", "--dbus" };
    QTest::newRow("relative") << head + "Exec= legacy  x \n" << QByteArrayList { "legacy", "", "x" };
    QTest::newRow("field codes") << head + "Exec=legacy %u %F\n" << QByteArrayList { "legacy", "%u", "%F" };
    QTest::newRow("sandbox of its own") << head + "Exec=invoker legacy\n"
                                        << QByteArrayList { "invoker", "legacy" };
    const QByteArrayList unit { "systemctl", "--user", "start", "legacy.service" };
    QTest::newRow("unit in front") << head + "SystemdService=legacy.service\nExec=legacy\n" << unit;
    QTest::newRow("unit behind") << head + "Exec=legacy\nSystemdService=legacy.service\n" << unit;
    QTest::newRow("empty line") << head + "Exec=\n" << QByteArrayList { "" };
}

void TestMaemoApplication::lineOfTheServiceFileIsRunAsItStands()
{
    QFETCH(QByteArray, content);
    writeServiceFile(content);
    m_request.uris = { QUrl(QStringLiteral("x:a")) };
    m_request.launchData.exec = QStringLiteral("/usr/bin/other");
    const std::unique_ptr<TestedMaemo> launch(make());
    QVERIFY(launch->prepare());
    QTEST(launch->spawner.arguments(), "argv");
    QCOMPARE(m_log->messages(), QStringList());
}

void TestMaemoApplication::theUsersServiceFileWins()
{
    writeServiceFile("Exec=systems\n");
    m_world->write(QLatin1String("home/data/") + serviceFile, "Exec=users\n");
    const std::unique_ptr<TestedMaemo> launch(make());
    QVERIFY(launch->prepare());
    QCOMPARE(launch->spawner.arguments(), QByteArrayList { "users" });
}

void TestMaemoApplication::missingServiceFileStopsTheLaunch()
{
    const std::unique_ptr<TestedMaemo> launch(make());
    QVERIFY(launch->start() < 0);
    QCOMPARE(m_log->messages(),
             (QStringList { QStringLiteral("Failed to locate D-Bus service file for \"org.example.legacy\""),
                            QStringLiteral("Error preparing launch for \"org.example.Notes\"") }));
    QTRY_COMPARE(m_sailjaild->askedAllowed().size(), 1);
    QCOMPARE(m_sailjaild->askedPrompt().size(), 0);
}

void TestMaemoApplication::serviceFileWithoutLineStopsTheLaunch_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("no line") << QByteArray("[D-BUS Service]\nName=org.example.legacy\n");
    QTest::newRow("empty file") << QByteArray();
    QTest::newRow("empty line at the end of the file") << QByteArray("Exec=");
}

void TestMaemoApplication::serviceFileWithoutLineStopsTheLaunch()
{
    QFETCH(QByteArray, content);
    writeServiceFile(content);
    const std::unique_ptr<TestedMaemo> launch(make());
    QVERIFY(!launch->prepare());
    QCOMPARE(m_log->messages(),
             QStringList { QStringLiteral("Empty Exec line in \"%1\"")
                               .arg(m_world->path(QLatin1String("data/") + serviceFile)) });
    QCOMPARE(launch->pendingSteps, 1);
}

void TestMaemoApplication::permissionsAreAskedForUnlessUnsandboxed_data()
{
    QTest::addColumn<bool>("sandboxed");
    QTest::newRow("sandboxed") << true;
    QTest::newRow("sandboxing disabled") << false;
}

void TestMaemoApplication::permissionsAreAskedForUnlessUnsandboxed()
{
    QFETCH(bool, sandboxed);
    const QString recorder = m_world->recorder();
    writeServiceFile("Exec=" + recorder.toUtf8() + " --dbus\n");
    m_request.launchData.sandboxed = sandboxed;
    // What is granted has no effect, nor has the sandbox.
    m_sailjaild->granted = QStringList { QStringLiteral("Audio") };
    // No service, so that nothing is activated.
    m_request.launchData.maemoMethod = QStringLiteral("org.example.legacy.open");
    QPointer<TestedMaemo> launch = make();
    const pid_t pid = launch->start();
    QCOMPARE(launch->pendingSteps, sandboxed ? 3 : 2);
    QTRY_COMPARE(m_reports, (QList<Report> { { testAppId, pid, Error::NoError, QString() } }));
    QCOMPARE(waitForChild(pid), 0);
    QCOMPARE(m_world->recorded(), (QStringList { recorder, QStringLiteral("--dbus") }));
    QCOMPARE(m_sailjaild->askedAllowed(), QStringList { testPackage });
    QCOMPARE(m_sailjaild->askedPrompt(), sandboxed ? QStringList { testPackage } : QStringList());
    delete launch;
}

void TestMaemoApplication::refusalEndsTheLaunch()
{
    m_sailjaild->refusal = QStringLiteral("The user said no");
    writeServiceFile("Exec=" + m_world->recorder().toUtf8() + '\n');
    QPointer<TestedMaemo> launch = make();
    const pid_t pid = launch->start();
    QTRY_COMPARE(m_reports, QList<Report> { failure(Error::AccessDenied, m_sailjaild->refusal) });
    QTRY_VERIFY(!launch);
    const int status = waitForChild(pid);
    QVERIFY(WIFEXITED(status));
    QCOMPARE(WEXITSTATUS(status), 1);
    QCOMPARE(m_world->recorded(), QStringList());
    QCOMPARE(m_log->messages(),
             (QStringList { QStringLiteral("Permissions request failed: \"The user said no\""),
                            QStringLiteral("Perhaps the user has declined to grant permissions"),
                            QStringLiteral("Failed to setup child process") }));
}

void TestMaemoApplication::onlyTheEnvironmentOfADebugStartMatters()
{
    const QString output = m_world->path(QStringLiteral("out"));
    const QString script =
        m_world->script(QStringLiteral("teller"), "echo \"$TOLD $#\" >\"" + output.toUtf8() + "\"\n");
    writeServiceFile("Exec=" + script.toUtf8() + '\n');
    m_request.hints = { { QStringLiteral("startDBus"), true } };
    DebugParams &debug = m_request.debugParams;
    debug.environment = QStringList { QStringLiteral("TOLD=yes") };
    debug.commandLineParams = QStringList { QStringLiteral("/bin/false") };
    debug.applicationWrapper = QStringList { QStringLiteral("/bin/false") };
    debug.firejailParams = QStringList { QStringLiteral("--trace") };
    debug.noSandbox = true;
    debug.stdoutFile = m_world->path(QStringLiteral("stdout"));
    debug.stderrFile = m_world->path(QStringLiteral("stderr"));
    QPointer<TestedMaemo> launch = make();
    const pid_t pid = launch->start();
    QCOMPARE(launch->stdoutFile.handle(), -1);
    QCOMPARE(launch->stderrFile.handle(), -1);
    QTRY_COMPARE(m_reports.size(), 1);
    QCOMPARE(waitForChild(pid), 0);
    QCOMPARE(LaunchWorld::read(output), QByteArray("yes 0\n"));
    QVERIFY(!QFileInfo::exists(debug.stdoutFile));
    QVERIFY(!QFileInfo::exists(debug.stderrFile));
    QCOMPARE(m_sailjaild->askedPrompt(), QStringList { testPackage });
    delete launch;
}

QTEST_GUILESS_MAIN(TestMaemoApplication)
#include "tst_maemo_application.moc"
