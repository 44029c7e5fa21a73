#include "Core/process_setup.h"

#include "child_fixture.h"
#include "child_stand_ins.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <fcntl.h>
#include <sys/resource.h>
#include <syslog.h>

using Core::ChildIPC;
using Core::ProcessSetup;

class TestProcessSetup : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void childBecomesLeaderAndRealUser();
    void refusedIdentityEndsTheChild_data();
    void refusedIdentityEndsTheChild();
    void refusedGroupEndsTheChild();
    void scoreIsWrittenBelowTheFakeRoot();
    void scoreIsWrittenToTheRealFileWithoutFakeRoot();
    void missingScoreFileLeavesTheScoreUnread();
    void refusedScoreIsAFailure();
    void scoreMessagesHaveTheirLayout();
    void scoreMessagesMayFillTheBuffer();
    void tooLongScoreMessageEndsTheChild_data();
    void tooLongScoreMessageEndsTheChild();
    void failedSendingOfTheScoreIsReported();
    void streamsGoToTheJournal();
    void withoutJournalTheStreamsStay();
    void longestIdentifierFits();
    void tooLongIdentifierEndsTheChild();
    void outputFilesReplaceTheStreams_data();
    void outputFilesReplaceTheStreams();
    void badOutputDescriptorIsAFailure_data();
    void badOutputDescriptorIsAFailure();
    void levelIsSetForTheGroup();
    void levelZeroAsksNothingOfTheSystem();
    void refusedLevelIsAFailureOnlyIfPositive_data();
    void refusedLevelIsAFailureOnlyIfPositive();
    void runningTimeIsLimited_data();
    void runningTimeIsLimited();
    void refusedRunningTimeIsAFailure();

private:
    QTemporaryDir m_root;
};

void TestProcessSetup::initTestCase()
{
    ::signal(SIGPIPE, SIG_IGN); // as the service does
    QVERIFY(m_root.isValid());
}

void TestProcessSetup::init()
{
    standIn = StandIn();
    qputenv("PROCWARDEN_ROOTFS", QFile::encodeName(m_root.path()));
}

void TestProcessSetup::childBecomesLeaderAndRealUser()
{
    const bool privileged = ::geteuid() == 0;
    CapturedChild child;
    const bool spawned = child.spawn([privileged](ChildIPC &ipc) {
        // As a program with set-user-id and set-group-id bits runs.
        if (privileged && (::setresgid(65534, 0, 0) == -1 || ::setresuid(65534, 0, 0) == -1)) {
            ChildIPC::die("setres[ug]id\n");
        }
        ProcessSetup::becomeRealUser(ipc);
    });
    QVERIFY(spawned);
    QVERIFY(child.exec({ "/bin/sh", "-c",
                         "while read key a b c d; do case $key in [UG]id:) echo $a $b $c;; esac; done"
                         " < /proc/self/status; echo $$; cut -d' ' -f5 /proc/$$/stat" }));
    const QByteArray pid = QByteArray::number(child.pid);
    const QByteArray uid = QByteArray::number(privileged ? 65534 : ::getuid());
    const QByteArray gid = QByteArray::number(privileged ? 65534 : ::getgid());
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.errors, QByteArray());
    QCOMPARE(outcome.output.trimmed().split('\n'),
             (QByteArrayList { uid + ' ' + uid + ' ' + uid, gid + ' ' + gid + ' ' + gid, pid, pid }));
}

void TestProcessSetup::refusedIdentityEndsTheChild_data()
{
    QTest::addColumn<QByteArray>("refused");
    QTest::newRow("group") << QByteArray("setregid");
    QTest::newRow("user") << QByteArray("setreuid");
}

void TestProcessSetup::refusedIdentityEndsTheChild()
{
    QFETCH(QByteArray, refused);
    standIn.refused = refused.constData();
    CapturedChild child;
    QVERIFY(child.spawn(&ProcessSetup::becomeRealUser));
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.errors, QByteArray("Could not change to real user/group\n"));
    QCOMPARE(outcome.status, W_EXITCODE(1, 0));
}

void TestProcessSetup::refusedGroupEndsTheChild()
{
    const Outcome outcome = runInFork([] {
        ::setsid(); // the leader of a session cannot change its group
        ChildIPC ipc(-1);
        ProcessSetup::becomeRealUser(ipc);
    });
    QCOMPARE(outcome.errors, QByteArray("Could not create process group\n"));
    QCOMPARE(outcome.status, W_EXITCODE(1, 0));
}

