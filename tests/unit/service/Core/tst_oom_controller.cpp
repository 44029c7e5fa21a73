#include "Core/candidate.h"
#include "Core/oom_controller.h"

#include "support/cgroup_tree.h"
#include "support/log_capture.h"

#include <QFile>
#include <QTest>

#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using Core::Candidate;
using Core::MemoryLevel;
using Core::OomController;
using TestSupport::CGroupTree;
using TestSupport::LogCapture;

namespace {

const QString notOpened = QStringLiteral("Could not open /proc/meminfo");
const QString fieldsMissing = QStringLiteral("Missing required fields in /proc/meminfo");

constexpr pid_t leader = 5000; // of the group whose files the tests make

QByteArray memInfo(qint64 available, qint64 total)
{
    return "MemTotal: " + QByteArray::number(total) + " kB\nMemAvailable: " + QByteArray::number(available)
        + " kB\n";
}

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

class tst_OomController : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void eachStartFlagTakesAHundredOff_data();
    void eachStartFlagTakesAHundredOff();

    void configurationGivesTheIntervals_data();
    void configurationGivesTheIntervals();
    void configurationGivesTheThresholds_data();
    void configurationGivesTheThresholds();
    void withoutConfigurationThereAreDefaults();
    void unusableConfigurationGivesDefaults_data();
    void unusableConfigurationGivesDefaults();
    void configurationIsReadOnce();

    void levelIsReadAnewEachTime();
    void missingFileIsUnknown();
    void emptyOrForeignFileIsUnknown_data();
    void emptyOrForeignFileIsUnknown();
    void fileThatVanishesAndComesBack();
    void swapOnZramIsToldByTheListOfSwaps_data();
    void swapOnZramIsToldByTheListOfSwaps();
    void swapIsLookedAtOnce();
    void debugLineShowsTheFigures();
    void debugLineTakesAnyValueOfTheVariable();

    void theOneToKillIsTheVolunteer_data();
    void theOneToKillIsTheVolunteer();
    void thousandsOfMembersAreRead();
    void groupThatCannotBeReadLeavesTheLeader_data();
    void groupThatCannotBeReadLeavesTheLeader();
    void scoresOfTheLeaderAreRead();
    void unreadableScoresExclude_data();
    void unreadableScoresExclude();

    void integerIsReadFromAFile_data();
    void integerIsReadFromAFile();
    void missingIntegerFileIsWarnedAbout();
    void unreadablePathsAreNoIntegers_data();
    void unreadablePathsAreNoIntegers();

private:
    void configure(const QByteArray &content)
    {
        m_tree->write(QStringLiteral("etc/procwarden/oom.cfg"), content);
    }
    void setMemory(const QByteArray &content) { m_tree->write(QStringLiteral("proc/meminfo"), content); }
    void setProcess(pid_t pid, const char *file, const QByteArray &content);
    void setGroup(const QByteArray &members);

    std::unique_ptr<CGroupTree> m_tree;
};

void tst_OomController::init()
{
    qunsetenv("PROCWARDEN_OOM_DEBUG");
    m_tree = std::make_unique<CGroupTree>();
    m_tree->use();
}

void tst_OomController::cleanup()
{
    m_tree.reset();
}

void tst_OomController::setProcess(pid_t pid, const char *file, const QByteArray &content)
{
    m_tree->write(QStringLiteral("proc/%1/%2").arg(pid).arg(QLatin1String(file)), content);
}

/// Puts the leader in a group with these members, which should hold itself.
void tst_OomController::setGroup(const QByteArray &members)
{
    setProcess(leader, "cgroup", "3:memory:/group\n");
    setProcess(leader, "oom_score", "400\n");
    m_tree->write(QStringLiteral("sys/fs/cgroup/memory/group/cgroup.procs"), members);
}

void tst_OomController::eachStartFlagTakesAHundredOff_data()
{
    QTest::addColumn<int>("flags");
    QTest::addColumn<int>("score");

    QTest::newRow("none") << 0 << 0;
    QTest::newRow("direct request") << 1 << -100;
    QTest::newRow("further protection") << 2 << -100;
    QTest::newRow("both") << 3 << -200;
    QTest::newRow("other bits") << 0xfc << 0;
    QTest::newRow("other bits and a direct request") << 0xfd << -100;
}

