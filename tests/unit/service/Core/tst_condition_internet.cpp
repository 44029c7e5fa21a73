#include "Core/condition_internet.h"

#include "Core/connection_monitor.h"
#include "network_stand_in.h"

#include <QNetworkConfiguration>
#include <QSignalSpy>
#include <QtTest>

#include <memory>

using Core::ConditionInternet;
using Core::ConnectionMonitor;
using Core::MonitorSingleton;
using Core::NetworkSource;

QT_WARNING_DISABLE_DEPRECATED

namespace {

constexpr int ethernet = QNetworkConfiguration::BearerEthernet;
constexpr int wifi = QNetworkConfiguration::BearerWLAN;
constexpr int cellular = QNetworkConfiguration::BearerLTE;
constexpr int unknown = QNetworkConfiguration::BearerUnknown;

} // namespace

/// The condition, and the monitor that it looks at.
class tst_ConditionInternet : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void bearersHaveTheirType_data();
    void bearersHaveTheirType();

    void networkIsOfflineUntilTheLoopHasRun();
    void changesWithinALoopAreOneUpdate();
    void changeOfOneValueIsSignalled();
    void goingOnlineAgainWithTheSameBearerIsSignalled();
    void bearerDoesNotCountOffline();
    void changeOfNeitherValueIsNotSignalled();
    void monitorRepeatsTheState();

    void masksDecide_data();
    void masksDecide();
    void conditionKnowsAtOnceWhatIsKnown();
    void changesAreFollowed();
    void flappingNetworkIsFollowed();
    void taskDoesNotMatter();

private:
    std::unique_ptr<MonitorSingleton> m_monitor;
    NetworkStandIn *m_network = nullptr;
};

void tst_ConditionInternet::init()
{
    m_monitor = monitorOf(&m_network);
}

void tst_ConditionInternet::cleanup()
{
    m_monitor.reset();
}

void tst_ConditionInternet::bearersHaveTheirType_data()
{
    QTest::addColumn<int>("bearer");
    QTest::addColumn<int>("type");

    QTest::newRow("unknown") << int(QNetworkConfiguration::BearerUnknown) << 0;
    QTest::newRow("ethernet") << int(QNetworkConfiguration::BearerEthernet) << 1;
    QTest::newRow("wireless LAN") << int(QNetworkConfiguration::BearerWLAN) << 2;
    QTest::newRow("WiMAX") << int(QNetworkConfiguration::BearerWiMAX) << 2;
    QTest::newRow("2G") << int(QNetworkConfiguration::Bearer2G) << 3;
    QTest::newRow("CDMA2000") << int(QNetworkConfiguration::BearerCDMA2000) << 3;
    QTest::newRow("WCDMA") << int(QNetworkConfiguration::BearerWCDMA) << 3;
    QTest::newRow("HSPA") << int(QNetworkConfiguration::BearerHSPA) << 3;
    QTest::newRow("EVDO") << int(QNetworkConfiguration::BearerEVDO) << 3;
    QTest::newRow("LTE") << int(QNetworkConfiguration::BearerLTE) << 3;
    QTest::newRow("3G") << int(QNetworkConfiguration::Bearer3G) << 3;
    QTest::newRow("4G") << int(QNetworkConfiguration::Bearer4G) << 3;
    QTest::newRow("Bluetooth") << int(QNetworkConfiguration::BearerBluetooth) << 4;
    QTest::newRow("of a later version") << 13 << 0;
    QTest::newRow("negative") << -1 << 0;
}

void tst_ConditionInternet::bearersHaveTheirType()
{
    QFETCH(const int, bearer);
    QFETCH(const int, type);

    QCOMPARE(NetworkSource::connectionType(bearer), type);
    m_network->online = true;
    m_network->bearer = bearer;
    QTRY_VERIFY(m_monitor->isOnline());
    QCOMPARE(m_monitor->connectionType(), type);
}

