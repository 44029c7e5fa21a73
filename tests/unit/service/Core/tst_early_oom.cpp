// What dies when memory is critical, with real processes whose scores the test makes up.

#include "early_oom_fixture.h"

#include "support/log_capture.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

using Core::ApplicationInstanceId;
using Core::ApplicationState;
using Core::MemoryLevel;
using Core::MemoryMonitor;
using Core::RuntimeController;
using Core::StopReason;
using TestSupport::LogCapture;

namespace {

const QString one = QStringLiteral("org.example.One");
const QString two = QStringLiteral("org.example.Two");
const QString frozenOne = QStringLiteral("policy.two.One");
const QString frozenTwo = QStringLiteral("policy.two.Two");
const QString withChildren = QStringLiteral("org.example.Parent"); // of two
const QString family = QStringLiteral("org.example.Family"); // of seven

/// Whether a process goes on running for longer than one takes to die that was killed before.
bool staysAlive(pid_t pid)
{
    const int fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    pollfd waited = { fd, POLLIN, 0 };
    const bool alive = fd >= 0 && ::poll(&waited, 1, 200) == 0;
    ::close(fd);
    return alive;
}

const QString nobodyLeft = QStringLiteral("No candidates for killing, early OOM aborted.");

} // namespace

class tst_EarlyOom : public EarlyOomTest
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup() { end(); }

    void criticalLevelKillsOneAtOnce();
    void otherLevelsKillNobody();
    void onePassKillsOneVictim();
    void passesFollowTheTimerUntilTheLevelFalls();
    void withoutRecordsThePassIsAbortedAndTheTimerGoesOn();
    void hiddenLongerAgoDiesFirst_data();
    void hiddenLongerAgoDiesFirst();
    void activeOneDiesLast();
    void greaterAdjustmentDiesBeforeAllElse();
    void victimIsThawedToDie();
    void deathOfAnApplicationIsAnnouncedFirst();

    void volunteerDiesAlone();
    void afterFiveChildrenTheApplicationDies();
    void fallingLevelForgetsTheCounts();
    void childThatHasGoneIsOnlyWarnedAbout();
    void neverKillsTheSystemOrItself();

    void unreadableScoreExcludes();
    void onlyUnreadableScoresAbortThePass();

    void monitorRunsWhileThereIsARecord();
    void monitorRunsWhileTheLevelIsCritical();

private:
    void setState(const QString &id, ApplicationState state);
    void hideAfterBeingActive(const QString &id);
    StopReason reasonOf(const QString &id) const;
};

void tst_EarlyOom::initTestCase()
{
    m_runtime = std::make_unique<RuntimeFixture>();
    for (const QString &id : { one, two, frozenOne, frozenTwo }) {
        m_runtime->install(id);
    }
    m_runtime->install(withChildren, 2);
    m_runtime->install(family, 7);
}

void tst_EarlyOom::init()
{
    m_runtime->configure(strncmp(QTest::currentTestFunction(), "passes", 6) == 0
                                 || strncmp(QTest::currentTestFunction(), "without", 7) == 0
                             ? "CheckIntervalMsecCriticalMem=200\n"
                             : "");
    makeController();
}

void tst_EarlyOom::setState(const QString &id, ApplicationState state)
{
    QVERIFY(!m_controller->updateWindowStatus(ApplicationInstanceId(id),
                                              state == ApplicationState::Active ? 1 : 0, 0, 1));
    QCOMPARE(m_controller->state(id), state);
}

/// Leaves `Active` at a moment of its own.
void tst_EarlyOom::hideAfterBeingActive(const QString &id)
{
    setState(id, ApplicationState::Active);
    setState(id, ApplicationState::Hidden);
    const QDateTime now = QDateTime::currentDateTime();
    QTRY_VERIFY(QDateTime::currentDateTime() > now.addMSecs(1));
}

StopReason tst_EarlyOom::reasonOf(const QString &id) const
{
    const int index = ended().indexOf(id);
    return index < 0 ? StopReason::None : m_ended->at(index).at(3).value<StopReason>();
}

