#include "displayblanking.h"

#include "support/bus_stand_in.h"
#include "support/dbus_mock.h"
#include "support/interruption.h"
#include "support/patience.h"
#include "support/private_bus.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QSignalSpy>
#include <QtTest>

#include <memory>

using TestSupport::BusStandIn;
using TestSupport::DbusMock;
using TestSupport::Interruption;
using TestSupport::PrivateBus;

namespace {

const QString service = QStringLiteral("org.freedesktop.ScreenSaver");
const QString path = QStringLiteral("/org/freedesktop/ScreenSaver");

} // namespace

class tst_DisplayBlanking : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();

    void numbersAreThePlatforms();
    void withoutAScreenSaverItIsUnknown();
    void screenSaverIsAskedWhenMade_data();
    void screenSaverIsAskedWhenMade();
    void changesAreFollowed();
    void signalOfAnotherPathCounts();
    void signalOfAnotherSenderDoesNot();
    void sameAgainIsNotSignalled();
    void refusalIsUnknown();
    void answerOfAnotherTypeIsUnknown();
    void silentScreenSaverDoesNotBlock();
    void screenSaverGoesAndComes();
    void answerOfTheFormerOneIsIgnored();
    void manyChangesEndAtTheLast();
    void objectsShareOneQuestion();
    void withAMockedScreenSaver();
    void changeThatOvertakesTheAnswerStands();

private:
    void startScreenSaver(bool active);
    void signal(bool active, const QString &from = path);

    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<BusStandIn> m_screenSaver;
};

void tst_DisplayBlanking::initTestCase()
{
    m_bus = std::make_unique<PrivateBus>();
    m_bus->useAsSessionBus();
}

void tst_DisplayBlanking::cleanup()
{
    m_screenSaver.reset();
}

void tst_DisplayBlanking::startScreenSaver(bool active)
{
    m_screenSaver = std::make_unique<BusStandIn>(*m_bus, service, path);
    m_screenSaver->answerWith({ active });
}

void tst_DisplayBlanking::signal(bool active, const QString &from)
{
    QDBusMessage message = QDBusMessage::createSignal(from, service, QStringLiteral("ActiveChanged"));
    message << active;
    m_screenSaver->send(message);
}

void tst_DisplayBlanking::numbersAreThePlatforms()
{
    QCOMPARE(int(DisplayBlanking::Off), 1);
    QVERIFY(int(DisplayBlanking::On) != 1);
    QVERIFY(int(DisplayBlanking::Unknown) != 1);
}

void tst_DisplayBlanking::withoutAScreenSaverItIsUnknown()
{
    const DisplayBlanking display;
    QSignalSpy changes(&display, &DisplayBlanking::statusChanged);
    QVERIFY(!changes.wait(100));
    QCOMPARE(display.status(), DisplayBlanking::Unknown);
}

void tst_DisplayBlanking::screenSaverIsAskedWhenMade_data()
{
    QTest::addColumn<bool>("active");
    QTest::addColumn<int>("status");

    QTest::newRow("active") << true << int(DisplayBlanking::Off);
    QTest::newRow("not active") << false << int(DisplayBlanking::On);
}

void tst_DisplayBlanking::screenSaverIsAskedWhenMade()
{
    QFETCH(const bool, active);
    QFETCH(const int, status);

    startScreenSaver(active);
    const DisplayBlanking display;
    QSignalSpy changes(&display, &DisplayBlanking::statusChanged);
    QCOMPARE(display.status(), DisplayBlanking::Unknown);
    QVERIFY(changes.wait(patienceMs));
    QCOMPARE(int(display.status()), status);
    QCOMPARE(m_screenSaver->calls().size(), 1);
    const QDBusMessage question = m_screenSaver->calls().first();
    QCOMPARE(question.interface(), service);
    QCOMPARE(question.member(), QStringLiteral("GetActive"));
    QCOMPARE(question.signature(), QString());
}

void tst_DisplayBlanking::changesAreFollowed()
{
    startScreenSaver(false);
    const DisplayBlanking display;
    QTRY_COMPARE(display.status(), DisplayBlanking::On);
    signal(true);
    QTRY_COMPARE(display.status(), DisplayBlanking::Off);
    signal(false);
    QTRY_COMPARE(display.status(), DisplayBlanking::On);
    QCOMPARE(m_screenSaver->calls().size(), 1); // asked once
}

