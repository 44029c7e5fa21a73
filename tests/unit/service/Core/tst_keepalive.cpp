#include "Core/keepalive.h"

#include "support/log_capture.h"
#include "support/login_daemon.h"
#include "support/private_bus.h"

#include <QtTest>

using namespace Core;
using namespace TestSupport;

namespace {

const QStringList mismatch { QStringLiteral("Mismatch removing keepalive") };

} // namespace

class TestKeepalive : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void firstHoldRunsAndLastStops();
    void endWithoutHoldWarnsAndChangesNothing();
    void holdAfterTheLastEndRunsAgain();
    void twoSwitchesRunOnce();
    void switchHoldsAtMostOnce();
    void switchGoesOffAtMostOnce();
    void switchThatWasNeverOnDoesNotCount();
    void endOfASwitchEndsItsHold();
    void endOfASwitchThatIsOffChangesNothing();
    void switchMayGoOnAgain();
    void thereIsOneForTheProcess();

private:
    PrivateBus m_bus;
    std::unique_ptr<LoginDaemon> m_login;
    std::unique_ptr<LogCapture> m_log;
};

void TestKeepalive::initTestCase()
{
    m_bus.useAsSystemBus();
}

void TestKeepalive::init()
{
    m_log = std::make_unique<LogCapture>();
    m_login = std::make_unique<LoginDaemon>(m_bus);
}

void TestKeepalive::cleanup()
{
    QTRY_COMPARE(m_login->held(), 0);
    m_login.reset();
    const QStringList warnings = m_log->warnings();
    m_log.reset();
    QCOMPARE(warnings, QStringList());
}

void TestKeepalive::firstHoldRunsAndLastStops()
{
    KeepaliveSingleton keepalive;
    keepalive.addKeepalive();
    QTRY_COMPARE(m_login->held(), 1);
    keepalive.addKeepalive();
    keepalive.addKeepalive();
    keepalive.removeKeepalive();
    keepalive.removeKeepalive();
    QTest::qWait(50);
    QCOMPARE(m_login->held(), 1);
    keepalive.removeKeepalive();
    QTRY_COMPARE(m_login->held(), 0);
    QCOMPARE(m_login->given(), 1);
}

void TestKeepalive::endWithoutHoldWarnsAndChangesNothing()
{
    KeepaliveSingleton keepalive;
    keepalive.removeKeepalive();
    QCOMPARE(m_log->warnings(), mismatch);
    m_log->clear();

    // One hold is one hold, whatever was wrong before.
    keepalive.addKeepalive();
    QTRY_COMPARE(m_login->held(), 1);
    keepalive.removeKeepalive();
    QTRY_COMPARE(m_login->held(), 0);
    QCOMPARE(m_log->warnings(), QStringList());
    keepalive.removeKeepalive();
    QCOMPARE(m_log->warnings(), mismatch);
    m_log->clear();
}

void TestKeepalive::holdAfterTheLastEndRunsAgain()
{
    KeepaliveSingleton keepalive;
    for (int round = 1; round <= 3; ++round) {
        keepalive.addKeepalive();
        QTRY_COMPARE(m_login->held(), 1);
        QCOMPARE(m_login->given(), round);
        keepalive.removeKeepalive();
        QTRY_COMPARE(m_login->held(), 0);
    }
}

void TestKeepalive::twoSwitchesRunOnce()
{
    KeepaliveSwitch first;
    KeepaliveSwitch second;
    first.on();
    second.on();
    QTRY_COMPARE(m_login->held(), 1);
    first.off();
    QTest::qWait(50);
    QCOMPARE(m_login->held(), 1);
    second.off();
    QTRY_COMPARE(m_login->held(), 0);
    QCOMPARE(m_login->given(), 1);
}

void TestKeepalive::switchHoldsAtMostOnce()
{
    KeepaliveSwitch hold;
    hold.on();
    hold.on();
    QTRY_COMPARE(m_login->held(), 1);
    hold.off();
    QTRY_COMPARE(m_login->held(), 0);
}

void TestKeepalive::switchGoesOffAtMostOnce()
{
    KeepaliveSwitch other;
    other.on();
    KeepaliveSwitch hold;
    hold.on();
    QTRY_COMPARE(m_login->held(), 1);
    hold.off();
    hold.off();
    QTest::qWait(50);
    QCOMPARE(m_login->held(), 1);
    other.off();
    other.off();
}

void TestKeepalive::switchThatWasNeverOnDoesNotCount()
{
    KeepaliveSwitch hold;
    hold.off();
    QCOMPARE(m_login->given(), 0);
}

void TestKeepalive::endOfASwitchEndsItsHold()
{
    auto hold = std::make_unique<KeepaliveSwitch>();
    hold->on();
    QTRY_COMPARE(m_login->held(), 1);
    hold.reset();
    QTRY_COMPARE(m_login->held(), 0);
}

void TestKeepalive::endOfASwitchThatIsOffChangesNothing()
{
    KeepaliveSwitch other;
    other.on();
    QTRY_COMPARE(m_login->held(), 1);
    {
        KeepaliveSwitch hold;
        hold.on();
        hold.off();
    }
    QTest::qWait(50);
    QCOMPARE(m_login->held(), 1);
}

void TestKeepalive::switchMayGoOnAgain()
{
    KeepaliveSwitch hold;
    hold.on();
    QTRY_COMPARE(m_login->held(), 1);
    hold.off();
    QTRY_COMPARE(m_login->held(), 0);
    hold.on();
    QTRY_COMPARE(m_login->held(), 1);
}

void TestKeepalive::thereIsOneForTheProcess()
{
    QVERIFY(KeepaliveSingleton::instance());
    QCOMPARE(KeepaliveSingleton::instance(), KeepaliveSingleton::instance());
}

QTEST_GUILESS_MAIN(TestKeepalive)
#include "tst_keepalive.moc"
