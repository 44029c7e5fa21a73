#include "Core/timed_proxy.h"

#include "timed_trigger.h"

#include <QDBusMetaType>
#include <QDBusVariant>
#include <QtTest>

using namespace Core;
using namespace TestSupport;

namespace {

const QString taskId = QStringLiteral("org.example.Notes.task_sync");

} // namespace

// What the daemon's calls come to.
class TestTimedTriggers : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void triggerReachesTheListener();
    void triggersBeforeReadyComeInOrderAndOnce();
    void secondMarkReadyHasNoEffect();
    void triggerWithoutAnEventIdIsLogged_data();
    void triggerWithoutAnEventIdIsLogged();
    void triggerOfAnotherSignatureIsRefused_data();
    void triggerOfAnotherSignatureIsRefused();
    void objectGoesWithTheProxy();
    void secondObjectIsLogged();

private:
    QDBusMessage trigger(const QVariantList &arguments) { return TimedTrigger::send(m_bus, arguments); }

    PrivateBus m_bus;
    std::unique_ptr<TimedProxy> m_proxy;
};

void TestTimedTriggers::initTestCase()
{
    qDBusRegisterMetaType<QMap<QString, QString>>();
    m_bus.useAsSessionBus();
    QVERIFY(QDBusConnection::sessionBus().isConnected());
}

void TestTimedTriggers::init()
{
    m_proxy = std::make_unique<TimedProxy>(QDBusConnection::sessionBus());
}

void TestTimedTriggers::cleanup()
{
    m_proxy.reset();
}

void TestTimedTriggers::triggerReachesTheListener()
{
    QSignalSpy triggered(m_proxy.get(), &TimedProxy::eventTriggered);
    m_proxy->markReady();
    const QDBusMessage answer =
        trigger({ QVariantMap { { QStringLiteral("eventId"), taskId },
                                { QStringLiteral("APPLICATION"), QStringLiteral("Procwarden") } } });
    QCOMPARE(answer.type(), QDBusMessage::ReplyMessage);
    QCOMPARE(answer.signature(), QString());
    QCOMPARE(triggered.size(), 1);
    QCOMPARE(triggered.first(), QVariantList { taskId });
}

void TestTimedTriggers::triggersBeforeReadyComeInOrderAndOnce()
{
    QSignalSpy triggered(m_proxy.get(), &TimedProxy::eventTriggered);
    const QStringList ids = { QStringLiteral("c"), QStringLiteral("a"), QStringLiteral("b"),
                              QStringLiteral("a") };
    for (const QString &id : ids) {
        trigger({ QVariantMap { { QStringLiteral("eventId"), id } } });
    }
    QCOMPARE(triggered.size(), 0);
    m_proxy->markReady();
    QStringList seen;
    for (const QVariantList &arguments : triggered) {
        seen << arguments.first().toString();
    }
    QCOMPARE(seen, ids);
}

void TestTimedTriggers::secondMarkReadyHasNoEffect()
{
    trigger({ QVariantMap { { QStringLiteral("eventId"), taskId } } });
    QSignalSpy triggered(m_proxy.get(), &TimedProxy::eventTriggered);
    // One that calls from within, as a condition set up by a trigger would.
    connect(m_proxy.get(), &TimedProxy::eventTriggered, m_proxy.get(), [this] { m_proxy->markReady(); });
    m_proxy->markReady();
    m_proxy->markReady();
    QCOMPARE(triggered.size(), 1);
}

void TestTimedTriggers::triggerWithoutAnEventIdIsLogged_data()
{
    QTest::addColumn<QVariantMap>("attributes");
    const QString key = QStringLiteral("eventId");
    QTest::newRow("no attribute") << QVariantMap();
    QTest::newRow("another attribute") << QVariantMap { { QStringLiteral("eventid"), taskId } };
    QTest::newRow("empty") << QVariantMap { { key, QString() } };
    QTest::newRow("a list") << QVariantMap { { key, QStringList { taskId, taskId } } };
    QTest::newRow("a map") << QVariantMap { { key, QVariantMap { { key, taskId } } } };
    QTest::newRow("a variant") << QVariantMap { { key, QVariant::fromValue(QDBusVariant(taskId)) } };
}

void TestTimedTriggers::triggerWithoutAnEventIdIsLogged()
{
    QFETCH(QVariantMap, attributes);
    QSignalSpy triggered(m_proxy.get(), &TimedProxy::eventTriggered);
    QTest::ignoreMessage(QtWarningMsg, "Received empty eventId from timed");
    QCOMPARE(trigger({ attributes }).type(), QDBusMessage::ReplyMessage);
    m_proxy->markReady();
    QCOMPARE(triggered.size(), 0);
}

void TestTimedTriggers::triggerOfAnotherSignatureIsRefused_data()
{
    QTest::addColumn<QVariantList>("arguments");
    QTest::newRow("nothing") << QVariantList();
    QTest::newRow("text") << QVariantList { taskId };
    QTest::newRow("a map of text") << QVariantList { QVariant::fromValue(
        QMap<QString, QString> { { QStringLiteral("eventId"), taskId } }) };
    QTest::newRow("a number") << QVariantList { 1 };
}

void TestTimedTriggers::triggerOfAnotherSignatureIsRefused()
{
    QFETCH(QVariantList, arguments);
    m_proxy->markReady();
    QSignalSpy triggered(m_proxy.get(), &TimedProxy::eventTriggered);
    const QDBusMessage answer = trigger(arguments);
    QCOMPARE(answer.errorName(), QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod"));
    QCOMPARE(triggered.size(), 0);
}

void TestTimedTriggers::objectGoesWithTheProxy()
{
    m_proxy.reset();
    const QVariantMap attributes { { QStringLiteral("eventId"), taskId } };
    QCOMPARE(trigger({ attributes }).errorName(), QStringLiteral("org.freedesktop.DBus.Error.UnknownObject"));
}

void TestTimedTriggers::secondObjectIsLogged()
{
    QTest::ignoreMessage(QtWarningMsg, "couldn't register Timed object");
    {
        const TimedProxy second(QDBusConnection::sessionBus());
    }
    // The first one's stays.
    QSignalSpy triggered(m_proxy.get(), &TimedProxy::eventTriggered);
    m_proxy->markReady();
    trigger({ QVariantMap { { QStringLiteral("eventId"), taskId } } });
    QCOMPARE(triggered.size(), 1);
}

QTEST_GUILESS_MAIN(TestTimedTriggers)

#include "tst_timed_triggers.moc"
