#include "Core/dbus_name_watcher.h"
#include "DBus/client_registry.h"

#include "support/private_bus.h"

#include <QtTest>

#include <memory>

using Core::DBusNameWatcher;
using DBus::ClientRegistry;
using TestSupport::PrivateBus;

namespace {

const QString app = QStringLiteral("org.example.App");
const QString otherApp = QStringLiteral("org.example.Other");

} // namespace

class tst_ClientRegistry : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void unknownApplicationHasNoName();
    void addedApplicationHasItsName();
    void laterNameReplacesTheEarlier();
    void applicationsMayShareAName();
    void callersWithoutApplicationShareAnEntry();
    void nameStaysWhenItsOwnerHasLeft();
    void goneNameLeavesNoEntry();
    void goneNameTakesTheEarlierEntryWithIt();
    void replacedNameDoesNotTakeTheNewEntryWithIt();
    void nameIsKeptBeforeTheBusHasAnswered();
    void instanceIsOneAndOnTheSessionBus();

private:
    void waitUntilReady(DBusNameWatcher &watcher);

    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<DBusNameWatcher> m_watcher; // has had its first answer
    std::unique_ptr<ClientRegistry> m_registry;
    QString m_name; // of a client that is there
};

void tst_ClientRegistry::init()
{
    m_bus = std::make_unique<PrivateBus>();
    m_name = m_bus->connect().baseService();
    m_watcher = std::make_unique<DBusNameWatcher>(m_bus->connect());
    m_registry = std::make_unique<ClientRegistry>(m_watcher.get());
    waitUntilReady(*m_watcher);
}

void tst_ClientRegistry::cleanup()
{
    m_registry.reset();
    m_watcher.reset();
    m_bus.reset();
}

void tst_ClientRegistry::waitUntilReady(DBusNameWatcher &watcher)
{
    bool ready = false;
    watcher.onNameAppeared(m_name, this, [&ready] { ready = true; });
    QTRY_VERIFY(ready);
}

void tst_ClientRegistry::unknownApplicationHasNoName()
{
    QCOMPARE(m_registry->busName(app), QString());
    m_registry->addClient(otherApp, m_name);
    QCOMPARE(m_registry->busName(app), QString());
    QCOMPARE(m_registry->busName(QString()), QString());
}

void tst_ClientRegistry::addedApplicationHasItsName()
{
    m_registry->addClient(app, m_name);
    QCOMPARE(m_registry->busName(app), m_name);
}

void tst_ClientRegistry::laterNameReplacesTheEarlier()
{
    const QDBusConnection second = m_bus->connect();
    bool known = false;
    m_watcher->onNameAppeared(second.baseService(), this, [&known] { known = true; });
    QTRY_VERIFY(known);
    m_registry->addClient(app, m_name);
    m_registry->addClient(app, second.baseService());
    QCOMPARE(m_registry->busName(app), second.baseService());
}

void tst_ClientRegistry::applicationsMayShareAName()
{
    m_registry->addClient(app, m_name);
    m_registry->addClient(otherApp, m_name);
    QCOMPARE(m_registry->busName(app), m_name);
    QCOMPARE(m_registry->busName(otherApp), m_name);
}

void tst_ClientRegistry::callersWithoutApplicationShareAnEntry()
{
    m_registry->addClient(QString(), m_name);
    QCOMPARE(m_registry->busName(QString()), m_name);
    QCOMPARE(m_registry->busName(app), QString());
}

void tst_ClientRegistry::nameStaysWhenItsOwnerHasLeft()
{
    QString left;
    bool gone = false;
    {
        const QDBusConnection client = m_bus->connect();
        left = client.baseService();
        bool known = false;
        m_watcher->onNameAppeared(left, this, [&known] { known = true; });
        QTRY_VERIFY(known);
        m_registry->addClient(app, left);
        m_watcher->onNameDisappeared(left, this, [&gone] { gone = true; });
        m_bus->disconnect(client);
    }
    QTRY_VERIFY(gone);
    QCOMPARE(m_registry->busName(app), left);

    // Only the next client of the application takes its place.
    m_registry->addClient(app, m_name);
    QCOMPARE(m_registry->busName(app), m_name);
}

void tst_ClientRegistry::goneNameLeavesNoEntry()
{
    m_registry->addClient(app, QStringLiteral(":1.4294967295"));
    QCOMPARE(m_registry->busName(app), QString());
}

void tst_ClientRegistry::goneNameTakesTheEarlierEntryWithIt()
{
    m_registry->addClient(app, m_name);
    m_registry->addClient(otherApp, m_name);
    m_registry->addClient(app, QStringLiteral(":1.4294967295"));
    QCOMPARE(m_registry->busName(app), QString());
    QCOMPARE(m_registry->busName(otherApp), m_name);
}

void tst_ClientRegistry::replacedNameDoesNotTakeTheNewEntryWithIt()
{
    bool gone = false;
    {
        const QDBusConnection client = m_bus->connect();
        const QString left = client.baseService();
        bool known = false;
        m_watcher->onNameAppeared(left, this, [&known] { known = true; });
        QTRY_VERIFY(known);
        m_registry->addClient(app, left);
        m_registry->addClient(app, m_name);
        m_watcher->onNameDisappeared(left, this, [&gone] { gone = true; });
        m_bus->disconnect(client);
    }
    QTRY_VERIFY(gone);
    QCOMPARE(m_registry->busName(app), m_name);
}

void tst_ClientRegistry::nameIsKeptBeforeTheBusHasAnswered()
{
    DBusNameWatcher watcher(m_bus->connect());
    ClientRegistry registry(&watcher);
    const QString nobody = QStringLiteral(":1.4294967295");
    registry.addClient(app, nobody);
    QCOMPARE(registry.busName(app), nobody);
    waitUntilReady(watcher);
    QCOMPARE(registry.busName(app), nobody);
}

void tst_ClientRegistry::instanceIsOneAndOnTheSessionBus()
{
    // The session bus of the process is the bus of this function for good: the last one.
    m_bus->useAsSessionBus();
    QCOMPARE(ClientRegistry::instance(), ClientRegistry::instance());
    waitUntilReady(*DBusNameWatcher::instance());
    ClientRegistry::instance()->addClient(app, m_name);
    ClientRegistry::instance()->addClient(otherApp, QStringLiteral(":1.4294967295"));
    QCOMPARE(ClientRegistry::instance()->busName(app), m_name);
    QCOMPARE(ClientRegistry::instance()->busName(otherApp), QString());
}

QTEST_GUILESS_MAIN(tst_ClientRegistry)
#include "tst_client_registry.moc"