void tst_ConditionInternet::networkIsOfflineUntilTheLoopHasRun()
{
    m_network->online = true;
    m_network->bearer = wifi;
    QSignalSpy changes(m_monitor.get(), &MonitorSingleton::stateChanged);
    QVERIFY(!m_monitor->isOnline());
    QCOMPARE(m_monitor->connectionType(), 0);
    QCOMPARE(m_network->reads, 0);
    QCoreApplication::processEvents();
    QVERIFY(m_monitor->isOnline());
    QCOMPARE(m_monitor->connectionType(), 2);
    QCOMPARE(changes.size(), 1);
}

void tst_ConditionInternet::changesWithinALoopAreOneUpdate()
{
    QCoreApplication::processEvents();
    QCOMPARE(m_network->reads, 1);
    QSignalSpy changes(m_monitor.get(), &MonitorSingleton::stateChanged);
    for (int i = 0; i < 1000; ++i) {
        m_network->set(i % 2, ethernet);
    }
    QCOMPARE(changes.size(), 0);
    QCoreApplication::processEvents();
    QCOMPARE(m_network->reads, 2);
    QCOMPARE(changes.size(), 1);
    QVERIFY(m_monitor->isOnline());
    m_network->set(true, wifi);
    QCoreApplication::processEvents();
    QCOMPARE(m_network->reads, 3);
}

void tst_ConditionInternet::changeOfOneValueIsSignalled()
{
    m_network->set(true, ethernet);
    QCoreApplication::processEvents();
    QSignalSpy changes(m_monitor.get(), &MonitorSingleton::stateChanged);
    m_network->set(true, wifi);
    QCoreApplication::processEvents();
    QCOMPARE(changes.size(), 1);
    QCOMPARE(m_monitor->connectionType(), 2);
    m_network->set(true, unknown);
    QCoreApplication::processEvents();
    QCOMPARE(changes.size(), 2);
    m_network->set(false, unknown); // the type was 0 already
    QCoreApplication::processEvents();
    QCOMPARE(changes.size(), 3);
}

void tst_ConditionInternet::goingOnlineAgainWithTheSameBearerIsSignalled()
{
    m_network->set(true, ethernet);
    QCoreApplication::processEvents();
    m_network->set(false, ethernet);
    QCoreApplication::processEvents();
    QSignalSpy changes(m_monitor.get(), &MonitorSingleton::stateChanged);
    m_network->set(true, ethernet);
    QCoreApplication::processEvents();
    QCOMPARE(changes.size(), 1);
    QCOMPARE(m_monitor->connectionType(), 1);
}

void tst_ConditionInternet::bearerDoesNotCountOffline()
{
    m_network->set(false, ethernet);
    QSignalSpy changes(m_monitor.get(), &MonitorSingleton::stateChanged);
    QCoreApplication::processEvents();
    QCOMPARE(m_monitor->connectionType(), 0);
    QCOMPARE(changes.size(), 0);
}

void tst_ConditionInternet::changeOfNeitherValueIsNotSignalled()
{
    m_network->set(true, ethernet);
    QCoreApplication::processEvents();
    QSignalSpy changes(m_monitor.get(), &MonitorSingleton::stateChanged);
    m_network->set(true, ethernet);
    QCoreApplication::processEvents();
    m_network->set(true, wifi);
    m_network->set(true, ethernet); // and back before anybody looks
    QCoreApplication::processEvents();
    QCOMPARE(changes.size(), 0);
}

void tst_ConditionInternet::monitorRepeatsTheState()
{
    const ConnectionMonitor view(m_monitor.get());
    QSignalSpy changes(&view, &ConnectionMonitor::stateChanged);
    QVERIFY(!view.isOnline());
    m_network->set(true, cellular);
    QCoreApplication::processEvents();
    QCOMPARE(changes.size(), 1);
    QVERIFY(view.isOnline());
    QCOMPARE(view.connectionType(), 3);
}

