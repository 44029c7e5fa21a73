#include "Core/timeout.h"

#include <QElapsedTimer>
#include <QTimer>
#include <QtTest>

using namespace Core;

namespace {

constexpr int shortMs = 20;
constexpr int marginMs = 200; // in which something that must not happen would have happened

} // namespace

class TestTimeout : public QObject
{
    Q_OBJECT

private slots:
    void functionRunsAfterTheInterval();
    void functionThatDoesNotStopItRunsAgain();
    void functionMayStopIt();
    void functionMayDeleteIt();
    void stopBeforeTheIntervalEndsTheWait();
    void deletionEndsTheWait();
    void endOfTheParentEndsTheWait();
    void stopWithoutStartIsHarmless();
    void connectionBoundToItEndsWithIt();

private:
    static void letTimePass();
};

void TestTimeout::letTimePass()
{
    QElapsedTimer timer;
    timer.start();
    QTRY_VERIFY(timer.elapsed() > marginMs);
}

void TestTimeout::functionRunsAfterTheInterval()
{
    int runs = 0;
    QElapsedTimer timer;
    Timeout timeout(nullptr);
    timer.start();
    timeout.start(100, [&runs] { ++runs; });
    QCOMPARE(runs, 0);
    QTRY_COMPARE(runs, 1);
    QVERIFY2(timer.elapsed() >= 90, qPrintable(QString::number(timer.elapsed())));
}

void TestTimeout::functionThatDoesNotStopItRunsAgain()
{
    int runs = 0;
    QElapsedTimer timer;
    Timeout timeout(nullptr);
    timer.start();
    timeout.start(50, [&runs] { ++runs; });
    QTRY_VERIFY(runs >= 3);
    QVERIFY2(timer.elapsed() >= 130, qPrintable(QString::number(timer.elapsed())));
}

void TestTimeout::functionMayStopIt()
{
    int runs = 0;
    Timeout timeout(nullptr);
    timeout.start(shortMs, [&] {
        ++runs;
        timeout.stop();
    });
    QTRY_COMPARE(runs, 1);
    letTimePass();
    QCOMPARE(runs, 1);
}

void TestTimeout::functionMayDeleteIt()
{
    // What the function holds must outlive the run, too.
    const auto text = std::make_shared<QString>(QStringLiteral("before"));
    auto *timeout = new Timeout(nullptr);
    timeout->start(shortMs, [timeout, text] {
        delete timeout;
        *text = QStringLiteral("after");
    });
    QTRY_COMPARE(*text, QStringLiteral("after"));
    letTimePass();
    QCOMPARE(text.use_count(), 1L);
}

void TestTimeout::stopBeforeTheIntervalEndsTheWait()
{
    int runs = 0;
    Timeout timeout(nullptr);
    timeout.start(shortMs, [&runs] { ++runs; });
    timeout.stop();
    letTimePass();
    QCOMPARE(runs, 0);
}

void TestTimeout::deletionEndsTheWait()
{
    int runs = 0;
    auto timeout = std::make_unique<Timeout>(nullptr);
    timeout->start(shortMs, [&runs] { ++runs; });
    timeout.reset();
    letTimePass();
    QCOMPARE(runs, 0);
}

void TestTimeout::endOfTheParentEndsTheWait()
{
    int runs = 0;
    auto parent = std::make_unique<QObject>();
    auto *timeout = new Timeout(parent.get());
    QCOMPARE(timeout->parent(), parent.get());
    timeout->start(shortMs, [&runs] { ++runs; });
    parent.reset();
    letTimePass();
    QCOMPARE(runs, 0);
}

void TestTimeout::stopWithoutStartIsHarmless()
{
    Timeout timeout(nullptr);
    timeout.stop();
    timeout.stop();
    int runs = 0;
    timeout.start(shortMs, [&runs] { ++runs; });
    QTRY_VERIFY(runs > 0);
}

void TestTimeout::connectionBoundToItEndsWithIt()
{
    int runs = 0;
    QObject sender;
    auto timeout = std::make_unique<Timeout>(nullptr);
    connect(&sender, &QObject::objectNameChanged, timeout.get(), [&runs] { ++runs; });
    sender.setObjectName(QStringLiteral("a"));
    QCOMPARE(runs, 1);
    timeout.reset();
    sender.setObjectName(QStringLiteral("b"));
    QCOMPARE(runs, 1);
}

QTEST_GUILESS_MAIN(TestTimeout)
#include "tst_timeout.moc"
