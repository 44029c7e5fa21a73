#include "Core/wakeup_timer.h"

#include "Core/condition_delay.h"
#include "Core/condition_interval.h"
#include "support/bus_stand_in.h"
#include "support/patience.h"
#include "support/private_bus.h"

#include <backgroundactivity.h>

#include <QElapsedTimer>
#include <QProcess>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <csignal>
#include <limits>
#include <memory>

#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

using Core::ConditionDelay;
using Core::ConditionInterval;
using Core::WakeupTimer;
using TestSupport::BusStandIn;
using TestSupport::PrivateBus;

namespace {

/// What the clock on the wall has been set forth by; the kernel's clocks that cannot be set stay as they are.
time_t clockOffset = 0;

/// Blocks for so long that both clocks are due when the event loop goes on.
void sleepFor(int milliseconds)
{
    const timespec time { milliseconds / 1000, (milliseconds % 1000) * 1000000L };
    nanosleep(&time, nullptr);
}

/// A timer in a process of its own, for the test that stops it.
int countTimeouts()
{
    WakeupTimer timer;
    QObject::connect(&timer, &WakeupTimer::timeout, [] {
        printf("timeout\n");
        fflush(stdout);
        QTimer::singleShot(1500, qApp, &QCoreApplication::quit); // long enough for a second one to show
    });
    timer.start(3);
    printf("started\n");
    fflush(stdout);
    return QCoreApplication::exec();
}

} // namespace

// In the place of the C library's.
extern "C" int clock_gettime(clockid_t clock, timespec *time) noexcept
{
    const auto result = static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
        time->tv_sec += clockOffset;
    }
    return result;
}

extern "C" int gettimeofday(timeval *time, void *zone) noexcept
{
    const auto result = static_cast<int>(::syscall(SYS_gettimeofday, time, zone));
    if (result == 0) {
        time->tv_sec += clockOffset;
    }
    return result;
}

/// The timer, and the two conditions that are little more than one.
class tst_WakeupTimer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();

    void timesOutOnceInTime_data();
    void timesOutOnceInTime();
    void wakeUpIsDroppedOnceTheTimerHasFired();
    void whoeverIsFirstDecides();
    void suspendedDeviceIsWokenAndKeptAwake();
    void lateWakeUpOnlyLetsTheDeviceSuspend();
    void startBeforeTheTimeoutBeginsAnew();
    void startWithinTheTimeoutBeginsAnew();
    void startWithinTheTimeoutHasBothClocks_data();
    void startWithinTheTimeoutHasBothClocks();
    void destructionDeliversNothing();
    void destructionWithinTheTimeout();
    void longestTimesAreNoOverflow_data();
    void longestTimesAreNoOverflow();
    void clockThatIsSetDoesNotMatter_data();
    void clockThatIsSetDoesNotMatter();
    void stoppedProcessTimesOutOnce();

    void delayTurnsTrueOnce();
    void delayCountsFromTheAddition();
    void delayHearsNothingOfTheTask();
    void intervalIsTrueWhenMade();
    void intervalCountsFromTheStart();
    void intervalBeginsAnewAtEachStart();
    void intervalKeepsNothing();

private:
    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<BusStandIn> m_logind;
};

void tst_WakeupTimer::initTestCase()
{
    m_bus = std::make_unique<PrivateBus>();
    m_bus->useAsSystemBus();
    m_logind = std::make_unique<BusStandIn>(*m_bus, QStringLiteral("org.freedesktop.login1"),
                                            QStringLiteral("/org/freedesktop/login1"));
}

void tst_WakeupTimer::cleanupTestCase()
{
    m_logind.reset();
}

void tst_WakeupTimer::init()
{
    m_logind->clearCalls();
}

void tst_WakeupTimer::timesOutOnceInTime_data()
{
    QTest::addColumn<int>("seconds");

    QTest::newRow("at once") << 0;
    QTest::newRow("1") << 1;
    QTest::newRow("2") << 2;
}

void tst_WakeupTimer::timesOutOnceInTime()
{
    QFETCH(const int, seconds);

    WakeupTimer timer;
    QSignalSpy timeouts(&timer, &WakeupTimer::timeout);
    QElapsedTimer time;
    time.start();
    timer.start(seconds);
    QCOMPARE(timeouts.size(), 0);
    QVERIFY(timeouts.wait(seconds * 1000 + 10000)); // on a busy machine
    // A timer of whole seconds may be half a second early.
    QVERIFY2(time.elapsed() >= seconds * 1000 - 510, qPrintable(QString::number(time.elapsed())));
    QVERIFY(!timeouts.wait(1500));
    QCOMPARE(timeouts.size(), 1);
}