void tst_EarlyOom::criticalLevelKillsOneAtOnce()
{
    const pid_t pid = m_runtime->start(one);
    QVERIFY(pid > 0);
    const LogCapture log;
    m_runtime->setLevel(MemoryLevel::Critical);

    QTRY_COMPARE(ended(), QStringList(one));
    QCOMPARE(m_ended->at(0).at(1).value<pid_t>(), pid);
    QCOMPARE(m_ended->at(0).at(2).toInt(), SIGKILL);
    QCOMPARE(reasonOf(one), StopReason::OomKilled);
    QCOMPARE(int(reasonOf(one)), 6);
    const QStringList said = log.messages(QtDebugMsg);
    const QString killing = QStringLiteral("Early OOM: killing application \"%1\"").arg(one);
    QVERIFY(said.contains(QStringLiteral("Low memory, activating early OOM killer")));
    QCOMPARE(said.count(killing), 1);
    QVERIFY(said.indexOf(QStringLiteral("Low memory, activating early OOM killer")) < said.indexOf(killing));
    // One line that a default journal keeps.
    QCOMPARE(log.warnings().filter(QStringLiteral("Early OOM")),
             QStringList(
                 QStringLiteral("Early OOM: killing \"%1\", pid %2 (all of it): memory is Critical, 51200 kB "
                                "of 4000000 kB available; oom_score_adj 0, oom_score 0, the only candidate")
                     .arg(one)
                     .arg(pid)));
}

void tst_EarlyOom::otherLevelsKillNobody()
{
    QVERIFY(m_runtime->start(one) > 0);
    for (const MemoryLevel level :
         { MemoryLevel::Low, MemoryLevel::Normal, MemoryLevel::Unknown, MemoryLevel::Low }) {
        m_runtime->setLevel(level);
    }
    QVERIFY(RuntimeFixture::waitTicks(5, 10));
    QCOMPARE(m_controller->runningApplications().size(), 1);
    QCOMPARE(m_selected->count(), 0);
}

void tst_EarlyOom::onePassKillsOneVictim()
{
    for (const QString &id : { one, two, frozenOne }) {
        QVERIFY(m_runtime->start(id) > 0);
    }
    m_runtime->setScores(m_runtime->pidOf(two), 300);
    m_runtime->setScores(m_runtime->pidOf(frozenOne), 200);
    m_runtime->setScores(m_runtime->pidOf(one), 100);

    m_runtime->setLevel(MemoryLevel::Critical);
    QCOMPARE(m_selected->count(), 1);
    QTRY_COMPARE(ended(), QStringList(two));
    QVERIFY(RuntimeFixture::waitTicks(5, 10));
    QCOMPARE(m_controller->runningApplications().size(), 2);
    pass();
    QTRY_COMPARE(ended(), QStringList({ two, frozenOne }));
    pass();
    QTRY_COMPARE(ended(), QStringList({ two, frozenOne, one }));
    QCOMPARE(m_selected->count(), 3);
}

void tst_EarlyOom::passesFollowTheTimerUntilTheLevelFalls()
{
    for (const QString &id : { one, two, frozenOne }) {
        QVERIFY(m_runtime->start(id) > 0);
    }
    m_runtime->setScores(m_runtime->pidOf(two), 300);
    m_runtime->setScores(m_runtime->pidOf(frozenOne), 200);
    connect(m_controller, &RuntimeController::processSelectedByOom, m_controller, [this] {
        if (m_selected->count() == 2) {
            // Not within the pass, as the monitor would not either.
            QTimer::singleShot(0, m_controller, [this] { m_runtime->setLevel(MemoryLevel::Low); });
        }
    });
    m_runtime->setLevel(MemoryLevel::Critical);
    QTRY_COMPARE(MemoryMonitor::instance()->level(), MemoryLevel::Low);
    const int selected = m_selected->count();
    QVERIFY(RuntimeFixture::waitTicks(5, 100));
    QCOMPARE(m_selected->count(), selected);
    QCOMPARE(m_controller->state(one), ApplicationState::Launched);
}

void tst_EarlyOom::withoutRecordsThePassIsAbortedAndTheTimerGoesOn()
{
    LogCapture log;
    m_runtime->setLevel(MemoryLevel::Critical);
    QCOMPARE(log.warnings(), QStringList(nobodyLeft));
    QTRY_VERIFY(log.warnings().count(nobodyLeft) >= 3);

    m_runtime->setLevel(MemoryLevel::Normal);
    log.clear();
    QVERIFY(RuntimeFixture::waitTicks(5, 100));
    QCOMPARE(log.warnings(), QStringList());
}

