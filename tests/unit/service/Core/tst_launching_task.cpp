#include "Core/launching_task.h"

#include "Core/chronicle.h"

#include "child_stand_ins.h"
#include "task_launch_fixture.h"

#include <fcntl.h>

using namespace Core;
using namespace TestSupport;

namespace {

const QString groupWarning = QStringLiteral("Could not setup cgroup");
const QString group = QStringLiteral("org.example.Notes/task_sync");

QByteArray integer(qint32 value)
{
    return QByteArray(reinterpret_cast<const char *>(&value), sizeof(value));
}

QByteArray bytes(const QByteArray &content)
{
    const quint64 length = static_cast<quint64>(content.size());
    return QByteArray(reinterpret_cast<const char *>(&length), sizeof(length)) + content;
}

QByteArray text(const QByteArray &content)
{
    return bytes(content + '\0');
}

} // namespace

class TestLaunchingTask : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void programRunsInTheSandbox();
    void launchReportsThePidAndNoSocket();
    void sandboxKnowsTheCertificate();
    void firstWordWithoutASlashIsASystemProgram_data();
    void firstWordWithoutASlashIsASystemProgram();
    void permissionsReachTheSandbox();
    void unknownPermissionIsLeftOut();
    void messagesComeInTheOrderOfTheSteps();
    void stepsTakeEffect();
    void environmentHasItsOrder();
    void childIsInItsGroupsBeforeItRuns();
    void settingsAreWritten();
    void outputGoesToTheJournal();

    void compositionsErrorIsReturned_data();
    void compositionsErrorIsReturned();
    void failedSpawnIsReturned();
    void childThatIsDeadFailsTheSetup();
    void groupThatCannotBeMadeFailsTheSetup();
    void settingThatCannotBeWrittenFailsTheSetup_data();
    void settingThatCannotBeWrittenFailsTheSetup();
    void childThatTakesNoMoreFailsTheExec_data();
    void childThatTakesNoMoreFailsTheExec();
    void childOfAFailedLaunchEndsByItself();
    void refusedStepEndsTheChild_data();
    void refusedStepEndsTheChild();
    void refusedNegativeLevelIsNoFailure();
    void programThatCannotBeExecutedEndsTheChild();

private:
    void verifyError(const Error &error, Error::Code code, const QString &message);
    void startAndWait();

    std::unique_ptr<TaskWorld> m_world;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<LaunchingTask> m_task;
    std::shared_ptr<Launch> m_history; ///< what the history is told of the launch
    TaskRequest m_request;
};

void TestLaunchingTask::initTestCase()
{
    ::signal(SIGPIPE, SIG_IGN); // as the service does
    m_world = std::make_unique<TaskWorld>();
}

void TestLaunchingTask::init()
{
    m_world->clear();
    m_log = std::make_unique<LogCapture>();
    m_request = {};
    m_history = Chronicle::instance()->launchAsked(m_request.id.text());
    standIn = StandIn();
}

void TestLaunchingTask::cleanup()
{
    ParentHook::afterFork = nullptr;
    m_log.reset();
    if (m_task) {
        killChild(m_task->pid());
        waitForChild(m_task->pid());
        m_task.reset();
    }
    QVERIFY(noChildIsLeft());
}

void TestLaunchingTask::verifyError(const Error &error, Error::Code code, const QString &message)
{
    QCOMPARE(error.code(), code);
    QCOMPARE(error.message(), message);
}

/// A start that succeeds; the sandbox has told everything when it returns.
void TestLaunchingTask::startAndWait()
{
    m_task = m_request.make(m_world->cgroups());
    const Error error = m_task->start();
    QVERIFY2(!error, qPrintable(error.message()));
    QTRY_VERIFY(m_world->sandboxIsReady());
}

void TestLaunchingTask::programRunsInTheSandbox()
{
    m_request.command << QStringLiteral("--once") << QString() << QStringLiteral("ä b");
    startAndWait();
    QCOMPARE(m_log->warnings(), QStringList());
    QCOMPARE(m_history->account.stepsMs.keys(),
             (QList<LaunchStep> { LaunchStep::Spawned, LaunchStep::Grouped, LaunchStep::Released }));
    QCOMPARE(m_history->account.failedAt, QString());

    const QByteArrayList arguments = m_world->toldLines(QStringLiteral("args"));
    QCOMPARE(arguments.mid(0, 4),
             (QByteArrayList { "--quiet", "--private-bin=worker", "--template=OrganizationName:org.example",
                               "--template=ApplicationName:Notes" }));
    QVERIFY(arguments.contains(
        "--whitelist=" + m_world->path(QStringLiteral("data/applications/notes.v2.desktop")).toUtf8()));
    QVERIFY(arguments.contains("--dbus-user.own=org.example.Notes.*"));
    QVERIFY(!arguments.join('\n').contains("--keep-fd"));
    QCOMPARE(m_world->programArguments(), (QByteArrayList { "/usr/bin/worker", "--once", "", "ä b" }));
}