void tst_WakeupTimer::wakeUpIsDroppedOnceTheTimerHasFired()
{
    WakeupTimer timer;
    QSignalSpy timeouts(&timer, &WakeupTimer::timeout);
    QElapsedTimer time;
    time.start();
    timer.start(0); // the timer at once, the wake-up up to a second later
    QVERIFY(timeouts.wait(patienceMs));
    const bool wasQuick = time.elapsed() < 500; // else both may have been due
    QVERIFY(!timeouts.wait(1500));
    if (wasQuick) {
        QCOMPARE(m_logind->calls().size(), 0); // the device was never kept awake
    }
}

void tst_WakeupTimer::whoeverIsFirstDecides()
{
    for (int i = 0; i < 3; ++i) {
        WakeupTimer timer;
        QSignalSpy timeouts(&timer, &WakeupTimer::timeout);
        timer.start(0);
        sleepFor(1100); // both are due
        QVERIFY(timeouts.wait(patienceMs));
        QVERIFY(!timeouts.wait(100));
        QCOMPARE(timeouts.size(), 1);
    }
}

void tst_WakeupTimer::suspendedDeviceIsWokenAndKeptAwake()
{
    for (const bool startAgain : { true, false }) {
        m_logind->clearCalls();
        auto timer = std::make_unique<WakeupTimer>();
        QSignalSpy timeouts(timer.get(), &WakeupTimer::timeout);
        timer->start(0);
        // While the device is suspended, the ordinary timer stands still.
        auto *ordinary = timer->findChild<QTimer *>();
        QVERIFY(ordinary);
        QCOMPARE(ordinary->timerType(), Qt::VeryCoarseTimer);
        QVERIFY(ordinary->isSingleShot());
        ordinary->setInterval(10000);
        QVERIFY(timeouts.wait(patienceMs));
        QVERIFY(!ordinary->isActive());
        auto *activity = timer->findChild<BackgroundActivity *>();
        QVERIFY(activity->isRunning()); // for what the timeout sets in motion
        QTRY_COMPARE(m_logind->calls().size(), 1);
        QVERIFY(!timeouts.wait(1500));
        QCOMPARE(timeouts.size(), 1);
        QVERIFY(activity->isRunning());
        if (startAgain) {
            timer->start(1000);
            QVERIFY(!activity->isRunning());
        }
    }
}

void tst_WakeupTimer::lateWakeUpOnlyLetsTheDeviceSuspend()
{
    WakeupTimer timer;
    QSignalSpy timeouts(&timer, &WakeupTimer::timeout);
    timer.start(0);
    QVERIFY(timeouts.wait(patienceMs));
    auto *activity = timer.findChild<BackgroundActivity *>();
    activity->run(); // one that could not be dropped any more
    emit activity->running();
    QVERIFY(!activity->isRunning());
    QCOMPARE(timeouts.size(), 1);
    timer.start(1); // and the next one counts again
    QVERIFY(timeouts.wait(patienceMs));
    QCOMPARE(timeouts.size(), 2);
}

void tst_WakeupTimer::startBeforeTheTimeoutBeginsAnew()
{
    WakeupTimer timer;
    QSignalSpy timeouts(&timer, &WakeupTimer::timeout);
    timer.start(0);
    timer.start(4);
    QVERIFY(!timeouts.wait(1500));
    QVERIFY(timeouts.wait(patienceMs));
    QVERIFY(!timeouts.wait(1200));
    QCOMPARE(timeouts.size(), 1);
}

void tst_WakeupTimer::startWithinTheTimeoutBeginsAnew()
{
    WakeupTimer timer;
    QSignalSpy timeouts(&timer, &WakeupTimer::timeout);
    connect(&timer, &WakeupTimer::timeout, this, [&] {
        if (timeouts.size() < 3) {
            timer.start(0);
        }
    });
    timer.start(0);
    QTRY_COMPARE(timeouts.size(), 3);
    QVERIFY(!timeouts.wait(1500));
}

