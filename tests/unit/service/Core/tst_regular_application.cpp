#include "Core/regular_application.h"

#include "Core/chronicle.h"

#include "launch_fixture.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>

#include <sys/stat.h>

using namespace Core;
using namespace TestSupport;

namespace {

class TestedRegular : public RegularApplication
{
public:
    using RegularApplication::RegularApplication;

    using RegularApplication::pendingSteps;
    using RegularApplication::prepare;
    using RegularApplication::spawner;
    using RegularApplication::stderrFile;
    using RegularApplication::stdoutFile;
};

const QString failureWarning = QStringLiteral("Failed to setup child process");

} // namespace

class TestRegularApplication : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void commandLineIsComposed_data();
    void commandLineIsComposed();

    void sandboxedProgramRunsThroughFirejail();
    void programWithoutSandboxRunsWithoutPrompt();
    void nothingIsComposedBeforePermissionsAreGranted();
    void programThatCannotBeSandboxedIsRefused_data();
    void programThatCannotBeSandboxedIsRefused();
    void permissionsThatAreNotGrantedEndTheLaunch_data();
    void permissionsThatAreNotGrantedEndTheLaunch();

    void outputFilesAreAppendedTo();
    void sandboxDoesNotMatterForOutputFiles();
    void outputFileThatIsNotGivenStaysClosed();
    void outputFileThatCannotBeOpenedDoesNotStopTheLaunch_data();
    void outputFileThatCannotBeOpenedDoesNotStopTheLaunch();

private:
    LaunchRequest request();
    TestedRegular *make(const LaunchRequest &request);

    std::unique_ptr<LaunchWorld> m_world;
    std::unique_ptr<Sailjaild> m_sailjaild;
    std::unique_ptr<LogCapture> m_log;
    QList<Report> m_reports;
};

