#include "Core/candidate.h"
#include "Core/oom_controller.h"

#include "support/cgroup_tree.h"
#include "support/log_capture.h"

#include <QFile>
#include <QTest>

#include <memory>

#include <unistd.h>

using Core::Candidate;
using Core::OomController;
using TestSupport::CGroupTree;
using TestSupport::LogCapture;

namespace {

constexpr pid_t leader = 5000; // of the group whose files the tests make

QString notReadable(const QString &path)
{
    return QStringLiteral("Failed to open \"%1\"").arg(path);
}

/// A process and what the kernel says about it; a null text: there is no such file.
struct Member
{
    pid_t pid;
    QByteArray scoreAdj;
};

} // namespace

Q_DECLARE_METATYPE(QVector<Member>)

class tst_OomControllerScores : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void theOneToKillIsTheVolunteer_data();
    void theOneToKillIsTheVolunteer();
    void thousandsOfMembersAreRead();
    void groupThatCannotBeReadLeavesTheLeader_data();
    void groupThatCannotBeReadLeavesTheLeader();
    void groupFilesThatOpenAndCannotBeReadLeaveTheLeader_data();
    void groupFilesThatOpenAndCannotBeReadLeaveTheLeader();
    void scoresOfTheLeaderAreRead();
    void unreadableScoresExclude_data();
    void unreadableScoresExclude();

    void integerIsReadFromAFile_data();
    void integerIsReadFromAFile();
    void missingIntegerFileIsWarnedAbout();
    void unreadablePathsAreNoIntegers_data();
    void unreadablePathsAreNoIntegers();

private:
    void setProcess(pid_t pid, const char *file, const QByteArray &content);
    void setGroup(const QByteArray &members);

    std::unique_ptr<CGroupTree> m_tree;
};

void tst_OomControllerScores::init()
{
    qunsetenv("PROCWARDEN_OOM_DEBUG");
    m_tree = std::make_unique<CGroupTree>();
    m_tree->use();
}

void tst_OomControllerScores::cleanup()
{
    m_tree.reset();
}

void tst_OomControllerScores::setProcess(pid_t pid, const char *file, const QByteArray &content)
{
    m_tree->write(QStringLiteral("proc/%1/%2").arg(pid).arg(QLatin1String(file)), content);
}

/// Puts the leader in a group with these members, which should hold itself.
void tst_OomControllerScores::setGroup(const QByteArray &members)
{
    setProcess(leader, "cgroup", "3:memory:/group\n");
    setProcess(leader, "oom_score", "400\n");
    m_tree->write(QStringLiteral("sys/fs/cgroup/memory/group/cgroup.procs"), members);
}

void tst_OomControllerScores::theOneToKillIsTheVolunteer_data()
{
    QTest::addColumn<QVector<Member>>("members");
    QTest::addColumn<int>("chosen");

    const auto row = [](const char *name, const QVector<Member> &members, pid_t chosen) {
        QTest::newRow(name) << members << int(chosen);
    };
    const pid_t service = ::getpid();
    row("alone", { { leader, "0" } }, leader);
    row("alone with an offer", { { leader, "500" } }, leader);
    row("all at 0", { { leader, "0" }, { 5001, "0" }, { 5002, "0" } }, leader);
    row("all at 500", { { leader, "500" }, { 5001, "500" }, { 5002, "500" } }, leader);
    row("all protected", { { leader, "-100" }, { 5001, "-100" } }, leader);
    row("protected to different degrees", { { leader, "-100" }, { 5001, "-50" } }, leader);
    row("a child offers itself", { { leader, "0" }, { 5001, "300" } }, 5001);
    row("of two children the one that offers more", { { leader, "0" }, { 5001, "300" }, { 5002, "400" } },
        5002);
    row("of two alike the one with the lower pid", { { leader, "0" }, { 5002, "300" }, { 5001, "300" } },
        5001);
    row("a child of a protected leader", { { leader, "-100" }, { 5001, "300" } }, 5001);
    row("no offer beside a protected leader", { { leader, "-100" }, { 5001, "0" } }, leader);
    row("leader at 0, a protected child", { { leader, "0" }, { 5001, "-100" } }, leader);
    row("leader and a lower pid at 0, a protected child",
        { { 4000, "0" }, { leader, "0" }, { 5001, "-100" } }, leader);
    row("leader offers most", { { leader, "500" }, { 5001, "300" } }, leader);
    row("extremes", { { leader, "-1000" }, { 5001, "1000" } }, 5001);
    // It is about to end, and whose group that is nobody knows.
    row("leader is not listed", { { 5001, "300" }, { 5002, "0" } }, leader);
    row("a member that has gone", { { leader, "0" }, { 5001, QByteArray() }, { 5002, "300" } }, 5002);
    row("all others have gone", { { leader, "0" }, { 5001, QByteArray() } }, leader);
    row("no number", { { leader, "0" }, { 5001, "much" }, { 5002, "" } }, leader);
    row("beyond an int", { { leader, "0" }, { 5001, "99999999999" } }, leader);
    row("pid 0", { { leader, "0" }, { 0, "1000" } }, leader);
    row("pid 1", { { leader, "0" }, { 1, "1000" } }, leader);
    row("a negative pid", { { leader, "0" }, { -5001, "1000" } }, leader);
    row("the service itself", { { leader, "0" }, { service, "1000" } }, leader);
    row("all of these beside a true one",
        { { leader, "0" }, { 0, "1000" }, { 1, "1000" }, { service, "1000" }, { 5001, "1" } }, 5001);
}

