#include "Core/process_spawner.h"

#include "child_fixture.h"

#include <QtTest>

#include <cerrno>

#include <dlfcn.h>
#include <fcntl.h>

using Core::ChildIPC;
using Core::ProcessSpawner;

namespace {

int forkError = 0; ///< the next fork fails with it, unless 0

const QByteArray tooMany("Buffer not large enough to read the variables\n");
const QByteArray tooSmall("Buffer too small\n");

QByteArrayList shell(const QByteArray &script)
{
    return { "/bin/sh", "-c", script };
}

/// Value of a line of status(5) of the program that a child printed.
QByteArray statusField(const QByteArray &status, const QByteArray &key)
{
    for (const QByteArray &line : status.split('\n')) {
        if (line.startsWith(key + ':')) {
            return line.mid(key.size() + 1).trimmed();
        }
    }
    return QByteArray();
}

quint64 bit(int signal)
{
    return quint64(1) << (signal - 1);
}

/// Strings that fill @p bytes with their NULs.
QByteArrayList filling(int count, int bytes, const QByteArray &start)
{
    QByteArrayList list;
    for (int i = 0; i < count - 1; ++i) {
        list << start;
        bytes -= start.size() + 1;
    }
    return list << start + QByteArray(bytes - start.size() - 1, 'x');
}

} // namespace

/// Stands before the C library's, to fail on demand.
extern "C" pid_t fork() noexcept
{
    if (forkError != 0) {
        errno = std::exchange(forkError, 0);
        return -1;
    }
    static const auto original = reinterpret_cast<pid_t (*)()>(::dlsym(RTLD_NEXT, "fork"));
    return original();
}

class TestProcessSpawner : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void argumentsReachTheProgram();
    void environmentIsExactlyWhatWasSet();
    void listsMayBeSetAfterTheSpawn();
    void programWithoutSlashIsSearchedInPath();
    void messagesHaveTheirLayout();
    void callbackReadsBeforeTheLists();
    void listsWithinTheirLimitsStart_data();
    void listsWithinTheirLimitsStart();
    void listsBeyondTheirLimitsEndTheChild_data();
    void listsBeyondTheirLimitsEndTheChild();
    void emptyArgumentsEndTheChild();
    void missingProgramEndsTheChild();
    void abandonedChildEndsWithTheTextOfItsRead_data();
    void abandonedChildEndsWithTheTextOfItsRead();
    void abandonedChildDoesNotWaitForALaterOne();
    void programHasNoDescriptorZero();
    void programHasDefaultDispositions();
    void programHasTheMaskOfTheService();
    void signalRightAfterTheSpawnIsNotHandledByTheService();
    void childLeadsItsGroupAtOnce();
    void sendingToADeadChildFails();
    void pipeAsDescriptorZeroEndsTheChild();
    void failingPipeIsReported();
    void failingForkIsReported();
    void emptyCallbackDoesNotReturnIntoTheService();
    void wrongOrderTripsTheAssertion();
};

void TestProcessSpawner::initTestCase()
{
    ::signal(SIGPIPE, SIG_IGN); // as the service does
    const rlimit noCore = { 0, 0 };
    ::setrlimit(RLIMIT_CORE, &noCore);
}

void TestProcessSpawner::cleanup()
{
    forkError = 0;
}

void TestProcessSpawner::argumentsReachTheProgram()
{
    CapturedChild child;
    QVERIFY(child.spawn());
    const QByteArrayList arguments { "/usr/bin/printf", "%s|", "a b", "", "line\nfeed", "\xc3\xa4", "$HOME" };
    QVERIFY(child.exec(arguments));
    QCOMPARE(child.spawner->arguments(), arguments);
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.output, QByteArray("a b||line\nfeed|\xc3\xa4|$HOME|"));
    QCOMPARE(outcome.errors, QByteArray());
    QCOMPARE(outcome.status, 0);
}