void TestLaunchingTask::launchReportsThePidAndNoSocket()
{
    m_request.createIpcSocket = true;
    const int before = TaskWorld::openDescriptors();
    const auto [error, pid, socket] = LaunchingTask::launch(m_world->cgroups(), m_request.id,
                                                            m_request.command, {}, {}, {}, 0, 0, -1, true);
    verifyError(error, Error::NoError, QString());
    QVERIFY(pid > 1);
    QCOMPARE(socket, -1);
    QCOMPARE(TaskWorld::openDescriptors(), before);
    QTRY_VERIFY(m_world->sandboxIsReady());
    QCOMPARE(::getpgid(pid), pid);
    QCOMPARE(killChild(pid), 0);
    waitForChild(pid);
}

void TestLaunchingTask::sandboxKnowsTheCertificate()
{
    const QString package = QStringLiteral("opt/app/org.example.Notes/current/solvane.pkg");
    m_world->write(package, "[certificate]\nid=0123\n");
    m_world->install(desktopFile("Exec=/bin/true"));
    startAndWait();
    QFile::remove(m_world->path(package));
    m_world->install(desktopFile("Exec=/bin/true"));
    QVERIFY(m_world->told(QStringLiteral("args")).contains("/org.example/0123/common"));
}

void TestLaunchingTask::firstWordWithoutASlashIsASystemProgram_data()
{
    QTest::addColumn<QStringList>("command");
    QTest::addColumn<QByteArrayList>("arguments");

    QTest::newRow("a name") << QStringList { QStringLiteral("worker"), QStringLiteral("other") }
                            << QByteArrayList { "/usr/bin/worker", "other" };
    QTest::newRow("an absolute path") << QStringList { QStringLiteral("/opt/worker"), QStringLiteral("/x") }
                                      << QByteArrayList { "/opt/worker", "/x" };
    QTest::newRow("a relative path") << QStringList { QStringLiteral("sub/worker") }
                                     << QByteArrayList { "/usr/bin/sub/worker" };
}

void TestLaunchingTask::firstWordWithoutASlashIsASystemProgram()
{
    QFETCH(QStringList, command);
    QFETCH(QByteArrayList, arguments);
    for (const char *program : { "opt/worker", "usr/bin/sub/worker" }) {
        m_world->program(QLatin1String(program));
    }
    m_request.command = command;
    startAndWait();
    QCOMPARE(m_world->programArguments(), arguments);
}

void TestLaunchingTask::permissionsReachTheSandbox()
{
    m_request.permissions << QStringLiteral("Internet") << QStringLiteral("BaseTask");
    startAndWait();
    QByteArrayList profiles;
    const QByteArrayList arguments = m_world->toldLines(QStringLiteral("args"));
    for (const QByteArray &argument : arguments) {
        if (argument.startsWith("--profile=")) {
            profiles << argument.mid(argument.lastIndexOf('/') + 1);
        }
    }
    QCOMPARE(profiles, (QByteArrayList { "Internet.permission", "BaseTask.permission" }));
}

void TestLaunchingTask::unknownPermissionIsLeftOut()
{
    m_request.permissions << QStringLiteral("Nothing");
    startAndWait();
    QCOMPARE(m_log->warnings(), QStringList { QStringLiteral("Unknown permission \"Nothing\"") });
}

// The child is stopped before it reads, so that all that it was sent is still in the pipe.
void TestLaunchingTask::messagesComeInTheOrderOfTheSteps()
{
    int pipe = -1;
    ParentHook::afterFork = [&pipe](pid_t pid) {
        stopChild(pid);
        pipe = ::fcntl(NewestPipe::readEnd, F_DUPFD_CLOEXEC, 100);
    };
    m_request.priority = -3;
    m_request.cpuLimit = 42;
    m_request.environment << QStringLiteral("A=1");
    m_task = m_request.make(m_world->cgroups());
    verifyError(m_task->start(), Error::NoError, QString());
    QVERIFY(pipe >= 0);
    QByteArray sent(0x10000, '\0');
    sent.truncate(static_cast<int>(::read(pipe, sent.data(), static_cast<size_t>(sent.size()))));
    ::close(pipe);

    const QByteArray score =
        m_world->path(QStringLiteral("proc/%1/oom_score_adj").arg(m_task->pid())).toUtf8();
    const QByteArray head =
        text(score) + bytes("300") + integer(-3) + integer(42) + text("org.example.Notes");
    QCOMPARE(sent.left(head.size()), head);
    QByteArray services;
    int count = 0;
    for (char **entry = environ; *entry; ++entry, ++count) {
        services += text(*entry);
    }
    const QByteArray environment = integer(count + 4) + services + text("A=1")
        + text("SOLVANE_APP_ID=org.example.Notes") + text("SOLVANE_TASK_ID=sync")
        + text("QT_QPA_PLATFORM=minimal");
    QCOMPARE(sent.mid(head.size(), environment.size()), environment);
    QVERIFY(sent.endsWith(text("--") + text("/usr/bin/worker")));
}

