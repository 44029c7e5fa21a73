#include "qbatteryinfo.h"
#include "upowerbattery.h"

#include "support/dbus_mock.h"
#include "support/interruption.h"
#include "support/patience.h"
#include "support/private_bus.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QtTest>

#include <memory>

using TestSupport::DbusMock;
using TestSupport::Interruption;
using TestSupport::PrivateBus;

namespace {

const QString upower = QStringLiteral("org.freedesktop.UPower");
const QString display = QStringLiteral("/org/freedesktop/UPower/devices/DisplayDevice");
const QString device = QStringLiteral("org.freedesktop.UPower.Device");

constexpr uint charging = 1;
constexpr uint discharging = 2;

QVariantMap battery(double percentage, uint state)
{
    return { { QStringLiteral("IsPresent"), true },
             { QStringLiteral("Percentage"), percentage },
             { QStringLiteral("State"), state } };
}

/// A battery as UPower offers it, in this process.
class Device : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.UPower.Device")
    Q_PROPERTY(bool IsPresent MEMBER isPresent)
    Q_PROPERTY(double Percentage MEMBER percentage)
    Q_PROPERTY(uint State MEMBER state)

public:
    bool isPresent = true;
    double percentage = 67;
    uint state = charging;
};

} // namespace

class tst_QBatteryInfo : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void batteryIsReadWhenMade();
    void levelIsRoundedDown_data();
    void levelIsRoundedDown();
    void stateIsUPowers_data();
    void stateIsUPowers();
    void changeOfLevelIsSignalledOnce();
    void changeOfStateIsSignalledOnce();
    void changeOfBothIsSeenWhole();
    void otherChangesAreNotSignalled();
    void invalidatedPropertyIsAskedFor();
    void changeThatOvertakesTheAnswerStands();
    void refusedQuestionIsAskedAgain();
    void wrongTypesAreNoBattery();
    void batteryAppearsAndGoes();
    void withoutUPowerThereIsNoBattery();
    void upowerComesAndGoes();
    void silentUPowerDoesNotBlock();
    void manyChangesEndAtTheLast();
    void secondObjectKnowsAtOnce();
    void destructionWithAQuestionUnderWay();

private:
    void startUPower();
    void change(const QVariantMap &properties);

    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<DbusMock> m_upower;
};

void tst_QBatteryInfo::initTestCase()
{
    if (!DbusMock::isInstalled()) {
        QSKIP("python3-dbusmock is not installed");
    }
    qRegisterMetaType<QBatteryInfo::ChargingState>();
    m_bus = std::make_unique<PrivateBus>();
    m_bus->useAsSystemBus();
}

void tst_QBatteryInfo::init()
{
    startUPower();
}

void tst_QBatteryInfo::cleanup()
{
    m_upower.reset();
}

void tst_QBatteryInfo::startUPower()
{
    m_upower = std::make_unique<DbusMock>(
        *m_bus, upower,
        QStringList { QStringLiteral("--system"), QStringLiteral("--template"), QStringLiteral("upower") });
}

void tst_QBatteryInfo::change(const QVariantMap &properties)
{
    m_upower->call(display, QStringLiteral("UpdateProperties"), { device, properties });
}

void tst_QBatteryInfo::batteryIsReadWhenMade()
{
    change(battery(67, discharging));
    const QBatteryInfo info;
    QCOMPARE(info.level(), -1); // nothing blocks
    QCOMPARE(info.chargingState(), QBatteryInfo::UnknownChargingState);
    QTRY_COMPARE(info.level(), 67);
    QCOMPARE(info.chargingState(), QBatteryInfo::Discharging);
}

