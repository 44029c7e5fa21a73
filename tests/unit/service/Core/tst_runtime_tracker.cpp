#include "Core/runtime_tracker.h"

#include "child_fixture.h"
#include "support/log_capture.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <cerrno>

#include <sched.h>
#include <sys/prctl.h>

using Core::Error;
using Core::RuntimeTracker;

namespace {

const QString noteId = QStringLiteral("org.example.Notes.instance_1");
const QString taskId = QStringLiteral("org.example.Notes.task_sync");

/// Waits for a signal; ends with the test at the latest, however that ends.
[[noreturn]] void waitForSignal()
{
    while (true) {
        ::pause();
    }
}

void endWithParent()
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
}

/// A child that waits for a signal, in a group of its own. The end of the scope kills it, so that a tracker
/// made before can be destroyed.
class WaitingChild
{
public:
    WaitingChild()
        : pid(::fork())
    {
        if (pid == 0) {
            endWithParent();
            ::setpgid(0, 0);
            waitForSignal();
        }
        ::setpgid(pid, pid);
    }
    ~WaitingChild() { end(); }
    WaitingChild(const WaitingChild &) = delete;
    WaitingChild &operator=(const WaitingChild &) = delete;

    void end() const { ::kill(pid, SIGKILL); }

    const pid_t pid;
};

/// A child like that which has started another process.
class Tree
{
public:
    /// @param setup runs in the process that the child starts.
    /// @param daemonize who started that process ends, so that its parent is no longer the child.
    explicit Tree(const std::function<void()> &setup, bool daemonize = false)
    {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) {
            return;
        }
        child = ::fork();
        if (child == 0) {
            runChild(fds[1], setup, daemonize);
        }
        if (::read(fds[0], &below, sizeof(below)) != sizeof(below)) {
            below = -1;
        }
        ::close(fds[0]);
        ::close(fds[1]);
    }
    ~Tree()
    {
        if (below > 1) {
            ::kill(below, SIGKILL);
        }
        if (child > 1) {
            ::kill(child, SIGKILL);
        }
    }
    Tree(const Tree &) = delete;
    Tree &operator=(const Tree &) = delete;

    pid_t child = -1;
    pid_t below = -1;

private:
    [[noreturn]] static void runChild(int report, const std::function<void()> &setup, bool daemonize)
    {
        endWithParent();
        ::setpgid(0, 0);
        const pid_t between = daemonize ? ::fork() : 0;
        if (between > 0) {
            ::waitpid(between, nullptr, 0);
            waitForSignal();
        }
        const pid_t starter = ::getpid();
        if (::fork() == 0) {
            setup();
            while (daemonize && ::getppid() == starter) {
                ::sched_yield();
            }
            const pid_t self = ::getpid();
            [[maybe_unused]] const ssize_t written = ::write(report, &self, sizeof(self));
            waitForSignal();
        }
        if (daemonize) {
            ::_exit(0);
        }
        waitForSignal();
    }
};

pid_t startEnding(int exitCode)
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::_exit(exitCode);
    }
    return pid;
}

/// Without the event loop: what is queued meanwhile stays queued.
bool waitUntilReaped(pid_t pid)
{
    const QDeadlineTimer deadline(childLimitMs);
    while (::kill(pid, 0) == 0 && !deadline.hasExpired()) {
        ::sched_yield();
    }
    return ::kill(pid, 0) == -1 && errno == ESRCH;
}

QString idOf(const RuntimeTracker &tracker, pid_t pid)
{
    const auto [error, id] = tracker.applicationForPid(pid);
    if (!error) {
        return id;
    }
    const bool asDocumented =
        error.code() == Error::ProcessNotHandled && error.message().isEmpty() && id.isEmpty();
    return asDocumented ? QStringLiteral("not handled") : QStringLiteral("wrong error");
}

const QString notHandled = QStringLiteral("not handled");

} // namespace

