#include "Core/memory_level.h"

#include "support/log_capture.h"

#include <QTest>

using Core::MemoryInfo;
using Core::MemoryLevel;
using Core::MemoryReading;
using Core::MemoryThreshold;
using TestSupport::LogCapture;

namespace {

constexpr qint64 none = -1; // what the file does not say

const QString noUnit = QStringLiteral("Missing kB in line");

/// The thresholds as a configuration gives them: both of Low, then both of Critical.
struct Limits
{
    int lowPercent = 0;
    int lowMb = 0;
    int criticalPercent = 0;
    int criticalMb = 0;

    QVector<MemoryThreshold> thresholds() const
    {
        return { { lowPercent, qint64(lowMb) * 1024, MemoryLevel::Low },
                 { criticalPercent, qint64(criticalMb) * 1024, MemoryLevel::Critical } };
    }
};

/// In kB.
struct Memory
{
    qint64 available = none;
    qint64 total = none;
    qint64 swapTotal = none;
    qint64 swapFree = none;
    qint64 free = none;
    qint64 inactiveFile = none;

    MemoryInfo info() const
    {
        MemoryInfo info;
        info.memAvailable = available;
        info.memTotal = total;
        info.swapTotal = swapTotal;
        info.swapFree = swapFree;
        info.memFree = free;
        info.inactiveFile = inactiveFile;
        return info;
    }
};

} // namespace

Q_DECLARE_METATYPE(Limits)
Q_DECLARE_METATYPE(Memory)

class tst_MemoryLevel : public QObject
{
    Q_OBJECT

private slots:
    void numbersAndNamesStayAsTheyAre_data();
    void numbersAndNamesStayAsTheyAre();
    void levelOfPlainMemory_data();
    void levelOfPlainMemory();
    void levelWithSwap_data();
    void levelWithSwap();
    void figuresBehindALevel();
    void withoutThresholdsMemoryIsAlwaysEnough();
    void realFileIsUnderstood();
    void oddFileIsReadAsFarAsPossible_data();
    void oddFileIsReadAsFarAsPossible();
    void hugeFiguresDoNotOverflow_data();
    void hugeFiguresDoNotOverflow();

private:
    void compareLevel(bool swapOnZram);
};

void tst_MemoryLevel::numbersAndNamesStayAsTheyAre_data()
{
    QTest::addColumn<MemoryLevel>("level");
    QTest::addColumn<int>("number");
    QTest::addColumn<QString>("name");

    QTest::newRow("unknown") << MemoryLevel::Unknown << 0 << QStringLiteral("Unknown");
    QTest::newRow("normal") << MemoryLevel::Normal << 1 << QStringLiteral("Normal");
    QTest::newRow("low") << MemoryLevel::Low << 2 << QStringLiteral("Low");
    QTest::newRow("critical") << MemoryLevel::Critical << 3 << QStringLiteral("Critical");
}

void tst_MemoryLevel::numbersAndNamesStayAsTheyAre()
{
    QFETCH(MemoryLevel, level);
    QTEST(int(level), "number");
    QTEST(QString::fromLatin1(Core::memoryLevelName(level)), "name");
}