void TestProcessSpawner::environmentIsExactlyWhatWasSet()
{
    // Of two entries of one name both are passed on, in their order.
    CapturedChild child;
    QVERIFY(child.spawn());
    QVERIFY(child.exec({ "/usr/bin/env" }, { "A=1", "EMPTY=", "A=2", "no equals sign" }));
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.output, QByteArray("A=1\nEMPTY=\nA=2\nno equals sign\n"));
    QCOMPARE(outcome.status, 0);
}

void TestProcessSpawner::listsMayBeSetAfterTheSpawn()
{
    CapturedChild child;
    child.spawner->setArguments({ "/bin/false" });
    child.spawner->setEnvironment({ "WHEN=before" });
    QVERIFY(child.spawn());
    child.spawner->setEnvironment({ "WHEN=after" });
    child.spawner->setArguments({ "/usr/bin/env" });
    QVERIFY(child.spawner->exec());
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.output, QByteArray("WHEN=after\n"));
    QCOMPARE(outcome.status, 0);
}

void TestProcessSpawner::programWithoutSlashIsSearchedInPath()
{
    CapturedChild child;
    QVERIFY(child.spawn());
    QVERIFY(child.exec({ "printf", "found" }, { "PATH=/nowhere" }));
    QCOMPARE(child.wait().output, QByteArray("found"));
}

void TestProcessSpawner::messagesHaveTheirLayout()
{
    CapturedChild child;
    const bool spawned = child.spawn([](ChildIPC &) {
        char byte;
        while (::read(STDIN_FILENO, &byte, 1) == 1 && ::write(STDOUT_FILENO, &byte, 1) == 1) { }
        ::_exit(0);
    });
    QVERIFY(spawned);
    QVERIFY(child.spawner->sendInt(-2));
    QVERIFY(child.spawner->sendBytes("ab", 2));
    QVERIFY(child.spawner->sendBytes("", 0));
    QVERIFY(child.spawner->sendStringList({ "xyz", "" }));
    QVERIFY(child.exec({ "/bin/true" }, { "E=1", "F=2" }));
    child.spawner.reset();

    const auto number = [](auto value) {
        return QByteArray(reinterpret_cast<const char *>(&value), sizeof(value));
    };
    QByteArray expected = number(qint32(-2));
    expected += number(quint64(2)) + "ab";
    expected += number(quint64(0));
    expected += number(qint32(2)) + number(quint64(4)) + QByteArray("xyz\0", 4) + number(quint64(1)) + '\0';
    expected += number(qint32(2)) + number(quint64(4)) + QByteArray("E=1\0", 4);
    expected += number(quint64(4)) + QByteArray("F=2\0", 4);
    expected += number(qint32(1)) + number(quint64(10)) + QByteArray("/bin/true\0", 10);
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.output.toHex(' '), expected.toHex(' '));
    QCOMPARE(outcome.status, 0);
}

void TestProcessSpawner::callbackReadsBeforeTheLists()
{
    CapturedChild child;
    const bool spawned = child.spawn([](ChildIPC &ipc) {
        char text[16];
        const size_t length = ipc.readBytes(text, sizeof(text));
        if (ipc.readInt() != 7 || ::write(STDOUT_FILENO, text, length) != static_cast<ssize_t>(length)) {
            ChildIPC::die("wrong message\n");
        }
    });
    QVERIFY(spawned);
    QVERIFY(child.spawner->sendBytes("first,", 6));
    QVERIFY(child.spawner->sendInt(7));
    QVERIFY(child.exec({ "/usr/bin/printf", "second" }));
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.output, QByteArray("first,second"));
    QCOMPARE(outcome.errors, QByteArray());
}