void tst_OomController::eachStartFlagTakesAHundredOff()
{
    QFETCH(int, flags);
    QTEST(OomController::oomScoreForStart(flags), "score");
}

void tst_OomController::configurationGivesTheIntervals_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QVector<int>>("intervals"); // normal, low, critical, unfreeze

    const QVector<int> defaults = { 5000, 2000, 1000, 5000 };
    const auto all = [](const QByteArray &value) {
        return "CheckIntervalMsec=" + value + "\nCheckIntervalMsecLowMem=" + value
            + "\nCheckIntervalMsecCriticalMem=" + value + "\nNotificationUnfreezeMsec=" + value + '\n';
    };
    QTest::newRow("each has its key")
        << QByteArrayLiteral("CheckIntervalMsec=11\nCheckIntervalMsecLowMem=22\n"
                             "CheckIntervalMsecCriticalMem=33\n"
                             "NotificationUnfreezeMsec=44\n")
        << QVector<int> { 11, 22, 33, 44 };
    QTest::newRow("one of them") << QByteArrayLiteral("CheckIntervalMsecLowMem=22\n")
                                 << QVector<int> { 5000, 22, 1000, 5000 };
    QTest::newRow("empty file") << QByteArray("") << defaults;
    QTest::newRow("least") << all("1") << QVector<int> { 1, 1, 1, 1 };
    QTest::newRow("greatest") << all("2147483647") << QVector<int>(4, 2147483647);
    // A timer needs time between its ticks; not to thaw at all is a choice.
    QTest::newRow("zero") << all("0") << QVector<int> { 5000, 2000, 1000, 0 };
    QTest::newRow("negative") << all("-5") << QVector<int> { 5000, 2000, 1000, -5 };
    QTest::newRow("beyond 32 bits") << all("2147483648") << defaults;
    QTest::newRow("beyond all bits") << all(QByteArray(10000, '9')) << defaults;
    QTest::newRow("text") << all("soon") << defaults;
    QTest::newRow("with a unit") << all("5s") << defaults;
    QTest::newRow("a fraction") << all("10.5") << defaults;
    QTest::newRow("a list") << all("10,20") << defaults;
    QTest::newRow("nothing") << all("") << defaults;
    QTest::newRow("in a section of its own") << "[Memory]\n" + all("7") << defaults;
    QTest::newRow("in the section of the default group") << "[General]\n" + all("7") << QVector<int>(4, 7);
    QTest::newRow("key of another case") << QByteArrayLiteral("checkintervalmsec=7\n") << defaults;
}

void tst_OomController::configurationGivesTheIntervals()
{
    QFETCH(QByteArray, content);
    configure(content);
    const OomController controller;
    const QVector<int> actual = { controller.checkIntervalMsec(), controller.checkIntervalMsecLowMem(),
                                  controller.checkIntervalMsecCriticalMem(),
                                  controller.notificationUnfreezeMsec() };
    QTEST(actual, "intervals");
}

void tst_OomController::configurationGivesTheThresholds_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<qint64>("available"); // of 1000000 kB
    QTest::addColumn<MemoryLevel>("level");

    const auto row = [](const char *name, const QByteArray &content, qint64 available, MemoryLevel level) {
        QTest::newRow(name) << content << available << level;
    };
    row("low by megabytes", "LowMemoryTermMB=100\n", 102399, MemoryLevel::Low);
    row("not low by megabytes", "LowMemoryTermMB=100\n", 102400, MemoryLevel::Normal);
    row("critical by megabytes", "MinMemoryTermMB=100\n", 102399, MemoryLevel::Critical);
    row("not critical by megabytes", "MinMemoryTermMB=100\n", 102400, MemoryLevel::Normal);
    row("low by percent", "LowMemoryTermPercent=10\n", 99999, MemoryLevel::Low);
    row("not low by percent", "LowMemoryTermPercent=10\n", 100000, MemoryLevel::Normal);
    row("critical by percent", "MinMemoryTermPercent=10\n", 99999, MemoryLevel::Critical);
    row("not critical by percent", "MinMemoryTermPercent=10\n", 100000, MemoryLevel::Normal);
    row("critical wins, whatever the order in the file", "MinMemoryTermMB=50\nLowMemoryTermMB=100\n", 1,
        MemoryLevel::Critical);
    row("negative", "LowMemoryTermMB=-1\nMinMemoryTermMB=-1\nLowMemoryTermPercent=-1\n", 0,
        MemoryLevel::Normal);
    row("greatest", "LowMemoryTermMB=2147483647\n", 1000000, MemoryLevel::Low);
    row("beyond 32 bits", "LowMemoryTermMB=2147483648\nMinMemoryTermPercent=99999999999\n", 0,
        MemoryLevel::Normal);
    row("text", "LowMemoryTermMB=much\nMinMemoryTermPercent=10%\n", 0, MemoryLevel::Normal);
}