void tst_WakeupTimer::startWithinTheTimeoutHasBothClocks_data()
{
    QTest::addColumn<bool>("wokenFirst");
    QTest::addColumn<bool>("wokenThen");

    QTest::newRow("awake, then suspended") << false << true;
    QTest::newRow("suspended, then awake") << true << false;
    QTest::newRow("suspended both times") << true << true;
}

// A task that is due again and again is started, and with it the next wait, by the timeout of the last one.
void tst_WakeupTimer::startWithinTheTimeoutHasBothClocks()
{
    QFETCH(const bool, wokenFirst);
    QFETCH(const bool, wokenThen);

    WakeupTimer timer;
    auto *ordinary = timer.findChild<QTimer *>();
    auto *activity = timer.findChild<BackgroundActivity *>();
    const auto leaveOnly = [=](bool wakeUp) {
        if (wakeUp) {
            ordinary->stop(); // as it stands still while the device is suspended
        } else {
            activity->stop();
        }
    };
    int timeouts = 0;
    connect(&timer, &WakeupTimer::timeout, this, [&] {
        if (++timeouts == 1) {
            timer.start(1);
        }
    });
    timer.start(0);
    leaveOnly(wokenFirst);
    QTRY_COMPARE(timeouts, 1);
    QVERIFY(ordinary->isActive());
    QVERIFY(!activity->isRunning()); // the device may suspend until then
    leaveOnly(wokenThen);
    QTRY_COMPARE(timeouts, 2);
    QCOMPARE(activity->isRunning(), wokenThen);
}

void tst_WakeupTimer::destructionDeliversNothing()
{
    int count = 0;
    auto timer = std::make_unique<WakeupTimer>();
    connect(timer.get(), &WakeupTimer::timeout, this, [&] { ++count; });
    timer->start(0);
    timer.reset();
    WakeupTimer other;
    QSignalSpy timeouts(&other, &WakeupTimer::timeout);
    other.start(1);
    QVERIFY(timeouts.wait(patienceMs));
    QCOMPARE(count, 0);
}

void tst_WakeupTimer::destructionWithinTheTimeout()
{
    for (const int blocked : { 0, 1100 }) {
        auto *timer = new WakeupTimer;
        bool gone = false;
        connect(timer, &WakeupTimer::timeout, this, [&] {
            delete timer;
            gone = true;
        });
        timer->start(0);
        sleepFor(blocked);
        QTRY_VERIFY(gone);
    }
}

void tst_WakeupTimer::longestTimesAreNoOverflow_data()
{
    QTest::addColumn<int>("seconds");

    QTest::newRow("month") << 31 * 24 * 3600; // more milliseconds than an int holds
    QTest::newRow("longest") << std::numeric_limits<int>::max();
}

void tst_WakeupTimer::longestTimesAreNoOverflow()
{
    QFETCH(const int, seconds);

    WakeupTimer timer;
    QSignalSpy timeouts(&timer, &WakeupTimer::timeout);
    timer.start(seconds);
    QVERIFY(!timeouts.wait(500));
}

void tst_WakeupTimer::clockThatIsSetDoesNotMatter_data()
{
    QTest::addColumn<int>("offset");
    QTest::addColumn<bool>("woken");

    for (const bool woken : { false, true }) {
        const char *const by = woken ? "wake-up" : "timer";
        QTest::addRow("back, %s", by) << -7 * 24 * 3600 << woken;
        QTest::addRow("forth, %s", by) << 7 * 24 * 3600 << woken;
    }
}

void tst_WakeupTimer::clockThatIsSetDoesNotMatter()
{
    QFETCH(const int, offset);
    QFETCH(const bool, woken);

    const QDateTime before = QDateTime::currentDateTimeUtc();
    WakeupTimer timer;
    QSignalSpy timeouts(&timer, &WakeupTimer::timeout);
    timer.start(4);
    if (woken) {
        timer.findChild<QTimer *>()->stop();
    } else {
        timer.findChild<BackgroundActivity *>()->stop();
    }
    clockOffset = offset;
    const qint64 seen = before.secsTo(QDateTime::currentDateTimeUtc());
    const bool early = timeouts.wait(1000);
    clockOffset = -offset;
    const bool inTime = timeouts.wait(patienceMs);
    clockOffset = 0;
    QVERIFY(qAbs(seen - offset) < 10); // it has been seen to be set
    QVERIFY(!early);
    QVERIFY(inTime);
}