namespace {

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("no file");
}

QString scoreFile(const QString &root, pid_t pid)
{
    return QStringLiteral("%1/proc/%2/oom_score_adj").arg(root).arg(pid);
}

/// Ends the child with 0 after a step that succeeded, else with 3.
Core::ProcessSpawner::SetupChildCb exitWithResultOf(bool (*step)(ChildIPC &))
{
    return [step](ChildIPC &ipc) {
        ::_exit(step(ipc) ? 0 : 3);
    };
}

} // namespace

void TestProcessSetup::scoreIsWrittenBelowTheFakeRoot()
{
    CapturedChild child;
    QVERIFY(child.spawn([](ChildIPC &ipc) {
        if (!ProcessSetup::receiveOomScore(ipc)) {
            ChildIPC::die("receiveOomScore\n");
        }
    }));
    const QByteArray before = contentOf(scoreFile(QString(), child.pid));
    QVERIFY(ProcessSetup(child.spawner.get()).sendOomScore(child.pid, -100));
    QVERIFY(child.exec({ "/bin/cat", "/proc/self/oom_score_adj" }));
    const pid_t pid = child.pid;
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.errors, QByteArray());
    QCOMPARE(contentOf(scoreFile(m_root.path(), pid)), QByteArray("-100"));
    QCOMPARE(outcome.output, before);
    QVERIFY(before != "-100\n");
}

void TestProcessSetup::scoreIsWrittenToTheRealFileWithoutFakeRoot()
{
    qunsetenv("PROCWARDEN_ROOTFS");
    CapturedChild child;
    QVERIFY(child.spawn([](ChildIPC &ipc) {
        if (!ProcessSetup::receiveOomScore(ipc)) {
            ChildIPC::die("receiveOomScore\n");
        }
    }));
    // A higher score needs no privilege.
    QVERIFY(ProcessSetup(child.spawner.get()).sendOomScore(child.pid, 987));
    QVERIFY(child.exec({ "/bin/cat", "/proc/self/oom_score_adj" }));
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.errors, QByteArray());
    QCOMPARE(outcome.output, QByteArray("987\n"));
}

void TestProcessSetup::missingScoreFileLeavesTheScoreUnread()
{
    CapturedChild child;
    QVERIFY(child.spawn([](ChildIPC &ipc) {
        const bool received = ProcessSetup::receiveOomScore(ipc);
        char score[8];
        const size_t length = ipc.readBytes(score, sizeof(score));
        [[maybe_unused]] const ssize_t written = ::write(STDOUT_FILENO, score, length);
        ::_exit(received ? 0 : 3);
    }));
    const QByteArray path = QFile::encodeName(m_root.filePath(QStringLiteral("missing")));
    QVERIFY(child.spawner->sendBytes(path.constData(), path.size() + 1));
    QVERIFY(child.spawner->sendBytes("55", 2));
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.status, W_EXITCODE(3, 0));
    QCOMPARE(outcome.output, QByteArray("55"));
    QVERIFY(!QFile::exists(QFile::decodeName(path)));
}

void TestProcessSetup::refusedScoreIsAFailure()
{
    qunsetenv("PROCWARDEN_ROOTFS");
    CapturedChild child;
    QVERIFY(child.spawn(exitWithResultOf(&ProcessSetup::receiveOomScore)));
    QVERIFY(ProcessSetup(child.spawner.get()).sendOomScore(child.pid, 1001)); // out of the kernel's range
    QCOMPARE(child.wait().status, W_EXITCODE(3, 0));
}

void TestProcessSetup::scoreMessagesHaveTheirLayout()
{
    CapturedChild child;
    QVERIFY(child.spawn([](ChildIPC &ipc) {
        char buffer[1024];
        for (int i = 0; i < 2; ++i) {
            const size_t length = ipc.readBytes(buffer, sizeof(buffer));
            if (::write(STDOUT_FILENO, buffer, length) != static_cast<ssize_t>(length)) {
                ChildIPC::die("write\n");
            }
        }
        ::_exit(0);
    }));
    QVERIFY(ProcessSetup(child.spawner.get()).sendOomScore(child.pid, -7));
    // The path has its NUL, the score has none. The file is made in the parent.
    const QString path = scoreFile(m_root.path(), child.pid);
    QVERIFY(QFile::exists(path));
    QCOMPARE(child.wait().output, QFile::encodeName(path) + '\0' + "-7");
}

