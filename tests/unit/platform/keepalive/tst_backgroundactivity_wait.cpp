#include "backgroundactivity.h"

#include "support/bus_stand_in.h"
#include "support/log_capture.h"
#include "support/patience.h"
#include "support/private_bus.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <csignal>
#include <memory>
#include <sys/resource.h>
#include <vector>

using TestSupport::BusStandIn;
using TestSupport::LogCapture;
using TestSupport::PrivateBus;

namespace {

/// What the kernel says about each timer descriptor of this process.
QList<QByteArray> timers()
{
    QList<QByteArray> result;
    const QDir descriptors(QStringLiteral("/proc/self/fd"));
    const QFileInfoList entries =
        descriptors.entryInfoList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    for (const QFileInfo &entry : entries) {
        if (entry.symLinkTarget().endsWith(QLatin1String("anon_inode:[timerfd]"))) {
            QFile info(QStringLiteral("/proc/self/fdinfo/") + entry.fileName());
            if (info.open(QIODevice::ReadOnly)) {
                result << info.readAll();
            }
        }
    }
    return result;
}

/// A wait that a process of its own has begun, for the tests that stop it or take rights from it.
int waitAndTell(int seconds)
{
    BackgroundActivity activity;
    QObject::connect(&activity, &BackgroundActivity::running, [] {
        printf("running\n");
        fflush(stdout);
        QTimer::singleShot(300, qApp, &QCoreApplication::quit); // long enough for a second one to show
    });
    activity.wait(seconds, seconds);
    for (const QByteArray &timer : timers()) {
        printf("%s", timer.constData());
    }
    printf("waiting\n");
    fflush(stdout);
    return QCoreApplication::exec();
}

} // namespace

class tst_BackgroundActivityWait : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();

    void wakesWithinTheRange_data();
    void wakesWithinTheRange();
    void neverWithinTheCall();
    void oddRangesAreMadeGood_data();
    void oddRangesAreMadeGood();
    void runsFromTheWakeUpOn();
    void stopDropsTheWakeUp();
    void secondWaitReplacesTheFirst();
    void waitEndsTheRun();
    void runEndsTheWait();
    void destructionDropsTheWakeUp();
    void manyWakeInTheirOrder();
    void manyTakeOneDescriptor();
    void waitAgainWhenWoken();
    void destructionWhenWoken();
    void destructionOfAnotherWhenWoken();
    void withoutDescriptorsWarnsOnce();
    void deviceIsWokenWherePermitted();
    void withoutTheCapabilityItStillWaits();
    void stoppedProcessRunsOnceItGoesOn();

private:
    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<BusStandIn> m_logind;
};

void tst_BackgroundActivityWait::initTestCase()
{
    m_bus = std::make_unique<PrivateBus>();
    m_bus->useAsSystemBus();
    // It does not answer; what becomes of its answers is tested elsewhere.
    m_logind = std::make_unique<BusStandIn>(*m_bus, QStringLiteral("org.freedesktop.login1"),
                                            QStringLiteral("/org/freedesktop/login1"));
}

void tst_BackgroundActivityWait::cleanupTestCase()
{
    m_logind.reset();
}

void tst_BackgroundActivityWait::init()
{
    m_logind->clearCalls();
}

void tst_BackgroundActivityWait::wakesWithinTheRange_data()
{
    QTest::addColumn<int>("minimum");
    QTest::addColumn<int>("maximum");

    QTest::newRow("at once") << 0 << 0;
    QTest::newRow("within a second") << 0 << 1;
    QTest::newRow("one second") << 1 << 1;
    QTest::newRow("the second one") << 1 << 2;
}

void tst_BackgroundActivityWait::wakesWithinTheRange()
{
    QFETCH(const int, minimum);
    QFETCH(const int, maximum);

    BackgroundActivity activity;
    QSignalSpy running(&activity, &BackgroundActivity::running);
    QElapsedTimer time;
    time.start();
    activity.wait(minimum, maximum);
    QVERIFY(running.wait(maximum * 1000 + 10000)); // on a busy machine
    const qint64 elapsed = time.elapsed();
    QVERIFY2(elapsed >= minimum * 1000, qPrintable(QString::number(elapsed)));
    QVERIFY(!running.wait(100));
    QCOMPARE(running.size(), 1);
}

void tst_BackgroundActivityWait::neverWithinTheCall()
{
    BackgroundActivity activity;
    QSignalSpy running(&activity, &BackgroundActivity::running);
    activity.wait(0, 0);
    QCOMPARE(running.size(), 0);
    QVERIFY(!activity.isRunning());
    QVERIFY(running.wait(patienceMs));
}

void tst_BackgroundActivityWait::oddRangesAreMadeGood_data()
{
    QTest::addColumn<int>("minimum");
    QTest::addColumn<int>("maximum");
    QTest::addColumn<bool>("wakes");

    QTest::newRow("negative") << -5 << -3 << true;
    QTest::newRow("lowest") << std::numeric_limits<int>::min() << std::numeric_limits<int>::min() << true;
    QTest::newRow("the wrong way around") << 0 << -1 << true;
    QTest::newRow("highest") << std::numeric_limits<int>::max() << std::numeric_limits<int>::max() << false;
    QTest::newRow("the wrong way around, highest")
        << std::numeric_limits<int>::max() << std::numeric_limits<int>::min() << false;
}

