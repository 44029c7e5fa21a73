// The object on a bus of its own, with a client that counts as the one or the other application: whose
// process this is, the tracker is told.

#include "Core/memory_monitor.h"
#include "Core/runtime_tracker.h"
#include "DBus/client_registry.h"
#include "DBus/memory_pressure.h"
#include "service/Core/runtime_fixture.h"

#include "support/log_capture.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>

#include <unistd.h>

using Core::ApplicationInstanceId;
using Core::ApplicationState;
using Core::MemoryLevel;
using Core::RuntimeController;
using TestSupport::LogCapture;

namespace {

const QString path = QStringLiteral("/org/kestrix/Procwarden/MemoryPressure1");
const QString interface = QStringLiteral("org.kestrix.Procwarden.MemoryPressure1");
const QString properties = QStringLiteral("org.freedesktop.DBus.Properties");
const QString frozen = QStringLiteral("policy.two.App");
const QString other = QStringLiteral("org.example.Other");

} // namespace

/// One connection to the bus, and the signals that reach it.
class Client : public QObject
{
    Q_OBJECT

public:
    explicit Client(TestSupport::PrivateBus &bus)
        : m_bus(bus)
        , m_connection(bus.connect())
    {
        m_connection.connect(QString(), path, properties, QStringLiteral("PropertiesChanged"), this,
                             SLOT(onChanged(QDBusMessage)));
    }
    ~Client() override { m_bus.disconnect(m_connection); }

    QDBusMessage call(const QString &interfaceName, const QString &member, const QVariantList &arguments = {})
    {
        auto message = QDBusMessage::createMethodCall(QDBusConnection::sessionBus().baseService(), path,
                                                      interfaceName, member);
        message.setArguments(arguments);
        QDBusPendingCallWatcher watcher(m_connection.asyncCall(message));
        QSignalSpy finished(&watcher, &QDBusPendingCallWatcher::finished);
        return watcher.isFinished() || finished.wait(20000) ? watcher.reply() : QDBusMessage();
    }

    bool subscribe()
    {
        return call(interface, QStringLiteral("Subscribe")).type() == QDBusMessage::ReplyMessage;
    }

    /// The values that it was told, when all that was sent before has arrived.
    QVector<int> levels()
    {
        call(properties, QStringLiteral("GetAll"), { interface });
        QVector<int> values;
        for (const QDBusMessage &message : qAsConst(messages)) {
            const QVariantMap changed = qdbus_cast<QVariantMap>(message.arguments().value(1));
            values.append(changed.value(QStringLiteral("Level"), -1).toInt());
        }
        return values;
    }

    QList<QDBusMessage> messages;

public slots:
    void onChanged(const QDBusMessage &message) { messages.append(message); }

private:
    TestSupport::PrivateBus &m_bus;
    QDBusConnection m_connection;
};

class tst_MemoryPressure : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void levelOnTheWire_data();
    void levelOnTheWire();
    void levelCannotBeSet();
    void interfaceIsAsDescribed();
    void subscriberHearsEachChange();
    void unknownToNormalIsToldAsWell();
    void whoHasNotSubscribedHearsNothing();
    void latestConnectionOfAnApplicationIsTold();
    void whoHasLeftDoesNoHarm();
    void whoHasNoNameAtAChangeIsForgotten_data();
    void whoHasNoNameAtAChangeIsForgotten();
    void hiddenSubscriberIsThawedAtLow();
    void hiddenSubscriberIsLeftAloneAtCritical();
    void visibleSubscriberIsToldOfCritical();
    void thawingNeedsTime();

private:
    /// From now on this process is one of the application's.
    static void become(const QString &id) { Core::RuntimeTracker::instance()->addProcess(::getpid(), id); }
    void startHidden();

    std::unique_ptr<RuntimeFixture> m_runtime;
    std::unique_ptr<DBus::MemoryPressure> m_object;
    std::unique_ptr<Client> m_client;
};

void tst_MemoryPressure::initTestCase()
{
    m_runtime = std::make_unique<RuntimeFixture>();
    m_runtime->configure("NotificationUnfreezeMsec=50\n");
    m_runtime->install(frozen);
    RuntimeController::instance(); // as in the service: before the object
}

void tst_MemoryPressure::init()
{
    m_runtime->useTheOneOfTheProcess();
    m_runtime->setLevel(MemoryLevel::Normal);
    m_object = std::make_unique<DBus::MemoryPressure>();
    QVERIFY(QDBusConnection::sessionBus().registerObject(
        path, m_object.get(), QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllProperties));
    m_client = std::make_unique<Client>(m_runtime->bus());
    become(other);
}

