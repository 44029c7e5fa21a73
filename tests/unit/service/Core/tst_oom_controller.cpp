#include "Core/oom_controller.h"

#include "support/cgroup_tree.h"
#include "support/log_capture.h"

#include <QFile>
#include <QTest>

#include <memory>

#include <sys/stat.h>

using Core::MemoryLevel;
using Core::OomController;
using TestSupport::CGroupTree;
using TestSupport::LogCapture;

namespace {

const QString notOpened = QStringLiteral("Could not open /proc/meminfo");
const QString fieldsMissing = QStringLiteral("Missing required fields in /proc/meminfo");

QByteArray memInfo(qint64 available, qint64 total)
{
    return "MemTotal: " + QByteArray::number(total) + " kB\nMemAvailable: " + QByteArray::number(available)
        + " kB\n";
}

} // namespace

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
    void fileThatOpensAndCannotBeReadIsUnknown_data();
    void fileThatOpensAndCannotBeReadIsUnknown();
    void fileThatVanishesAndComesBack();
    void swapOnZramIsToldByTheListOfSwaps_data();
    void swapOnZramIsToldByTheListOfSwaps();
    void swapIsLookedAtOnce();
    void swapThatComesAndGoesCountsWhileItIsThere();
    void debugLineShowsTheFigures();
    void debugLineTakesAnyValueOfTheVariable();

private:
    void configure(const QByteArray &content)
    {
        m_tree->write(QStringLiteral("etc/procwarden/oom.cfg"), content);
    }
    void setMemory(const QByteArray &content) { m_tree->write(QStringLiteral("proc/meminfo"), content); }

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
    QTest::newRow("cut within a name") << QByteArrayLiteral("MemTotal: 10 kB\nMemAvail");
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

void tst_OomController::fileThatOpensAndCannotBeReadIsUnknown_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<QString>("warning");

    QTest::newRow("reading fails") << QStringLiteral("/proc/self/mem") << fieldsMissing;
    QTest::newRow("no end and no line") << QStringLiteral("/dev/zero") << fieldsMissing;
    QTest::newRow("directory") << QStringLiteral("/proc") << notOpened;
}

void tst_OomController::fileThatOpensAndCannotBeReadIsUnknown()
{
    QFETCH(QString, target);
    QFETCH(QString, warning);
    m_tree->link(QStringLiteral("proc/meminfo"), target);
    m_tree->link(QStringLiteral("proc/swaps"), target);
    LogCapture log;
    const OomController controller;
    QCOMPARE(log.messages(), QStringList()); // without swap there is nothing to say
    QCOMPARE(controller.readMemoryLevel(), MemoryLevel::Unknown);
    QCOMPARE(controller.readMemoryLevel(), MemoryLevel::Unknown);
    QCOMPARE(log.warnings(), QStringList({ warning, warning }));

    // The next reading has a file as it should be.
    log.clear();
    QVERIFY(QFile::remove(m_tree->path(QStringLiteral("proc/meminfo"))));
    setMemory(memInfo(10, 20));
    QCOMPARE(controller.readMemoryLevel(), MemoryLevel::Normal);
    QCOMPARE(log.warnings(), QStringList());
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

void tst_OomController::swapThatComesAndGoesCountsWhileItIsThere()
{
    configure("LowMemoryTermMB=1\n");
    const QByteArray memory = memInfo(1000, 100000);
    const OomController controller;
    for (int round = 0; round < 2; ++round) {
        setMemory(memory);
        QCOMPARE(controller.readMemoryLevel(), MemoryLevel::Low);
        QCOMPARE(controller.lastReading().totalKb, 100000);
        setMemory(memory + "SwapTotal: 50000 kB\nSwapFree: 50000 kB\n");
        QCOMPARE(controller.readMemoryLevel(), MemoryLevel::Normal);
        QCOMPARE(controller.lastReading().availableKb, 51000);
        QCOMPARE(controller.lastReading().totalKb, 150000);
        setMemory(memory + "SwapTotal: 0 kB\nSwapFree: 0 kB\n");
        QCOMPARE(controller.readMemoryLevel(), MemoryLevel::Low);
        QCOMPARE(controller.lastReading().availableKb, 1000);
    }
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

QTEST_APPLESS_MAIN(tst_OomController)
#include "tst_oom_controller.moc"
