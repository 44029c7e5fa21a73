#include "Core/condition_battery.h"

#include "support/dbus_mock.h"
#include "support/private_bus.h"

#include <QSignalSpy>
#include <QtTest>

#include <memory>

using Core::ConditionBattery;
using TestSupport::DbusMock;
using TestSupport::PrivateBus;

namespace {

const QString upower = QStringLiteral("org.freedesktop.UPower");
const QString display = QStringLiteral("/org/freedesktop/UPower/devices/DisplayDevice");

enum ChargingState { Unknown = 0, Charging = 1, IdleCharging = 2, Discharging = 3 }; // QBatteryInfo's

} // namespace

class tst_ConditionBattery : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup() { m_upower.reset(); }

    void stateHasTheBitsOfLevelAndCharging_data();
    void stateHasTheBitsOfLevelAndCharging();
    void masksDecide_data();
    void masksDecide();
    void batteryOfTheSystemDecides_data();
    void batteryOfTheSystemDecides();
    void changesAreFollowed();
    void missingBatteryIsLow();
    void flappingChargerIsFollowed();
    void taskDoesNotMatter();

private:
    void change(const QVariantMap &properties);
    void change(double percentage, uint state);

    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<DbusMock> m_upower;
};

void tst_ConditionBattery::initTestCase()
{
    m_bus = std::make_unique<PrivateBus>();
    m_bus->useAsSystemBus();
}

void tst_ConditionBattery::init()
{
    if (QByteArray(QTest::currentTestFunction()).startsWith("stateHas")
        || QByteArray(QTest::currentTestFunction()).startsWith("masks")) {
        return; // no battery needed
    }
    if (!DbusMock::isInstalled()) {
        QSKIP("python3-dbusmock is not installed");
    }
    m_upower = std::make_unique<DbusMock>(
        *m_bus, upower,
        QStringList { QStringLiteral("--system"), QStringLiteral("--template"), QStringLiteral("upower") });
}

void tst_ConditionBattery::change(const QVariantMap &properties)
{
    m_upower->call(display, QStringLiteral("UpdateProperties"),
                   { QStringLiteral("org.freedesktop.UPower.Device"), properties });
}

void tst_ConditionBattery::change(double percentage, uint state)
{
    change({ { QStringLiteral("IsPresent"), true },
             { QStringLiteral("Percentage"), percentage },
             { QStringLiteral("State"), state } });
}

void tst_ConditionBattery::stateHasTheBitsOfLevelAndCharging_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<int>("charging");
    QTest::addColumn<quint32>("state");

    for (int decade = 0; decade < 10; ++decade) {
        QTest::addRow("%d", decade * 10) << decade * 10 << int(Discharging) << (1U << decade);
        QTest::addRow("%d", decade * 10 + 9) << decade * 10 + 9 << int(Discharging) << (1U << decade);
    }
    QTest::newRow("100") << 100 << int(Discharging) << 512U;
    QTest::newRow("109") << 109 << int(Discharging) << 512U;
    QTest::newRow("110") << 110 << int(Discharging) << 0U;
    QTest::newRow("no battery") << -1 << int(Unknown) << 1U;
    QTest::newRow("-9") << -9 << int(Unknown) << 1U;
    QTest::newRow("-10") << -10 << int(Unknown) << 0U;
    QTest::newRow("highest") << std::numeric_limits<int>::max() << int(Unknown) << 0U;
    QTest::newRow("lowest") << std::numeric_limits<int>::min() << int(Unknown) << 0U;
    QTest::newRow("charging") << 55 << int(Charging) << (1024U | 32U);
    QTest::newRow("full") << 100 << int(IdleCharging) << (1024U | 512U);
    QTest::newRow("no battery, charging") << -1 << int(Charging) << (1024U | 1U);
    QTest::newRow("unknown") << 55 << int(Unknown) << 32U;
    QTest::newRow("state of a later version") << 55 << 4 << 32U;
}

void tst_ConditionBattery::stateHasTheBitsOfLevelAndCharging()
{
    QFETCH(const int, level);
    QFETCH(const int, charging);
    QFETCH(const quint32, state);

    QCOMPARE(ConditionBattery::state(level, charging), state);
}

void tst_ConditionBattery::masksDecide_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<int>("charging");
    QTest::addColumn<bool>("notLow");
    QTest::addColumn<bool>("isCharging");

    QTest::newRow("19, discharging") << 19 << int(Discharging) << false << false;
    QTest::newRow("20, discharging") << 20 << int(Discharging) << true << false;
    QTest::newRow("5, charging") << 5 << int(Charging) << true << true;
    QTest::newRow("100, idle") << 100 << int(IdleCharging) << true << true;
    QTest::newRow("100, discharging") << 100 << int(Discharging) << true << false;
    QTest::newRow("none") << -1 << int(Unknown) << false << false;
    QTest::newRow("none, charging") << -1 << int(Charging) << true << true;
}