void tst_DisplayBlanking::signalOfAnotherPathCounts()
{
    startScreenSaver(false);
    const DisplayBlanking display;
    QTRY_COMPARE(display.status(), DisplayBlanking::On);
    signal(true, QStringLiteral("/ScreenSaver"));
    QTRY_COMPARE(display.status(), DisplayBlanking::Off);
}

void tst_DisplayBlanking::signalOfAnotherSenderDoesNot()
{
    startScreenSaver(false);
    BusStandIn other(*m_bus, QStringLiteral("org.example.Other"), path);
    const DisplayBlanking display;
    QTRY_COMPARE(display.status(), DisplayBlanking::On);
    QSignalSpy changes(&display, &DisplayBlanking::statusChanged);
    QDBusMessage message = QDBusMessage::createSignal(path, service, QStringLiteral("ActiveChanged"));
    message << true;
    other.send(message);
    QVERIFY(!changes.wait(200));
    QCOMPARE(display.status(), DisplayBlanking::On);
}

void tst_DisplayBlanking::sameAgainIsNotSignalled()
{
    startScreenSaver(false);
    const DisplayBlanking display;
    QTRY_COMPARE(display.status(), DisplayBlanking::On);
    QSignalSpy changes(&display, &DisplayBlanking::statusChanged);
    signal(false);
    signal(true);
    signal(true, QStringLiteral("/ScreenSaver"));
    signal(false);
    QTRY_COMPARE(changes.size(), 2);
    QTRY_COMPARE(display.status(), DisplayBlanking::On);
    QCOMPARE(changes.size(), 2);
}

void tst_DisplayBlanking::refusalIsUnknown()
{
    startScreenSaver(false);
    bool answered = false;
    m_screenSaver->setHandler([&](const QDBusMessage &call, const QDBusConnection &connection) {
        connection.send(call.createErrorReply(QDBusError::UnknownMethod, QStringLiteral("no")));
        answered = true;
    });
    const DisplayBlanking display;
    QTRY_VERIFY(answered);
    QSignalSpy changes(&display, &DisplayBlanking::statusChanged);
    signal(true); // behind the refusal
    QVERIFY(changes.wait(patienceMs));
    QCOMPARE(changes.size(), 1);
    QCOMPARE(display.status(), DisplayBlanking::Off);
}

void tst_DisplayBlanking::answerOfAnotherTypeIsUnknown()
{
    startScreenSaver(false);
    m_screenSaver->answerWith({ QStringLiteral("yes") });
    const DisplayBlanking display;
    QSignalSpy changes(&display, &DisplayBlanking::statusChanged);
    QVERIFY(!changes.wait(200));
    QCOMPARE(m_screenSaver->calls().size(), 1);
    QCOMPARE(display.status(), DisplayBlanking::Unknown);
}

void tst_DisplayBlanking::silentScreenSaverDoesNotBlock()
{
    startScreenSaver(false);
    m_screenSaver->setHandler({}); // and is served by this very thread
    const DisplayBlanking display;
    QTRY_COMPARE(m_screenSaver->calls().size(), 1);
    QCOMPARE(display.status(), DisplayBlanking::Unknown);
    signal(true);
    QTRY_COMPARE(display.status(), DisplayBlanking::Off);
}

void tst_DisplayBlanking::screenSaverGoesAndComes()
{
    startScreenSaver(true);
    const DisplayBlanking display;
    QTRY_COMPARE(display.status(), DisplayBlanking::Off);
    m_screenSaver.reset();
    QTRY_COMPARE(display.status(), DisplayBlanking::Unknown);
    startScreenSaver(true);
    QTRY_COMPARE(display.status(), DisplayBlanking::Off);
    signal(false);
    QTRY_COMPARE(display.status(), DisplayBlanking::On);
}

void tst_DisplayBlanking::answerOfTheFormerOneIsIgnored()
{
    startScreenSaver(true);
    m_screenSaver->setHandler({});
    const DisplayBlanking display;
    QTRY_COMPARE(m_screenSaver->calls().size(), 1);
    const std::unique_ptr<BusStandIn> former = std::move(m_screenSaver);
    const QDBusMessage question = former->calls().first();
    QDBusConnection connection = m_bus->connect();
    // The name goes to another one, while the former one is still there to answer.
    QDBusMessage release = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("ReleaseName"));
    release << service;
    former->send(release);
    QTRY_VERIFY(connection.registerService(service));
    former->send(question.createReply(true));
    QSignalSpy changes(&display, &DisplayBlanking::statusChanged);
    QVERIFY(!changes.wait(200));
    QCOMPARE(display.status(), DisplayBlanking::Unknown);
    connection.unregisterService(service);
}