void TestProcessSetup::scoreMessagesMayFillTheBuffer()
{
    const QByteArray root = QFile::encodeName(m_root.path()) + '/';
    QByteArray path = root;
    while (path.size() < 1000) {
        path += "12345678/";
    }
    path += QByteArray(1023 - path.size(), 'f');
    QVERIFY(QDir().mkpath(QFileInfo(QFile::decodeName(path)).path()));
    QVERIFY(QFile(QFile::decodeName(path)).open(QIODevice::WriteOnly));
    const QByteArray score(1024, '1');

    CapturedChild child;
    QVERIFY(child.spawn(exitWithResultOf(&ProcessSetup::receiveOomScore)));
    QVERIFY(child.spawner->sendBytes(path.constData(), 1024));
    QVERIFY(child.spawner->sendBytes(score.constData(), 1024));
    QCOMPARE(child.wait().status, 0);
    QCOMPARE(contentOf(QFile::decodeName(path)), score);
}

void TestProcessSetup::tooLongScoreMessageEndsTheChild_data()
{
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<QByteArray>("score");
    QTest::newRow("path") << QByteArray(1025, '/') << QByteArray("1");
    QTest::newRow("score") << QByteArray("/dev/null\0", 10) << QByteArray(1025, '1');
}

void TestProcessSetup::tooLongScoreMessageEndsTheChild()
{
    QFETCH(QByteArray, path);
    QFETCH(QByteArray, score);
    CapturedChild child;
    QVERIFY(child.spawn(exitWithResultOf(&ProcessSetup::receiveOomScore)));
    QVERIFY(child.spawner->sendBytes(path.constData(), path.size()));
    static_cast<void>(child.spawner->sendBytes(score.constData(), score.size()));
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.errors, QByteArray("Buffer too small\n"));
    QCOMPARE(outcome.status, W_EXITCODE(1, 0));
}

void TestProcessSetup::failedSendingOfTheScoreIsReported()
{
    CapturedChild child;
    QVERIFY(child.spawn([](ChildIPC &) { ::_exit(0); }));
    QVERIFY(waitUntilDead(child.pid));
    ProcessSetup setup(child.spawner.get());
    QTest::ignoreMessage(QtWarningMsg, "Error sending OOM data to child process");
    QVERIFY(!setup.sendOomScore(child.pid, 0));
    // The others only say so.
    QVERIFY(!setup.sendJournalIdentifier(QStringLiteral("org.example.Notes")));
    QVERIFY(!setup.sendOutputFds(-1, -1));
    QVERIFY(!setup.sendNiceLevel(0));
    QVERIFY(!setup.sendMaxRunningTime(-1));
}

namespace {

const QByteArrayList speakOnBothStreams { "/bin/sh", "-c", "echo out; echo err >&2" };

} // namespace

void TestProcessSetup::streamsGoToTheJournal()
{
    const MemoryFile journal;
    const MemoryFile call;
    standIn.journal = journal.fd();
    standIn.journalCall = call.fd();
    CapturedChild child;
    QVERIFY(child.spawn([](ChildIPC &ipc) {
        ProcessSetup::receiveJournalIdentifier(ipc);
        if (::fcntl(100, F_GETFD) != -1) {
            ChildIPC::die("the stream's own descriptor is open\n");
        }
    }));
    QVERIFY(ProcessSetup(child.spawner.get()).sendJournalIdentifier(QStringLiteral("org.example.N\u00e4he")));
    QVERIFY(child.exec(speakOnBothStreams));
    const Outcome outcome = child.wait();
    QCOMPARE(call.content(), QByteArray("org.example.N\xc3\xa4he|6|0"));
    QCOMPARE(LOG_INFO, 6);
    QCOMPARE(journal.content(), QByteArray("out\nerr\n"));
    QCOMPARE(outcome.output, QByteArray());
    QCOMPARE(outcome.errors, QByteArray());
    QCOMPARE(outcome.status, 0);
}

void TestProcessSetup::withoutJournalTheStreamsStay()
{
    CapturedChild child;
    QVERIFY(child.spawn(&ProcessSetup::receiveJournalIdentifier));
    QVERIFY(ProcessSetup(child.spawner.get()).sendJournalIdentifier(QStringLiteral("org.example.Notes")));
    QVERIFY(child.exec(speakOnBothStreams));
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.output, QByteArray("out\n"));
    QCOMPARE(outcome.errors, QByteArray("err\n"));
    QCOMPARE(outcome.status, 0);
}