void tst_ConditionBattery::masksDecide()
{
    QFETCH(const int, level);
    QFETCH(const int, charging);
    QFETCH(const bool, notLow);
    QFETCH(const bool, isCharging);

    QCOMPARE(ConditionBattery::notLow, 2044U);
    QCOMPARE(ConditionBattery::charging, 1024U);
    const quint32 state = ConditionBattery::state(level, charging);
    QCOMPARE((state & ConditionBattery::notLow) != 0, notLow);
    QCOMPARE((state & ConditionBattery::charging) != 0, isCharging);
}

void tst_ConditionBattery::batteryOfTheSystemDecides_data()
{
    QTest::addColumn<double>("percentage");
    QTest::addColumn<uint>("state"); // UPower's
    QTest::addColumn<bool>("notLow");
    QTest::addColumn<bool>("isCharging");

    QTest::newRow("19, discharging") << 19.9 << 2U << false << false;
    QTest::newRow("20, discharging") << 20.0 << 2U << true << false;
    QTest::newRow("5, charging") << 5.0 << 1U << true << true;
    QTest::newRow("100, full") << 100.0 << 4U << true << true;
    QTest::newRow("100, discharging") << 100.0 << 2U << true << false;
}

void tst_ConditionBattery::batteryOfTheSystemDecides()
{
    QFETCH(const double, percentage);
    QFETCH(const uint, state);
    QFETCH(const bool, notLow);
    QFETCH(const bool, isCharging);

    const ConditionBattery level(ConditionBattery::notLow);
    const ConditionBattery charger(ConditionBattery::charging);
    QCOMPARE(level.name(), QStringLiteral("battery"));
    QCOMPARE(charger.name(), QStringLiteral("battery"));
    // The other way around first, so that the last change shows.
    change(notLow ? 0 : 50, isCharging ? 2 : 1);
    QTRY_VERIFY(charger.isSatisfied() != isCharging);
    change(percentage, state);
    QTRY_COMPARE(charger.isSatisfied(), isCharging);
    QTRY_COMPARE(level.isSatisfied(), notLow);
}

void tst_ConditionBattery::changesAreFollowed()
{
    const ConditionBattery level(ConditionBattery::notLow);
    QSignalSpy changes(&level, &ConditionBattery::isSatisfiedChanged);
    change(50, 2);
    QTRY_VERIFY(level.isSatisfied());
    change(49, 2);
    change(20, 2);
    change(19, 2);
    QTRY_VERIFY(!level.isSatisfied());
    QCOMPARE(changes.size(), 2);
    change(19, 1);
    QTRY_VERIFY(level.isSatisfied());
    change(20, 2); // both at once: low and not charging is never seen
    change(80, 2);
    change(10, 2);
    QTRY_VERIFY(!level.isSatisfied());
    QCOMPARE(changes.size(), 4);
}

void tst_ConditionBattery::missingBatteryIsLow()
{
    const ConditionBattery level(ConditionBattery::notLow);
    change(50, 2);
    QTRY_VERIFY(level.isSatisfied());
    change({ { QStringLiteral("IsPresent"), false } });
    QTRY_VERIFY(!level.isSatisfied());
    change({ { QStringLiteral("IsPresent"), true } });
    QTRY_VERIFY(level.isSatisfied());
    m_upower.reset();
    QTRY_VERIFY(!level.isSatisfied());
}

void tst_ConditionBattery::flappingChargerIsFollowed()
{
    const ConditionBattery charger(ConditionBattery::charging);
    QSignalSpy changes(&charger, &ConditionBattery::isSatisfiedChanged);
    for (int i = 0; i < 100; ++i) {
        change(50, i % 2 ? 2 : 1);
    }
    change(50, 4);
    QTRY_COMPARE(changes.size(), 101);
    QVERIFY(charger.isSatisfied());
}

void tst_ConditionBattery::taskDoesNotMatter()
{
    ConditionBattery level(ConditionBattery::notLow);
    change(50, 2);
    QTRY_VERIFY(level.isSatisfied());
    level.taskWasTriggered();
    level.taskRemoved();
    QVERIFY(level.isSatisfied());
    QCOMPARE(level.config(), QVariantMap());
}

QTEST_GUILESS_MAIN(tst_ConditionBattery)
#include "tst_condition_battery.moc"