void tst_OomControllerScores::theOneToKillIsTheVolunteer()
{
    QFETCH(QVector<Member>, members);
    QByteArray pids;
    setProcess(leader, "oom_score_adj", "0");
    for (const Member &member : qAsConst(members)) {
        pids += QByteArray::number(member.pid) + '\n';
        if (!member.scoreAdj.isNull()) {
            setProcess(member.pid, "oom_score_adj", member.scoreAdj);
        }
    }
    setGroup(pids);
    Candidate candidate;
    const LogCapture log;
    QVERIFY(OomController().readProcessScore(leader, &candidate));
    QTEST(int(candidate.killPid), "chosen");
    QCOMPARE(log.warnings(), QStringList()); // that a process ends is nothing to warn about
}

void tst_OomControllerScores::thousandsOfMembersAreRead()
{
    QByteArray pids = QByteArray::number(leader) + '\n';
    setProcess(leader, "oom_score_adj", "0");
    for (int pid = 10000; pid < 15000; ++pid) {
        pids += QByteArray::number(pid) + '\n';
    }
    setProcess(14321, "oom_score_adj", "7");
    setGroup(pids);
    Candidate candidate;
    QVERIFY(OomController().readProcessScore(leader, &candidate));
    QCOMPARE(candidate.killPid, 14321);
}

void tst_OomControllerScores::groupThatCannotBeReadLeavesTheLeader_data()
{
    QTest::addColumn<QByteArray>("groups"); // null: there is no such file
    QTest::addColumn<QByteArray>("members");

    const QByteArray memory = "3:memory:/group\n";
    QTest::newRow("no file of groups") << QByteArray() << QByteArray("5001\n");
    QTest::newRow("no memory group") << QByteArrayLiteral("3:cpu:/group\n") << QByteArray("5001\n");
    QTest::newRow("no path") << QByteArrayLiteral("3:memory:\n") << QByteArray("5001\n");
    QTest::newRow("no list of members") << memory << QByteArray();
    QTest::newRow("empty list") << memory << QByteArray("");
    QTest::newRow("no pids") << memory << QByteArray("one\ntwo\n");
    QTest::newRow("beyond an int") << memory << QByteArray("99999999999\n");
}

void tst_OomControllerScores::groupThatCannotBeReadLeavesTheLeader()
{
    QFETCH(QByteArray, groups);
    QFETCH(QByteArray, members);
    if (!members.isNull()) {
        setGroup(members);
        QVERIFY(QFile::remove(m_tree->path(QStringLiteral("proc/%1/cgroup").arg(leader))));
    }
    if (!groups.isNull()) {
        setProcess(leader, "cgroup", groups);
    }
    setProcess(leader, "oom_score", "400\n");
    setProcess(leader, "oom_score_adj", "0\n");
    setProcess(5001, "oom_score_adj", "300\n");
    Candidate candidate;
    const LogCapture log;
    QVERIFY(OomController().readProcessScore(leader, &candidate));
    QCOMPARE(candidate.killPid, leader);
}

void tst_OomControllerScores::groupFilesThatOpenAndCannotBeReadLeaveTheLeader_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("target");

    const QString groups = QStringLiteral("proc/5000/cgroup");
    const QString members = QStringLiteral("sys/fs/cgroup/memory/group/cgroup.procs");
    const QString volunteer = QStringLiteral("proc/5001/oom_score_adj");
    for (const char *target : { "/proc/self/mem", "/proc", "/dev/zero" }) {
        const QString path = QString::fromLatin1(target);
        QTest::addRow("groups, %s", target) << groups << path;
        QTest::addRow("members, %s", target) << members << path;
        QTest::addRow("a member's adjustment, %s", target) << volunteer << path;
    }
}

void tst_OomControllerScores::groupFilesThatOpenAndCannotBeReadLeaveTheLeader()
{
    QFETCH(QString, file);
    QFETCH(QString, target);
    setGroup("5000\n5001\n");
    setProcess(leader, "oom_score_adj", "0\n");
    setProcess(5001, "oom_score_adj", "300\n");
    QVERIFY(QFile::remove(m_tree->path(file)));
    m_tree->link(file, target);
    Candidate candidate;
    const LogCapture log;
    QVERIFY(OomController().readProcessScore(leader, &candidate));
    QCOMPARE(candidate.killPid, leader);
    QCOMPARE(candidate.oomScore, 400);
}