void tst_ConditionInternet::masksDecide_data()
{
    QTest::addColumn<quint32>("mask");
    QTest::addColumn<bool>("online");
    QTest::addColumn<int>("bearer");
    QTest::addColumn<bool>("satisfied");

    const QList<QPair<const char *, int>> bearers {
        { "ethernet", ethernet },
        { "wifi", wifi },
        { "WiMAX", QNetworkConfiguration::BearerWiMAX },
        { "LTE", cellular },
        { "Bluetooth", QNetworkConfiguration::BearerBluetooth },
        { "unknown", unknown },
    };
    const QList<quint32> bits { 1, 2, 2, 4, 0, 0 };
    for (quint32 mask = 0; mask < 8; ++mask) {
        for (int i = 0; i < bearers.size(); ++i) {
            QTest::addRow("mask %u, %s", mask, bearers.at(i).first)
                << mask << true << bearers.at(i).second << (mask == 0 || (bits.at(i) & mask) != 0);
        }
        QTest::addRow("mask %u, offline", mask) << mask << false << ethernet << false;
    }
}

void tst_ConditionInternet::masksDecide()
{
    QFETCH(const quint32, mask);
    QFETCH(const bool, online);
    QFETCH(const int, bearer);
    QFETCH(const bool, satisfied);

    const ConditionInternet condition(mask, m_monitor.get());
    QCOMPARE(condition.name(), QStringLiteral("internet"));
    QVERIFY(!condition.isSatisfied());
    m_network->set(online, bearer);
    QCoreApplication::processEvents();
    QCOMPARE(condition.isSatisfied(), satisfied);
    QCOMPARE(ConditionInternet(mask, m_monitor.get()).isSatisfied(), satisfied);
}

void tst_ConditionInternet::conditionKnowsAtOnceWhatIsKnown()
{
    m_network->set(true, wifi);
    QCoreApplication::processEvents();
    QVERIFY(ConditionInternet(ConditionInternet::Wifi, m_monitor.get()).isSatisfied());
    QVERIFY(!ConditionInternet(ConditionInternet::Cellular, m_monitor.get()).isSatisfied());
}

void tst_ConditionInternet::changesAreFollowed()
{
    const ConditionInternet condition(ConditionInternet::Wifi | ConditionInternet::Ethernet, m_monitor.get());
    QSignalSpy changes(&condition, &ConditionInternet::isSatisfiedChanged);
    const QList<QPair<bool, int>> states {
        { true, ethernet }, { true, wifi }, { true, cellular }, { false, cellular }, { true, wifi },
    };
    const QList<bool> expected { true, true, false, false, true };
    for (int i = 0; i < states.size(); ++i) {
        m_network->set(states.at(i).first, states.at(i).second);
        QCoreApplication::processEvents();
        QCOMPARE(condition.isSatisfied(), expected.at(i));
    }
    QCOMPARE(changes.size(), 3);
}

void tst_ConditionInternet::flappingNetworkIsFollowed()
{
    const ConditionInternet condition(0, m_monitor.get());
    QSignalSpy changes(&condition, &ConditionInternet::isSatisfiedChanged);
    for (int i = 0; i < 1000; ++i) {
        m_network->set(i % 2 == 0, ethernet);
        QCoreApplication::processEvents();
    }
    QCOMPARE(changes.size(), 1000);
    QVERIFY(!condition.isSatisfied());
}

void tst_ConditionInternet::taskDoesNotMatter()
{
    ConditionInternet condition(0, m_monitor.get());
    m_network->set(true, ethernet);
    QCoreApplication::processEvents();
    condition.taskWasTriggered();
    condition.taskRemoved();
    QVERIFY(condition.isSatisfied());
    QCOMPARE(condition.config(), QVariantMap());
}

QTEST_GUILESS_MAIN(tst_ConditionInternet)
#include "tst_condition_internet.moc"
