#include "Core/tracker_worker.h"

#include "child_fixture.h"

#include <QSignalSpy>
#include <QtTest>

#include <cerrno>

#include <sys/ptrace.h>
#include <sys/time.h>

using Core::TrackerWorker;

namespace {

/// Ends at once with the given exit code.
pid_t startEnding(int exitCode)
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::_exit(exitCode);
    }
    return pid;
}

bool hasNoChild()
{
    return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

int releasePipe[2] = { -1, -1 };

void releaseChild(int)
{
    [[maybe_unused]] const ssize_t written = ::write(releasePipe[1], "", 1);
}

} // namespace

class TestTrackerWorker : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void returnsQuietlyWithoutChildren();
    void everyExitIsReportedWithItsRawStatus();
    void signalGoesBeforeTheLog();
    void stoppedChildOfATracerIsAnUnexpectedChange();
    void interruptedWaitIsTakenUpAgain();
    void childReapedUnderAStaleInterruptionIsNotReported();
};

void TestTrackerWorker::initTestCase()
{
    qRegisterMetaType<pid_t>("pid_t");
}

void TestTrackerWorker::init()
{
    errno = 0;
}

void TestTrackerWorker::returnsQuietlyWithoutChildren()
{
    TrackerWorker worker;
    const QSignalSpy exited(&worker, &TrackerWorker::processExited);
    worker.waitForChildren();
    QCOMPARE(exited.count(), 0);
}

void TestTrackerWorker::everyExitIsReportedWithItsRawStatus()
{
    TrackerWorker worker;
    QHash<pid_t, int> statuses;
    connect(&worker, &TrackerWorker::processExited, this,
            [&statuses](pid_t pid, int status) { statuses.insert(pid, status); });
    const pid_t successful = startEnding(0);
    const pid_t failed = startEnding(3);
    const pid_t killed = ::fork();
    if (killed == 0) {
        ::pause();
        ::_exit(0);
    }
    ::kill(killed, SIGKILL);
    const auto expectText = [](pid_t pid, const char *text) {
        QTest::ignoreMessage(QtDebugMsg,
                             qPrintable(QStringLiteral("Process %1 ").arg(pid) + QLatin1String(text)));
    };
    expectText(successful, "exited with status 0");
    expectText(failed, "exited with status 3");
    expectText(killed, "killed by signal 9");
    worker.waitForChildren();
    QCOMPARE(statuses, (QHash<pid_t, int> { { successful, 0 }, { failed, 0x300 }, { killed, 9 } }));
    QVERIFY(hasNoChild());
}

void TestTrackerWorker::signalGoesBeforeTheLog()
{
    TrackerWorker worker;
    const pid_t pid = startEnding(1);
    connect(&worker, &TrackerWorker::processExited, this, [pid] {
        // Only from here on is the text expected.
        QTest::ignoreMessage(QtDebugMsg,
                             qPrintable(QStringLiteral("Process %1 exited with status 1").arg(pid)));
        QTest::ignoreMessage(QtDebugMsg, "reported");
        qDebug() << "reported";
    });
    static QStringList messages;
    static QtMessageHandler previous = nullptr;
    messages.clear();
    previous =
        qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &context, const QString &text) {
            messages << text;
            previous(type, context, text);
        });
    worker.waitForChildren();
    qInstallMessageHandler(previous);
    QCOMPARE(messages,
             (QStringList { QStringLiteral("reported"),
                            QStringLiteral("Process %1 exited with status 1").arg(pid) }));
}

void TestTrackerWorker::stoppedChildOfATracerIsAnUnexpectedChange()
{
    TrackerWorker worker;
    const pid_t pid = ::fork();
    if (pid == 0) {
        // The stop of a traced child is reported even to who did not ask for stops.
        ::_exit(::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 && ::raise(SIGSTOP) == 0 ? 0 : 77);
    }
    QList<int> statuses;
    connect(&worker, &TrackerWorker::processExited, this, [&statuses](pid_t reported, int status) {
        statuses << status;
        ::kill(reported, SIGKILL);
    });
    const int stopped = 0x7f | SIGSTOP << 8;
    QTest::ignoreMessage(
        QtWarningMsg,
        qPrintable(QStringLiteral("Unexpected status change %1 from process %2").arg(stopped).arg(pid)));
    worker.waitForChildren();
    if (statuses == QList<int> { 77 << 8 }) {
        QSKIP("Tracing is not allowed here");
    }
    QCOMPARE(statuses, (QList<int> { stopped, 9 }));
}

void TestTrackerWorker::interruptedWaitIsTakenUpAgain()
{
    QCOMPARE(::pipe(releasePipe), 0);
    const pid_t pid = ::fork();
    if (pid == 0) {
        char byte;
        ::_exit(::read(releasePipe[0], &byte, 1) == 1 ? 0 : 1);
    }
    // The child goes on only from the handler, so the wait is interrupted before the child ends.
    const Disposition handler(SIGALRM, &releaseChild);
    const itimerval soon = { { 0, 0 }, { 0, 20000 } };
    ::setitimer(ITIMER_REAL, &soon, nullptr);
    TrackerWorker worker;
    worker.waitForChildren();
    ::close(releasePipe[0]);
    ::close(releasePipe[1]);
    // It came back for the child instead of ending with the interruption.
    QVERIFY(hasNoChild());
}

void TestTrackerWorker::childReapedUnderAStaleInterruptionIsNotReported()
{
    TrackerWorker worker;
    const QSignalSpy exited(&worker, &TrackerWorker::processExited);
    startEnding(0);
    errno = EINTR;
    worker.waitForChildren();
    QCOMPARE(exited.count(), 0);
    QVERIFY(hasNoChild());
}

QTEST_GUILESS_MAIN(TestTrackerWorker)

#include "tst_tracker_worker.moc"