void tst_QBatteryInfo::levelIsRoundedDown_data()
{
    QTest::addColumn<double>("percentage");
    QTest::addColumn<int>("level");

    QTest::newRow("empty") << 0.0 << 0;
    QTest::newRow("nearly 20") << 19.99 << 19;
    QTest::newRow("20") << 20.0 << 20;
    QTest::newRow("full") << 100.0 << 100;
    QTest::newRow("too much") << 100.5 << -1;
    QTest::newRow("negative") << -1.0 << -1;
    QTest::newRow("no number") << qQNaN() << -1;
    QTest::newRow("infinite") << qInf() << -1;
}

void tst_QBatteryInfo::levelIsRoundedDown()
{
    QFETCH(const double, percentage);
    QFETCH(const int, level);

    change(battery(percentage, charging));
    const QBatteryInfo info;
    QTRY_COMPARE(info.chargingState(), QBatteryInfo::Charging);
    QCOMPARE(info.level(), level);
}

void tst_QBatteryInfo::stateIsUPowers_data()
{
    QTest::addColumn<uint>("upowers");
    QTest::addColumn<int>("ours");

    QTest::newRow("unknown") << 0U << 0;
    QTest::newRow("charging") << 1U << 1;
    QTest::newRow("discharging") << 2U << 3;
    QTest::newRow("empty") << 3U << 3;
    QTest::newRow("fully charged") << 4U << 2;
    QTest::newRow("pending charge") << 5U << 2;
    QTest::newRow("pending discharge") << 6U << 3;
    QTest::newRow("of a later version") << 7U << 0;
}

void tst_QBatteryInfo::stateIsUPowers()
{
    QFETCH(const uint, upowers);
    QFETCH(const int, ours);

    change(battery(50, upowers));
    const QBatteryInfo info;
    QTRY_COMPARE(info.level(), 50);
    QCOMPARE(int(info.chargingState()), ours);
}

void tst_QBatteryInfo::changeOfLevelIsSignalledOnce()
{
    change(battery(67, discharging));
    const QBatteryInfo info;
    QTRY_COMPARE(info.level(), 67);
    QSignalSpy levels(&info, &QBatteryInfo::levelChanged);
    QSignalSpy states(&info, &QBatteryInfo::chargingStateChanged);
    change({ { QStringLiteral("Percentage"), 66.0 } });
    QVERIFY(levels.wait(patienceMs));
    QCOMPARE(levels.size(), 1);
    QCOMPARE(levels.first().first().toInt(), 66);
    QCOMPARE(info.level(), 66);
    QCOMPARE(states.size(), 0);
}

void tst_QBatteryInfo::changeOfStateIsSignalledOnce()
{
    change(battery(67, discharging));
    const QBatteryInfo info;
    QTRY_COMPARE(info.level(), 67);
    QSignalSpy levels(&info, &QBatteryInfo::levelChanged);
    QSignalSpy states(&info, &QBatteryInfo::chargingStateChanged);
    change({ { QStringLiteral("State"), charging } });
    QVERIFY(states.wait(patienceMs));
    QCOMPARE(states.size(), 1);
    QCOMPARE(info.chargingState(), QBatteryInfo::Charging);
    QCOMPARE(levels.size(), 0);
}

void tst_QBatteryInfo::changeOfBothIsSeenWhole()
{
    change(battery(67, discharging));
    const QBatteryInfo info;
    QTRY_COMPARE(info.level(), 67);
    QList<QBatteryInfo::ChargingState> seen;
    connect(&info, &QBatteryInfo::levelChanged, this, [&] { seen << info.chargingState(); });
    change(battery(10, charging));
    QTRY_COMPARE(info.level(), 10);
    QCOMPARE(seen, QList<QBatteryInfo::ChargingState> { QBatteryInfo::Charging });
}

