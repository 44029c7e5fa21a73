#include "Core/window_model.h"

#include "support/bus_stand_in.h"
#include "support/log_capture.h"
#include "support/private_bus.h"

#include <QDBusError>
#include <QThread>
#include <QtTest>

using namespace Core;
using namespace TestSupport;

namespace {

/// The home screen, in a thread of its own: the calls block ours.
class HomeScreen
{
public:
    HomeScreen(PrivateBus &bus, const BusStandIn::Handler &handler)
        : m_object(bus, QStringLiteral("org.nemomobile.lipstick"), QStringLiteral("/WindowModel"))
    {
        m_object.setHandler(handler);
        m_object.moveToThread(&m_thread);
        m_thread.start();
    }
    ~HomeScreen()
    {
        m_thread.quit();
        m_thread.wait();
    }

    /// What was called so far; ends the serving.
    QList<QDBusMessage> finish()
    {
        m_thread.quit();
        m_thread.wait();
        return m_object.calls();
    }

private:
    BusStandIn m_object;
    QThread m_thread;
};

} // namespace

class TestWindowModel : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { m_bus.useAsSessionBus(); }
    void homeScreenIsToldAndWaitedFor();
    void errorDoesNotMatter();
    void absentHomeScreenDoesNotMatter();

private:
    PrivateBus m_bus;
};

void TestWindowModel::homeScreenIsToldAndWaitedFor()
{
    QAtomicInt answered;
    HomeScreen homeScreen(m_bus, [&answered](const QDBusMessage &call, const QDBusConnection &connection) {
        QThread::msleep(50); // long enough for a call that did not wait to be back
        answered = 1;
        connection.send(call.createReply());
    });
    notifyWindowModel(QStringLiteral("org.example.Notes"));
    QCOMPARE(answered.loadRelaxed(), 1);

    const QList<QDBusMessage> calls = homeScreen.finish();
    QCOMPARE(calls.size(), 1);
    const QDBusMessage &call = calls.first();
    QCOMPARE(call.path(), QStringLiteral("/WindowModel"));
    QCOMPARE(call.interface(), QStringLiteral("local.Lipstick.WindowModel"));
    QCOMPARE(call.member(), QStringLiteral("launchProcess"));
    QCOMPARE(call.signature(), QStringLiteral("s"));
    QCOMPARE(call.arguments(), QVariantList { QStringLiteral("org.example.Notes") });
}

void TestWindowModel::errorDoesNotMatter()
{
    HomeScreen homeScreen(m_bus, [](const QDBusMessage &call, const QDBusConnection &connection) {
        connection.send(call.createErrorReply(QDBusError::Failed, QStringLiteral("no")));
    });
    const LogCapture log;
    notifyWindowModel(QStringLiteral("org.example.Notes"));
    QCOMPARE(log.messages(), QStringList());
    QCOMPARE(homeScreen.finish().size(), 1);
}

void TestWindowModel::absentHomeScreenDoesNotMatter()
{
    QElapsedTimer timer;
    timer.start();
    notifyWindowModel(QStringLiteral("org.example.Notes"));
    QVERIFY(timer.elapsed() < 20000); // a call that waits for somebody takes 25 s
}

QTEST_GUILESS_MAIN(TestWindowModel)
#include "tst_window_model.moc"
