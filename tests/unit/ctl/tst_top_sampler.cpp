#include "top/sampler.h"

#include <QTest>

using Ctl::Top::FreezeEvent;
using Ctl::Top::Row;
using Ctl::Top::Sampler;

/// Rows out of answers that follow each other.
class TopSamplerTest : public QObject
{
    Q_OBJECT

private slots:
    void shareNeedsTwoSamples();
    void shareIsOfOneProcessor_data();
    void shareIsOfOneProcessor();
    void closeSamplesKeepTheShare();
    void newProcessBeginsAnew();
    void counterThatGoesBackHasNoShare();
    void unknownStaysUnknown();
    void freezingAndThawAreFollowed();
    void processorTimeWhileHiddenIsCounted();
    void whoHasGoneIsTold();
    void repeatedAndNamelessRowsAreLeftOut();
    void onlyTheLatestEventsAreKept();
};

namespace {

constexpr uint active = 1;
constexpr uint hidden = 3;

QVariantMap process(const QString &id, int pid, uint state, bool frozen, quint64 cpuMs)
{
    return { { QStringLiteral("Id"), id },         { QStringLiteral("Kind"), QStringLiteral("application") },
             { QStringLiteral("Pid"), pid },       { QStringLiteral("State"), state },
             { QStringLiteral("Frozen"), frozen }, { QStringLiteral("CpuMs"), cpuMs } };
}

QVariantMap notes(quint64 cpuMs, int pid = 7, uint state = active, bool frozen = false)
{
    return process(QStringLiteral("org.example.Notes"), pid, state, frozen, cpuMs);
}

QStringList texts(const Sampler &sampler)
{
    QStringList result;
    for (const FreezeEvent &event : sampler.events()) {
        result.append(event.text);
    }
    return result;
}

} // namespace

void TopSamplerTest::shareNeedsTwoSamples()
{
    Sampler sampler;
    const QVector<Row> rows = sampler.take({ notes(500) }, 0, 0);
    QCOMPARE(rows.size(), 1);
    QVERIFY(!rows.first().cpuPercent);
    QCOMPARE(*rows.first().cpuMs, quint64(500));
}

void TopSamplerTest::shareIsOfOneProcessor_data()
{
    QTest::addColumn<quint64>("usedMs");
    QTest::addColumn<qint64>("spanMs");
    QTest::addColumn<double>("percent");
    QTest::newRow("nothing") << quint64(0) << qint64(1000) << 0.0;
    QTest::newRow("a quarter") << quint64(250) << qint64(1000) << 25.0;
    QTest::newRow("two processors") << quint64(2000) << qint64(1000) << 200.0;
    QTest::newRow("long interval") << quint64(30) << qint64(60000) << 0.05;
}

void TopSamplerTest::shareIsOfOneProcessor()
{
    QFETCH(quint64, usedMs);
    QFETCH(qint64, spanMs);
    QFETCH(double, percent);
    Sampler sampler;
    (void)sampler.take({ notes(100) }, 5000, 0);
    const QVector<Row> rows = sampler.take({ notes(100 + usedMs) }, 5000 + spanMs, 0);
    QVERIFY(rows.first().cpuPercent);
    QCOMPARE(*rows.first().cpuPercent, percent);
}

void TopSamplerTest::closeSamplesKeepTheShare()
{
    Sampler sampler;
    (void)sampler.take({ notes(0) }, 0, 0);
    (void)sampler.take({ notes(500) }, 1000, 0);
    // Right behind the last one: what is measured still begins there.
    QCOMPARE(*sampler.take({ notes(520) }, 1010, 0).first().cpuPercent, 50.0);
    QCOMPARE(*sampler.take({ notes(600) }, 2000, 0).first().cpuPercent, 10.0);
}

void TopSamplerTest::newProcessBeginsAnew()
{
    Sampler sampler;
    (void)sampler.take({ notes(900, 7) }, 0, 0);
    const QVector<Row> rows = sampler.take({ notes(950, 8) }, 1000, 50);
    QVERIFY(!rows.first().cpuPercent);
    QCOMPARE(texts(sampler), QStringList { QStringLiteral("gone") });
}

void TopSamplerTest::counterThatGoesBackHasNoShare()
{
    Sampler sampler;
    (void)sampler.take({ notes(900) }, 0, 0);
    QVERIFY(!sampler.take({ notes(10) }, 1000, 0).first().cpuPercent);
    QCOMPARE(*sampler.take({ notes(110) }, 2000, 0).first().cpuPercent, 10.0);
}

