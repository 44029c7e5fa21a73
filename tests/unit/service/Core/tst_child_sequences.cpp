// The whole way of a child, with the steps in the order in which the launchers take them: an application,
// and a background task.

#include "Core/process_setup.h"

#include "child_fixture.h"
#include "child_stand_ins.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <fcntl.h>

using Core::ChildIPC;
using Core::ProcessSetup;

namespace {

const QString identifier = QStringLiteral("org.example.Notes");
const QByteArray noScore("Could not set OOM score\n");

void setupApplication(ChildIPC &ipc)
{
    ProcessSetup::becomeRealUser(ipc);
    if (!ProcessSetup::receiveOomScore(ipc)) {
        ChildIPC::die("Could not set OOM score\n");
    }
    ProcessSetup::receiveJournalIdentifier(ipc);
    if (!ProcessSetup::receiveOutputFds(ipc)) {
        ChildIPC::die("Could not redirect stdout/stderr\n");
    }
}

void setupTask(ChildIPC &ipc)
{
    ProcessSetup::becomeRealUser(ipc);
    if (!ProcessSetup::receiveOomScore(ipc)) {
        ChildIPC::die("Could not set OOM score\n");
    }
    if (!ProcessSetup::receiveNiceLevel(ipc)) {
        ChildIPC::die("Could not set nice level\n");
    }
    if (!ProcessSetup::receiveMaxRunningTime(ipc)) {
        ChildIPC::die("Could not set max running time\n");
    }
    ProcessSetup::receiveJournalIdentifier(ipc);
}

bool sendApplication(CapturedChild &child, int out, int err)
{
    ProcessSetup setup(child.spawner.get());
    return setup.sendOomScore(child.pid, -100) && setup.sendJournalIdentifier(identifier)
        && setup.sendOutputFds(out, err);
}

bool sendTask(CapturedChild &child, int level, int seconds)
{
    ProcessSetup setup(child.spawner.get());
    return setup.sendOomScore(child.pid, 300) && setup.sendNiceLevel(level)
        && setup.sendMaxRunningTime(seconds) && setup.sendJournalIdentifier(identifier);
}

const QByteArrayList speakOnBothStreams { "/bin/sh", "-c", "echo $WORD; echo err >&2" };
const QByteArrayList environment { "WORD=out" };

} // namespace

class TestChildSequences : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void applicationSpeaksToTheJournal();
    void outputFileReplacesTheJournalOfItsStreamOnly_data();
    void outputFileReplacesTheJournalOfItsStreamOnly();
    void applicationWithoutJournalStarts();
    void applicationWithoutScoreFileEnds();
    void applicationWithBadOutputFileEnds();
    void taskHasItsLevelLimitScoreAndJournal();
    void taskWithRefusedNegativeLevelStarts();
    void taskWithoutScoreFileEnds();
    void taskWithRefusedLevelEnds();
    void taskWithRefusedLimitEnds();
    void childAbandonedAfterItsSetupEnds();

private:
    QByteArray scoreOf(pid_t pid) const;
    void hideScoreFiles();

    std::unique_ptr<QTemporaryDir> m_root;
    std::unique_ptr<MemoryFile> m_journal;
    std::unique_ptr<MemoryFile> m_journalCall;
};

void TestChildSequences::initTestCase()
{
    ::signal(SIGPIPE, SIG_IGN); // as the service does
}

void TestChildSequences::init()
{
    m_root = std::make_unique<QTemporaryDir>();
    QVERIFY(m_root->isValid());
    qputenv("PROCWARDEN_ROOTFS", QFile::encodeName(m_root->path()));
    m_journal = std::make_unique<MemoryFile>();
    m_journalCall = std::make_unique<MemoryFile>();
    standIn = StandIn();
    standIn.journal = m_journal->fd();
    standIn.journalCall = m_journalCall->fd();
}

QByteArray TestChildSequences::scoreOf(pid_t pid) const
{
    QFile file(m_root->filePath(QStringLiteral("proc/%1/oom_score_adj").arg(pid)));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("no file");
}

/// Neither the service nor a child finds a directory where the score files are.
void TestChildSequences::hideScoreFiles()
{
    QVERIFY(QFile(m_root->filePath(QStringLiteral("proc"))).open(QIODevice::WriteOnly));
}

void TestChildSequences::applicationSpeaksToTheJournal()
{
    CapturedChild child;
    QVERIFY(child.spawn(&setupApplication));
    QVERIFY(sendApplication(child, -1, -1));
    QVERIFY(child.exec(speakOnBothStreams, environment));
    const pid_t pid = child.pid;
    const Outcome outcome = child.wait();
    QCOMPARE(m_journalCall->content(), QByteArray("org.example.Notes|6|0"));
    QCOMPARE(m_journal->content(), QByteArray("out\nerr\n"));
    QCOMPARE(scoreOf(pid), QByteArray("-100"));
    QCOMPARE(outcome.output + outcome.errors, QByteArray());
    QCOMPARE(outcome.status, 0);
}

void TestChildSequences::outputFileReplacesTheJournalOfItsStreamOnly_data()
{
    QTest::addColumn<bool>("outGiven");
    QTest::addColumn<bool>("errGiven");
    QTest::addColumn<QByteArray>("journal");
    QTest::newRow("standard output") << true << false << QByteArray("err\n");
    QTest::newRow("standard error") << false << true << QByteArray("out\n");
    QTest::newRow("both") << true << true << QByteArray();
}