void tst_OomController::configurationGivesTheThresholds()
{
    QFETCH(QByteArray, content);
    QFETCH(qint64, available);
    configure(content);
    setMemory(memInfo(available, 1000000));
    QTEST(OomController().readMemoryLevel(), "level");
}

void tst_OomController::withoutConfigurationThereAreDefaults()
{
    setMemory(memInfo(0, 1000000));
    const LogCapture log;
    const OomController controller;
    QCOMPARE(controller.checkIntervalMsec(), 5000);
    QCOMPARE(controller.checkIntervalMsecLowMem(), 2000);
    QCOMPARE(controller.checkIntervalMsecCriticalMem(), 1000);
    QCOMPARE(controller.notificationUnfreezeMsec(), 5000);
    QCOMPARE(controller.readMemoryLevel(), MemoryLevel::Normal);
    QCOMPARE(log.messages(), QStringList());
}

void tst_OomController::unusableConfigurationGivesDefaults_data()
{
    QTest::addColumn<QString>("kind");
    for (const char *kind : { "directory", "fifo", "binary", "huge", "loop" }) {
        QTest::newRow(kind) << QString::fromLatin1(kind);
    }
}

void tst_OomController::unusableConfigurationGivesDefaults()
{
    QFETCH(QString, kind);
    const QString relative = QStringLiteral("etc/procwarden/oom.cfg");
    const QByteArray path = QFile::encodeName(m_tree->path(relative));
    m_tree->makeDirectory(QStringLiteral("etc/procwarden"));
    if (kind == QLatin1String("directory")) {
        m_tree->makeDirectory(relative);
    } else if (kind == QLatin1String("fifo")) {
        QCOMPARE(::mkfifo(path.constData(), 0644), 0);
    } else if (kind == QLatin1String("binary")) {
        configure(QByteArray("\0\xff[\n=\0", 6).repeated(1000));
    } else if (kind == QLatin1String("huge")) {
        configure("CheckIntervalMsec=7\n" + QByteArray(2 * 1024 * 1024, 'x'));
    } else {
        m_tree->link(relative, QStringLiteral("oom.cfg"));
    }
    const OomController controller;
    QCOMPARE(controller.checkIntervalMsec(), 5000);
    QCOMPARE(controller.notificationUnfreezeMsec(), 5000);
}

void tst_OomController::configurationIsReadOnce()
{
    configure("CheckIntervalMsec=10\n");
    const OomController controller;
    configure("CheckIntervalMsec=20\nLowMemoryTermMB=100\n");
    setMemory(memInfo(1, 1000000));
    QCOMPARE(controller.checkIntervalMsec(), 10);
    QCOMPARE(controller.readMemoryLevel(), MemoryLevel::Normal);
}

void tst_OomController::levelIsReadAnewEachTime()
{
    configure("LowMemoryTermMB=100\nMinMemoryTermMB=50\n");
    const OomController controller;
    const LogCapture log;
    for (int round = 0; round < 3; ++round) {
        setMemory(memInfo(200 * 1024, 1000000));
        QCOMPARE(controller.readMemoryLevel(), MemoryLevel::Normal);
        QCOMPARE(controller.lastReading().availableKb, 200 * 1024);
        setMemory(memInfo(70 * 1024, 1000000));
        QCOMPARE(controller.readMemoryLevel(), MemoryLevel::Low);
        setMemory(memInfo(10 * 1024, 1000000));
        QCOMPARE(controller.readMemoryLevel(), MemoryLevel::Critical);
        QCOMPARE(controller.lastReading().availableKb, 10 * 1024);
    }
    QCOMPARE(log.messages(), QStringList());
}