void tst_MemoryPressure::cleanup()
{
    const LogCapture log;
    m_client.reset();
    m_object.reset();
    m_runtime->end();
}

void tst_MemoryPressure::startHidden()
{
    QVERIFY(m_runtime->start(frozen) > 0);
    m_runtime->removeScores(m_runtime->pidOf(frozen)); // so that it is no candidate for killing
    m_runtime->controller()->updateWindowStatus(ApplicationInstanceId(frozen), 0, 0, 1);
    QTRY_COMPARE(m_runtime->frozenState(frozen), QByteArrayLiteral("hidden"));
    become(frozen);
    QVERIFY(m_client->subscribe());
}

void tst_MemoryPressure::levelOnTheWire_data()
{
    QTest::addColumn<MemoryLevel>("level");
    QTest::addColumn<int>("value");

    QTest::newRow("unknown") << MemoryLevel::Unknown << 0;
    QTest::newRow("normal") << MemoryLevel::Normal << 0;
    QTest::newRow("low") << MemoryLevel::Low << 100;
    QTest::newRow("critical") << MemoryLevel::Critical << 200;
}

void tst_MemoryPressure::levelOnTheWire()
{
    QFETCH(MemoryLevel, level);
    const LogCapture log;
    m_runtime->setLevel(level);
    const QDBusMessage reply =
        m_client->call(properties, QStringLiteral("Get"), { interface, QStringLiteral("Level") });
    QCOMPARE(reply.signature(), QStringLiteral("v"));
    const QVariant value = reply.arguments().value(0).value<QDBusVariant>().variant();
    QCOMPARE(value.userType(), int(QMetaType::Int)); // "i"
    QTEST(value.toInt(), "value");
    QTEST(m_object->level(), "value");
}

void tst_MemoryPressure::levelCannotBeSet()
{
    const QDBusMessage reply =
        m_client->call(properties, QStringLiteral("Set"),
                       { interface, QStringLiteral("Level"), QVariant::fromValue(QDBusVariant(100)) });
    QCOMPARE(reply.type(), QDBusMessage::ErrorMessage);
    QCOMPARE(m_object->level(), 0);
}

void tst_MemoryPressure::interfaceIsAsDescribed()
{
    const QDBusMessage reply =
        m_client->call(QStringLiteral("org.freedesktop.DBus.Introspectable"), QStringLiteral("Introspect"));
    const QString description = reply.arguments().value(0).toString();
    QVERIFY(description.contains(QStringLiteral("<property name=\"Level\" type=\"i\" access=\"read\"/>")));
    QVERIFY(description.contains(QStringLiteral("<method name=\"Subscribe\">\n    </method>")));
}

void tst_MemoryPressure::subscriberHearsEachChange()
{
    const LogCapture log;
    QVERIFY(m_client->subscribe());
    QVERIFY(m_client->subscribe()); // twice is once
    for (const MemoryLevel level :
         { MemoryLevel::Low, MemoryLevel::Low, MemoryLevel::Critical, MemoryLevel::Normal }) {
        m_runtime->setLevel(level);
    }
    QCOMPARE(m_client->levels(), (QVector<int> { 100, 200, 0 }));

    const QDBusMessage &told = m_client->messages.first();
    QCOMPARE(told.interface(), properties);
    QCOMPARE(told.member(), QStringLiteral("PropertiesChanged"));
    QCOMPARE(told.path(), path);
    QCOMPARE(told.signature(), QStringLiteral("sa{sv}as"));
    QCOMPARE(told.arguments().at(0).toString(), interface);
    const QVariantMap changed = qdbus_cast<QVariantMap>(told.arguments().at(1));
    QCOMPARE(changed.keys(), QStringList(QStringLiteral("Level")));
    QCOMPARE(changed.first().userType(), int(QMetaType::Int));
    QCOMPARE(told.arguments().at(2).toStringList(), QStringList());
}

void tst_MemoryPressure::unknownToNormalIsToldAsWell()
{
    const LogCapture log;
    m_runtime->setLevel(MemoryLevel::Unknown);
    QVERIFY(m_client->subscribe());
    m_runtime->setLevel(MemoryLevel::Normal);
    QCOMPARE(m_client->levels(), QVector<int> { 0 });
}

void tst_MemoryPressure::whoHasNotSubscribedHearsNothing()
{
    const LogCapture log;
    Client bystander(m_runtime->bus());
    QVERIFY(m_client->subscribe());
    m_runtime->setLevel(MemoryLevel::Low);
    QCOMPARE(bystander.levels(), QVector<int>());
    QCOMPARE(m_client->levels(), QVector<int> { 100 });
}