void tst_EarlyOom::hiddenLongerAgoDiesFirst_data()
{
    QTest::addColumn<QString>("earlier");
    QTest::addColumn<QString>("later");

    QTest::newRow("in the order of the ids") << frozenOne << frozenTwo;
    QTest::newRow("against the order of the ids") << frozenTwo << frozenOne;
}

void tst_EarlyOom::hiddenLongerAgoDiesFirst()
{
    QFETCH(QString, earlier);
    QFETCH(QString, later);
    QVERIFY(m_runtime->start(later) > 0);
    QVERIFY(m_runtime->start(earlier) > 0);
    hideAfterBeingActive(earlier);
    hideAfterBeingActive(later);
    // Of two applications the kernel's score does not count.
    m_runtime->setScores(m_runtime->pidOf(later), 0, 900);

    m_runtime->setLevel(MemoryLevel::Critical);
    QTRY_COMPARE(ended(), QStringList(earlier));
    pass();
    QTRY_COMPARE(ended(), QStringList({ earlier, later }));
}

void tst_EarlyOom::activeOneDiesLast()
{
    QVERIFY(m_runtime->start(one) > 0); // never active
    QVERIFY(m_runtime->start(frozenOne) > 0);
    QVERIFY(m_runtime->start(frozenTwo) > 0);
    setState(frozenOne, ApplicationState::Active);
    hideAfterBeingActive(frozenTwo);

    m_runtime->setLevel(MemoryLevel::Critical);
    QTRY_COMPARE(ended(), QStringList(one));
    pass();
    QTRY_COMPARE(ended(), QStringList({ one, frozenTwo }));
    pass();
    QTRY_COMPARE(ended(), QStringList({ one, frozenTwo, frozenOne }));
}

void tst_EarlyOom::greaterAdjustmentDiesBeforeAllElse()
{
    const pid_t active = m_runtime->start(frozenOne);
    QVERIFY(active > 0);
    QVERIFY(m_runtime->start(frozenTwo) > 0);
    setState(frozenOne, ApplicationState::Active);
    hideAfterBeingActive(frozenTwo);
    m_runtime->setScores(m_runtime->pidOf(frozenTwo), -100);
    m_runtime->setScores(active, 0);

    m_runtime->setLevel(MemoryLevel::Critical);
    QTRY_COMPARE(ended(), QStringList(frozenOne));
}

void tst_EarlyOom::victimIsThawedToDie()
{
    QVERIFY(m_runtime->start(frozenOne) > 0);
    setState(frozenOne, ApplicationState::Hidden);
    QTRY_COMPARE(m_runtime->frozenState(frozenOne), QByteArrayLiteral("hidden"));
    QSignalSpy changes(m_controller, &RuntimeController::applicationStateChanged);

    m_runtime->setLevel(MemoryLevel::Critical);
    QCOMPARE(changes.count(), 1);
    QCOMPARE(changes.at(0).at(1).value<ApplicationState>(), ApplicationState::Inactive);
    QTRY_COMPARE(ended(), QStringList(frozenOne));
}

void tst_EarlyOom::deathOfAnApplicationIsAnnouncedFirst()
{
    const pid_t pid = m_runtime->start(one);
    QVERIFY(pid > 0);
    bool alive = false;
    ApplicationState state = ApplicationState::NotRunning;
    connect(m_controller, &RuntimeController::processSelectedByOom, m_controller, [&](const QString &id) {
        alive = staysAlive(pid);
        state = m_controller->state(id);
    });
    m_runtime->setLevel(MemoryLevel::Critical);
    QVERIFY(alive);
    QCOMPARE(state, ApplicationState::Launched);
    QCOMPARE(m_selected->count(), 1);
    QCOMPARE(m_selected->at(0).at(0).toString(), one);
    QCOMPARE(m_ended->count(), 0);
    QTRY_COMPARE(m_ended->count(), 1);
}