void tst_MemoryLevel::levelOfPlainMemory_data()
{
    QTest::addColumn<Memory>("memory");
    QTest::addColumn<Limits>("limits");
    QTest::addColumn<MemoryLevel>("level");

    const auto normal = MemoryLevel::Normal;
    const auto low = MemoryLevel::Low;
    const auto critical = MemoryLevel::Critical;
    const auto unknown = MemoryLevel::Unknown;
    const Limits percent = { 20, 0, 10, 0 };
    const Limits megabytes = { 0, 100, 0, 50 };

    // Percentages of 1000 kB
    QTest::newRow("far above the percentages") << Memory { 900, 1000 } << percent << normal;
    QTest::newRow("low percentage exactly") << Memory { 200, 1000 } << percent << normal;
    QTest::newRow("below the low percentage") << Memory { 199, 1000 } << percent << low;
    QTest::newRow("critical percentage exactly") << Memory { 100, 1000 } << percent << low;
    QTest::newRow("below the critical percentage") << Memory { 99, 1000 } << percent << critical;
    QTest::newRow("nothing available") << Memory { 0, 1000 } << percent << critical;
    QTest::newRow("below by less than a percent") << Memory { 1999999, 10000000 } << percent << low;
    QTest::newRow("below by less than a float can tell")
        << Memory { 19999999999, 100000000000 } << percent << normal;
    QTest::newRow("only the critical percentage is used, exactly")
        << Memory { 100, 1000 } << Limits { 0, 0, 10, 0 } << normal;
    QTest::newRow("only the critical percentage is used, below")
        << Memory { 99, 1000 } << Limits { 0, 0, 10, 0 } << critical;
    QTest::newRow("negative percentage is not used")
        << Memory { 0, 1000 } << Limits { -5, 0, -1, 0 } << normal;
    QTest::newRow("a hundred percent, all available")
        << Memory { 1000, 1000 } << Limits { 100, 0, 0, 0 } << normal;
    QTest::newRow("a hundred percent, nearly all available")
        << Memory { 999, 1000 } << Limits { 100, 0, 0, 0 } << low;
    QTest::newRow("more than a hundred percent") << Memory { 1000, 1000 } << Limits { 101, 0, 0, 0 } << low;
    QTest::newRow("more available than there is") << Memory { 2000, 1000 } << percent << normal;

    // Megabytes
    QTest::newRow("100 MB exactly") << Memory { 102400, 8000000 } << megabytes << normal;
    QTest::newRow("1 kB below 100 MB") << Memory { 102399, 8000000 } << megabytes << low;
    QTest::newRow("50 MB exactly") << Memory { 51200, 8000000 } << megabytes << low;
    QTest::newRow("1 kB below 50 MB") << Memory { 51199, 8000000 } << megabytes << critical;
    QTest::newRow("megabytes do not ask for the total") << Memory { 102399, 102399 } << megabytes << low;
    QTest::newRow("negative megabytes are not used")
        << Memory { 0, 1000 } << Limits { 0, -1, 0, -100 } << normal;
    QTest::newRow("megabytes beyond 32 bits of kilobytes")
        << Memory { 4000000, 8000000 } << Limits { 0, 2147483647, 0, 0 } << low;

    // Either is enough
    QTest::newRow("percentage holds, megabytes do not")
        << Memory { 190000, 1000000 } << Limits { 20, 100, 0, 0 } << low;
    QTest::newRow("megabytes hold, percentage does not")
        << Memory { 90000, 100000 } << Limits { 20, 100, 0, 0 } << low;
    QTest::newRow("both hold") << Memory { 9000, 100000 } << Limits { 20, 100, 0, 0 } << low;
    QTest::newRow("neither holds") << Memory { 210000, 1000000 } << Limits { 20, 100, 0, 0 } << normal;
    QTest::newRow("critical by percentage, low by megabytes")
        << Memory { 90000, 1000000 } << Limits { 0, 100, 10, 0 } << critical;
    QTest::newRow("critical by megabytes, low by percentage")
        << Memory { 40000, 1000000 } << Limits { 20, 0, 0, 50 } << critical;
    QTest::newRow("thresholds the wrong way round, critical wins")
        << Memory { 150, 1000 } << Limits { 10, 0, 20, 0 } << critical;

    // What has to be there
    QTest::newRow("nothing known") << Memory {} << percent << unknown;
    QTest::newRow("available is missing") << Memory { none, 1000 } << percent << unknown;
    QTest::newRow("total is missing") << Memory { 1000, none } << percent << unknown;
    QTest::newRow("negative available") << Memory { -7, 1000 } << percent << unknown;
    QTest::newRow("no memory at all") << Memory { 0, 0 } << percent << normal;
    QTest::newRow("no memory at all, by megabytes") << Memory { 0, 0 } << megabytes << critical;
}

