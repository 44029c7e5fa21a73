#include "Core/network_source.h"

#include "Core/condition_internet.h"
#include "Core/connection_monitor.h"
#include "support/private_bus.h"

#include <QProcess>
#include <QSignalSpy>
#include <QtTest>

#include <memory>
#include <sched.h>

using Core::ConditionInternet;
using Core::MonitorSingleton;
using Core::NetworkSource;
using TestSupport::PrivateBus;

namespace {

bool isAlone = false; // in a network of the test's own

} // namespace

/// The network as Qt really sees it, on interfaces of the test's own.
class tst_NetworkSource : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();

    void withoutAnInterfaceItIsOffline();
    void interfaceThatComesUpIsEthernet();
    void conditionFollowsTheInterface();

private:
    static bool ip(const char *arguments);

    std::unique_ptr<PrivateBus> m_bus;
};

bool tst_NetworkSource::ip(const char *arguments)
{
    QProcess process;
    process.start(QStringLiteral("ip"), QString::fromLatin1(arguments).split(QLatin1Char(' ')));
    return process.waitForFinished() && process.exitStatus() == QProcess::NormalExit
        && process.exitCode() == 0;
}

void tst_NetworkSource::initTestCase()
{
    if (!isAlone || !ip("link show lo") || !ip("link add procwarden0 type veth peer name procwarden1")) {
        QSKIP("needs the right to make a network of its own");
    }
    QVERIFY(ip("link delete procwarden0"));
    // Without the network daemons of the machine.
    m_bus = std::make_unique<PrivateBus>();
    m_bus->useAsSystemBus();
}

void tst_NetworkSource::cleanup()
{
    if (isAlone) {
        ip("link delete eth0"); // if a failed test has left it
    }
}

void tst_NetworkSource::withoutAnInterfaceItIsOffline()
{
    const std::unique_ptr<NetworkSource> source = NetworkSource::system();
    QSignalSpy changes(source.get(), &NetworkSource::changed);
    QVERIFY(!changes.wait(500));
    QVERIFY(!source->isOnline());
    QCOMPARE(NetworkSource::connectionType(source->bearerType()), 0);
}

void tst_NetworkSource::interfaceThatComesUpIsEthernet()
{
    const std::unique_ptr<NetworkSource> source = NetworkSource::system();
    QSignalSpy changes(source.get(), &NetworkSource::changed);
    QVERIFY(ip("link add eth0 type veth peer name peer0"));
    QVERIFY(ip("address add 192.0.2.1/24 dev eth0"));
    QVERIFY(ip("link set eth0 up"));
    QVERIFY(ip("link set peer0 up"));
    QTRY_VERIFY(source->isOnline());
    QTRY_VERIFY(!changes.isEmpty()); // which may come later than what it tells of
    QCOMPARE(NetworkSource::connectionType(source->bearerType()), 1);
    QVERIFY(ip("link delete eth0"));
    QTRY_VERIFY(!source->isOnline());
}

void tst_NetworkSource::conditionFollowsTheInterface()
{
    const ConditionInternet any(0); // of the process's own monitor
    const ConditionInternet ethernet(ConditionInternet::Ethernet);
    const ConditionInternet wifi(ConditionInternet::Wifi);
    QVERIFY(!any.isSatisfied());
    QVERIFY(ip("link add eth0 type veth peer name peer0"));
    QVERIFY(ip("address add 192.0.2.1/24 dev eth0"));
    QVERIFY(ip("link set eth0 up"));
    QVERIFY(ip("link set peer0 up"));
    QTRY_VERIFY(any.isSatisfied());
    QTRY_VERIFY(ethernet.isSatisfied());
    QVERIFY(!wifi.isSatisfied());
    QVERIFY(ip("link set eth0 down"));
    QTRY_VERIFY(!any.isSatisfied());
    QVERIFY(!ethernet.isSatisfied());
    QVERIFY(ip("link set eth0 up"));
    QTRY_VERIFY(ethernet.isSatisfied());
    QVERIFY(ip("link delete eth0"));
    QTRY_VERIFY(!any.isSatisfied());
    QCOMPARE(MonitorSingleton::instance()->connectionType(), 0);
}

int main(int argc, char *argv[])
{
    // Before there is any thread, all of which are to see the same network: one that is empty at first.
    isAlone = unshare(CLONE_NEWNET) == 0;
    qputenv("QT_BEARER_POLL_TIMEOUT", "100"); // ms between two looks at the interfaces
    QCoreApplication application(argc, argv);
    tst_NetworkSource test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_network_source.moc"