void TestProcessSetup::longestIdentifierFits()
{
    const MemoryFile journal;
    const MemoryFile call;
    standIn.journal = journal.fd();
    standIn.journalCall = call.fd();
    CapturedChild child;
    QVERIFY(child.spawn(&ProcessSetup::receiveJournalIdentifier));
    const QString longest(255, QLatin1Char('a'));
    QVERIFY(ProcessSetup(child.spawner.get()).sendJournalIdentifier(longest));
    QVERIFY(child.exec({ "/bin/true" }));
    QCOMPARE(child.wait().status, 0);
    QCOMPARE(call.content(), longest.toUtf8() + "|6|0");
}

void TestProcessSetup::tooLongIdentifierEndsTheChild()
{
    CapturedChild child;
    QVERIFY(child.spawn(&ProcessSetup::receiveJournalIdentifier));
    QVERIFY(ProcessSetup(child.spawner.get()).sendJournalIdentifier(QString(256, QLatin1Char('a'))));
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.errors, QByteArray("Buffer too small\n"));
    QCOMPARE(outcome.status, W_EXITCODE(1, 0));
}

void TestProcessSetup::outputFilesReplaceTheStreams_data()
{
    QTest::addColumn<bool>("outGiven");
    QTest::addColumn<bool>("errGiven");
    QTest::newRow("none") << false << false;
    QTest::newRow("standard output") << true << false;
    QTest::newRow("standard error") << false << true;
    QTest::newRow("both") << true << true;
}

void TestProcessSetup::outputFilesReplaceTheStreams()
{
    QFETCH(bool, outGiven);
    QFETCH(bool, errGiven);
    const MemoryFile out; // close-on-exec, as the files of the launcher are
    const MemoryFile err;
    CapturedChild child;
    QVERIFY(child.spawn([](ChildIPC &ipc) {
        if (!ProcessSetup::receiveOutputFds(ipc)) {
            ChildIPC::die("receiveOutputFds\n");
        }
    }));
    QVERIFY(
        ProcessSetup(child.spawner.get()).sendOutputFds(outGiven ? out.fd() : -1, errGiven ? err.fd() : -1));
    QVERIFY(child.exec(speakOnBothStreams));
    const Outcome outcome = child.wait();
    QCOMPARE(outGiven ? out.content() : outcome.output, QByteArray("out\n"));
    QCOMPARE(errGiven ? err.content() : outcome.errors, QByteArray("err\n"));
    QCOMPARE(outGiven ? outcome.output : out.content(), QByteArray());
    QCOMPARE(errGiven ? outcome.errors : err.content(), QByteArray());
}

void TestProcessSetup::badOutputDescriptorIsAFailure_data()
{
    QTest::addColumn<int>("out");
    QTest::addColumn<int>("err");
    QTest::newRow("standard output") << 999999 << -1;
    QTest::newRow("standard error") << -1 << 999999;
}

void TestProcessSetup::badOutputDescriptorIsAFailure()
{
    QFETCH(int, out);
    QFETCH(int, err);
    CapturedChild child;
    QVERIFY(child.spawn(exitWithResultOf(&ProcessSetup::receiveOutputFds)));
    QVERIFY(ProcessSetup(child.spawner.get()).sendOutputFds(out, err));
    QCOMPARE(child.wait().status, W_EXITCODE(3, 0));
}

void TestProcessSetup::levelIsSetForTheGroup()
{
    const int inherited = ::getpriority(PRIO_PROCESS, 0);
    const int level = std::min(inherited + 3, 19);
    CapturedChild child;
    QVERIFY(child.spawn([level](ChildIPC &ipc) {
        ProcessSetup::becomeRealUser(ipc); // the member is born into the child's own group
        const pid_t member = ::fork();
        if (member == 0) {
            ::pause();
            ::_exit(1);
        }
        const bool received = ProcessSetup::receiveNiceLevel(ipc);
        const bool set = ::getpriority(PRIO_PROCESS, 0) == level
            && ::getpriority(PRIO_PROCESS, static_cast<id_t>(member)) == level;
        ::kill(member, SIGKILL);
        ::_exit(received && set ? 0 : 3);
    }));
    QVERIFY(ProcessSetup(child.spawner.get()).sendNiceLevel(level));
    QCOMPARE(child.wait().status, 0);
}