void tst_EarlyOom::volunteerDiesAlone()
{
    const pid_t leader = m_runtime->start(withChildren);
    QVERIFY(leader > 0);
    const QVector<pid_t> children = m_runtime->childrenOf(withChildren);
    QCOMPARE(children.size(), 2);
    m_runtime->setGroup(withChildren, { leader, children.at(0), children.at(1) });
    m_runtime->setScores(children.at(0), 0);
    m_runtime->setScores(children.at(1), 300);
    QVERIFY(RuntimeFixture::stop(children.at(1))); // it is not asked to end

    const LogCapture log;
    m_runtime->setLevel(MemoryLevel::Critical);
    QTRY_VERIFY(!RuntimeFixture::isAlive(children.at(1)));
    QVERIFY(RuntimeFixture::isAlive(children.at(0)));
    QVERIFY(RuntimeFixture::isAlive(leader));
    QCOMPARE(m_selected->count(), 0);
    QCOMPARE(m_ended->count(), 0);
    QCOMPARE(m_controller->state(withChildren), ApplicationState::Inactive);
    QVERIFY(log.messages(QtDebugMsg)
                .contains(QStringLiteral("Early OOM: killing process %1 of \"%2\"")
                              .arg(children.at(1))
                              .arg(withChildren)));

    // What it ends by later has nothing to do with this.
    RuntimeFixture::killGroup(leader);
    QTRY_COMPARE(ended(), QStringList(withChildren));
    QCOMPARE(reasonOf(withChildren), StopReason::None);
}

void tst_EarlyOom::afterFiveChildrenTheApplicationDies()
{
    const pid_t leader = m_runtime->start(family);
    QVERIFY(leader > 0);
    const QVector<pid_t> children = m_runtime->childrenOf(family);
    QCOMPARE(children.size(), 7);
    m_runtime->setGroup(family, QVector<pid_t> { leader } + children);
    int offer = 900; // so that they die in their order
    for (const pid_t child : children) {
        m_runtime->setScores(child, offer--);
    }
    LogCapture log;
    m_runtime->setLevel(MemoryLevel::Critical);
    for (int death = 0; death < 5; ++death) {
        QTRY_VERIFY(!RuntimeFixture::isAlive(children.at(death)));
        QVERIFY(RuntimeFixture::isAlive(children.at(death + 1)));
        QCOMPARE(m_selected->count(), 0);
        m_runtime->removeScores(children.at(death));
        if (death < 4) {
            pass();
        }
    }
    const QString givingUp = QStringLiteral("Already killed 5 subprocesses, giving up!");
    QVERIFY(!log.messages().contains(givingUp));
    QVERIFY(RuntimeFixture::isAlive(leader));
    log.clear();
    pass();
    QVERIFY(log.messages(QtDebugMsg).contains(givingUp));
    QCOMPARE(m_selected->count(), 1);
    QTRY_COMPARE(ended(), QStringList(family));
    QCOMPARE(reasonOf(family), StopReason::OomKilled);
    QTRY_VERIFY(!RuntimeFixture::isAlive(children.at(5)));
}

void tst_EarlyOom::fallingLevelForgetsTheCounts()
{
    const pid_t leader = m_runtime->start(family);
    QVERIFY(leader > 0);
    const QVector<pid_t> children = m_runtime->childrenOf(family);
    m_runtime->setGroup(family, QVector<pid_t> { leader } + children);
    for (int death = 0; death < 7; ++death) {
        m_runtime->setScores(children.at(death), 300);
        if (death == 5) {
            m_runtime->setLevel(MemoryLevel::Low);
        }
        if (death == 0 || death == 5) {
            m_runtime->setLevel(MemoryLevel::Critical);
        } else {
            pass();
        }
        QTRY_VERIFY(!RuntimeFixture::isAlive(children.at(death)));
        m_runtime->removeScores(children.at(death));
    }
    QVERIFY(RuntimeFixture::isAlive(leader));
    QCOMPARE(m_selected->count(), 0);
}