void tst_QBatteryInfo::otherChangesAreNotSignalled()
{
    change(battery(67, discharging));
    const QBatteryInfo info;
    QTRY_COMPARE(info.level(), 67);
    QSignalSpy levels(&info, &QBatteryInfo::levelChanged);
    QSignalSpy states(&info, &QBatteryInfo::chargingStateChanged);
    change({ { QStringLiteral("TimeToEmpty"), Q_INT64_C(10) } });
    change({ { QStringLiteral("Percentage"), 67.9 } });
    // Another interface of the same object.
    m_upower->call(display, QStringLiteral("EmitSignal"),
                   { QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("PropertiesChanged"),
                     QStringLiteral("sa{sv}as"),
                     QVariantList { QStringLiteral("org.example.Other"),
                                    QVariantMap { { QStringLiteral("Percentage"), 1.0 } }, QStringList() } });
    change({ { QStringLiteral("State"), charging } });
    QVERIFY(states.wait(patienceMs));
    QCOMPARE(states.size(), 1);
    QCOMPARE(levels.size(), 0);
}

void tst_QBatteryInfo::invalidatedPropertyIsAskedFor()
{
    change(battery(67, discharging));
    const QBatteryInfo info;
    QTRY_COMPARE(info.level(), 67);
    change({ { QStringLiteral("Percentage"), 66.0 } });
    QTRY_COMPARE(info.level(), 66);
    QSignalSpy levels(&info, &QBatteryInfo::levelChanged);
    m_upower->call(display, QStringLiteral("EmitSignal"),
                   { QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("PropertiesChanged"),
                     QStringLiteral("sa{sv}as"),
                     QVariantList { device, QVariantMap { { QStringLiteral("Percentage"), 12.0 } },
                                    QStringList { QStringLiteral("State") } } });
    QTRY_COMPARE(levels.size(), 2);
    QCOMPARE(levels.first().first().toInt(), 12); // as the signal says
    QCOMPARE(levels.last().first().toInt(), 66); // as the device says when it is asked
}

// An answer and a change may both have come before the object that waits for the answer is made, and then
// the change is handled first.
void tst_QBatteryInfo::changeThatOvertakesTheAnswerStands()
{
    change(battery(67, discharging));
    // A new connection holds signals back until the event loop has been there.
    QVERIFY(QDBusConnection::systemBus().isConnected());
    QCoreApplication::processEvents();
    const Interruption interruption("UPowerBattery", [] {
        // On the connection of the question, whose answer is there, too, when this call has been answered.
        QDBusMessage call = QDBusMessage::createMethodCall(
            upower, display, QStringLiteral("org.freedesktop.DBus.Mock"), QStringLiteral("UpdateProperties"));
        call << device << QVariantMap { { QStringLiteral("Percentage"), 66.0 } };
        QCOMPARE(QDBusConnection::systemBus().call(call).type(), QDBusMessage::ReplyMessage);
    });
    const QBatteryInfo info;
    QVERIFY(interruption.happened());
    change({ { QStringLiteral("State"), charging } });
    QTRY_COMPARE(info.chargingState(), QBatteryInfo::Charging);
    QCOMPARE(info.level(), 66);
}

void tst_QBatteryInfo::refusedQuestionIsAskedAgain()
{
    m_upower.reset();
    QDBusConnection daemon = m_bus->connect();
    QVERIFY(daemon.registerService(upower));
    const QBatteryInfo info;
    // There is no such object yet.
    QTRY_VERIFY(UPowerBattery::shared()->findChildren<QDBusPendingCallWatcher *>().isEmpty());
    QCOMPARE(info.level(), -1);

    Device battery;
    QVERIFY(daemon.registerObject(display, &battery, QDBusConnection::ExportAllProperties));
    QDBusMessage signal = QDBusMessage::createSignal(
        display, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("PropertiesChanged"));
    signal << device << QVariantMap { { QStringLiteral("Percentage"), 67.0 } } << QStringList();
    QVERIFY(daemon.send(signal));
    QTRY_COMPARE(info.level(), 67);
    QCOMPARE(info.chargingState(), QBatteryInfo::Charging);
    m_bus->disconnect(daemon);
}

