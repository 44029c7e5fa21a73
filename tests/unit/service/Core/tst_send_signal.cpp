#include "Core/send_signal.h"

#include "child_fixture.h"

#include <QtTest>

#include <cerrno>

#include <dlfcn.h>

namespace {

int systemCalls = 0;

} // namespace

/// Stands before the C library's, to see which calls are made.
extern "C" int kill(pid_t pid, int signal) noexcept
{
    ++systemCalls;
    static const auto original = reinterpret_cast<int (*)(pid_t, int)>(::dlsym(RTLD_NEXT, "kill"));
    return original(pid, signal);
}

class TestSendSignal : public QObject
{
    Q_OBJECT

private slots:
    void pidsThatDoNotNameOneProcessAreRefused_data();
    void pidsThatDoNotNameOneProcessAreRefused();
    void processAloneIsSignalled();
    void everyProcessOfTheGroupIsSignalled();
    void missingTargetIsReported();
    void signalZeroOnlyAsks();
};

void TestSendSignal::pidsThatDoNotNameOneProcessAreRefused_data()
{
    QTest::addColumn<int>("pid");
    QTest::newRow("init") << 1;
    QTest::newRow("own group") << 0;
    QTest::newRow("everybody") << -1;
    QTest::newRow("a group by its negative number") << -12345;
    QTest::newRow("the service itself") << int(::getpid());
    QTest::newRow("smallest number") << std::numeric_limits<int>::min();
}

void TestSendSignal::pidsThatDoNotNameOneProcessAreRefused()
{
    QFETCH(int, pid);
    systemCalls = 0;
    QCOMPARE(Core::sendSignal(pid, Core::SignalTarget::Process, 0), EINVAL);
    QCOMPARE(Core::sendSignal(pid, Core::SignalTarget::Group, 0), EINVAL);
    QCOMPARE(systemCalls, 0);
}

namespace {

struct Family
{
    pid_t leader = -1;
    pid_t member = -1;
};

/// A group leader with a child of its own in the group; both wait for a signal.
Family startFamily()
{
    int fds[2];
    if (::pipe(fds) != 0) {
        return {};
    }
    Family family;
    family.leader = ::fork();
    if (family.leader == 0) {
        ::setpgid(0, 0);
        const pid_t member = ::fork();
        if (member != 0) {
            [[maybe_unused]] const ssize_t written = ::write(fds[1], &member, sizeof(member));
        }
        while (true) {
            ::pause();
        }
    }
    if (::read(fds[0], &family.member, sizeof(family.member)) != sizeof(family.member)) {
        family.member = -1;
    }
    ::close(fds[0]);
    ::close(fds[1]);
    return family;
}

} // namespace

void TestSendSignal::processAloneIsSignalled()
{
    const Family family = startFamily();
    QVERIFY(family.member > 1);
    QCOMPARE(Core::sendSignal(family.leader, Core::SignalTarget::Process, SIGKILL), 0);
    QCOMPARE(waitForChild(family.leader), SIGKILL);
    // The rest of the group still runs: it takes the signal that it would not take were it dead.
    QCOMPARE(Core::sendSignal(family.leader, Core::SignalTarget::Group, SIGKILL), 0);
    QVERIFY(waitUntilDead(family.member));
}

void TestSendSignal::everyProcessOfTheGroupIsSignalled()
{
    const Family family = startFamily();
    QVERIFY(family.member > 1);
    QCOMPARE(Core::sendSignal(family.leader, Core::SignalTarget::Group, SIGKILL), 0);
    QVERIFY(waitUntilDead(family.member));
    QCOMPARE(waitForChild(family.leader), SIGKILL);
}

void TestSendSignal::missingTargetIsReported()
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::_exit(0);
    }
    waitForChild(pid);
    QCOMPARE(Core::sendSignal(pid, Core::SignalTarget::Process, SIGTERM), ESRCH);
    QCOMPARE(Core::sendSignal(pid, Core::SignalTarget::Group, SIGTERM), ESRCH);
}

void TestSendSignal::signalZeroOnlyAsks()
{
    const Family family = startFamily();
    QVERIFY(family.member > 1);
    QCOMPARE(Core::sendSignal(family.member, Core::SignalTarget::Process, 0), 0);
    QCOMPARE(Core::sendSignal(family.leader, Core::SignalTarget::Group, 0), 0);
    QCOMPARE(::waitpid(family.leader, nullptr, WNOHANG), 0);
    QCOMPARE(Core::sendSignal(family.leader, Core::SignalTarget::Group, SIGKILL), 0);
    QCOMPARE(waitForChild(family.leader), SIGKILL);
}

QTEST_GUILESS_MAIN(TestSendSignal)

#include "tst_send_signal.moc"