void tst_OomController::missingFileIsUnknown()
{
    const OomController controller;
    const LogCapture log;
    QCOMPARE(controller.readMemoryLevel(), MemoryLevel::Unknown);
    QCOMPARE(controller.readMemoryLevel(), MemoryLevel::Unknown);
    QCOMPARE(log.warnings(), QStringList({ notOpened, notOpened }));
}

void tst_OomController::emptyOrForeignFileIsUnknown_data()
{
    QTest::addColumn<QByteArray>("content");

    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("no available memory") << QByteArrayLiteral("MemTotal: 10 kB\nMemFree: 5 kB\n");
    QTest::newRow("no total") << QByteArrayLiteral("MemAvailable: 10 kB\n");
    QTest::newRow("text") << QByteArrayLiteral("MemTotal: all kB\nMemAvailable: all kB\n");
    QTest::newRow("what counts lies beyond any real file")
        << QByteArray(2 * 1024 * 1024, '\n') + memInfo(10, 20);
}

void tst_OomController::emptyOrForeignFileIsUnknown()
{
    QFETCH(QByteArray, content);
    setMemory(content);
    const OomController controller;
    const LogCapture log;
    QCOMPARE(controller.readMemoryLevel(), MemoryLevel::Unknown);
    QCOMPARE(log.warnings(), QStringList(fieldsMissing));
}

void tst_OomController::fileThatVanishesAndComesBack()
{
    setMemory(memInfo(10, 20));
    const OomController controller;
    const LogCapture log;
    QCOMPARE(controller.readMemoryLevel(), MemoryLevel::Normal);
    QVERIFY(QFile::remove(m_tree->path(QStringLiteral("proc/meminfo"))));
    QCOMPARE(controller.readMemoryLevel(), MemoryLevel::Unknown);
    QCOMPARE(controller.lastReading().availableKb, 0);
    setMemory(memInfo(10, 20));
    QCOMPARE(controller.readMemoryLevel(), MemoryLevel::Normal);
    QCOMPARE(log.warnings(), QStringList(notOpened));
}

void tst_OomController::swapOnZramIsToldByTheListOfSwaps_data()
{
    QTest::addColumn<QByteArray>("swaps"); // null: there is no such file
    QTest::addColumn<bool>("zram");

    const QByteArray head = "Filename\t\t\t\tType\t\tSize\t\tUsed\t\tPriority\n";
    QTest::newRow("no file") << QByteArray() << false;
    QTest::newRow("empty") << QByteArray("") << false;
    QTest::newRow("none") << head << false;
    QTest::newRow("a disk") << head + "/dev/sda2 partition 1000 0 -2\n" << false;
    QTest::newRow("compressed") << head + "/dev/zram0 partition 1000 0 100\n" << true;
    QTest::newRow("compressed, no final line feed") << head + "/dev/zram0" << true;
    QTest::newRow("compressed behind a disk")
        << head + "/dev/sda2 partition 1000 0 -2\n/dev/zram3 partition 1000 0 100\n"
        << true;
    QTest::newRow("a file of this name elsewhere") << head + "/home/dev/zram0 file 1000 0 -2\n" << false;
    QTest::newRow("not at the start of the line") << head + " /dev/zram0 partition 1000 0 -2\n" << false;
}

void tst_OomController::swapOnZramIsToldByTheListOfSwaps()
{
    QFETCH(QByteArray, swaps);
    QFETCH(bool, zram);
    if (!swaps.isNull()) {
        m_tree->write(QStringLiteral("proc/swaps"), swaps);
    }
    setMemory(memInfo(1000, 100000) + "MemFree: 100 kB\nInactive(file): 200 kB\n"
              + "SwapTotal: 1000000 kB\nSwapFree: 1000000 kB\n");
    const OomController controller;
    controller.readMemoryLevel();
    QCOMPARE(controller.lastReading().availableKb, zram ? 1300 : 1001000);
}

