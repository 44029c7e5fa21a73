#include "Core/candidate.h"

#include <QRandomGenerator>
#include <QTest>

#include <algorithm>
#include <numeric>

using Core::Candidate;
using Core::VictimRule;

namespace {

const QDateTime noon(QDate(2024, 5, 17), QTime(12, 0), Qt::UTC);

Candidate application(int adjustment, const QDateTime &lastActive, int score = 0)
{
    Candidate candidate;
    candidate.oomScoreAdj = adjustment;
    candidate.oomScore = score;
    candidate.isApplication = true;
    candidate.lastActive = lastActive;
    return candidate;
}

Candidate task(int adjustment, int score)
{
    Candidate candidate;
    candidate.oomScoreAdj = adjustment;
    candidate.oomScore = score;
    return candidate;
}

/// Few values for each field, so that every rule has its ties.
Candidate randomCandidate(QRandomGenerator &random)
{
    const int adjustment = (random.bounded(4) - 1) * 100;
    const int score = random.bounded(3) * 50;
    if (random.bounded(2) == 0) {
        return task(adjustment, score);
    }
    const int minutes = random.bounded(4);
    return application(adjustment, minutes == 0 ? QDateTime() : noon.addSecs(minutes * 60), score);
}

/// What the order goes by; alike means that no rule tells the two apart.
bool alike(const Candidate &a, const Candidate &b)
{
    return a.oomScoreAdj == b.oomScoreAdj && a.isApplication == b.isApplication
        && (a.isApplication ? a.lastActive == b.lastActive : a.oomScore == b.oomScore);
}

} // namespace

Q_DECLARE_METATYPE(Core::Candidate)
Q_DECLARE_METATYPE(Core::VictimRule)

class tst_Candidate : public QObject
{
    Q_OBJECT

private slots:
    void firstRuleThatTellsThemApartDecides_data();
    void firstRuleThatTellsThemApartDecides();
    void alikeInAllThatCountsHasNoOrder_data();
    void alikeInAllThatCountsHasNoOrder();
    void rulesHaveNames();
    void orderIsAStrictWeakOne();
    void victimOrderIsIndependentOfTheInput();
    void victimOrderOfFew();
};

void tst_Candidate::firstRuleThatTellsThemApartDecides_data()
{
    QTest::addColumn<Candidate>("first");
    QTest::addColumn<Candidate>("second");
    QTest::addColumn<VictimRule>("rule");

    const auto adjustment = VictimRule::ScoreAdjustment;
    QTest::newRow("greater adjustment") << application(1, noon) << application(0, noon) << adjustment;
    QTest::newRow("0 before a protected one")
        << application(0, noon) << application(-100, noon) << adjustment;
    QTest::newRow("less protected first")
        << application(-100, noon) << application(-1000, noon) << adjustment;
    QTest::newRow("extremes") << application(1000, noon) << application(-1000, noon) << adjustment;
    QTest::newRow("adjustment beats the kind") << application(1, noon) << task(0, 0) << adjustment;
    QTest::newRow("adjustment beats the time")
        << application(1, noon) << application(0, QDateTime()) << adjustment;
    QTest::newRow("adjustment beats the score") << task(1, 0) << task(0, 1000) << adjustment;

    const auto kind = VictimRule::TaskFirst;
    QTest::newRow("task before application") << task(0, 0) << application(0, noon) << kind;
    QTest::newRow("task before application never active")
        << task(0, 0) << application(0, QDateTime()) << kind;
    QTest::newRow("task before application of greater score")
        << task(0, 1) << application(0, noon, 900) << kind;
    QTest::newRow("protected task before protected application")
        << task(-100, 0) << application(-100, noon) << kind;

    const auto time = VictimRule::LeastRecentlyActive;
    QTest::newRow("longer ago first") << application(0, noon) << application(0, noon.addSecs(1)) << time;
    QTest::newRow("by a millisecond") << application(0, noon) << application(0, noon.addMSecs(1)) << time;
    QTest::newRow("on another day") << application(0, noon.addDays(-1)) << application(0, noon.addSecs(-60))
                                    << time;
    QTest::newRow("never active first") << application(0, QDateTime()) << application(0, noon) << time;
    QTest::newRow("time beats the score")
        << application(0, noon, 0) << application(0, noon.addSecs(1), 900) << time;
    QTest::newRow("another time zone")
        << application(0, QDateTime(noon.date(), QTime(13, 0), Qt::OffsetFromUTC, 7200))
        << application(0, noon) << time;

    const auto score = VictimRule::KernelScore;
    QTest::newRow("greater score of two tasks") << task(0, 2) << task(0, 1) << score;
    QTest::newRow("negative scores") << task(0, -1) << task(0, -2) << score;
}