void TestProcessSetup::levelZeroAsksNothingOfTheSystem()
{
    standIn.refused = "setpriority";
    const int inherited = ::getpriority(PRIO_PROCESS, 0);
    CapturedChild child;
    QVERIFY(child.spawn([inherited](ChildIPC &ipc) {
        ::syscall(SYS_setpriority, PRIO_PROCESS, 0, inherited + 1);
        const bool received = ProcessSetup::receiveNiceLevel(ipc);
        ::_exit(received && ::getpriority(PRIO_PROCESS, 0) == inherited + 1 ? 0 : 3);
    }));
    QVERIFY(ProcessSetup(child.spawner.get()).sendNiceLevel(0));
    QCOMPARE(child.wait().status, 0);
}

void TestProcessSetup::refusedLevelIsAFailureOnlyIfPositive_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<int>("status");
    QTest::newRow("positive") << 5 << W_EXITCODE(3, 0);
    QTest::newRow("negative") << -5 << 0;
}

void TestProcessSetup::refusedLevelIsAFailureOnlyIfPositive()
{
    QFETCH(int, level);
    QFETCH(int, status);
    standIn.refused = "setpriority";
    CapturedChild child;
    QVERIFY(child.spawn(exitWithResultOf(&ProcessSetup::receiveNiceLevel)));
    QVERIFY(ProcessSetup(child.spawner.get()).sendNiceLevel(level));
    QCOMPARE(child.wait().status, status);
}

void TestProcessSetup::runningTimeIsLimited_data()
{
    QTest::addColumn<int>("seconds");
    rlimit own;
    QCOMPARE(::getrlimit(RLIMIT_CPU, &own), 0);
    QTest::addColumn<quint64>("soft");
    QTest::addColumn<quint64>("hard");
    QTest::newRow("ten seconds") << 10 << quint64(10) << quint64(12);
    QTest::newRow("zero is a limit") << 0 << quint64(0) << quint64(2);
    QTest::newRow("largest") << std::numeric_limits<int>::max() << quint64(2147483647) << quint64(2147483649);
    QTest::newRow("negative is none") << -1 << quint64(own.rlim_cur) << quint64(own.rlim_max);
}

void TestProcessSetup::runningTimeIsLimited()
{
    QFETCH(int, seconds);
    QFETCH(quint64, soft);
    QFETCH(quint64, hard);
    CapturedChild child;
    QVERIFY(child.spawn([](ChildIPC &ipc) {
        rlimit limit = {};
        if (!ProcessSetup::receiveMaxRunningTime(ipc) || ::getrlimit(RLIMIT_CPU, &limit) == -1) {
            ChildIPC::die("receiveMaxRunningTime\n");
        }
        const quint64 limits[] = { limit.rlim_cur, limit.rlim_max };
        [[maybe_unused]] const ssize_t written = ::write(STDOUT_FILENO, limits, sizeof(limits));
        ::_exit(0);
    }));
    QVERIFY(ProcessSetup(child.spawner.get()).sendMaxRunningTime(seconds));
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.errors, QByteArray());
    QCOMPARE(outcome.output.size(), 16);
    quint64 limits[2];
    ::memcpy(limits, outcome.output.constData(), sizeof(limits));
    if (seconds == 0 && limits[0] == 1) {
        limits[0] = 0; // some kernels keep a soft limit of zero as one second
    }
    QCOMPARE(limits[0], soft);
    QCOMPARE(limits[1], hard);
}

void TestProcessSetup::refusedRunningTimeIsAFailure()
{
    const bool privileged = ::geteuid() == 0;
    CapturedChild child;
    QVERIFY(child.spawn([privileged](ChildIPC &ipc) {
        const rlimit low = { 1, 1 };
        if (::setrlimit(RLIMIT_CPU, &low) == -1 || (privileged && ::setresuid(65534, 65534, 65534) == -1)) {
            ChildIPC::die("setrlimit\n");
        }
        ::_exit(ProcessSetup::receiveMaxRunningTime(ipc) ? 0 : 3);
    }));
    QVERIFY(ProcessSetup(child.spawner.get()).sendMaxRunningTime(100));
    QCOMPARE(child.wait().status, W_EXITCODE(3, 0));
}

QTEST_GUILESS_MAIN(TestProcessSetup)

#include "tst_process_setup.moc"