void tst_QBatteryInfo::wrongTypesAreNoBattery()
{
    change(battery(67, discharging));
    const QBatteryInfo info;
    QTRY_COMPARE(info.level(), 67);
    change({ { QStringLiteral("Percentage"), QStringLiteral("much") },
             { QStringLiteral("State"), QStringList { QStringLiteral("odd") } } });
    QTRY_COMPARE(info.chargingState(), QBatteryInfo::UnknownChargingState);
    QCOMPARE(info.level(), 0);
}

void tst_QBatteryInfo::batteryAppearsAndGoes()
{
    const QBatteryInfo info;
    QSignalSpy levels(&info, &QBatteryInfo::levelChanged);
    change(battery(67, discharging));
    QTRY_COMPARE(info.level(), 67);
    change({ { QStringLiteral("IsPresent"), false } });
    QTRY_COMPARE(info.level(), -1);
    QCOMPARE(info.chargingState(), QBatteryInfo::UnknownChargingState);
    change({ { QStringLiteral("IsPresent"), true } });
    QTRY_COMPARE(info.level(), 67);
    QCOMPARE(info.chargingState(), QBatteryInfo::Discharging);
    QCOMPARE(levels.size(), 3);
}

void tst_QBatteryInfo::withoutUPowerThereIsNoBattery()
{
    m_upower.reset();
    const QBatteryInfo info;
    QSignalSpy levels(&info, &QBatteryInfo::levelChanged);
    QVERIFY(!levels.wait(200));
    QCOMPARE(info.level(), -1);
    QCOMPARE(info.chargingState(), QBatteryInfo::UnknownChargingState);
}

void tst_QBatteryInfo::upowerComesAndGoes()
{
    m_upower.reset();
    const QBatteryInfo info;
    startUPower();
    change(battery(67, charging));
    QTRY_COMPARE(info.level(), 67);
    m_upower.reset();
    QTRY_COMPARE(info.level(), -1);
    QCOMPARE(info.chargingState(), QBatteryInfo::UnknownChargingState);
    startUPower();
    change(battery(42, discharging));
    QTRY_COMPARE(info.level(), 42);
}

void tst_QBatteryInfo::silentUPowerDoesNotBlock()
{
    change(battery(67, discharging));
    m_upower->suspend();
    QElapsedTimer time;
    time.start();
    const QBatteryInfo info;
    QCoreApplication::processEvents();
    QCOMPARE(info.level(), -1);
    QVERIFY(time.elapsed() < 20000); // a blocking call would take 25 s
    m_upower->resume();
    QTRY_COMPARE(info.level(), 67);
}

void tst_QBatteryInfo::manyChangesEndAtTheLast()
{
    const QBatteryInfo info;
    QSignalSpy levels(&info, &QBatteryInfo::levelChanged);
    for (int i = 0; i < 200; ++i) {
        change(battery(i % 2 ? 10 : 90, i % 2 ? discharging : charging));
    }
    change(battery(50, charging));
    QTRY_COMPARE(info.level(), 50);
    QCOMPARE(levels.last().first().toInt(), 50);
    QVERIFY(levels.size() <= 202);
}

void tst_QBatteryInfo::secondObjectKnowsAtOnce()
{
    change(battery(67, discharging));
    const QBatteryInfo info;
    QTRY_COMPARE(info.level(), 67);
    const QBatteryInfo other;
    QCOMPARE(other.level(), 67);
    QCOMPARE(other.chargingState(), QBatteryInfo::Discharging);
}

void tst_QBatteryInfo::destructionWithAQuestionUnderWay()
{
    m_upower->suspend();
    {
        const QBatteryInfo info;
    }
    m_upower->resume();
    change(battery(67, discharging));
    const QBatteryInfo info;
    QTRY_COMPARE(info.level(), 67);
}

QTEST_GUILESS_MAIN(tst_QBatteryInfo)
#include "tst_qbatteryinfo.moc"