void tst_MemoryLevel::compareLevel(bool swapOnZram)
{
    QFETCH(Memory, memory);
    QFETCH(Limits, limits);
    QTEST(MemoryReading::judge(memory.info(), swapOnZram, limits.thresholds()).level, "level");
}

void tst_MemoryLevel::levelOfPlainMemory()
{
    compareLevel(false);
    // Where there is no swap it does not matter where it would lie.
    compareLevel(true);
}

void tst_MemoryLevel::levelWithSwap_data()
{
    QTest::addColumn<Memory>("memory");
    QTest::addColumn<bool>("zram");
    QTest::addColumn<Limits>("limits");
    QTest::addColumn<MemoryLevel>("level");

    const auto normal = MemoryLevel::Normal;
    const auto low = MemoryLevel::Low;
    const Limits percent = { 20, 0, 0, 0 };
    // Low below the given kilobytes is what tells how much counted, so that is given in MB.
    const Limits twoMb = { 0, 2, 0, 0 };

    QTest::newRow("no swap, percentage of the memory")
        << Memory { 200, 1000, 0, 0 } << false << percent << normal;
    QTest::newRow("no swap, free swap does not count")
        << Memory { 199, 1000, 0, 900 } << false << percent << low;
    QTest::newRow("negative swap is none") << Memory { 200, 1000, -5, 900 } << false << percent << normal;
    QTest::newRow("full swap makes the total greater")
        << Memory { 399, 1000, 1000, 0 } << false << percent << low;
    QTest::newRow("full swap, exactly") << Memory { 400, 1000, 1000, 0 } << false << percent << normal;
    QTest::newRow("free swap is available") << Memory { 100, 1000, 1000, 300 } << false << percent << normal;
    QTest::newRow("free swap, one less") << Memory { 100, 1000, 1000, 299 } << false << percent << low;
    QTest::newRow("free swap is missing") << Memory { 400, 1000, 1000, none } << false << percent << normal;
    QTest::newRow("free swap is missing, one less")
        << Memory { 399, 1000, 1000, none } << false << percent << low;
    QTest::newRow("megabytes with free swap")
        << Memory { 1024, 9999, 1024, 1024 } << false << twoMb << normal;
    QTest::newRow("megabytes with free swap, one less")
        << Memory { 1024, 9999, 1024, 1023 } << false << twoMb << low;

    QTest::newRow("zram, only what memory could back")
        << Memory { 1748, 100000, 1000000, 1000000, 100, 200 } << true << twoMb << normal;
    QTest::newRow("zram, one less") << Memory { 1747, 100000, 1000000, 1000000, 100, 200 } << true << twoMb
                                    << low;
    QTest::newRow("the same swap elsewhere counts in full")
        << Memory { 1747, 100000, 1000000, 1000000, 100, 200 } << false << twoMb << normal;
    QTest::newRow("zram with less free than memory could back")
        << Memory { 2000, 100000, 1000, 48, 500, 500 } << true << twoMb << normal;
    QTest::newRow("zram with less free, one less")
        << Memory { 2000, 100000, 1000, 47, 500, 500 } << true << twoMb << low;
    QTest::newRow("zram, free memory is missing")
        << Memory { 1849, 100000, 1000, 1000, none, 200 } << true << twoMb << normal;
    QTest::newRow("zram, free memory is missing, one less")
        << Memory { 1848, 100000, 1000, 1000, none, 200 } << true << twoMb << low;
    QTest::newRow("zram, nothing said about file pages")
        << Memory { 1949, 100000, 1000, 1000, 100, none } << true << twoMb << normal;
    QTest::newRow("zram, neither is said") << Memory { 2048, 100000, 1000, 1000 } << true << twoMb << normal;
    QTest::newRow("zram, neither is said, one less")
        << Memory { 2047, 100000, 1000, 1000 } << true << twoMb << low;
}