class TestRuntimeTracker : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void exitIsReportedWithItsRawStatus();
    void deathBySignalIsReportedWithItsRawStatus();
    void exitBeforeTheEntryIsReportedAfterIt();
    void everyChildIsReportedOnce();
    void loopStartsAgainAfterAnIdlePeriod();
    void laterEntryReplacesTheEarlierOne();
    void entryOutlivesItsReport();
    void whoHearsOfAnEndMayAddTheNextChild();
    void childWithoutEntryIsReportedAsAFault();
    void abandonedChildIsReapedWithoutAReport();
    void childThatIsGoneIsAbandonedAtOnce();
    void abandonedPidMayBecomeAnotherChilds();
    void signalsDoNotReachTheWorker();
    void processLeadsToItsChild();
    void processesThatLeadNowhereAreNotHandled_data();
    void processesThatLeadNowhereAreNotHandled();
    void daemonIsNotHandled();
    void endedProcessIsNotHandled();
    void parentIsReadFromTheStatusFile_data();
    void parentIsReadFromTheStatusFile();
    void parentsThatLeadInACircleEndTheWalk();
    void instanceIsOneForTheProcess();
};

void TestRuntimeTracker::initTestCase()
{
    qRegisterMetaType<pid_t>("pid_t");
}

void TestRuntimeTracker::init()
{
    qunsetenv("PROCWARDEN_ROOTFS");
}

void TestRuntimeTracker::exitIsReportedWithItsRawStatus()
{
    RuntimeTracker tracker;
    QSignalSpy terminated(&tracker, &RuntimeTracker::applicationTerminated);
    const pid_t pid = startEnding(3);
    tracker.addProcess(pid, noteId);
    QTest::ignoreMessage(QtDebugMsg, qPrintable(QStringLiteral("onProcessExited %1 768").arg(pid)));
    QTRY_COMPARE(terminated.count(), 1);
    QCOMPARE(terminated.first(), (QList<QVariant> { noteId, 0x300 }));
    QCOMPARE(idOf(tracker, pid), notHandled);
}

void TestRuntimeTracker::deathBySignalIsReportedWithItsRawStatus()
{
    RuntimeTracker tracker;
    QSignalSpy terminated(&tracker, &RuntimeTracker::applicationTerminated);
    const WaitingChild child;
    tracker.addProcess(child.pid, taskId);
    ::kill(child.pid, SIGUSR2);
    QTRY_COMPARE(terminated.count(), 1);
    QCOMPARE(terminated.first(), (QList<QVariant> { taskId, SIGUSR2 }));
}

void TestRuntimeTracker::exitBeforeTheEntryIsReportedAfterIt()
{
    RuntimeTracker tracker;
    QSignalSpy terminated(&tracker, &RuntimeTracker::applicationTerminated);
    const WaitingChild other;
    tracker.addProcess(other.pid, taskId); // the worker waits from now on
    const pid_t pid = startEnding(0);
    QVERIFY(waitUntilReaped(pid));
    tracker.addProcess(pid, noteId);
    QTRY_COMPARE(terminated.count(), 1);
    QCOMPARE(terminated.first(), (QList<QVariant> { noteId, 0 }));
    other.end();
    QTRY_COMPARE(terminated.count(), 2);
}

void TestRuntimeTracker::everyChildIsReportedOnce()
{
    RuntimeTracker tracker;
    QSignalSpy terminated(&tracker, &RuntimeTracker::applicationTerminated);
    QStringList expected;
    for (int i = 0; i < 50; ++i) {
        expected << QStringLiteral("org.example.App%1").arg(i);
        tracker.addProcess(startEnding(i), expected.last());
    }
    QTRY_COMPARE(terminated.count(), expected.size());
    QStringList reported;
    for (const QList<QVariant> &arguments : qAsConst(terminated)) {
        reported << arguments.first().toString();
        QCOMPARE(arguments.at(1).toInt(), W_EXITCODE(expected.indexOf(reported.last()), 0));
    }
    reported.sort();
    expected.sort();
    QCOMPARE(reported, expected);
}