void tst_WakeupTimer::stoppedProcessTimesOutOnce()
{
    QProcess process;
    process.start(QCoreApplication::applicationFilePath(), { QStringLiteral("count") });
    QVERIFY(process.waitForStarted());
    const auto pid = static_cast<pid_t>(process.processId());
    QVERIFY(pid > 1);
    QByteArray output;
    QTRY_COMPARE(output += process.readAllStandardOutput(), QByteArray("started\n"));
    QCOMPARE(kill(pid, SIGSTOP), 0);
    QVERIFY(!process.waitForFinished(4500)); // both moments pass
    QElapsedTimer time;
    time.start();
    QCOMPARE(kill(pid, SIGCONT), 0);
    QTRY_VERIFY((output += process.readAllStandardOutput()).contains("timeout"));
    QVERIFY(time.elapsed() < 2400); // it does not wait anew
    QVERIFY(process.waitForFinished());
    output += process.readAllStandardOutput();
    QCOMPARE(output, QByteArray("started\ntimeout\n"));
}

void tst_WakeupTimer::delayTurnsTrueOnce()
{
    const ConditionDelay delay(1);
    QCOMPARE(delay.name(), QStringLiteral("StartDelay"));
    QVERIFY(!delay.isSatisfied());
    QSignalSpy changes(&delay, &ConditionDelay::isSatisfiedChanged);
    QVERIFY(changes.wait(patienceMs));
    QVERIFY(delay.isSatisfied());
    QVERIFY(!changes.wait(1200));
}

void tst_WakeupTimer::delayCountsFromTheAddition()
{
    ConditionDelay delay(6);
    QSignalSpy changes(&delay, &ConditionDelay::isSatisfiedChanged);
    QVERIFY(!changes.wait(3500));
    delay.restoreConfig({});
    QElapsedTimer time;
    time.start();
    QVERIFY(changes.wait(patienceMs));
    QVERIFY(time.elapsed() < 5400); // not from here
}

void tst_WakeupTimer::delayHearsNothingOfTheTask()
{
    ConditionDelay delay(0);
    QTRY_VERIFY(delay.isSatisfied());
    delay.taskWasTriggered();
    delay.taskRemoved();
    QVERIFY(delay.isSatisfied());
}

void tst_WakeupTimer::intervalIsTrueWhenMade()
{
    const ConditionInterval interval(900);
    QCOMPARE(interval.name(), QStringLiteral("Interval"));
    QVERIFY(interval.isSatisfied());
    QSignalSpy changes(&interval, &ConditionInterval::isSatisfiedChanged);
    QVERIFY(!changes.wait(100));
}

void tst_WakeupTimer::intervalCountsFromTheStart()
{
    ConditionInterval interval(1);
    QSignalSpy changes(&interval, &ConditionInterval::isSatisfiedChanged);
    interval.taskWasTriggered();
    QVERIFY(!interval.isSatisfied());
    QCOMPARE(changes.size(), 1);
    QVERIFY(changes.wait(patienceMs));
    QVERIFY(interval.isSatisfied());
    interval.taskWasTriggered();
    QVERIFY(!interval.isSatisfied());
    QVERIFY(changes.wait(patienceMs));
    QVERIFY(interval.isSatisfied());
    QCOMPARE(changes.size(), 4);
}

void tst_WakeupTimer::intervalBeginsAnewAtEachStart()
{
    ConditionInterval interval(4);
    QSignalSpy changes(&interval, &ConditionInterval::isSatisfiedChanged);
    interval.taskWasTriggered();
    QVERIFY(!changes.wait(1500));
    QElapsedTimer time;
    time.start();
    interval.taskWasTriggered(); // although it is not due
    QVERIFY(changes.wait(patienceMs));
    QVERIFY2(time.elapsed() >= 3490, qPrintable(QString::number(time.elapsed())));
    QVERIFY(interval.isSatisfied());
}

void tst_WakeupTimer::intervalKeepsNothing()
{
    ConditionInterval interval(900);
    QSignalSpy configured(&interval, &ConditionInterval::configChanged);
    interval.taskWasTriggered();
    interval.taskRemoved();
    QCOMPARE(configured.size(), 0);
    QCOMPARE(interval.config(), QVariantMap());
}

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    if (argc == 2 && qstrcmp(argv[1], "count") == 0) {
        return countTimeouts();
    }
    tst_WakeupTimer test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_wakeup_timer.moc"