void tst_MemoryLevel::levelWithSwap()
{
    QFETCH(bool, zram);
    compareLevel(zram);
}

void tst_MemoryLevel::figuresBehindALevel()
{
    const Memory memory = { 1000, 4000, 1000, 900, 100, 200 };
    const MemoryReading reading = MemoryReading::judge(memory.info(), true, {});
    QCOMPARE(reading.availableKb, 1300);
    QCOMPARE(reading.totalKb, 5000);
    QCOMPARE(reading.swapFreeKb, 300);
    QCOMPARE(reading.swapTotalKb, 1000);
    QCOMPARE(reading.percent, 26.0F);
}

void tst_MemoryLevel::withoutThresholdsMemoryIsAlwaysEnough()
{
    QCOMPARE(MemoryReading::judge(Memory { 0, 1000 }.info(), false, Limits {}.thresholds()).level,
             MemoryLevel::Normal);
}

void tst_MemoryLevel::realFileIsUnderstood()
{
    const LogCapture log;
    const MemoryInfo info = MemoryInfo::parse("MemTotal:        4024312 kB\n"
                                              "MemFree:          112340 kB\n"
                                              "MemAvailable:    1204480 kB\n"
                                              "Buffers:           20480 kB\n"
                                              "SwapCached:          512 kB\n"
                                              "Active(file):     300000 kB\n"
                                              "Inactive:         900000 kB\n"
                                              "Inactive(anon):   500000 kB\n"
                                              "Inactive(file):   400000 kB\n"
                                              "SwapTotal:       1048572 kB\n"
                                              "SwapFree:        1000000 kB\n"
                                              "HugePages_Total:       0\n"
                                              "DirectMap4k:      120000 kB\n");
    QCOMPARE(info.memTotal, 4024312);
    QCOMPARE(info.memFree, 112340);
    QCOMPARE(info.memAvailable, 1204480);
    QCOMPARE(info.inactiveFile, 400000);
    QCOMPARE(info.swapTotal, 1048572);
    QCOMPARE(info.swapFree, 1000000);
    QCOMPARE(log.messages(), QStringList());
}