void TestLaunchingTask::stepsTakeEffect()
{
    m_request.weight = 250;
    m_request.priority = 7;
    m_request.cpuLimit = 1234;
    startAndWait();
    QCOMPARE(m_world->readBelow(QStringLiteral("proc/%1/oom_score_adj").arg(m_task->pid())),
             QByteArrayLiteral("250"));
    // Leader of its own group, and the level.
    QCOMPARE(m_world->told(QStringLiteral("stat")), QByteArray::number(m_task->pid()) + " 7\n");
    QCOMPARE(m_world->told(QStringLiteral("limit")), QByteArrayLiteral("1234\n"));
}

void TestLaunchingTask::environmentHasItsOrder()
{
    qputenv("QT_QPA_PLATFORM", "the services");
    m_request.environment << QStringLiteral("QT_QPA_PLATFORM=the requests") << QStringLiteral("ANY=ü")
                          << QStringLiteral("no entry");
    startAndWait();
    qunsetenv("QT_QPA_PLATFORM");

    QByteArrayList expected;
    for (char **entry = environ; *entry; ++entry) {
        expected << QByteArray(*entry);
    }
    expected << "QT_QPA_PLATFORM=the services"
             << "QT_QPA_PLATFORM=the requests"
             << "ANY=ü"
             << "no entry"
             << "SOLVANE_APP_ID=org.example.Notes"
             << "SOLVANE_TASK_ID=sync"
             << "QT_QPA_PLATFORM=minimal";
    QCOMPARE(m_world->toldLines(QStringLiteral("env")), expected);
}

void TestLaunchingTask::childIsInItsGroupsBeforeItRuns()
{
    m_world->sandbox(": >\"$0.ready\"\nexec sleep 60\n");
    m_task = m_request.make(m_world->cgroups());
    verifyError(m_task->start(), Error::NoError, QString());
    for (const QString &controller : LaunchWorld::controllers()) {
        QCOMPARE(LaunchWorld::read(m_world->groupPath(controller, group + QStringLiteral("/cgroup.procs"))),
                 QByteArray::number(m_task->pid()));
    }
}

void TestLaunchingTask::settingsAreWritten()
{
    m_request.cgroups = { { "cpu.shares", "64" }, { "memory.limit_in_bytes", "1000000" } };
    startAndWait();
    QCOMPARE(
        LaunchWorld::read(m_world->groupPath(QStringLiteral("cpu"), group + QStringLiteral("/cpu.shares"))),
        QByteArrayLiteral("64"));
    QCOMPARE(LaunchWorld::read(m_world->groupPath(QStringLiteral("memory"),
                                                  group + QStringLiteral("/memory.limit_in_bytes"))),
             QByteArrayLiteral("1000000"));
}

void TestLaunchingTask::outputGoesToTheJournal()
{
    const MemoryFile journal;
    const MemoryFile call;
    standIn.journal = journal.fd();
    standIn.journalCall = call.fd();
    m_world->sandbox("echo out; echo err >&2\n: >\"$0.ready\"\n");
    startAndWait();
    QCOMPARE(call.content(), QByteArrayLiteral("org.example.Notes|6|0"));
    QCOMPARE(waitForChild(m_task->pid()), 0);
    QCOMPARE(journal.content(), QByteArrayLiteral("out\nerr\n"));
}

void TestLaunchingTask::compositionsErrorIsReturned_data()
{
    QTest::addColumn<QString>("program");
    QTest::addColumn<QString>("message");

    QTest::newRow("missing") << QStringLiteral("/usr/bin/missing")
                             << QStringLiteral("/usr/bin/missing is not executable");
    QTest::newRow("missing, without path")
        << QStringLiteral("missing") << QStringLiteral("/usr/bin/missing is not executable");
    QTest::newRow("a script") << QStringLiteral("firejail")
                              << QStringLiteral("/usr/bin/firejail is not an ELF binary");
    QTest::newRow("a directory") << QStringLiteral("/usr/bin")
                                 << QStringLiteral("/usr/bin is not an ELF binary");
    QTest::newRow("empty") << QString() << QStringLiteral("/usr/bin/ is not an ELF binary");
}

