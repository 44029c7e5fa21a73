#include "Core/process.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <csignal>

#include <sys/wait.h>
#include <unistd.h>

using Core::ApplicationState;
using Core::Process;
using Core::StopReason;

namespace {

constexpr int longTimeoutMs = 60 * 1000;

/// A child that leads its own process group and waits for signals.
class Child
{
public:
    enum OnSigTerm { Ends, Ignores };

    explicit Child(OnSigTerm onSigTerm)
    {
        // What comes before the child has its own disposition waits for it.
        sigset_t terminate, before;
        sigemptyset(&terminate);
        sigaddset(&terminate, SIGTERM);
        sigprocmask(SIG_BLOCK, &terminate, &before);
        m_pid = fork();
        if (m_pid == 0) {
            std::signal(SIGTERM, onSigTerm == Ignores ? SIG_IGN : SIG_DFL);
            sigprocmask(SIG_SETMASK, &before, nullptr);
            for (;;) {
                pause();
            }
        }
        setpgid(m_pid, m_pid);
        sigprocmask(SIG_SETMASK, &before, nullptr);
    }
    ~Child()
    {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    Q_DISABLE_COPY(Child)

    pid_t pid() const { return m_pid; }

    /// The number of the signal that ended it, or 0 while it lives.
    int endedBy()
    {
        int status = 0;
        if (m_pid > 0 && waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_pid = -1;
            m_signal = WIFSIGNALED(status) ? WTERMSIG(status) : -1;
        }
        return m_signal;
    }

private:
    pid_t m_pid = -1;
    int m_signal = 0;
};

const QString id = QStringLiteral("org.example.App");

} // namespace

class tst_Process : public QObject
{
    Q_OBJECT

private slots:
    void beginsLaunchedWithoutAStopReason();
    void unchangedStateIsNotSignalled();
    void terminationEndsTheGroupWithSigterm();
    void groupThatIgnoresSigtermIsKilledAfterTheTimeout();
    void timeoutEndsWithTheRecord();
    void groupThatIsGoneCountsAsTerminated();
    void signalThatCannotBeSentIsReported();
    void killEndsTheGroupAtOnce();
};

void tst_Process::beginsLaunchedWithoutAStopReason()
{
    const Process process(id, 4711);

    QCOMPARE(process.id(), id);
    QCOMPARE(process.pid(), 4711);
    QCOMPARE(process.state(), ApplicationState::Launched);
    QCOMPARE(process.stopReason(), StopReason::None);
}

void tst_Process::unchangedStateIsNotSignalled()
{
    Process process(id, 4711);
    const QSignalSpy changes(&process, &Process::stateChanged);

    process.setState(ApplicationState::Launched);
    QCOMPARE(changes.count(), 0);
    process.setState(ApplicationState::Hidden);
    process.setState(ApplicationState::Hidden);
    QCOMPARE(changes.count(), 1);
    QCOMPARE(changes.at(0).at(0).value<ApplicationState>(), ApplicationState::Hidden);
}

void tst_Process::terminationEndsTheGroupWithSigterm()
{
    Child child(Child::Ends);
    Process process(id, child.pid());

    QVERIFY(process.terminate(longTimeoutMs));
    QCOMPARE(process.state(), ApplicationState::Terminating);
    QTRY_COMPARE(child.endedBy(), SIGTERM);
}

void tst_Process::groupThatIgnoresSigtermIsKilledAfterTheTimeout()
{
    Child child(Child::Ignores);
    Process process(id, child.pid());

    QVERIFY(process.terminate(50));
    QCOMPARE(child.endedBy(), 0);
    QTRY_COMPARE(child.endedBy(), SIGKILL);
}

void tst_Process::timeoutEndsWithTheRecord()
{
    Child child(Child::Ignores);
    {
        Process process(id, child.pid());
        QVERIFY(process.terminate(1));
    }

    // A later timer fires after the one that must not.
    bool passed = false;
    QTimer::singleShot(50, this, [&passed] { passed = true; });
    QTRY_VERIFY(passed);
    QCOMPARE(child.endedBy(), 0);
}

void tst_Process::groupThatIsGoneCountsAsTerminated()
{
    Child child(Child::Ends);
    const pid_t pid = child.pid();
    ::kill(pid, SIGKILL);
    QTRY_COMPARE(child.endedBy(), SIGKILL);

    Process process(id, pid);
    QVERIFY(process.terminate(longTimeoutMs));
    QCOMPARE(process.state(), ApplicationState::Terminating);
}

void tst_Process::signalThatCannotBeSentIsReported()
{
    // Process 1 is nobody's child: it is refused without a call.
    Process process(id, 1);
    QTest::ignoreMessage(QtWarningMsg, "Cannot terminate \"org.example.App\" - errno: 22");
    QVERIFY(!process.terminate(longTimeoutMs));
    QCOMPARE(process.state(), ApplicationState::Terminating);

    QTest::ignoreMessage(QtWarningMsg, "Cannot kill \"org.example.App\" - errno: 22");
    process.kill();
}

void tst_Process::killEndsTheGroupAtOnce()
{
    Child child(Child::Ignores);
    Process process(id, child.pid());

    process.kill();
    QTRY_COMPARE(child.endedBy(), SIGKILL);
    QCOMPARE(process.state(), ApplicationState::Launched);
}

QTEST_GUILESS_MAIN(tst_Process)
#include "tst_process.moc"