void tst_MemoryPressure::latestConnectionOfAnApplicationIsTold()
{
    const LogCapture log;
    Client latest(m_runtime->bus());
    QVERIFY(m_client->subscribe());
    QVERIFY(latest.subscribe());
    m_runtime->setLevel(MemoryLevel::Low);
    QCOMPARE(latest.levels(), QVector<int> { 100 });
    QCOMPARE(m_client->levels(), QVector<int>());
    m_runtime->setLevel(MemoryLevel::Normal);

    // Another application has its own.
    become(frozen);
    QVERIFY(m_client->subscribe());
    m_runtime->setLevel(MemoryLevel::Low);
    QCOMPARE(m_client->levels(), QVector<int> { 100 });
    QCOMPARE(latest.levels(), (QVector<int> { 100, 0, 100 }));
}

void tst_MemoryPressure::whoHasLeftDoesNoHarm()
{
    const LogCapture log;
    auto leaving = std::make_unique<Client>(m_runtime->bus());
    become(frozen);
    QVERIFY(leaving->subscribe());
    leaving.reset();
    become(other);
    QVERIFY(m_client->subscribe());
    m_runtime->setLevel(MemoryLevel::Low);
    m_runtime->setLevel(MemoryLevel::Normal);
    QCOMPARE(m_client->levels(), (QVector<int> { 100, 0 }));
    QCOMPARE(log.warnings(), QStringList());
}

void tst_MemoryPressure::whoHasNoNameAtAChangeIsForgotten_data()
{
    QTest::addColumn<bool>("changes");
    QTest::addColumn<QVector<int>>("told");

    QTest::newRow("a change meanwhile") << true << QVector<int>();
    QTest::newRow("no change meanwhile") << false << QVector<int> { 100 };
}

void tst_MemoryPressure::whoHasNoNameAtAChangeIsForgotten()
{
    QFETCH(bool, changes);
    const LogCapture log;
    QVERIFY(m_client->subscribe());
    QCOMPARE(m_client->levels(), QVector<int>()); // behind it, the names on the bus are known
    auto *registry = DBus::ClientRegistry::instance();
    const QString name = registry->busName(other);
    QVERIFY(!name.isEmpty());
    registry->addClient(other, QStringLiteral(":0.999")); // nobody's, so that the entry goes
    QCOMPARE(registry->busName(other), QString());
    if (changes) {
        m_runtime->setLevel(MemoryLevel::Low);
        m_runtime->setLevel(MemoryLevel::Normal);
    }
    // It is known again, without having subscribed again.
    registry->addClient(other, name);
    m_runtime->setLevel(MemoryLevel::Low);
    QTEST(m_client->levels(), "told");
}

void tst_MemoryPressure::hiddenSubscriberIsThawedAtLow()
{
    const LogCapture log;
    startHidden();
    m_runtime->setLevel(MemoryLevel::Low);
    QCOMPARE(m_runtime->frozenState(frozen), QByteArrayLiteral("inactive"));
    QCOMPARE(m_client->levels(), QVector<int> { 100 });
    QCOMPARE(m_runtime->controller()->state(frozen), ApplicationState::Hidden);
    QTRY_COMPARE(m_runtime->frozenState(frozen), QByteArrayLiteral("hidden"));
}

void tst_MemoryPressure::hiddenSubscriberIsLeftAloneAtCritical()
{
    const LogCapture log;
    startHidden();
    m_runtime->setLevel(MemoryLevel::Critical);
    QCOMPARE(m_runtime->frozenState(frozen), QByteArrayLiteral("hidden"));
    QCOMPARE(m_client->levels(), QVector<int>());
    // It is still a subscriber.
    m_runtime->setLevel(MemoryLevel::Low);
    QCOMPARE(m_client->levels(), QVector<int> { 100 });
}

void tst_MemoryPressure::visibleSubscriberIsToldOfCritical()
{
    const LogCapture log;
    startHidden();
    m_runtime->controller()->updateWindowStatus(ApplicationInstanceId(frozen), 0, 1, 0);
    m_runtime->setLevel(MemoryLevel::Critical);
    QCOMPARE(m_client->levels(), QVector<int> { 200 });
}

void tst_MemoryPressure::thawingNeedsTime()
{
    // A client that does not run is told, and there is nothing to thaw.
    const LogCapture log;
    QVERIFY(m_client->subscribe());
    m_runtime->setLevel(MemoryLevel::Low);
    QCOMPARE(m_client->levels(), QVector<int> { 100 });
    QCOMPARE(log.warnings(), QStringList());
}

QTEST_GUILESS_MAIN(tst_MemoryPressure)
#include "tst_memory_pressure.moc"