void TestRuntimeTracker::loopStartsAgainAfterAnIdlePeriod()
{
    RuntimeTracker tracker;
    QSignalSpy terminated(&tracker, &RuntimeTracker::applicationTerminated);
    for (int round = 1; round <= 3; ++round) {
        // The second call finds the loop running or the child gone, and does nothing.
        const pid_t pid = startEnding(0);
        tracker.addProcess(pid, noteId);
        tracker.addProcess(pid, noteId);
        QTRY_COMPARE(terminated.count(), round);
    }
}

void TestRuntimeTracker::laterEntryReplacesTheEarlierOne()
{
    RuntimeTracker tracker;
    QSignalSpy terminated(&tracker, &RuntimeTracker::applicationTerminated);
    const WaitingChild child;
    tracker.addProcess(child.pid, noteId);
    tracker.addProcess(child.pid, taskId);
    QCOMPARE(idOf(tracker, child.pid), taskId);
    child.end();
    QTRY_COMPARE(terminated.count(), 1);
    QCOMPARE(terminated.first().first().toString(), taskId);
}

void TestRuntimeTracker::entryOutlivesItsReport()
{
    RuntimeTracker tracker;
    const pid_t pid = startEnding(0);
    QString idMeanwhile;
    connect(&tracker, &RuntimeTracker::applicationTerminated, this,
            [&] { idMeanwhile = idOf(tracker, pid); });
    tracker.addProcess(pid, noteId);
    QTRY_COMPARE(idMeanwhile, noteId);
    QCOMPARE(idOf(tracker, pid), notHandled);
}

void TestRuntimeTracker::whoHearsOfAnEndMayAddTheNextChild()
{
    RuntimeTracker tracker;
    QSignalSpy terminated(&tracker, &RuntimeTracker::applicationTerminated);
    int left = 20;
    connect(&tracker, &RuntimeTracker::applicationTerminated, this, [&] {
        if (--left > 0) {
            tracker.addProcess(startEnding(0), QString::number(left));
        }
    });
    tracker.addProcess(startEnding(0), QString::number(left));
    QTRY_COMPARE(terminated.count(), 20);
    QCOMPARE(terminated.last().first().toString(), QStringLiteral("1"));
}

void TestRuntimeTracker::childWithoutEntryIsReportedAsAFault()
{
    RuntimeTracker tracker;
    QSignalSpy terminated(&tracker, &RuntimeTracker::applicationTerminated);
    const pid_t stray = startEnding(0);
    const QString fault = QStringLiteral("Internal error, missing record for pid %1").arg(stray);
    QTest::ignoreMessage(QtWarningMsg, qPrintable(fault));
    QVERIFY(waitUntilDead(stray));
    tracker.addProcess(startEnding(0), noteId);
    QTRY_COMPARE(terminated.count(), 1);
    QCOMPARE(terminated.first().first().toString(), noteId);
    // Reports keep their order: with that of a later child the stray's has come, too.
    QVERIFY(waitUntilReaped(stray));
    tracker.addProcess(startEnding(0), taskId);
    QTRY_COMPARE(terminated.count(), 2);
    QCOMPARE(terminated.last().first().toString(), taskId);
}

void TestRuntimeTracker::abandonedChildIsReapedWithoutAReport()
{
    RuntimeTracker tracker;
    QSignalSpy terminated(&tracker, &RuntimeTracker::applicationTerminated);
    TestSupport::LogCapture log;
    const WaitingChild child;
    int calls = 0;
    tracker.abandonProcess(child.pid, [&calls] { ++calls; });
    QCOMPARE(calls, 0);
    child.end();
    QTRY_COMPARE(calls, 1);
    QCOMPARE(::kill(child.pid, 0), -1);
    QCOMPARE(terminated.count(), 0);
    QCOMPARE(log.warnings(), QStringList());
}