void tst_MemoryLevel::oddFileIsReadAsFarAsPossible_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<qint64>("available");
    QTest::addColumn<qint64>("total");
    QTest::addColumn<QStringList>("warnings");

    const auto row = [](const char *name, const QByteArray &content, qint64 available, qint64 total,
                        const QStringList &warnings = {}) {
        QTest::newRow(name) << content << available << total << warnings;
    };
    row("empty", "", none, none);
    row("only line feeds", "\n\n\n", none, none);
    row("no final line feed", "MemTotal: 20 kB\nMemAvailable: 10 kB", 10, 20);
    row("cut in the tag", "MemTotal: 20 kB\nMemAvail", none, 20);
    row("cut behind the colon", "MemTotal: 20 kB\nMemAvailable:", none, 20, { noUnit });
    row("cut in the number", "MemTotal: 20 kB\nMemAvailable: 1", none, 20, { noUnit });
    row("cut in the unit", "MemTotal: 20 kB\nMemAvailable: 10 k", none, 20, { noUnit });
    row("no blank before the unit", "MemTotal: 20 kB\nMemAvailable: 10kB\n", none, 20, { noUnit });
    row("another unit", "MemTotal: 20 kB\nMemAvailable: 10 MB\n", none, 20, { noUnit });
    row("no unit in a line that is not wanted", "Active: 5\nMemTotal: 20 kB\nMemAvailable: 10 kB\n", 10, 20);
    row("two lines without a unit", "MemTotal: 20\nMemAvailable: 10\n", none, none, { noUnit, noUnit });
    row("the line behind one without a unit counts", "MemTotal: 20\nMemAvailable: 10 kB\n", 10, none,
        { noUnit });
    row("text for a number", "MemTotal: 20 kB\nMemAvailable: many kB\n", none, 20);
    row("nothing for a number", "MemTotal: 20 kB\nMemAvailable: kB\n", none, 20);
    row("hexadecimal", "MemTotal: 20 kB\nMemAvailable: 0x10 kB\n", none, 20);
    row("a fraction", "MemTotal: 20 kB\nMemAvailable: 1.5 kB\n", none, 20);
    row("beyond 64 bits", "MemTotal: 20 kB\nMemAvailable: 99999999999999999999 kB\n", none, 20);
    row("negative", "MemTotal: 20 kB\nMemAvailable: -10 kB\n", -10, 20);
    row("no blank behind the colon", "MemTotal:20 kB\nMemAvailable:10 kB\n", 10, 20);
    row("more behind the unit", "MemTotal: 20 kB or so\nMemAvailable: 10 kB kB\n", 10, 20);
    row("tag with a blank before it", " MemTotal: 20 kB\nMemAvailable: 10 kB\n", 10, none);
    row("tag of another case", "memtotal: 20 kB\nMemAvailable: 10 kB\n", 10, none);
    row("tag with more to it", "MemTotalX: 20 kB\nMemAvailable: 10 kB\n", 10, none);
    row("no colon", "MemTotal 20 kB\nMemAvailable: 10 kB\n", 10, none);
    row("carriage returns", "MemTotal: 20 kB\r\nMemAvailable: 10 kB\r\n", 10, 20);
    row("twice, the last one counts", "MemTotal: 20 kB\nMemAvailable: 10 kB\nMemTotal: 30 kB\n", 10, 30);
    row("twice, the last one without a number", "MemTotal: 20 kB\nMemAvailable: 10 kB\nMemTotal: x kB\n", 10,
        20);
    row("binary", QByteArray("\0\xff\xfe:\0 kB\n", 9) + "MemTotal: 20 kB\nMemAvailable: 10 kB\n", 10, 20);
    row("a huge line", "X:" + QByteArray(500000, '9') + " kB\nMemTotal: 20 kB\nMemAvailable: 10 kB\n", 10,
        20);
    row("a huge number", "MemTotal: 20 kB\nMemAvailable: " + QByteArray(500000, '9') + " kB\n", none, 20);
    row("many lines", QByteArray("Other: 1 kB\n").repeated(50000) + "MemTotal: 20 kB\nMemAvailable: 10 kB\n",
        10, 20);
}

void tst_MemoryLevel::oddFileIsReadAsFarAsPossible()
{
    QFETCH(QByteArray, content);
    const LogCapture log;
    const MemoryInfo info = MemoryInfo::parse(content);
    QTEST(info.memAvailable, "available");
    QTEST(info.memTotal, "total");
    QTEST(log.warnings(), "warnings");
}

void tst_MemoryLevel::hugeFiguresDoNotOverflow_data()
{
    QTest::addColumn<QByteArray>("figure");
    QTest::addColumn<MemoryLevel>("level");

    QTest::newRow("greatest") << QByteArrayLiteral("9223372036854775807") << MemoryLevel::Normal;
    QTest::newRow("smallest") << QByteArrayLiteral("-9223372036854775808") << MemoryLevel::Unknown;
}

void tst_MemoryLevel::hugeFiguresDoNotOverflow()
{
    QFETCH(QByteArray, figure);
    QByteArray content;
    for (const char *tag :
         { "MemFree", "MemAvailable", "MemTotal", "SwapTotal", "SwapFree", "Inactive(file)" }) {
        content += tag + (": " + figure) + " kB\n";
    }
    const MemoryReading reading =
        MemoryReading::judge(MemoryInfo::parse(content), true, Limits { 50, 100, 10, 50 }.thresholds());
    QTEST(reading.level, "level");
    QVERIFY(reading.percent >= 0 && reading.percent <= 100);
}

QTEST_APPLESS_MAIN(tst_MemoryLevel)
#include "tst_memory_level.moc"
