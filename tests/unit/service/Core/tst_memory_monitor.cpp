#include "Core/memory_monitor.h"

#include "support/cgroup_tree.h"
#include "support/log_capture.h"

#include <QFile>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <memory>

using Core::MemoryLevel;
using Core::MemoryMonitor;
using TestSupport::CGroupTree;
using TestSupport::LogCapture;

namespace {

using Levels = QVector<MemoryLevel>;

// Short ones, so that the tests are.
constexpr int normalMs = 40;
constexpr int lowMs = 20;
constexpr int criticalMs = 10;

} // namespace

class tst_MemoryMonitor : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void knowsNothingBeforeTheFirstLook();
    void runsOnlyWhenStarted();
    void firstLevelIsToldOnce();
    void eachChangeIsToldAndLogged_data();
    void eachChangeIsToldAndLogged();
    void unknownIsToldOnlyOnAChange();
    void flappingLevelsAreAllTold();
    void figuresAreThoseOfTheLastLook();
    void startAndStopInASlot();
    void paceFollowsTheLevel_data();
    void paceFollowsTheLevel();
    void thereIsOneForTheProcess();

private:
    void setAvailable(int mb);
    void setLevel(MemoryLevel level);

    std::unique_ptr<CGroupTree> m_tree;
    std::unique_ptr<MemoryMonitor> m_monitor;
    Levels m_told;
};

void tst_MemoryMonitor::init()
{
    m_tree = std::make_unique<CGroupTree>();
    m_tree->use();
    m_tree->write(QStringLiteral("etc/procwarden/oom.cfg"),
                  "LowMemoryTermMB=200\nMinMemoryTermMB=100\nCheckIntervalMsec="
                      + QByteArray::number(normalMs)
                      + "\nCheckIntervalMsecLowMem=" + QByteArray::number(lowMs)
                      + "\nCheckIntervalMsecCriticalMem=" + QByteArray::number(criticalMs) + '\n');
    setLevel(MemoryLevel::Normal);
    m_told.clear();
    m_monitor = std::make_unique<MemoryMonitor>();
    connect(m_monitor.get(), &MemoryMonitor::levelChanged, this,
            [this](MemoryLevel level) { m_told.append(level); });
}

void tst_MemoryMonitor::cleanup()
{
    m_monitor.reset();
    m_tree.reset();
}

void tst_MemoryMonitor::setAvailable(int mb)
{
    m_tree->write(QStringLiteral("proc/meminfo"),
                  "MemTotal: 4000000 kB\nMemAvailable: " + QByteArray::number(mb * 1024) + " kB\n");
}

void tst_MemoryMonitor::setLevel(MemoryLevel level)
{
    switch (level) {
    case MemoryLevel::Unknown:
        QFile::remove(m_tree->path(QStringLiteral("proc/meminfo")));
        break;
    case MemoryLevel::Normal:
        setAvailable(1000);
        break;
    case MemoryLevel::Low:
        setAvailable(150);
        break;
    case MemoryLevel::Critical:
        setAvailable(50);
        break;
    }
}

void tst_MemoryMonitor::knowsNothingBeforeTheFirstLook()
{
    QCOMPARE(m_monitor->level(), MemoryLevel::Unknown);
    QCOMPARE(m_monitor->reading().availableKb, 0);
    QVERIFY(!m_monitor->isActive());
}

void tst_MemoryMonitor::runsOnlyWhenStarted()
{
    QVERIFY(!m_monitor->isActive());
    m_monitor->start();
    QVERIFY(m_monitor->isActive());
    QCOMPARE(m_told, Levels()); // the first look comes after one interval
    QTRY_COMPARE(m_told, Levels { MemoryLevel::Normal });

    m_monitor->stop();
    QVERIFY(!m_monitor->isActive());
    setLevel(MemoryLevel::Critical);
    QCOMPARE(m_monitor->level(), MemoryLevel::Normal);
    m_monitor->start();
    QTRY_COMPARE(m_told, (Levels { MemoryLevel::Normal, MemoryLevel::Critical }));
}

void tst_MemoryMonitor::firstLevelIsToldOnce()
{
    const LogCapture log;
    for (int look = 0; look < 5; ++look) {
        m_monitor->checkOomState();
    }
    QCOMPARE(m_told, Levels { MemoryLevel::Normal });
    QCOMPARE(log.messages(), QStringList(QStringLiteral("Memory level: normal")));
}