void tst_BackgroundActivityWait::oddRangesAreMadeGood()
{
    QFETCH(const int, minimum);
    QFETCH(const int, maximum);
    QFETCH(const bool, wakes);

    BackgroundActivity activity;
    QSignalSpy running(&activity, &BackgroundActivity::running);
    activity.wait(minimum, maximum);
    QCOMPARE(running.wait(wakes ? patienceMs : 500), wakes);
}

void tst_BackgroundActivityWait::runsFromTheWakeUpOn()
{
    BackgroundActivity activity;
    bool runsWhenTold = false;
    connect(&activity, &BackgroundActivity::running, this, [&] { runsWhenTold = activity.isRunning(); });
    QSignalSpy running(&activity, &BackgroundActivity::running);
    activity.wait(2, 2);
    QVERIFY(!running.wait(200));
    QVERIFY(!activity.isRunning());
    QCOMPARE(m_logind->calls().size(), 0); // who waits keeps nothing awake
    QTRY_VERIFY(activity.isRunning());
    QVERIFY(runsWhenTold);
    QTRY_COMPARE(m_logind->calls().size(), 1);
    QCOMPARE(m_logind->calls().first().member(), QStringLiteral("Inhibit"));
    activity.stop();
    QVERIFY(!activity.isRunning());
}

void tst_BackgroundActivityWait::stopDropsTheWakeUp()
{
    BackgroundActivity activity;
    QSignalSpy running(&activity, &BackgroundActivity::running);
    activity.wait(0, 0);
    activity.stop();
    QVERIFY(!running.wait(200));
    QVERIFY(!activity.isRunning());
}

void tst_BackgroundActivityWait::secondWaitReplacesTheFirst()
{
    BackgroundActivity activity;
    QSignalSpy running(&activity, &BackgroundActivity::running);
    activity.wait(0, 0);
    activity.wait(3, 3);
    QVERIFY(!running.wait(500));
    QVERIFY(running.wait(patienceMs));
    QCOMPARE(running.size(), 1);
}

void tst_BackgroundActivityWait::waitEndsTheRun()
{
    BackgroundActivity activity;
    activity.run();
    QVERIFY(activity.isRunning());
    activity.wait(1000, 1000);
    QVERIFY(!activity.isRunning());
}

void tst_BackgroundActivityWait::runEndsTheWait()
{
    BackgroundActivity activity;
    QSignalSpy running(&activity, &BackgroundActivity::running);
    activity.wait(0, 0);
    activity.run();
    QVERIFY(activity.isRunning());
    QVERIFY(!running.wait(200));
    QVERIFY(activity.isRunning());
}

void tst_BackgroundActivityWait::destructionDropsTheWakeUp()
{
    int woken = 0;
    BackgroundActivity other;
    auto activity = std::make_unique<BackgroundActivity>();
    connect(activity.get(), &BackgroundActivity::running, this, [&] { ++woken; });
    activity->wait(0, 0);
    other.wait(0, 0);
    activity.reset();
    QTRY_VERIFY(other.isRunning());
    QCOMPARE(woken, 0);
}

void tst_BackgroundActivityWait::manyWakeInTheirOrder()
{
    const QList<QPair<int, int>> ranges {
        { 1, 2 }, { 0, 0 }, { 1, 1 }, { 0, 1 }, { 0, 2 }
    }; // at 3/4 of each
    std::vector<std::unique_ptr<BackgroundActivity>> activities;
    QList<int> order;
    for (int i = 0; i < ranges.size(); ++i) {
        activities.push_back(std::make_unique<BackgroundActivity>());
        connect(activities.back().get(), &BackgroundActivity::running, this, [&order, i] { order << i; });
        activities.back()->wait(ranges.at(i).first, ranges.at(i).second);
    }
    QTRY_COMPARE(order.size(), 5);
    QCOMPARE(order, (QList<int> { 1, 3, 2, 4, 0 }));
}

void tst_BackgroundActivityWait::manyTakeOneDescriptor()
{
    std::vector<std::unique_ptr<BackgroundActivity>> activities;
    int woken = 0;
    for (int i = 0; i < 2000; ++i) {
        activities.push_back(std::make_unique<BackgroundActivity>());
        connect(activities.back().get(), &BackgroundActivity::running, this, [&woken] { ++woken; });
        activities.back()->wait(i % 2, i % 2);
    }
    QCOMPARE(timers().size(), 1);
    QTRY_COMPARE(woken, 2000);
    activities.clear();
    QCOMPARE(timers().size(), 0);
}

void tst_BackgroundActivityWait::waitAgainWhenWoken()
{
    BackgroundActivity activity;
    BackgroundActivity other;
    QSignalSpy otherRunning(&other, &BackgroundActivity::running);
    int woken = 0;
    connect(&activity, &BackgroundActivity::running, this, [&] {
        ++woken;
        activity.wait(0, 0); // again and again, and the event loop goes on
    });
    activity.wait(0, 0);
    other.wait(0, 1);
    QVERIFY(otherRunning.wait(patienceMs));
    QTRY_VERIFY(woken > 2);
}