void TestRuntimeTracker::childThatIsGoneIsAbandonedAtOnce()
{
    RuntimeTracker tracker;
    const pid_t pid = startEnding(0);
    ::waitpid(pid, nullptr, 0);
    int calls = 0;
    tracker.abandonProcess(pid, [&calls] { ++calls; });
    QCOMPARE(calls, 1);

    // A pid that is followed is another child's by now.
    const WaitingChild child;
    tracker.addProcess(child.pid, noteId);
    tracker.abandonProcess(child.pid, [&calls] { ++calls; });
    QCOMPARE(calls, 2);
    QSignalSpy terminated(&tracker, &RuntimeTracker::applicationTerminated);
    child.end();
    QTRY_COMPARE(terminated.count(), 1);
}

void TestRuntimeTracker::abandonedPidMayBecomeAnotherChilds()
{
    RuntimeTracker tracker;
    QSignalSpy terminated(&tracker, &RuntimeTracker::applicationTerminated);
    const WaitingChild child;
    bool called = false;
    tracker.abandonProcess(child.pid, [&called] { called = true; });
    tracker.addProcess(child.pid, noteId);
    child.end();
    QTRY_COMPARE(terminated.count(), 1);
    QVERIFY(!called);
}

void TestRuntimeTracker::signalsDoNotReachTheWorker()
{
    const Disposition handler(SIGUSR1, [](int) {});
    RuntimeTracker tracker;
    QSignalSpy terminated(&tracker, &RuntimeTracker::applicationTerminated);
    const WaitingChild child;
    tracker.addProcess(child.pid, noteId);
    const pid_t first = startEnding(0);
    tracker.addProcess(first, taskId);
    QTRY_COMPARE(terminated.count(), 1); // so the worker is waiting
    const QStringList threads =
        QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &thread : threads) {
        ::syscall(SYS_tgkill, ::getpid(), thread.toInt(), SIGUSR1);
    }
    child.end();
    QTRY_COMPARE(terminated.count(), 2);
    QCOMPARE(terminated.last().first().toString(), noteId);
}

void TestRuntimeTracker::processLeadsToItsChild()
{
    RuntimeTracker tracker;
    const Tree member([] {});
    const Tree ownGroup([] { ::setpgid(0, 0); });
    const Tree ownSession([] { ::setsid(); });
    const QString ids[] = { noteId, taskId, QStringLiteral("org.example.Other") };
    tracker.addProcess(member.child, ids[0]);
    tracker.addProcess(ownGroup.child, ids[1]);
    tracker.addProcess(ownSession.child, ids[2]);

    QCOMPARE(idOf(tracker, member.child), ids[0]);
    QCOMPARE(idOf(tracker, member.below), ids[0]);
    QCOMPARE(idOf(tracker, ownGroup.child), ids[1]);
    QCOMPARE(idOf(tracker, ownGroup.below), ids[1]);
    QCOMPARE(idOf(tracker, ownSession.child), ids[2]);
    QCOMPARE(idOf(tracker, ownSession.below), ids[2]);
}

void TestRuntimeTracker::processesThatLeadNowhereAreNotHandled_data()
{
    QTest::addColumn<int>("pid");
    QTest::newRow("the service itself") << static_cast<int>(::getpid());
    QTest::newRow("init") << 1;
    QTest::newRow("zero") << 0;
    QTest::newRow("no pid") << -1;
    QTest::newRow("negative") << -2;
    QTest::newRow("largest number") << std::numeric_limits<int>::max();
}

void TestRuntimeTracker::processesThatLeadNowhereAreNotHandled()
{
    QFETCH(int, pid);
    RuntimeTracker tracker;
    const WaitingChild child;
    tracker.addProcess(child.pid, noteId);
    QCOMPARE(idOf(tracker, pid), notHandled);
}

void TestRuntimeTracker::daemonIsNotHandled()
{
    RuntimeTracker tracker;
    const Tree tree([] { ::setsid(); }, true);
    QVERIFY(tree.below > 1);
    tracker.addProcess(tree.child, noteId);
    QCOMPARE(idOf(tracker, tree.below), notHandled);
}

void TestRuntimeTracker::endedProcessIsNotHandled()
{
    const pid_t ended = startEnding(0);
    QCOMPARE(waitForChild(ended), 0);
    RuntimeTracker tracker;
    const WaitingChild child;
    tracker.addProcess(child.pid, noteId);
    QCOMPARE(idOf(tracker, ended), notHandled);
}

