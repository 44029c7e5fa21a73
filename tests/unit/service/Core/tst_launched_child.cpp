#include "Core/launching_application.h"

#include "tested_launch.h"

using namespace Core;
using namespace TestSupport;

/// What a launch gives to the child and to the program in it.
class TestLaunchedChild : public LaunchTest
{
    Q_OBJECT

private slots:
    void initTestCase() { makeWorld("Exec=/bin/true"); }
    void init() { begin(); }
    void cleanup() { end(); }

    void instanceNumberIsThePidUnlessSingle_data();
    void instanceNumberIsThePidUnlessSingle();
    void childIsInItsGroupsBeforeItRuns();
    void childWritesItsScore_data();
    void childWritesItsScore();
    void childLeadsAProcessGroup();
    void environmentIsTheServicesAndTheApplications();
    void outputGoesToTheOpenFiles_data();
    void outputGoesToTheOpenFiles();
};

void TestLaunchedChild::instanceNumberIsThePidUnlessSingle_data()
{
    QTest::addColumn<bool>("single");
    QTest::newRow("single instance") << true;
    QTest::newRow("several instances") << false;
}

void TestLaunchedChild::instanceNumberIsThePidUnlessSingle()
{
    QFETCH(bool, single);
    m_request.launchData.singleInstance = single;
    for (int round = 0; round < 2; ++round) {
        TestedLaunch::reports.clear();
        const pid_t pid = make({ m_recorder })->start();
        const QString id = single ? testAppId : QStringLiteral("org.example.Notes.instance_%1").arg(pid);
        QTRY_COMPARE(TestedLaunch::reports, (QList<Report> { { id, pid, Error::NoError, QString() } }));
        verifyEnded(pid, 0);
    }
}

void TestLaunchedChild::childIsInItsGroupsBeforeItRuns()
{
    m_sailjaild->holdsAllowed = true;
    m_request.launchData.singleInstance = false;
    QPointer<TestedLaunch> launch = make({ m_recorder });
    const pid_t pid = launch->start();
    QTRY_COMPARE(launch->pendingSteps, 1);
    for (const QString &controller : LaunchWorld::controllers()) {
        const QString group = m_world->groupPath(
            controller, QStringLiteral("org.example.Notes/instance_%1/cgroup.procs").arg(pid));
        QCOMPARE(LaunchWorld::read(group), QByteArray::number(pid));
    }
    QVERIFY(staysAlive(pid));
    delete launch;
    verifyEnded(pid, 1);
}

void TestLaunchedChild::childWritesItsScore_data()
{
    QTest::addColumn<int>("score");
    QTest::newRow("direct") << -100;
    QTest::newRow("neutral") << 0;
}

void TestLaunchedChild::childWritesItsScore()
{
    QFETCH(int, score);
    QPointer<TestedLaunch> launch = make(sleepArguments);
    launch->setOomScore(score);
    const pid_t pid = launch->start();
    QTRY_COMPARE(m_world->readBelow(QStringLiteral("proc/%1/oom_score_adj").arg(pid)),
                 QByteArray::number(score));
    QTRY_VERIFY(!launch);
    QCOMPARE(killChild(pid), 0);
    waitForChild(pid);
}

void TestLaunchedChild::childLeadsAProcessGroup()
{
    const pid_t pid = make(sleepArguments)->start();
    QTRY_COMPARE(TestedLaunch::reports.size(), 1);
    QTRY_COMPARE(::getpgid(pid), pid);
    QVERIFY(pid > 1);
    QCOMPARE(::kill(-pid, SIGKILL), 0);
    waitForChild(pid);
}

void TestLaunchedChild::environmentIsTheServicesAndTheApplications()
{
    m_request.launchData.singleInstance = false;
    m_request.debugParams.environment =
        QStringList { QStringLiteral("SOLVANE_APP_ID=other"), QStringLiteral("K\u00e4se=1"),
                      QStringLiteral("no assignment") };
    QByteArrayList inherited;
    for (char **entry = environ; *entry; ++entry) {
        inherited << QByteArray(*entry);
    }
    QVERIFY(inherited.size() > 3);
    const QString output = m_world->path(QStringLiteral("environment"));
    QPointer<TestedLaunch> launch = make({ "/bin/cat", "/proc/self/environ" });
    launch->onPrepare = [launch, output] {
        launch->stdoutFile.setFileName(output);
        return launch->stdoutFile.open(QIODevice::WriteOnly);
    };
    const pid_t pid = launch->start();
    QTRY_COMPARE(TestedLaunch::reports.size(), 1);
    verifyEnded(pid, 0);

    // Later entries of a name stand behind the earlier ones.
    const QByteArrayList expected = inherited
        + QByteArrayList { "SOLVANE_APP_ID=org.example.Notes",
                           "SOLVANE_APP_INSTANCE_ID=org.example.Notes.instance_" + QByteArray::number(pid),
                           "SOLVANE_PACKAGE_NAME=notes.v2",
                           "SOLVANE_APP_ID=other",
                           "K\xc3\xa4se=1",
                           "no assignment" };
    QByteArrayList entries = LaunchWorld::read(output).split('\0');
    QCOMPARE(entries.takeLast(), QByteArray());
    QCOMPARE(entries, expected);
}

void TestLaunchedChild::outputGoesToTheOpenFiles_data()
{
    QTest::addColumn<bool>("out");
    QTest::addColumn<bool>("err");
    QTest::newRow("both") << true << true;
    QTest::newRow("only standard output") << true << false;
    QTest::newRow("only standard error") << false << true;
    QTest::newRow("none") << false << false;
}

void TestLaunchedChild::outputGoesToTheOpenFiles()
{
    QFETCH(bool, out);
    QFETCH(bool, err);
    const QString outPath = m_world->path(QStringLiteral("out"));
    const QString errPath = m_world->path(QStringLiteral("err"));
    QFile::remove(outPath);
    QFile::remove(errPath);
    const QByteArray program = m_world->script(QStringLiteral("talker"), "echo one\necho two >&2\n").toUtf8();
    QPointer<TestedLaunch> launch = make({ program });
    launch->onPrepare = [=] {
        launch->stdoutFile.setFileName(outPath);
        launch->stderrFile.setFileName(errPath);
        return (!out || launch->stdoutFile.open(QIODevice::Append))
            && (!err || launch->stderrFile.open(QIODevice::Append));
    };
    // Where there is no journal, the rest goes where the test's output goes.
    const MemoryFile elsewhere;
    pid_t pid = -1;
    {
        const Redirected output(STDOUT_FILENO, elsewhere.fd());
        const Redirected errors(STDERR_FILENO, elsewhere.fd());
        pid = launch->start();
    }
    QTRY_COMPARE(TestedLaunch::reports.size(), 1);
    verifyEnded(pid, 0);
    QCOMPARE(LaunchWorld::read(outPath), QByteArray(out ? "one\n" : ""));
    QCOMPARE(LaunchWorld::read(errPath), QByteArray(err ? "two\n" : ""));
}

QTEST_GUILESS_MAIN(TestLaunchedChild)
#include "tst_launched_child.moc"