void tst_BackgroundActivityWait::destructionWhenWoken()
{
    auto *activity = new BackgroundActivity; // the last one, and with it goes what it shares
    bool woken = false;
    connect(activity, &BackgroundActivity::running, this, [&] {
        woken = true;
        delete activity;
    });
    activity->wait(0, 0);
    QTRY_VERIFY(woken);
    QCOMPARE(timers().size(), 0);
}

void tst_BackgroundActivityWait::destructionOfAnotherWhenWoken()
{
    auto one = std::make_unique<BackgroundActivity>();
    auto two = std::make_unique<BackgroundActivity>();
    int woken = 0;
    connect(one.get(), &BackgroundActivity::running, this, [&] {
        ++woken;
        two.reset();
    });
    connect(two.get(), &BackgroundActivity::running, this, [&] {
        ++woken;
        one.reset();
    });
    one->wait(0, 0);
    two->wait(0, 0);
    QTRY_COMPARE(woken, 1);
    BackgroundActivity other;
    other.wait(0, 0);
    QTRY_VERIFY(other.isRunning());
    QCOMPARE(woken, 1);
}

void tst_BackgroundActivityWait::withoutDescriptorsWarnsOnce()
{
    rlimit before {};
    QCOMPARE(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit none = before;
    none.rlim_cur = 0;
    const LogCapture log;
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &none), 0);
    auto activity = std::make_unique<BackgroundActivity>();
    BackgroundActivity other;
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &before), 0);
    QSignalSpy running(activity.get(), &BackgroundActivity::running);
    activity->wait(0, 0);
    other.wait(0, 0);
    QVERIFY(!running.wait(100));
    activity->stop();
    other.stop();
    QCOMPARE(log.messages(),
             QStringList(QStringLiteral("Cannot make a timer for wake-ups: Too many open files")));
}

void tst_BackgroundActivityWait::deviceIsWokenWherePermitted()
{
    QFile status(QStringLiteral("/proc/self/status"));
    QVERIFY(status.open(QIODevice::ReadOnly));
    const QRegularExpression capabilities(QStringLiteral("\\nCapEff:\\s*(\\w+)"));
    const quint64 effective =
        capabilities.match(QString::fromUtf8(status.readAll())).captured(1).toULongLong(nullptr, 16);
    if ((effective & (Q_UINT64_C(1) << 35)) == 0) {
        QSKIP("needs the capability CAP_WAKE_ALARM");
    }
    BackgroundActivity activity;
    QCOMPARE(timers().size(), 1);
    QVERIFY2(timers().first().contains("clockid: 9\n"), timers().first().constData());
}

void tst_BackgroundActivityWait::withoutTheCapabilityItStillWaits()
{
    QProcess process;
    process.start(QStringLiteral("setpriv"),
                  { QStringLiteral("--bounding-set=-wake_alarm"), QStringLiteral("--inh-caps=-wake_alarm"),
                    QCoreApplication::applicationFilePath(), QStringLiteral("1") });
    QVERIFY(process.waitForFinished());
    const QByteArray output = process.readAllStandardOutput();
    if (process.exitCode() != 0 && output.isEmpty()) {
        QSKIP("cannot give up a capability here");
    }
    QVERIFY2(output.contains("clockid: 7\n"), output.constData());
    QVERIFY2(output.endsWith("waiting\nrunning\n"), output.constData());
}

void tst_BackgroundActivityWait::stoppedProcessRunsOnceItGoesOn()
{
    QProcess process;
    process.start(QCoreApplication::applicationFilePath(), { QStringLiteral("3") });
    QVERIFY(process.waitForStarted());
    const auto pid = static_cast<pid_t>(process.processId());
    QVERIFY(pid > 1);
    QByteArray output;
    QTRY_VERIFY((output += process.readAllStandardOutput()).endsWith("waiting\n"));
    QCOMPARE(kill(pid, SIGSTOP), 0);
    QVERIFY(!process.waitForFinished(4000)); // its moment passes
    output = process.readAllStandardOutput();
    QCOMPARE(output, QByteArray());
    QElapsedTimer time;
    time.start();
    QCOMPARE(kill(pid, SIGCONT), 0);
    QTRY_VERIFY((output += process.readAllStandardOutput()).contains("running"));
    QVERIFY(time.elapsed() < 2900); // it does not wait anew
    QVERIFY(process.waitForFinished());
    QCOMPARE(output + process.readAllStandardOutput(), QByteArray("running\n"));
}

int main(int argc, char *argv[])
{
    const int seconds = argc == 2 ? QByteArray(argv[1]).toInt() : 0;
    if (seconds > 0) {
        const QCoreApplication application(argc, argv);
        return waitAndTell(seconds);
    }
    QCoreApplication application(argc, argv);
    tst_BackgroundActivityWait test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_backgroundactivity_wait.moc"