void TestChildSequences::outputFileReplacesTheJournalOfItsStreamOnly()
{
    QFETCH(bool, outGiven);
    QFETCH(bool, errGiven);
    QFETCH(QByteArray, journal);
    const MemoryFile out;
    const MemoryFile err;
    CapturedChild child;
    QVERIFY(child.spawn(&setupApplication));
    QVERIFY(sendApplication(child, outGiven ? out.fd() : -1, errGiven ? err.fd() : -1));
    QVERIFY(child.exec(speakOnBothStreams, environment));
    QCOMPARE(child.wait().status, 0);
    QCOMPARE(out.content(), QByteArray(outGiven ? "out\n" : ""));
    QCOMPARE(err.content(), QByteArray(errGiven ? "err\n" : ""));
    QCOMPARE(m_journal->content(), journal);
}

void TestChildSequences::applicationWithoutJournalStarts()
{
    standIn.journal = -1;
    CapturedChild child;
    QVERIFY(child.spawn(&setupApplication));
    QVERIFY(sendApplication(child, -1, -1));
    QVERIFY(child.exec(speakOnBothStreams, environment));
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.output, QByteArray("out\n"));
    QCOMPARE(outcome.errors, QByteArray("err\n"));
    QCOMPARE(outcome.status, 0);
}

void TestChildSequences::applicationWithoutScoreFileEnds()
{
    hideScoreFiles();
    CapturedChild child;
    QVERIFY(child.spawn(&setupApplication));
    static_cast<void>(sendApplication(child, -1, -1));
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.errors, noScore);
    QCOMPARE(outcome.status, W_EXITCODE(1, 0));
}

void TestChildSequences::applicationWithBadOutputFileEnds()
{
    CapturedChild child;
    QVERIFY(child.spawn(&setupApplication));
    QVERIFY(sendApplication(child, 999999, -1));
    QCOMPARE(child.wait().status, W_EXITCODE(1, 0));
    // By then the journal has the standard error.
    QCOMPARE(m_journal->content(), QByteArray("Could not redirect stdout/stderr\n"));
}

void TestChildSequences::taskHasItsLevelLimitScoreAndJournal()
{
    const int level = std::min(::getpriority(PRIO_PROCESS, 0) + 4, 19);
    CapturedChild child;
    QVERIFY(child.spawn(&setupTask));
    QVERIFY(sendTask(child, level, 30));
    QVERIFY(child.exec({ "/bin/sh", "-c", "nice; ulimit -St; ulimit -Ht; cut -d' ' -f5 /proc/$$/stat" },
                       { "PATH=/usr/bin:/bin" }));
    const pid_t pid = child.pid;
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.status, 0);
    QCOMPARE(m_journal->content(), QByteArray::number(level) + "\n30\n32\n" + QByteArray::number(pid) + '\n');
    QCOMPARE(m_journalCall->content(), QByteArray("org.example.Notes|6|0"));
    QCOMPARE(scoreOf(pid), QByteArray("300"));
}

void TestChildSequences::taskWithRefusedNegativeLevelStarts()
{
    standIn.refused = "setpriority";
    CapturedChild child;
    QVERIFY(child.spawn(&setupTask));
    QVERIFY(sendTask(child, -5, -1));
    QVERIFY(child.exec(speakOnBothStreams, environment));
    QCOMPARE(child.wait().status, 0);
    QCOMPARE(m_journal->content(), QByteArray("out\nerr\n"));
}

void TestChildSequences::taskWithoutScoreFileEnds()
{
    hideScoreFiles();
    CapturedChild child;
    QVERIFY(child.spawn(&setupTask));
    static_cast<void>(sendTask(child, 0, -1));
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.errors, noScore);
    QCOMPARE(outcome.status, W_EXITCODE(1, 0));
}

void TestChildSequences::taskWithRefusedLevelEnds()
{
    standIn.refused = "setpriority";
    CapturedChild child;
    QVERIFY(child.spawn(&setupTask));
    static_cast<void>(sendTask(child, 5, -1));
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.errors, QByteArray("Could not set nice level\n"));
    QCOMPARE(outcome.status, W_EXITCODE(1, 0));
}

void TestChildSequences::taskWithRefusedLimitEnds()
{
    const bool privileged = ::geteuid() == 0;
    CapturedChild child;
    QVERIFY(child.spawn([privileged](ChildIPC &ipc) {
        const rlimit low = { 1, 1 };
        if (::setrlimit(RLIMIT_CPU, &low) == -1 || (privileged && ::setresuid(65534, 65534, 65534) == -1)) {
            ChildIPC::die("setrlimit\n");
        }
        setupTask(ipc);
    }));
    // The child is another user by now: let it reach its score file.
    QVERIFY(QFile(m_root->path()).setPermissions(QFile::Permissions(0x7777)));
    const QString score = m_root->filePath(QStringLiteral("proc/%1/oom_score_adj").arg(child.pid));
    QVERIFY(QDir(m_root->path()).mkpath(QFileInfo(score).path()));
    QVERIFY(QFile(score).open(QIODevice::WriteOnly));
    QVERIFY(QFile(score).setPermissions(QFile::Permissions(0x6666)));

    static_cast<void>(sendTask(child, 0, 100));
    const Outcome outcome = child.wait();
    QCOMPARE(outcome.errors, QByteArray("Could not set max running time\n"));
    QCOMPARE(outcome.status, W_EXITCODE(1, 0));
}

void TestChildSequences::childAbandonedAfterItsSetupEnds()
{
    CapturedChild child;
    QVERIFY(child.spawn(&setupApplication));
    QVERIFY(sendApplication(child, -1, -1));
    child.spawner.reset();
    QCOMPARE(child.wait().status, W_EXITCODE(1, 0));
    // It waited for its environment, with its errors on the journal.
    QCOMPARE(m_journal->content(), QByteArray("Coudn't read number of variables\n"));
}

QTEST_GUILESS_MAIN(TestChildSequences)

#include "tst_child_sequences.moc"