void TestLaunchingTask::compositionsErrorIsReturned()
{
    QFETCH(QString, program);
    QFETCH(QString, message);
    m_request.command = QStringList { program };
    m_task = m_request.make(m_world->cgroups());
    verifyError(m_task->start(), Error::InvalidArgs, message);
    QCOMPARE(m_history->account.failedAt, QStringLiteral("Prepared"));
    QCOMPARE(m_task->pid(), -1);
    QVERIFY(noChildIsLeft());
}

void TestLaunchingTask::failedSpawnIsReturned()
{
    const NoPipes noPipes;
    const auto [error, pid, socket] = LaunchingTask::launch(m_world->cgroups(), m_request.id,
                                                            m_request.command, {}, {}, {}, 0, 0, -1, false);
    verifyError(error, Error::SpawnFailed, QStringLiteral("Failed to start child process"));
    QCOMPARE(m_history->account.failedAt, QStringLiteral("Spawned"));
    QCOMPARE(pid, -1);
    QCOMPARE(socket, -1);
    QCOMPARE(m_log->warnings(), QStringList { QStringLiteral("Failed to create IPC pipe to child process") });
}

void TestLaunchingTask::childThatIsDeadFailsTheSetup()
{
    ParentHook::afterFork = [](pid_t pid) {
        killChild(pid);
        waitUntilDead(pid);
    };
    m_task = m_request.make(m_world->cgroups());
    verifyError(m_task->start(), Error::SpawnFailed, QStringLiteral("Failed to setup child process"));
    QCOMPARE(m_log->warnings(), QStringList { QStringLiteral("Error sending OOM data to child process") });
    QCOMPARE(m_history->account.failedAt, QStringLiteral("SetUp"));
    QVERIFY(!QFile::exists(m_world->groupPath(QStringLiteral("cpu"), group)));
}

void TestLaunchingTask::groupThatCannotBeMadeFailsTheSetup()
{
    const QString base = m_world->groupPath(QStringLiteral("cpu"), QString());
    QVERIFY(QDir(base).removeRecursively());
    m_world->write(QStringLiteral("sys/fs/cgroup/cpu/procwarden/user-%1").arg(::getuid()), QByteArray());
    m_task = m_request.make(m_world->cgroups());
    const Error error = m_task->start();
    QFile::remove(m_world->path(QStringLiteral("sys/fs/cgroup/cpu/procwarden/user-%1").arg(::getuid())));
    verifyError(error, Error::SpawnFailed, QStringLiteral("Failed to setup child process"));
    QCOMPARE(m_log->warnings().value(1), groupWarning);
    QCOMPARE(m_history->account.failedAt, QStringLiteral("Grouped"));
}

void TestLaunchingTask::settingThatCannotBeWrittenFailsTheSetup_data()
{
    QTest::addColumn<QByteArray>("name");

    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("no controller") << QByteArray("nonsense");
    QTest::newRow("unknown controller") << QByteArray("nonsense.shares");
    QTest::newRow("a path") << QByteArray("cpu.shares/../../x");
    QTest::newRow("a directory") << QByteArray("cpu.busy");
    QTest::newRow("only dots") << QByteArray("..");
    QTest::newRow("huge") << QByteArray("cpu.") + QByteArray(100000, 'x');
    QTest::newRow("no UTF-8") << QByteArray("\xff.\xfe");
}

void TestLaunchingTask::settingThatCannotBeWrittenFailsTheSetup()
{
    QFETCH(QByteArray, name);
    QDir().mkpath(m_world->groupPath(QStringLiteral("cpu"), group + QStringLiteral("/cpu.busy")));
    m_request.cgroups = { { name, "1" }, { "cpu.shares", "64" } };
    m_task = m_request.make(m_world->cgroups());
    verifyError(m_task->start(), Error::SpawnFailed, QStringLiteral("Failed to setup child process"));
    QCOMPARE(m_log->warnings().size(), 2);
    QCOMPARE(m_log->warnings().at(1), groupWarning);
    // One bad setting does not keep the others from being written.
    QCOMPARE(
        LaunchWorld::read(m_world->groupPath(QStringLiteral("cpu"), group + QStringLiteral("/cpu.shares"))),
        QByteArrayLiteral("64"));
}