void tst_MemoryMonitor::eachChangeIsToldAndLogged_data()
{
    QTest::addColumn<MemoryLevel>("from");
    QTest::addColumn<MemoryLevel>("to");
    QTest::addColumn<QString>("text");

    const QVector<QPair<MemoryLevel, QString>> levels = {
        { MemoryLevel::Unknown, QStringLiteral("Memory level: normal") },
        { MemoryLevel::Normal, QStringLiteral("Memory level: normal") },
        { MemoryLevel::Low, QStringLiteral("Memory level: low") },
        { MemoryLevel::Critical, QStringLiteral("Memory level: critical") },
    };
    for (const auto &from : levels) {
        for (const auto &to : levels) {
            if (from.first != to.first) {
                QTest::addRow("%s to %s", Core::memoryLevelName(from.first), Core::memoryLevelName(to.first))
                    << from.first << to.first << to.second;
            }
        }
    }
}

void tst_MemoryMonitor::eachChangeIsToldAndLogged()
{
    QFETCH(MemoryLevel, from);
    QFETCH(MemoryLevel, to);
    const LogCapture log;
    setLevel(from);
    m_monitor->checkOomState();
    m_told.clear();
    // The level is known by the time that anybody is told.
    connect(m_monitor.get(), &MemoryMonitor::levelChanged, this,
            [this](MemoryLevel level) { QCOMPARE(m_monitor->level(), level); });
    setLevel(to);
    m_monitor->checkOomState();
    m_monitor->checkOomState();

    QCOMPARE(m_told, Levels { to });
    QCOMPARE(m_monitor->level(), to);
    QTEST(log.messages(QtDebugMsg).last(), "text");
}

void tst_MemoryMonitor::unknownIsToldOnlyOnAChange()
{
    const LogCapture log;
    setLevel(MemoryLevel::Unknown);
    m_monitor->checkOomState();
    QCOMPARE(m_told, Levels()); // as it was

    setLevel(MemoryLevel::Normal);
    m_monitor->checkOomState();
    m_tree->write(QStringLiteral("proc/meminfo"), "MemTotal: 4000000 kB\n");
    for (int look = 0; look < 3; ++look) {
        m_monitor->checkOomState();
    }
    QCOMPARE(m_told, (Levels { MemoryLevel::Normal, MemoryLevel::Unknown }));
    const QString missing = QStringLiteral("Missing required fields in /proc/meminfo");
    QCOMPARE(log.warnings(),
             QStringList({ QStringLiteral("Could not open /proc/meminfo"), missing, missing, missing }));
}

void tst_MemoryMonitor::flappingLevelsAreAllTold()
{
    Levels expected;
    const LogCapture log;
    for (int round = 0; round < 50; ++round) {
        for (const MemoryLevel level : { MemoryLevel::Critical, MemoryLevel::Low }) {
            setLevel(level);
            m_monitor->checkOomState();
            m_monitor->checkOomState();
            expected.append(level);
        }
    }
    QCOMPARE(m_told, expected);
}

void tst_MemoryMonitor::figuresAreThoseOfTheLastLook()
{
    const LogCapture log;
    setAvailable(1000);
    m_monitor->checkOomState();
    setAvailable(900);
    QCOMPARE(m_monitor->reading().availableKb, 1000 * 1024);
    m_monitor->checkOomState(); // the level is the same, the figures are not
    QCOMPARE(m_monitor->reading().availableKb, 900 * 1024);
}

void tst_MemoryMonitor::startAndStopInASlot()
{
    const LogCapture log;
    connect(m_monitor.get(), &MemoryMonitor::levelChanged, this, [this] { m_monitor->stop(); });
    m_monitor->start();
    QTRY_COMPARE(m_told.size(), 1);
    QVERIFY(!m_monitor->isActive()); // the new interval has not started it again
}

void tst_MemoryMonitor::paceFollowsTheLevel_data()
{
    QTest::addColumn<MemoryLevel>("level");
    QTest::addColumn<int>("intervalMs");

    QTest::newRow("unknown") << MemoryLevel::Unknown << normalMs;
    QTest::newRow("normal") << MemoryLevel::Normal << normalMs;
    QTest::newRow("low") << MemoryLevel::Low << lowMs;
    QTest::newRow("critical") << MemoryLevel::Critical << criticalMs;
}

void tst_MemoryMonitor::paceFollowsTheLevel()
{
    QFETCH(MemoryLevel, level);
    QFETCH(int, intervalMs);
    const LogCapture log;
    // From another level, so that the interval has to be set anew.
    setLevel(level == MemoryLevel::Low ? MemoryLevel::Critical : MemoryLevel::Low);
    m_monitor->checkOomState();
    setLevel(level);
    m_monitor->checkOomState();
    QCOMPARE(m_monitor->intervalMs(), intervalMs);
    m_monitor->start();
    QCOMPARE(m_monitor->intervalMs(), intervalMs);
}

void tst_MemoryMonitor::thereIsOneForTheProcess()
{
    QCOMPARE(MemoryMonitor::instance(), MemoryMonitor::instance());
    QVERIFY(!MemoryMonitor::instance()->isActive());
}

QTEST_GUILESS_MAIN(tst_MemoryMonitor)
#include "tst_memory_monitor.moc"