void tst_DisplayBlanking::manyChangesEndAtTheLast()
{
    startScreenSaver(false);
    const DisplayBlanking display;
    QTRY_COMPARE(display.status(), DisplayBlanking::On);
    QSignalSpy changes(&display, &DisplayBlanking::statusChanged);
    for (int i = 0; i < 1001; ++i) {
        signal(i % 2 == 0);
    }
    QTRY_COMPARE(changes.size(), 1001);
    QCOMPARE(display.status(), DisplayBlanking::Off);
}

void tst_DisplayBlanking::objectsShareOneQuestion()
{
    startScreenSaver(true);
    const DisplayBlanking one;
    const DisplayBlanking two;
    QTRY_COMPARE(one.status(), DisplayBlanking::Off);
    QCOMPARE(two.status(), DisplayBlanking::Off);
    const DisplayBlanking three;
    QCOMPARE(three.status(), DisplayBlanking::Off); // at once
    QCOMPARE(m_screenSaver->calls().size(), 1);
}

void tst_DisplayBlanking::withAMockedScreenSaver()
{
    if (!DbusMock::isInstalled()) {
        QSKIP("python3-dbusmock is not installed");
    }
    DbusMock mock(*m_bus, service, { QStringLiteral("--session"), service, path, service });
    mock.call(path, QStringLiteral("AddMethod"),
              { service, QStringLiteral("GetActive"), QString(), QStringLiteral("b"),
                QStringLiteral("ret = True") });
    const DisplayBlanking display;
    QTRY_COMPARE(display.status(), DisplayBlanking::Off);
    mock.call(path, QStringLiteral("EmitSignal"),
              { service, QStringLiteral("ActiveChanged"), QStringLiteral("b"), QVariantList { false } });
    QTRY_COMPARE(display.status(), DisplayBlanking::On);
    mock.suspend(); // hangs, and keeps its name
    const DisplayBlanking other;
    QCOMPARE(other.status(), DisplayBlanking::On);
}

// An answer and a change may both have come before the object that waits for the answer is made, and then
// the change is handled first.
void tst_DisplayBlanking::changeThatOvertakesTheAnswerStands()
{
    if (!DbusMock::isInstalled()) {
        QSKIP("python3-dbusmock is not installed");
    }
    DbusMock mock(*m_bus, service, { QStringLiteral("--session"), service, path, service });
    mock.call(path, QStringLiteral("AddMethod"),
              { service, QStringLiteral("GetActive"), QString(), QStringLiteral("b"),
                QStringLiteral("ret = False") });
    // A new connection holds signals back until the event loop has been there.
    QVERIFY(QDBusConnection::sessionBus().isConnected());
    QCoreApplication::processEvents();
    const Interruption interruption("ScreenSaver", [] {
        // On the connection of the question, whose answer is there, too, when this call has been answered.
        QDBusMessage call = QDBusMessage::createMethodCall(
            service, path, QStringLiteral("org.freedesktop.DBus.Mock"), QStringLiteral("EmitSignal"));
        call << service << QStringLiteral("ActiveChanged") << QStringLiteral("b") << QVariantList { true };
        QCOMPARE(QDBusConnection::sessionBus().call(call).type(), QDBusMessage::ReplyMessage);
    });
    const DisplayBlanking display;
    QVERIFY(interruption.happened());
    QTRY_COMPARE(display.status(), DisplayBlanking::Off);
    QSignalSpy changes(&display, &DisplayBlanking::statusChanged);
    mock.call(path, QStringLiteral("EmitSignal"),
              { service, QStringLiteral("ActiveChanged"), QStringLiteral("b"), QVariantList { false } });
    QTRY_COMPARE(display.status(), DisplayBlanking::On);
    QCOMPARE(changes.size(), 1);
}

QTEST_GUILESS_MAIN(tst_DisplayBlanking)
#include "tst_displayblanking.moc"