void TestLaunchingTask::childThatTakesNoMoreFailsTheExec_data()
{
    QTest::addColumn<int>("capacity");
    QTest::addColumn<int>("size");

    QTest::newRow("usual pipe") << 0x10000 << 0x20000;
    QTest::newRow("small pipe") << 4096 << 8000;
    QTest::newRow("small pipe, short entries") << 4096 << 0;
}

// It is stopped, and the service must not wait for it to go on.
void TestLaunchingTask::childThatTakesNoMoreFailsTheExec()
{
    QFETCH(int, capacity);
    QFETCH(int, size);
    ParentHook::afterFork = [capacity](pid_t pid) {
        stopChild(pid);
        ::fcntl(NewestPipe::writeEnd, F_SETPIPE_SZ, capacity);
    };
    if (size > 0) {
        m_request.environment << QString(size, QLatin1Char('x'));
    } else {
        for (int i = 0; i < 100; ++i) {
            m_request.environment << QString(40, QLatin1Char('x'));
        }
    }
    m_task = m_request.make(m_world->cgroups());
    verifyError(m_task->start(), Error::SpawnFailed, QStringLiteral("Failed to execute child process"));
    QCOMPARE(m_history->account.failedAt, QStringLiteral("Released"));
    QCOMPARE(m_log->warnings(), QStringList());
}

void TestLaunchingTask::childOfAFailedLaunchEndsByItself()
{
    const MemoryFile errors;
    m_request.cgroups = { { "nonsense", "1" } };
    m_task = m_request.make(m_world->cgroups());
    {
        const Redirected redirected(STDERR_FILENO, errors.fd());
        verifyError(m_task->start(), Error::SpawnFailed, QStringLiteral("Failed to setup child process"));
    }
    const pid_t pid = m_task->pid();
    QVERIFY(staysAlive(pid));
    m_task.reset();
    QCOMPARE(waitForChild(pid), W_EXITCODE(1, 0));
    QVERIFY(!m_world->sandboxIsReady());
}

void TestLaunchingTask::refusedStepEndsTheChild_data()
{
    QTest::addColumn<QByteArray>("refused");
    QTest::addColumn<QByteArray>("message");

    QTest::newRow("identity") << QByteArray("setregid")
                              << QByteArray("Could not change to real user/group\n");
    QTest::newRow("score") << QByteArray("score") << QByteArray("Could not set OOM score\n");
    QTest::newRow("level") << QByteArray("setpriority") << QByteArray("Could not set nice level\n");
    QTest::newRow("time") << QByteArray("setrlimit") << QByteArray("Could not set max running time\n");
}

void TestLaunchingTask::refusedStepEndsTheChild()
{
    QFETCH(QByteArray, refused);
    QFETCH(QByteArray, message);
    standIn.refused = refused.constData();
    ParentHook::afterFork = [this, &refused](pid_t pid) {
        if (refused == "score") {
            m_world->write(QStringLiteral("proc/%1").arg(pid), "in the place of the directory");
        }
    };
    const MemoryFile errors;
    m_request.priority = 5;
    m_request.cpuLimit = 10;
    m_task = m_request.make(m_world->cgroups());
    {
        const Redirected redirected(STDERR_FILENO, errors.fd());
        // Whether the launch notices depends on how far it has come when the child ends.
        m_task->start();
    }
    QCOMPARE(waitForChild(m_task->pid()), W_EXITCODE(1, 0));
    QCOMPARE(errors.content(), message);
    QVERIFY(!m_world->sandboxIsReady());
}

void TestLaunchingTask::refusedNegativeLevelIsNoFailure()
{
    standIn.refused = "setpriority";
    m_request.priority = -5;
    startAndWait();
}

// It runs as far as the service can tell; its exit tells the rest.
void TestLaunchingTask::programThatCannotBeExecutedEndsTheChild()
{
    const QString sandbox = m_world->path(QStringLiteral("usr/bin/firejail"));
    QVERIFY(QFile::rename(sandbox, sandbox + QStringLiteral("-gone")));
    const MemoryFile errors;
    m_task = m_request.make(m_world->cgroups());
    {
        const Redirected redirected(STDERR_FILENO, errors.fd());
        verifyError(m_task->start(), Error::NoError, QString());
    }
    QCOMPARE(waitForChild(m_task->pid()), W_EXITCODE(1, 0));
    QCOMPARE(errors.content(), QByteArrayLiteral("exec failed\n"));
    QVERIFY(QFile::rename(sandbox + QStringLiteral("-gone"), sandbox));
}

QTEST_GUILESS_MAIN(TestLaunchingTask)

#include "tst_launching_task.moc"