void TopSamplerTest::unknownStaysUnknown()
{
    Sampler sampler;
    const QVariantMap bare = { { QStringLiteral("Id"), QStringLiteral("a") } };
    for (const qint64 timeMs : { 0, 1000 }) {
        const Row row = sampler.take({ bare }, timeMs, timeMs).first();
        QVERIFY(!row.cpuPercent && !row.cpuMs && !row.memoryKb && !row.frozen && !row.oomRank
                && !row.startedMs);
    }
    QVERIFY(sampler.events().isEmpty());
    // Known for once, which is no change from what was not.
    (void)sampler.take({ process(QStringLiteral("a"), 0, 0, true, 5) }, 2000, 2000);
    QVERIFY(sampler.events().isEmpty());
}

void TopSamplerTest::freezingAndThawAreFollowed()
{
    Sampler sampler;
    (void)sampler.take({ notes(100) }, 0, 1000);
    (void)sampler.take({ notes(100, 7, hidden) }, 1000, 2000);
    const Row frozen = sampler.take({ notes(130, 7, hidden, true) }, 4000, 5000).first();
    QCOMPARE(*frozen.frozenChangedMs, qint64(5000));
    QCOMPARE(*frozen.hiddenMs, qint64(2000));
    const Row thawed = sampler.take({ notes(140, 7, active, false) }, 14000, 15000).first();
    QCOMPARE(*thawed.frozenChangedMs, qint64(15000));
    QVERIFY(!thawed.hiddenMs);
    QCOMPARE(texts(sampler),
             QStringList({ QStringLiteral("thawed after 10 s, in which it used 10 ms of processor time"),
                           QStringLiteral("active"), QStringLiteral("frozen, 3 s after it was hidden"),
                           QStringLiteral("hidden") }));
    QCOMPARE(sampler.events().first().id, QStringLiteral("org.example.Notes"));
    QCOMPARE(sampler.events().first().timeMs, qint64(15000));
}

void TopSamplerTest::processorTimeWhileHiddenIsCounted()
{
    Sampler sampler;
    QVERIFY(!sampler.take({ notes(100) }, 0, 0).first().cpuHiddenMs);
    QCOMPARE(*sampler.take({ notes(150, 7, hidden) }, 1000, 1000).first().cpuHiddenMs, quint64(0));
    QCOMPARE(*sampler.take({ notes(175, 7, hidden) }, 2000, 2000).first().cpuHiddenMs, quint64(25));
    QVERIFY(!sampler.take({ notes(180, 7, active) }, 3000, 3000).first().cpuHiddenMs);
    QCOMPARE(*sampler.take({ notes(190, 7, hidden) }, 4000, 4000).first().cpuHiddenMs, quint64(0));
}

void TopSamplerTest::whoHasGoneIsTold()
{
    Sampler sampler;
    (void)sampler.take({ notes(1), process(QStringLiteral("a"), 8, active, false, 1) }, 0, 0);
    QVERIFY(sampler.take({}, 1000, 1000).isEmpty());
    QCOMPARE(texts(sampler), QStringList({ QStringLiteral("gone"), QStringLiteral("gone") }));
    QCOMPARE(sampler.events().last().id, QStringLiteral("a")); // in the order of the ids, the latest first
}

void TopSamplerTest::repeatedAndNamelessRowsAreLeftOut()
{
    Sampler sampler;
    const QVector<Row> rows =
        sampler.take({ notes(1), notes(2, 9), process(QString(), 3, active, false, 1), QVariant(5) }, 0, 0);
    QCOMPARE(rows.size(), 1);
    QCOMPARE(rows.first().pid, 7);
}

void TopSamplerTest::onlyTheLatestEventsAreKept()
{
    Sampler sampler;
    for (int i = 0; i <= Sampler::mostEvents + 5; ++i) {
        (void)sampler.take({ notes(1, 7, active, i % 2 == 1) }, i, i);
    }
    QCOMPARE(sampler.events().size(), Sampler::mostEvents);
    QCOMPARE(sampler.events().first().timeMs, qint64(Sampler::mostEvents + 5));
}

QTEST_APPLESS_MAIN(TopSamplerTest)

#include "tst_top_sampler.moc"