void tst_Candidate::firstRuleThatTellsThemApartDecides()
{
    QFETCH(Candidate, first);
    QFETCH(Candidate, second);
    QFETCH(VictimRule, rule);

    QVERIFY(Core::isKilledBefore(first, second));
    QVERIFY(!Core::isKilledBefore(second, first));
    QCOMPARE(Core::decidingRule(first, second), rule);
    QCOMPARE(Core::decidingRule(second, first), rule);
}

void tst_Candidate::alikeInAllThatCountsHasNoOrder_data()
{
    QTest::addColumn<Candidate>("candidate");
    QTest::addColumn<Candidate>("other");

    QTest::newRow("applications of other scores") << application(0, noon, 1) << application(0, noon, 900);
    QTest::newRow("applications never active") << application(0, QDateTime()) << application(0, QDateTime());
    QTest::newRow("tasks") << task(5, 7) << task(5, 7);
    Candidate other = task(5, 7);
    other.killPid = 4711;
    other.lastActive = noon;
    QTest::newRow("tasks of other processes") << task(5, 7) << other;
}

void tst_Candidate::alikeInAllThatCountsHasNoOrder()
{
    QFETCH(Candidate, candidate);
    QFETCH(Candidate, other);

    QVERIFY(!Core::isKilledBefore(candidate, other));
    QVERIFY(!Core::isKilledBefore(other, candidate));
    QCOMPARE(Core::decidingRule(candidate, other), VictimRule::None);
}

void tst_Candidate::rulesHaveNames()
{
    QCOMPARE(Core::victimRuleName(VictimRule::None), "equal to the next");
    QCOMPARE(Core::victimRuleName(VictimRule::ScoreAdjustment), "oom_score_adj");
    QCOMPARE(Core::victimRuleName(VictimRule::TaskFirst), "task before application");
    QCOMPARE(Core::victimRuleName(VictimRule::LeastRecentlyActive), "least recently active");
    QCOMPARE(Core::victimRuleName(VictimRule::KernelScore), "oom_score");
}

// What std::sort needs, or else it may run out of its range.
void tst_Candidate::orderIsAStrictWeakOne()
{
    QRandomGenerator random(20240517); // the same at each run, so that a failure can be seen again
    for (int round = 0; round < 100000; ++round) {
        const Candidate a = randomCandidate(random);
        const Candidate b = randomCandidate(random);
        const Candidate c = randomCandidate(random);
        const bool ab = Core::isKilledBefore(a, b);
        const bool bc = Core::isKilledBefore(b, c);
        const bool ba = Core::isKilledBefore(b, a);
        const bool cb = Core::isKilledBefore(c, b);

        if (Core::isKilledBefore(a, a)) {
            QFAIL("goes before itself");
        }
        if (ab && ba) {
            QFAIL("each goes before the other");
        }
        if ((ab || ba) == alike(a, b)) {
            QFAIL("distinct ones have an order, and only those");
        }
        if (ab && bc && !Core::isKilledBefore(a, c)) {
            QFAIL("not transitive");
        }
        if (!ab && !ba && !bc && !cb && (Core::isKilledBefore(a, c) || Core::isKilledBefore(c, a))) {
            QFAIL("being alike is not transitive");
        }
    }
}

void tst_Candidate::victimOrderIsIndependentOfTheInput()
{
    QRandomGenerator random(7);
    QVector<Candidate> candidates;
    for (int i = 0; i < 60; ++i) {
        candidates.append(randomCandidate(random));
    }
    const QVector<Candidate> expected = Core::victimOrder(candidates);
    QCOMPARE(expected.size(), candidates.size());
    for (int round = 0; round < 200; ++round) {
        std::shuffle(candidates.begin(), candidates.end(), random);
        const QVector<Candidate> order = Core::victimOrder(candidates);
        QVERIFY(std::equal(order.cbegin(), order.cend(), expected.cbegin(), expected.cend(), alike));
        QVERIFY(std::is_sorted(order.cbegin(), order.cend(), Core::isKilledBefore));
    }
}

void tst_Candidate::victimOrderOfFew()
{
    QVERIFY(Core::victimOrder({}).isEmpty());
    QCOMPARE(Core::victimOrder({ task(3, 4) }).size(), 1);

    const QVector<Candidate> order = Core::victimOrder({
        application(-100, noon.addSecs(60)),
        application(-100, noon),
        task(-100, 10),
        task(-100, 20),
        application(200, noon.addSecs(3600)),
    });
    QCOMPARE(order.at(0).oomScoreAdj, 200);
    QCOMPARE(order.at(1).oomScore, 20);
    QCOMPARE(order.at(2).oomScore, 10);
    QCOMPARE(order.at(3).lastActive, noon);
    QCOMPARE(order.at(4).lastActive, noon.addSecs(60));
}

QTEST_APPLESS_MAIN(tst_Candidate)
#include "tst_candidate.moc"