void TestRuntimeTracker::parentIsReadFromTheStatusFile_data()
{
    QTest::addColumn<QByteArray>("status"); // %1 stands for the child
    QTest::addColumn<bool>("found");
    QTest::newRow("as the kernel writes it") << QByteArray("Name:\tx\nPid:\t7\nPPid:\t%1\nUid:\t0\n") << true;
    QTest::newRow("blanks around") << QByteArray("PPid:  \t%1 \t\n") << true;
    QTest::newRow("nothing around") << QByteArray("PPid:%1") << true;
    QTest::newRow("first of two lines") << QByteArray("PPid:\t%1\nPPid:\t1\n") << true;
    QTest::newRow("only at the start of a line")
        << QByteArray("Name:\tPPid:1\nxPPid:\t1\nPPid:\t%1\n") << true;
    QTest::newRow("empty lines before") << QByteArray("\n\nPPid:\t%1\n") << true;
    QTest::newRow("init") << QByteArray("PPid:\t1\n") << false;
    QTest::newRow("bad number") << QByteArray("PPid:\t%1x\n") << false;
    QTest::newRow("bad number before a good one") << QByteArray("PPid:\tx\nPPid:\t%1\n") << false;
    QTest::newRow("number out of range") << QByteArray("PPid:\t99999999999999999999\n") << false;
    QTest::newRow("no number") << QByteArray("PPid:\n") << false;
    QTest::newRow("no line") << QByteArray("Name:\tx\nppid:\t%1\n") << false;
    QTest::newRow("empty file") << QByteArray() << false;
    QTest::newRow("binary") << QByteArray("\0\xff\0PPid:\t%1\n", 12) << false;
    QTest::newRow("no file") << QByteArray("none") << false;
}

void TestRuntimeTracker::parentIsReadFromTheStatusFile()
{
    QFETCH(QByteArray, status);
    QFETCH(bool, found);
    RuntimeTracker tracker;
    const WaitingChild child;
    const WaitingChild other; // leads its group, so that its parent is asked for

    const QTemporaryDir root;
    qputenv("PROCWARDEN_ROOTFS", QFile::encodeName(root.path()));
    const QString directory = root.filePath(QStringLiteral("proc/%1").arg(other.pid));
    QVERIFY(QDir().mkpath(directory));
    if (status != "none") {
        QFile file(directory + QStringLiteral("/status"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(status.replace("%1", QByteArray::number(child.pid)));
    }

    tracker.addProcess(child.pid, noteId);
    tracker.addProcess(1, taskId); // not even then does the walk go on to init
    QCOMPARE(idOf(tracker, other.pid), found ? noteId : notHandled);
}

void TestRuntimeTracker::parentsThatLeadInACircleEndTheWalk()
{
    const WaitingChild first;
    const WaitingChild second;
    const QTemporaryDir root;
    qputenv("PROCWARDEN_ROOTFS", QFile::encodeName(root.path()));
    for (const auto &[pid, parent] : { std::pair(first.pid, second.pid), std::pair(second.pid, first.pid) }) {
        const QString directory = root.filePath(QStringLiteral("proc/%1").arg(pid));
        QVERIFY(QDir().mkpath(directory));
        QFile file(directory + QStringLiteral("/status"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("PPid:\t" + QByteArray::number(parent) + '\n');
    }
    RuntimeTracker tracker;
    QCOMPARE(idOf(tracker, first.pid), notHandled);
    for (const WaitingChild *child : { &first, &second }) {
        child->end();
        QCOMPARE(waitForChild(child->pid), SIGKILL);
    }
}

void TestRuntimeTracker::instanceIsOneForTheProcess()
{
    QVERIFY(RuntimeTracker::instance() != nullptr);
    QCOMPARE(RuntimeTracker::instance(), RuntimeTracker::instance());
}

QTEST_GUILESS_MAIN(TestRuntimeTracker)

#include "tst_runtime_tracker.moc"