void tst_OomController::swapIsLookedAtOnce()
{
    const OomController controller;
    m_tree->write(QStringLiteral("proc/swaps"), "/dev/zram0 partition 1000 0 100\n");
    setMemory(memInfo(1000, 100000) + "SwapTotal: 10 kB\nSwapFree: 10 kB\n");
    controller.readMemoryLevel();
    QCOMPARE(controller.lastReading().availableKb, 1010);
}

void tst_OomController::debugLineShowsTheFigures()
{
    qputenv("PROCWARDEN_OOM_DEBUG", "1");
    configure("LowMemoryTermPercent=30\n");
    setMemory(memInfo(1000, 4000) + "SwapTotal: 1000 kB\nSwapFree: 250 kB\n");
    const OomController controller;
    const LogCapture log;
    controller.readMemoryLevel();
    QCOMPARE(
        log.messages(),
        QStringList(QStringLiteral("Available 1250 (swap: 250) out of 5000 (swap: 1000), 25% -> level Low")));
}

void tst_OomController::debugLineTakesAnyValueOfTheVariable()
{
    setMemory(memInfo(1000, 4000));
    for (const char *value : { "", "0", "no" }) {
        qputenv("PROCWARDEN_OOM_DEBUG", value);
        const OomController controller;
        const LogCapture log;
        controller.readMemoryLevel();
        QCOMPARE(log.messages().size(), 1);
    }
    qunsetenv("PROCWARDEN_OOM_DEBUG");
    const OomController controller;
    const LogCapture log;
    controller.readMemoryLevel();
    QCOMPARE(log.messages(), QStringList());
}

void tst_OomController::theOneToKillIsTheVolunteer_data()
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
    row("a child of a protected leader at 0", { { leader, "-100" }, { 5001, "0" } }, 5001);
    row("leader at 0, a protected child", { { leader, "0" }, { 5001, "-100" } }, leader);
    row("leader and a lower pid at 0, a protected child",
        { { 4000, "0" }, { leader, "0" }, { 5001, "-100" } }, leader);
    row("leader offers most", { { leader, "500" }, { 5001, "300" } }, leader);
    row("extremes", { { leader, "-1000" }, { 5001, "1000" } }, 5001);
    row("leader is not listed, nor do the others differ", { { 5001, "300" }, { 5002, "300" } }, leader);
    row("leader is not listed", { { 5001, "300" }, { 5002, "0" } }, 5001);
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

void tst_OomController::theOneToKillIsTheVolunteer()
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

void tst_OomController::thousandsOfMembersAreRead()
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

void tst_OomController::groupThatCannotBeReadLeavesTheLeader_data()
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

void tst_OomController::groupThatCannotBeReadLeavesTheLeader()
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

void tst_OomController::scoresOfTheLeaderAreRead()
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

void tst_OomController::unreadableScoresExclude_data()
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

void tst_OomController::unreadableScoresExclude()
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

void tst_OomController::integerIsReadFromAFile_data()
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

void tst_OomController::integerIsReadFromAFile()
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

void tst_OomController::missingIntegerFileIsWarnedAbout()
{
    int value = 0;
    const LogCapture log;
    QVERIFY(!OomController::readIntFromFile(QStringLiteral("/proc/number"), &value));
    QCOMPARE(log.warnings(), QStringList(notReadable(QStringLiteral("/proc/number"))));
}

void tst_OomController::unreadablePathsAreNoIntegers_data()
{
    QTest::addColumn<QString>("path");

    QTest::newRow("directory") << QStringLiteral("/proc");
    QTest::newRow("below a file") << QStringLiteral("/proc/file/number");
    QTest::newRow("too long") << QStringLiteral("/proc/") + QString(5000, QLatin1Char('x'));
}

void tst_OomController::unreadablePathsAreNoIntegers()
{
    QFETCH(QString, path);
    m_tree->write(QStringLiteral("proc/file"), "1\n");
    int value = 0;
    const LogCapture log;
    QVERIFY(!OomController::readIntFromFile(path, &value));
    QCOMPARE(log.warnings(), QStringList(notReadable(path)));
}

QTEST_APPLESS_MAIN(tst_OomController)
#include "tst_oom_controller.moc"