void TestProcessSpawner::listsWithinTheirLimitsStart_data()
{
    QTest::addColumn<QByteArrayList>("arguments");
    QTest::addColumn<QByteArrayList>("environment");
    QTest::newRow("63 arguments") << filling(63, 1000, "/bin/true") << QByteArrayList();
    QTest::newRow("127 entries of environment") << filling(1, 10, "/bin/true") << filling(127, 1000, "A=");
    QTest::newRow("8192 bytes of arguments") << filling(2, 8192, "/bin/true") << QByteArrayList();
    QTest::newRow("8192 bytes of environment") << filling(1, 10, "/bin/true") << filling(3, 8192, "A=");
    QTest::newRow("everything full") << filling(63, 8192, "/bin/true") << filling(127, 8192, "A=");
}

void TestProcessSpawner::listsWithinTheirLimitsStart()
{
    QFETCH(QByteArrayList, arguments);
    QFETCH(QByteArrayList, environment);
    CapturedChild child;
    QVERIFY(child.spawn());
    QVERIFY(child.exec(arguments, environment));
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.errors, QByteArray());
    QCOMPARE(outcome.status, 0);
}

void TestProcessSpawner::listsBeyondTheirLimitsEndTheChild_data()
{
    QTest::addColumn<QByteArrayList>("arguments");
    QTest::addColumn<QByteArrayList>("environment");
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("64 arguments") << filling(64, 1000, "/bin/true") << QByteArrayList() << tooMany;
    QTest::newRow("128 entries of environment")
        << filling(1, 10, "/bin/true") << filling(128, 1000, "A=") << tooMany;
    QTest::newRow("8193 bytes of arguments") << filling(2, 8193, "/bin/true") << QByteArrayList() << tooSmall;
    QTest::newRow("8193 bytes of environment")
        << filling(1, 10, "/bin/true") << filling(3, 8193, "A=") << tooSmall;
    QTest::newRow("one string beyond the pipe's capacity")
        << filling(1, 10, "/bin/true") << filling(1, 200000, "A=") << tooSmall;
}

void TestProcessSpawner::listsBeyondTheirLimitsEndTheChild()
{
    QFETCH(QByteArrayList, arguments);
    QFETCH(QByteArrayList, environment);
    QFETCH(QByteArray, text);
    CapturedChild child;
    QVERIFY(child.spawn());
    // Whether the writes fail depends on how soon the child ends.
    static_cast<void>(child.exec(arguments, environment));
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.errors, text);
    QCOMPARE(outcome.status, W_EXITCODE(1, 0));
}

void TestProcessSpawner::emptyArgumentsEndTheChild()
{
    CapturedChild child;
    QVERIFY(child.spawn());
    QVERIFY(child.exec({}, { "A=1" }));
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.errors, QByteArray("No arguments given to child process\n"));
    QCOMPARE(outcome.status, W_EXITCODE(1, 0));
}

void TestProcessSpawner::missingProgramEndsTheChild()
{
    CapturedChild child;
    QVERIFY(child.spawn());
    QVERIFY(child.exec({ "/nowhere/program" }));
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.errors, QByteArray("exec failed\n"));
    QCOMPARE(outcome.status, W_EXITCODE(1, 0));
}

void TestProcessSpawner::abandonedChildEndsWithTheTextOfItsRead_data()
{
    QTest::addColumn<int>("blockedIn");
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("integer") << 0 << QByteArray("Coudn't read int value\n");
    QTest::newRow("byte string") << 1 << QByteArray("Coudn't read string length\n");
    QTest::newRow("list") << 2 << QByteArray("Coudn't read number of variables\n");
}

void TestProcessSpawner::abandonedChildEndsWithTheTextOfItsRead()
{
    QFETCH(int, blockedIn);
    QFETCH(QByteArray, text);
    CapturedChild child;
    const bool spawned = child.spawn([blockedIn](ChildIPC &ipc) {
        char buffer[8];
        if (blockedIn == 0) {
            (void)ipc.readInt();
        } else if (blockedIn == 1) {
            ipc.readBytes(buffer, sizeof(buffer));
        }
    });
    QVERIFY(spawned);
    child.spawner.reset();
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.errors, text);
    QCOMPARE(outcome.status, W_EXITCODE(1, 0));
}

