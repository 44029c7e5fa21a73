#include "Core/condition_internet.h"
#include "support/dbus_mock.h"
#include "support/private_bus.h"

#include <QtTest>

#include <memory>
#include <sched.h>

using Core::ConditionInternet;
using TestSupport::DbusMock;
using TestSupport::PrivateBus;

namespace {

bool isAlone = false; // in a network of the test's own

const QString manager = QStringLiteral("/org/freedesktop/NetworkManager");
const QString device = QStringLiteral("/org/freedesktop/NetworkManager/Devices/wifi");

} // namespace

/// The network as NetworkManager tells Qt of it. Qt looks for one only once in a process.
class tst_NetworkSourceWifi : public QObject
{
    Q_OBJECT

private slots:
    void conditionFollowsNetworkManager();
};

void tst_NetworkSourceWifi::conditionFollowsNetworkManager()
{
    if (!isAlone || !DbusMock::isInstalled()) {
        QSKIP("needs python3-dbusmock and the right to make a network of its own");
    }
    PrivateBus bus;
    bus.useAsSystemBus();
    DbusMock mock(
        bus, QStringLiteral("org.freedesktop.NetworkManager"),
        { QStringLiteral("--system"), QStringLiteral("--template"), QStringLiteral("networkmanager") });
    mock.call(manager, QStringLiteral("AddWiFiDevice"),
              { QStringLiteral("wifi"), QStringLiteral("wlan0"), 100 });
    const QString accessPoint =
        mock.call(manager, QStringLiteral("AddAccessPoint"),
                  { device, QStringLiteral("ap0"), QStringLiteral("net"), QStringLiteral("00:00:5E:00:53:01"),
                    2U, 2425U, 5400U, QVariant::fromValue(uchar(82)), 256U })
            .first()
            .toString();
    const QString settings =
        mock.call(manager, QStringLiteral("AddWiFiConnection"),
                  { device, QStringLiteral("conn0"), QStringLiteral("net"), QStringLiteral("wpa-psk") })
            .first()
            .toString();
    mock.call(manager, QStringLiteral("AddActiveConnection"),
              { QStringList { device }, settings, accessPoint, QStringLiteral("active0"), 2U });

    const ConditionInternet any(0);
    const ConditionInternet wifi(ConditionInternet::Wifi);
    const ConditionInternet others(ConditionInternet::Ethernet | ConditionInternet::Cellular);
    QTRY_VERIFY(any.isSatisfied());
    QVERIFY(wifi.isSatisfied());
    QVERIFY(!others.isSatisfied());
}

int main(int argc, char *argv[])
{
    isAlone = unshare(CLONE_NEWNET) == 0; // before there is any thread
    QCoreApplication application(argc, argv);
    tst_NetworkSourceWifi test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_network_source_wifi.moc"