void TestRegularApplication::initTestCase()
{
    m_world = std::make_unique<LaunchWorld>();
    // Stands in for the sandbox: tells what it was called with and starts the program.
    m_world->write(QStringLiteral("usr/bin/firejail"),
                   "#!/bin/sh\nprintf '%s\\n' \"$0\" \"$@\" >\"$0.args\"\n"
                   "while [ \"$1\" != -- ]; do shift; done\nshift\nexec \"$@\"\n");
    QFile::setPermissions(m_world->path(QStringLiteral("usr/bin/firejail")),
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    m_world->write(QStringLiteral("etc/sailjail/permissions/Base.permission"), QByteArray());
    // Programs of the system, as the check of the program sees them.
    for (const QString &program : { QStringLiteral("touch"), QStringLiteral("sleep") }) {
        QVERIFY(QFile::link(QLatin1String("/usr/bin/") + program,
                            m_world->path(QLatin1String("usr/bin/") + program)));
    }
}

void TestRegularApplication::init()
{
    m_world->uninstallAll();
    m_sailjaild = std::make_unique<Sailjaild>(m_world->bus());
    m_log = std::make_unique<LogCapture>();
    m_reports.clear();
}

void TestRegularApplication::cleanup()
{
    m_log.reset();
    m_sailjaild.reset();
    QVERIFY(noChildIsLeft());
}

/// For the application that is installed.
LaunchRequest TestRegularApplication::request()
{
    const ApplicationId id(testAppId);
    return { id, ApplicationRegistry::instance()->launchData(id), {}, {}, {} };
}

TestedRegular *TestRegularApplication::make(const LaunchRequest &request)
{
    auto *launch = new TestedRegular(request, m_world->cgroups());
    launch->setCallback([this](const ApplicationInstanceId &id, pid_t pid, const Error &error) {
        m_reports << Report { id.text(), pid, error.code(), error.message() };
    });
    return launch;
}

void TestRegularApplication::commandLineIsComposed_data()
{
    QTest::addColumn<QString>("directory");
    const QDir data(QStringLiteral(PROCWARDEN_TEST_DATA "/regular_application"));
    const QStringList cases = data.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    QVERIFY(!cases.isEmpty());
    for (const QString &name : cases) {
        QTest::newRow(qPrintable(name)) << data.filePath(name);
    }
}

// launch.json: what Launcher::launch() gets ("debug", "hints", "uris"), what the daemon grants ("granted"),
// and what lies below the root directory: "files" with their content, "programs" that pass for executables.
// argv.txt: an element a line, with @ROOT@ for the root directory.
void TestRegularApplication::commandLineIsComposed()
{
    QFETCH(QString, directory);
    const QJsonObject launchFile =
        QJsonDocument::fromJson(LaunchWorld::read(directory + QLatin1String("/launch.json"))).object();
    QVERIFY(!launchFile.isEmpty());
    const QVariantMap given = launchFile.toVariantMap();
    QStringList made;
    const QVariantMap files = given.value(QStringLiteral("files")).toMap();
    for (auto file = files.cbegin(); file != files.cend(); ++file) {
        m_world->write(file.key(), file.value().toByteArray());
        made << file.key();
    }
    for (const QString &program : given.value(QStringLiteral("programs")).toStringList()) {
        m_world->write(program,
                       "\x7f"
                       "ELF");
        QFile::setPermissions(m_world->path(program), QFile::ReadOwner | QFile::ExeOwner);
        made << program;
    }
    m_world->install(LaunchWorld::read(directory + QLatin1String("/in.desktop")));
    m_sailjaild->granted = given.value(QStringLiteral("granted")).toStringList();

    LaunchRequest launchRequest = request();
    launchRequest.debugParams = DebugParams::fromMap(given.value(QStringLiteral("debug")).toMap());
    launchRequest.hints = given.value(QStringLiteral("hints")).toMap();
    for (const QString &uri : given.value(QStringLiteral("uris")).toStringList()) {
        launchRequest.uris << QUrl(uri);
    }
    const std::unique_ptr<TestedRegular> launch(make(launchRequest));
    QVERIFY(launch->prepare());
    QTRY_COMPARE(launch->pendingSteps, 1);
    QCOMPARE(m_log->messages(), QStringList());

    QByteArray argv;
    for (const QByteArray &element : launch->spawner.arguments()) {
        argv += element + '\n';
    }
    argv.replace(m_world->root().toUtf8(), "@ROOT@");
    const QString golden = directory + QLatin1String("/argv.txt");
    if (qEnvironmentVariableIsSet("UPDATE_GOLDEN")) {
        QFile file(golden);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(argv);
    }
    QCOMPARE(QString::fromUtf8(argv), QString::fromUtf8(LaunchWorld::read(golden)));
    const bool sandboxed = argv.startsWith("@ROOT@/usr/bin/firejail\n");
    QCOMPARE(m_sailjaild->askedPrompt(), sandboxed ? QStringList { testPackage } : QStringList());
    for (const QString &path : qAsConst(made)) {
        if (!path.endsWith(QLatin1String("Base.permission"))) {
            QVERIFY(QFile::remove(m_world->path(path)));
        }
    }
}

void TestRegularApplication::sandboxedProgramRunsThroughFirejail()
{
    const QString marker = m_world->path(QStringLiteral("marker"));
    m_world->install(desktopFile("Exec=touch " + marker.toUtf8()));
    QPointer<TestedRegular> launch = make(request());
    const pid_t pid = launch->start();
    QVERIFY(pid > 0);
    QTRY_COMPARE(m_reports, (QList<Report> { { testAppId, pid, Error::NoError, QString() } }));
    QCOMPARE(waitForChild(pid), 0);
    QTRY_VERIFY(!launch);
    QVERIFY(QFile::remove(marker));
    QCOMPARE(m_sailjaild->askedAllowed(), QStringList { testPackage });
    QCOMPARE(m_sailjaild->askedPrompt(), QStringList { testPackage });

    const QByteArrayList argv = m_world->readBelow(QStringLiteral("usr/bin/firejail.args")).split('\n');
    QCOMPARE(argv.mid(0, 3),
             (QByteArrayList { m_world->path(QStringLiteral("usr/bin/firejail")).toUtf8(), "--quiet",
                               "--private-bin=touch" }));
    QVERIFY(
        argv.contains("--profile=" + m_world->root().toUtf8() + "/etc/sailjail/permissions/Base.permission"));
    QCOMPARE(argv.mid(argv.indexOf("--")), (QByteArrayList { "--", "/usr/bin/touch", marker.toUtf8(), "" }));
    QCOMPARE(m_log->messages(), QStringList());
}

void TestRegularApplication::programWithoutSandboxRunsWithoutPrompt()
{
    const QString marker = m_world->path(QStringLiteral("marker"));
    m_world->install(desktopFile("Exec=touch " + marker.toUtf8(), "Sandboxing=Disabled"));
    QPointer<TestedRegular> launch = make(request());
    const pid_t pid = launch->start();
    QTRY_COMPARE(m_reports, (QList<Report> { { testAppId, pid, Error::NoError, QString() } }));
    QCOMPARE(waitForChild(pid), 0);
    QVERIFY(QFile::remove(marker));
    QCOMPARE(m_sailjaild->askedAllowed(), QStringList { testPackage });
    QCOMPARE(m_sailjaild->askedPrompt(), QStringList());
}

void TestRegularApplication::nothingIsComposedBeforePermissionsAreGranted()
{
    m_sailjaild->holdsPrompt = true;
    m_world->install(desktopFile("Exec=sleep 60"));
    const std::unique_ptr<TestedRegular> launch(make(request()));
    QVERIFY(launch->prepare());
    QTRY_COMPARE(m_sailjaild->askedPrompt().size(), 1);
    QCOMPARE(launch->pendingSteps, 2);
    QCOMPARE(launch->spawner.arguments(), QByteArrayList());
    m_sailjaild->answerPrompt();
    QTRY_COMPARE(launch->pendingSteps, 1);
    QVERIFY(!launch->spawner.arguments().isEmpty());
}

void TestRegularApplication::programThatCannotBeSandboxedIsRefused_data()
{
    QTest::addColumn<QByteArray>("keys");
    QTest::addColumn<QString>("message");
    QTest::newRow("missing") << QByteArray("Exec=missing")
                             << QStringLiteral("/usr/bin/missing is not executable");
    QTest::newRow("script") << QByteArray("Exec=firejail")
                            << QStringLiteral("/usr/bin/firejail is not an ELF binary");
    QTest::newRow("legacy application elsewhere") << QByteArray("Exec=/opt/app\nMode=Compatibility")
                                                  << QStringLiteral("Legacy apps must be in: /usr/bin");
    QTest::newRow("no command line") << QByteArray() << QStringLiteral("/usr/bin/ is not an ELF binary");
}

void TestRegularApplication::programThatCannotBeSandboxedIsRefused()
{
    QFETCH(QByteArray, keys);
    QFETCH(QString, message);
    m_world->install(desktopFile(keys));
    const auto history = Chronicle::instance()->launchAsked(testAppId);
    QPointer<TestedRegular> launch = make(request());
    const pid_t pid = launch->start();
    QVERIFY(pid > 0);
    QTRY_COMPARE(m_reports, QList<Report> { failure(Error::InvalidArgs, message) });
    QVERIFY(history->account.stepsMs.contains(LaunchStep::Granted));
    QCOMPARE(history->account.failedAt, QStringLiteral("Prepared"));
    QTRY_VERIFY(!launch);
    const int status = waitForChild(pid);
    QVERIFY(WIFEXITED(status));
    QCOMPARE(WEXITSTATUS(status), 1);
    QCOMPARE(m_log->messages(),
             (QStringList {
                 QStringLiteral("Couldn't compose argv list: Error(4, \"%1\")").arg(message),
                 failureWarning,
             }));
}

void TestRegularApplication::permissionsThatAreNotGrantedEndTheLaunch_data()
{
    QTest::addColumn<bool>("absent");
    QTest::newRow("refused") << false;
    QTest::newRow("daemon without this method") << true;
}

void TestRegularApplication::permissionsThatAreNotGrantedEndTheLaunch()
{
    QFETCH(bool, absent);
    const QString message = QStringLiteral("The user said no");
    m_sailjaild->object.setHandler([=](const QDBusMessage &call, const QDBusConnection &connection) {
        if (call.member() == QLatin1String("GetAllowed")) {
            connection.send(call.createReply(1));
        } else {
            connection.send(call.createErrorReply(
                absent ? QDBusError::UnknownMethod : QDBusError::AccessDenied, message));
        }
    });
    m_world->install(desktopFile("Exec=sleep 60"));
    QPointer<TestedRegular> launch = make(request());
    const pid_t pid = launch->start();
    QTRY_COMPARE(m_reports, QList<Report> { failure(Error::AccessDenied, message) });
    QTRY_VERIFY(!launch);
    waitForChild(pid);
    QCOMPARE(m_log->messages(),
             (QStringList { QStringLiteral("Permissions request failed: \"The user said no\""),
                            QStringLiteral("Perhaps the user has declined to grant permissions"),
                            failureWarning }));
}

void TestRegularApplication::outputFilesAreAppendedTo()
{
    const QString script = m_world->script(QStringLiteral("talker"), "echo one\necho two >&2\n");
    m_world->install(desktopFile("Exec=" + script.toUtf8(), "Sandboxing=Disabled"));
    m_world->write(QStringLiteral("out.log"), "before\n");
    QFile::remove(m_world->path(QStringLiteral("err.log")));
    LaunchRequest launchRequest = request();
    launchRequest.debugParams.stdoutFile = m_world->path(QStringLiteral("out.log"));
    launchRequest.debugParams.stderrFile = m_world->path(QStringLiteral("err.log"));
    for (const QByteArray &times : { QByteArray("one\n"), QByteArray("one\none\n") }) {
        m_reports.clear();
        QPointer<TestedRegular> launch = make(launchRequest);
        const pid_t pid = launch->start();
        QTRY_COMPARE(m_reports.size(), 1);
        QCOMPARE(waitForChild(pid), 0);
        QCOMPARE(m_world->readBelow(QStringLiteral("out.log")), "before\n" + times);
    }
    QCOMPARE(m_world->readBelow(QStringLiteral("err.log")), QByteArray("two\ntwo\n"));
    QCOMPARE(m_log->messages(), QStringList());
}

void TestRegularApplication::sandboxDoesNotMatterForOutputFiles()
{
    m_world->install(desktopFile("Exec=sleep 60"));
    LaunchRequest launchRequest = request();
    launchRequest.debugParams.stdoutFile = m_world->path(QStringLiteral("out.log"));
    const std::unique_ptr<TestedRegular> launch(make(launchRequest));
    QVERIFY(launch->prepare());
    QVERIFY(launch->stdoutFile.isOpen());
    QCOMPARE(launch->stdoutFile.openMode() & QIODevice::Append, QIODevice::Append);
    QCOMPARE(launch->stderrFile.handle(), -1);
}

void TestRegularApplication::outputFileThatIsNotGivenStaysClosed()
{
    m_world->install(desktopFile("Exec=sleep 60"));
    const std::unique_ptr<TestedRegular> launch(make(request()));
    QVERIFY(launch->prepare());
    QCOMPARE(launch->stdoutFile.handle(), -1);
    QCOMPARE(launch->stderrFile.handle(), -1);
    QCOMPARE(m_log->messages(), QStringList());
}

void TestRegularApplication::outputFileThatCannotBeOpenedDoesNotStopTheLaunch_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("directory") << m_world->root();
    QTest::newRow("in a missing directory") << m_world->path(QStringLiteral("missing/out"));
    const QString pipe = m_world->path(QStringLiteral("pipe")); // that nobody ever reads
    QVERIFY(::mkfifo(QFile::encodeName(pipe).constData(), 0600) == 0 || errno == EEXIST);
    QTest::newRow("pipe") << pipe;
}

void TestRegularApplication::outputFileThatCannotBeOpenedDoesNotStopTheLaunch()
{
    QFETCH(QString, name);
    m_world->install(desktopFile("Exec=/bin/true", "Sandboxing=Disabled"));
    LaunchRequest launchRequest = request();
    launchRequest.debugParams.stdoutFile = name;
    launchRequest.debugParams.stderrFile = name + QLatin1Char('/');
    QPointer<TestedRegular> launch = make(launchRequest);
    const pid_t pid = launch->start();
    QCOMPARE(m_log->messages(),
             (QStringList { QStringLiteral("Could not open output file \"%1\"").arg(name),
                            QStringLiteral("Could not open output file \"%1/\"").arg(name) }));
    QTRY_COMPARE(m_reports, (QList<Report> { { testAppId, pid, Error::NoError, QString() } }));
    QCOMPARE(waitForChild(pid), 0);
}

QTEST_GUILESS_MAIN(TestRegularApplication)
#include "tst_regular_application.moc"