void TestProcessSpawner::abandonedChildDoesNotWaitForALaterOne()
{
    CapturedChild first;
    CapturedChild second;
    CapturedChild third;
    QVERIFY(first.spawn());
    QVERIFY(second.spawn());
    QVERIFY(third.spawn());
    first.spawner.reset();
    QCOMPARE(first.wait().status, W_EXITCODE(1, 0));
    // The others are untouched.
    QVERIFY(second.exec({ "/bin/true" }));
    QCOMPARE(second.wait().status, 0);
    QVERIFY(third.exec({ "/bin/true" }));
    QCOMPARE(third.wait().status, 0);
}

void TestProcessSpawner::programHasNoDescriptorZero()
{
    CapturedChild child;
    QVERIFY(child.spawn());
    QVERIFY(child.exec(shell("for fd in 0 1 2; do [ -e /proc/self/fd/$fd ] && echo $fd; done; true")));
    QCOMPARE(child.wait().output, QByteArray("1\n2\n"));
}

void TestProcessSpawner::programHasDefaultDispositions()
{
    const Disposition child1(SIGCHLD, SIG_IGN);
    const Disposition interrupt(SIGINT, SIG_IGN);
    const Disposition terminate(SIGTERM, SIG_IGN);
    const Disposition hangup(SIGHUP, SIG_IGN);
    const Disposition pipe(SIGPIPE, SIG_IGN);
    const Disposition other(SIGUSR1, SIG_IGN);
    CapturedChild child;
    QVERIFY(child.spawn());
    QVERIFY(child.exec({ "/bin/cat", "/proc/self/status" }));
    QVERIFY(waitUntilDead(child.pid)); // SIGCHLD is ignored: the status is lost
    const QByteArray status = child.wait().output;
    const quint64 ignored = statusField(status, "SigIgn").toULongLong(nullptr, 16);
    QCOMPARE(ignored & (bit(SIGCHLD) | bit(SIGINT) | bit(SIGTERM) | bit(SIGHUP) | bit(SIGPIPE)), quint64(0));
    // Any other disposition is inherited.
    QCOMPARE(ignored & bit(SIGUSR1), bit(SIGUSR1));
}

void TestProcessSpawner::programHasTheMaskOfTheService()
{
    sigset_t blocked;
    sigset_t saved;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGUSR2);
    ::pthread_sigmask(SIG_SETMASK, &blocked, &saved);
    CapturedChild child;
    const bool spawned = child.spawn();
    sigset_t after;
    ::pthread_sigmask(SIG_SETMASK, &saved, &after);

    QVERIFY(spawned);
    QVERIFY(child.exec({ "/bin/cat", "/proc/self/status" }));
    QCOMPARE(statusField(child.wait().output, "SigBlk").toULongLong(nullptr, 16), bit(SIGUSR2));
    QVERIFY(::sigismember(&after, SIGUSR2) == 1);
    QVERIFY(::sigismember(&after, SIGTERM) == 0);
}

void TestProcessSpawner::signalRightAfterTheSpawnIsNotHandledByTheService()
{
    const Disposition handler(SIGTERM, [](int) {});
    for (int i = 0; i < 100; ++i) {
        CapturedChild child;
        QVERIFY(child.spawn());
        ::kill(child.pid, SIGTERM);
        QCOMPARE(child.wait().status, SIGTERM);
    }
}

void TestProcessSpawner::childLeadsItsGroupAtOnce()
{
    CapturedChild child;
    QVERIFY(child.spawn());
    QCOMPARE(::getpgid(child.pid), child.pid);
    QCOMPARE(::kill(-child.pid, SIGKILL), 0);
    QCOMPARE(child.wait().status, SIGKILL);
}

