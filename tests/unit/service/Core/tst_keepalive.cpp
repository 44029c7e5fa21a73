#include "Core/keepalive.h"

#include "support/bus_stand_in.h"
#include "support/log_capture.h"
#include "support/private_bus.h"

#include <QDBusUnixFileDescriptor>
#include <QtTest>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

using namespace Core;
using namespace TestSupport;

namespace {

/// The login daemon: hands out inhibitors and sees which of them are still held.
class LoginDaemon
{
public:
    explicit LoginDaemon(PrivateBus &bus)
        : m_object(bus, QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"))
    {
        m_object.setHandler([this](const QDBusMessage &call, const QDBusConnection &connection) {
            int ends[2];
            if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
                qFatal("pipe2: %d", errno);
            }
            m_readEnds << ends[0];
            const QDBusUnixFileDescriptor descriptor(ends[1]);
            close(ends[1]);
            connection.send(call.createReply(QVariant::fromValue(descriptor)));
        });
    }
    ~LoginDaemon()
    {
        for (const int end : qAsConst(m_readEnds)) {
            close(end);
        }
    }

    int given() const { return m_readEnds.size(); }
    int held() const
    {
        int result = 0;
        for (const int end : m_readEnds) {
            char byte = 0;
            // At the end of the pipe once nobody holds the other end.
            result += read(end, &byte, 1) < 0 && errno == EAGAIN ? 1 : 0;
        }
        return result;
    }

private:
    BusStandIn m_object;
    QList<int> m_readEnds;
};

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