void tst_EarlyOom::childThatHasGoneIsOnlyWarnedAbout()
{
    const pid_t leader = m_runtime->start(withChildren);
    QVERIFY(leader > 0);
    const pid_t child = m_runtime->childrenOf(withChildren).first();
    RuntimeFixture::sendSignal(child, SIGKILL);
    QTRY_VERIFY(!RuntimeFixture::isAlive(child));
    m_runtime->setGroup(withChildren, { leader, child });
    m_runtime->setScores(child, 300);

    const LogCapture log;
    m_runtime->setLevel(MemoryLevel::Critical);
    QVERIFY(log.warnings().contains(QStringLiteral("Cannot kill %1 - errno: %2").arg(child).arg(ESRCH)));
    QVERIFY(RuntimeFixture::isAlive(leader));
    QCOMPARE(m_selected->count(), 0);
}

void tst_EarlyOom::neverKillsTheSystemOrItself()
{
    const pid_t leader = m_runtime->start(one);
    QVERIFY(leader > 0);
    m_runtime->setGroup(one, { 0, 1, ::getpid(), -1, leader });
    for (const pid_t pid : { 0, 1, ::getpid(), -1 }) {
        m_runtime->setScores(pid, 1000);
    }
    const LogCapture log;
    m_runtime->setLevel(MemoryLevel::Critical);
    QCOMPARE(m_selected->count(), 1); // the application itself, since none of them counts
    QTRY_COMPARE(ended(), QStringList(one));
    QVERIFY(log.messages().filter(QStringLiteral("Early OOM: killing process")).isEmpty());
    for (const pid_t pid : { 0, 1, ::getpid(), -1 }) {
        m_runtime->removeScores(pid);
    }
}

void tst_EarlyOom::unreadableScoreExcludes()
{
    QVERIFY(m_runtime->start(one) > 0);
    QVERIFY(m_runtime->start(frozenTwo) > 0);
    m_runtime->removeScores(m_runtime->pidOf(one)); // it would be the first one
    hideAfterBeingActive(frozenTwo);

    const LogCapture log;
    m_runtime->setLevel(MemoryLevel::Critical);
    QVERIFY(
        log.warnings().contains(QStringLiteral("Failed to read process score, excluding \"%1\"").arg(one)));
    QTRY_COMPARE(ended(), QStringList(frozenTwo));
    QCOMPARE(m_controller->state(one), ApplicationState::Launched);
}

void tst_EarlyOom::onlyUnreadableScoresAbortThePass()
{
    QVERIFY(m_runtime->start(one) > 0);
    m_runtime->removeScores(m_runtime->pidOf(one));

    const LogCapture log;
    m_runtime->setLevel(MemoryLevel::Critical);
    QCOMPARE(log.warnings().last(), nobodyLeft);
    QCOMPARE(m_selected->count(), 0);
    QCOMPARE(m_controller->state(one), ApplicationState::Launched);
}

void tst_EarlyOom::monitorRunsWhileThereIsARecord()
{
    const MemoryMonitor *monitor = MemoryMonitor::instance();
    QVERIFY(!monitor->isActive());
    QVERIFY(m_runtime->start(one) > 0);
    QVERIFY(monitor->isActive());
    QVERIFY(m_runtime->start(two) > 0);
    m_controller->terminateApplication(ApplicationInstanceId(one), StopReason::Requested);
    QTRY_COMPARE(m_ended->count(), 1);
    QVERIFY(monitor->isActive());
    m_controller->terminateApplication(ApplicationInstanceId(two), StopReason::Requested);
    QTRY_COMPARE(m_ended->count(), 2);
    QTRY_VERIFY(!monitor->isActive());
}

void tst_EarlyOom::monitorRunsWhileTheLevelIsCritical()
{
    const LogCapture log;
    const MemoryMonitor *monitor = MemoryMonitor::instance();
    m_runtime->setLevel(MemoryLevel::Critical);
    QVERIFY(monitor->isActive());
    m_runtime->setLevel(MemoryLevel::Low);
    QVERIFY(!monitor->isActive());

    // The last record goes at the critical level.
    QVERIFY(m_runtime->start(one) > 0);
    m_runtime->setLevel(MemoryLevel::Critical);
    QTRY_COMPARE(ended(), QStringList(one));
    QTRY_VERIFY(m_controller->runningApplications().isEmpty());
    QVERIFY(monitor->isActive());
    m_runtime->setLevel(MemoryLevel::Unknown);
    QVERIFY(!monitor->isActive());
}

QTEST_GUILESS_MAIN(tst_EarlyOom)
#include "tst_early_oom.moc"