void TestProcessSpawner::sendingToADeadChildFails()
{
    CapturedChild child;
    QVERIFY(child.spawn([](ChildIPC &) { ::_exit(0); }));
    QVERIFY(waitUntilDead(child.pid));
    QVERIFY(!child.spawner->sendInt(1));
    QVERIFY(!child.spawner->sendBytes("a", 1));
    QVERIFY(!child.spawner->sendStringList({}));
    QVERIFY(!child.spawner->sendStringList({ "a" }));
    QVERIFY(!child.exec({ "/bin/true" }));
    QCOMPARE(child.wait().status, 0);
}

void TestProcessSpawner::pipeAsDescriptorZeroEndsTheChild()
{
    const MemoryFile errors;
    ProcessSpawner spawner;
    pid_t pid = -1;
    {
        const Redirected standardError(STDERR_FILENO, errors.fd());
        const Redirected standardInput(STDIN_FILENO, errors.fd());
        ::close(STDIN_FILENO);
        pid = spawner.spawn([](ChildIPC &) { ::_exit(0); });
    }
    QVERIFY(pid > 0);
    QCOMPARE(waitForChild(pid), W_EXITCODE(1, 0));
    QCOMPARE(errors.content(), QByteArray("dup3 failed\n"));
}

void TestProcessSpawner::failingPipeIsReported()
{
    rlimit saved;
    QCOMPARE(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    const rlimit none = { 0, saved.rlim_max };
    ProcessSpawner spawner;
    QTest::ignoreMessage(QtWarningMsg, "Failed to create IPC pipe to child process");
    QCOMPARE(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const pid_t pid = spawner.spawn([](ChildIPC &) {});
    QCOMPARE(::setrlimit(RLIMIT_NOFILE, &saved), 0);
    QCOMPARE(pid, -1);
}

void TestProcessSpawner::failingForkIsReported()
{
    ProcessSpawner spawner;
    forkError = EAGAIN;
    QTest::ignoreMessage(QtWarningMsg, "Fork failed, errno 11");
    QCOMPARE(spawner.spawn([](ChildIPC &) {}), -1);

    // There is no child and no pipe of the spawner's: it may be asked again.
    const pid_t pid = spawner.spawn([](ChildIPC &) { ::_exit(3); });
    QVERIFY(pid > 0);
    QCOMPARE(waitForChild(pid), W_EXITCODE(3, 0));
}

void TestProcessSpawner::emptyCallbackDoesNotReturnIntoTheService()
{
    const Disposition abort(SIGABRT, SIG_DFL); // the test library has a handler of its own
    const MemoryFile errors;
    ProcessSpawner spawner;
    pid_t pid = -1;
    {
        const Redirected standardError(STDERR_FILENO, errors.fd());
        pid = spawner.spawn(ProcessSpawner::SetupChildCb());
    }
    QVERIFY(pid > 0);
    QCOMPARE(waitForChild(pid), SIGABRT);
    QVERIFY2(errors.content().contains("bad_function_call"), errors.content().constData());
}

void TestProcessSpawner::wrongOrderTripsTheAssertion()
{
#ifdef QT_NO_DEBUG
    QSKIP("Assertions are compiled out");
#endif
    const Outcome twice = runInFork([] {
        ProcessSpawner spawner;
        static_cast<void>(spawner.spawn([](ChildIPC &) { ::_exit(0); }));
        static_cast<void>(spawner.spawn([](ChildIPC &) { ::_exit(0); }));
    });
    QCOMPARE(twice.status, SIGABRT);
    QVERIFY2(
        twice.errors.startsWith("ASSERT failure in ProcessSpawner::spawn: \"spawn called twice?\", file"),
        twice.errors.constData());

    const Outcome early = runInFork([] { static_cast<void>(ProcessSpawner().exec()); });
    QCOMPARE(early.status, SIGABRT);
    QVERIFY2(early.errors.startsWith(
                 "ASSERT failure in ProcessSpawner::exec: \"exec() must be called after spawn!\", file"),
             early.errors.constData());
}

QTEST_GUILESS_MAIN(TestProcessSpawner)

#include "tst_process_spawner.moc"