void tst_OomControllerScores::scoresOfTheLeaderAreRead()
{
    setGroup("5000\n5001\n");
    setProcess(leader, "oom_score", "667\n");
    setProcess(leader, "oom_score_adj", "-100\n");
    setProcess(5001, "oom_score", "1\n");
    setProcess(5001, "oom_score_adj", "900\n");
    Candidate candidate;
    QVERIFY(OomController().readProcessScore(leader, &candidate));
    QCOMPARE(candidate.killPid, 5001);
    QCOMPARE(candidate.oomScore, 667);
    QCOMPARE(candidate.oomScoreAdj, -100);
}

void tst_OomControllerScores::unreadableScoresExclude_data()
{
    QTest::addColumn<QByteArray>("score"); // null: there is no such file
    QTest::addColumn<QByteArray>("scoreAdj");
    QTest::addColumn<QStringList>("warnings");

    const QString score = notReadable(QStringLiteral("/proc/5000/oom_score"));
    const QString scoreAdj = notReadable(QStringLiteral("/proc/5000/oom_score_adj"));
    QTest::newRow("no score") << QByteArray() << QByteArray("0\n") << QStringList(score);
    QTest::newRow("no adjustment") << QByteArray("1\n") << QByteArray() << QStringList(scoreAdj);
    QTest::newRow("neither") << QByteArray() << QByteArray() << QStringList(score);
    QTest::newRow("score is no number") << QByteArray("x") << QByteArray("0\n") << QStringList();
    QTest::newRow("score is empty") << QByteArray("") << QByteArray("0\n") << QStringList();
    QTest::newRow("adjustment is no number") << QByteArray("1\n") << QByteArray("--1") << QStringList();
}

void tst_OomControllerScores::unreadableScoresExclude()
{
    QFETCH(QByteArray, score);
    QFETCH(QByteArray, scoreAdj);
    setProcess(leader, "cgroup", "3:memory:/group\n");
    m_tree->write(QStringLiteral("sys/fs/cgroup/memory/group/cgroup.procs"), "5000\n");
    if (!score.isNull()) {
        setProcess(leader, "oom_score", score);
    }
    if (!scoreAdj.isNull()) {
        setProcess(leader, "oom_score_adj", scoreAdj);
    }
    Candidate candidate;
    const LogCapture log;
    QVERIFY(!OomController().readProcessScore(leader, &candidate));
    QTEST(log.warnings(), "warnings");
}

void tst_OomControllerScores::integerIsReadFromAFile_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("valid");
    QTest::addColumn<int>("value");

    QTest::newRow("plain") << QByteArray("42") << true << 42;
    QTest::newRow("line feed") << QByteArray("42\n") << true << 42;
    QTest::newRow("blanks around") << QByteArray(" \t42 \n\n") << true << 42;
    QTest::newRow("negative") << QByteArray("-1000\n") << true << -1000;
    QTest::newRow("greatest") << QByteArray("2147483647") << true << 2147483647;
    QTest::newRow("leading zeroes are decimal") << QByteArray("010") << true << 10;
    QTest::newRow("beyond an int") << QByteArray("2147483648") << false << 0;
    QTest::newRow("hexadecimal") << QByteArray("0x10") << false << 0;
    QTest::newRow("a fraction") << QByteArray("1.0") << false << 0;
    QTest::newRow("two numbers") << QByteArray("1 2") << false << 0;
    QTest::newRow("two lines") << QByteArray("1\n2\n") << false << 0;
    QTest::newRow("text") << QByteArray("many") << false << 0;
    QTest::newRow("empty") << QByteArray("") << false << 0;
    QTest::newRow("huge") << QByteArray(3 * 1024 * 1024, '1') << false << 0;
}

void tst_OomControllerScores::integerIsReadFromAFile()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, valid);
    m_tree->write(QStringLiteral("proc/number"), content);
    int value = -1;
    const LogCapture log;
    QCOMPARE(OomController::readIntFromFile(QStringLiteral("/proc/number"), &value), valid);
    if (valid) {
        QTEST(value, "value");
    }
    QCOMPARE(log.messages(), QStringList());
}

void tst_OomControllerScores::missingIntegerFileIsWarnedAbout()
{
    int value = 0;
    const LogCapture log;
    QVERIFY(!OomController::readIntFromFile(QStringLiteral("/proc/number"), &value));
    QCOMPARE(log.warnings(), QStringList(notReadable(QStringLiteral("/proc/number"))));
}

void tst_OomControllerScores::unreadablePathsAreNoIntegers_data()
{
    QTest::addColumn<QString>("path");

    QTest::newRow("directory") << QStringLiteral("/proc");
    QTest::newRow("below a file") << QStringLiteral("/proc/file/number");
    QTest::newRow("too long") << QStringLiteral("/proc/") + QString(5000, QLatin1Char('x'));
}

void tst_OomControllerScores::unreadablePathsAreNoIntegers()
{
    QFETCH(QString, path);
    m_tree->write(QStringLiteral("proc/file"), "1\n");
    int value = 0;
    const LogCapture log;
    QVERIFY(!OomController::readIntFromFile(path, &value));
    QCOMPARE(log.warnings(), QStringList(notReadable(path)));
}

QTEST_APPLESS_MAIN(tst_OomControllerScores)
#include "tst_oom_controller_scores.moc"
