#include "Core/dbus_name_watcher.h"

#include "support/interruption.h"
#include "support/log_capture.h"
#include "support/private_bus.h"

#include <QDBusConnectionInterface>
#include <QDBusContext>
#include <QDBusMessage>
#include <QProcess>
#include <QSemaphore>
#include <QtTest>

#include <memory>

using Core::DBusNameWatcher;
using TestSupport::LogCapture;
using TestSupport::PrivateBus;

namespace {

const QString name = QStringLiteral("org.example.Name");

/// Looks up each caller's name while it handles the call.
class Callee : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.example.Callee")

public:
    explicit Callee(DBusNameWatcher *watcher)
        : m_watcher(watcher)
    {
    }

    QVector<bool> known; ///< of each call

public slots:
    void Here()
    {
        bool gone = false;
        m_watcher->onNameDisappeared(message().service(), nullptr, [&gone] { gone = true; });
        known.append(!gone);
    }

private:
    DBusNameWatcher *const m_watcher;
};

} // namespace

class tst_DBusNameWatcher : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void knownNameAppearsInsideTheCall();
    void knownNameNeedsNoGuard();
    void unknownNameDisappearsInsideTheCall();
    void unknownNameNeedsNoGuard();
    void nothingIsSaidBeforeTheBusHasAnswered();
    void firstAnswerOfTheBusFiresAppearance();
    void nameThatGoesRightAfterTheFirstAnswerIsGone();
    void appearsLater();
    void disappearsLater();
    void uniqueNameDisappears();
    void entryFiresOnce();
    void entryWithoutGuardIsDropped();
    void entryWithDeadGuardIsDropped();
    void deadGuardTakesItsCallbackAlong();
    void callbackMayOwnTheGuardOfAnother();
    void everyEntryOfTheNameFiresInOrder();
    void otherNamesDoNotFire();
    void changeOfOwnerIsNoDisappearance();
    void callerIsKnownWhenItsCallIsHandled();
    void callbackMayRegisterForTheSameName();
    void callbackMayDeleteTheGuardOfTheNext();
    void callbackMayDeleteItsOwnGuard();
    void destroyedWatcherNeverFires();
    void withoutABusNothingFires();
    void lostBusDoesNotHarm();
    void instanceIsOneAndOnTheSessionBus();

private:
    // A watcher that has had its first answer.
    std::unique_ptr<DBusNameWatcher> readyWatcher();

    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<QDBusConnection> m_connection; // of the watcher
    std::unique_ptr<QDBusConnection> m_owner; // of the names
    QObject m_guard;
    QStringList m_calls;
};

void tst_DBusNameWatcher::init()
{
    m_bus = std::make_unique<PrivateBus>();
    m_connection = std::make_unique<QDBusConnection>(m_bus->connect());
    m_owner = std::make_unique<QDBusConnection>(m_bus->connect());
    m_calls.clear();
}

void tst_DBusNameWatcher::cleanup()
{
    m_owner.reset();
    m_connection.reset();
    m_bus.reset();
}

std::unique_ptr<DBusNameWatcher> tst_DBusNameWatcher::readyWatcher()
{
    auto watcher = std::make_unique<DBusNameWatcher>(*m_connection);
    bool ready = false;
    watcher->onNameAppeared(m_connection->baseService(), this, [&ready] { ready = true; });
    [&] {
        QTRY_VERIFY(ready);
    }();
    return watcher;
}

void tst_DBusNameWatcher::knownNameAppearsInsideTheCall()
{
    QVERIFY(m_owner->registerService(name));
    const auto watcher = readyWatcher();
    watcher->onNameAppeared(name, &m_guard, [this] { m_calls.append(name); });
    QCOMPARE(m_calls.size(), 1);
}

void tst_DBusNameWatcher::knownNameNeedsNoGuard()
{
    const auto watcher = readyWatcher();
    watcher->onNameAppeared(m_owner->baseService(), nullptr, [this] { m_calls.append(name); });
    QCOMPARE(m_calls.size(), 1);
}

void tst_DBusNameWatcher::unknownNameDisappearsInsideTheCall()
{
    const auto watcher = readyWatcher();
    watcher->onNameDisappeared(name, &m_guard, [this] { m_calls.append(name); });
    QCOMPARE(m_calls.size(), 1);
}

void tst_DBusNameWatcher::unknownNameNeedsNoGuard()
{
    const auto watcher = readyWatcher();
    watcher->onNameDisappeared(name, nullptr, [this] { m_calls.append(name); });
    QCOMPARE(m_calls.size(), 1);
}

void tst_DBusNameWatcher::nothingIsSaidBeforeTheBusHasAnswered()
{
    DBusNameWatcher watcher(*m_connection);
    watcher.onNameAppeared(m_owner->baseService(), &m_guard,
                           [this] { m_calls.append(QStringLiteral("appeared")); });
    watcher.onNameDisappeared(name, &m_guard, [this] { m_calls.append(QStringLiteral("disappeared")); });
    QCOMPARE(m_calls, QStringList());

    // The name that is not there has not disappeared with the answer, but does when it has come and gone.
    QTRY_COMPARE(m_calls, QStringList { QStringLiteral("appeared") });
    QVERIFY(m_owner->registerService(name));
    QVERIFY(m_owner->unregisterService(name));
    QTRY_COMPARE(m_calls.size(), 2);
    QCOMPARE(m_calls.last(), QStringLiteral("disappeared"));
}

void tst_DBusNameWatcher::firstAnswerOfTheBusFiresAppearance()
{
    QVERIFY(m_owner->registerService(name));
    DBusNameWatcher watcher(*m_connection);
    watcher.onNameAppeared(name, &m_guard, [this] { m_calls.append(name); });
    QCOMPARE(m_calls.size(), 0);
    QTRY_COMPARE(m_calls.size(), 1);
}

void tst_DBusNameWatcher::nameThatGoesRightAfterTheFirstAnswerIsGone()
{
    QVERIFY(m_owner->registerService(name));
    QCoreApplication::processEvents(); // a new connection holds signals back until then
    const auto release = [this] {
        QVERIFY(m_owner->unregisterService(name));
        // The answer and the news are both there when a later question has been answered.
        QVERIFY(m_connection->interface()->isServiceRegistered(m_owner->baseService()));
    };
    // At the latest moment at which it may go, without the watcher knowing of the answer.
    const TestSupport::Interruption interruption("Core::DBusNameWatcher", release);
    DBusNameWatcher watcher(*m_connection);
    if (!interruption.happened()) {
        release();
    }
    bool ready = false;
    watcher.onNameAppeared(m_connection->baseService(), this, [&ready] { ready = true; });
    QTRY_VERIFY(ready);
    watcher.onNameAppeared(name, nullptr, [this] { m_calls.append(name); });
    QCOMPARE(m_calls, QStringList());
}

void tst_DBusNameWatcher::appearsLater()
{
    const auto watcher = readyWatcher();
    watcher->onNameAppeared(name, &m_guard, [this] { m_calls.append(name); });
    QCOMPARE(m_calls.size(), 0);
    QVERIFY(m_owner->registerService(name));
    QTRY_COMPARE(m_calls.size(), 1);
}

void tst_DBusNameWatcher::disappearsLater()
{
    QVERIFY(m_owner->registerService(name));
    const auto watcher = readyWatcher();
    watcher->onNameDisappeared(name, &m_guard, [this] { m_calls.append(name); });
    QCOMPARE(m_calls.size(), 0);
    QVERIFY(m_owner->unregisterService(name));
    QTRY_COMPARE(m_calls.size(), 1);
    // From now on it is known to be gone.
    watcher->onNameDisappeared(name, nullptr, [this] { m_calls.append(name); });
    QCOMPARE(m_calls.size(), 2);
}

void tst_DBusNameWatcher::uniqueNameDisappears()
{
    const auto watcher = readyWatcher();
    watcher->onNameDisappeared(m_owner->baseService(), &m_guard, [this] { m_calls.append(name); });
    QCOMPARE(m_calls.size(), 0);
    m_bus->disconnect(*m_owner);
    m_owner.reset();
    QTRY_COMPARE(m_calls.size(), 1);
}

void tst_DBusNameWatcher::entryFiresOnce()
{
    const auto watcher = readyWatcher();
    watcher->onNameAppeared(name, &m_guard, [this] { m_calls.append(QStringLiteral("once")); });
    int gone = 0;
    for (int round = 0; round < 2; ++round) {
        QVERIFY(m_owner->registerService(name));
        QVERIFY(m_owner->unregisterService(name));
    }
    watcher->onNameAppeared(QStringLiteral("org.example.Last"), &m_guard, [&gone] { ++gone; });
    QVERIFY(m_owner->registerService(QStringLiteral("org.example.Last")));
    QTRY_COMPARE(gone, 1);
    QCOMPARE(m_calls, QStringList { QStringLiteral("once") });
}

void tst_DBusNameWatcher::entryWithoutGuardIsDropped()
{
    const auto watcher = readyWatcher();
    watcher->onNameAppeared(name, nullptr, [this] { m_calls.append(QStringLiteral("unguarded")); });
    watcher->onNameAppeared(name, &m_guard, [this] { m_calls.append(QStringLiteral("guarded")); });
    QVERIFY(m_owner->registerService(name));
    QTRY_COMPARE(m_calls, QStringList { QStringLiteral("guarded") });

    watcher->onNameDisappeared(name, nullptr, [this] { m_calls.append(QStringLiteral("unguarded")); });
    watcher->onNameDisappeared(name, &m_guard, [this] { m_calls.append(QStringLiteral("gone")); });
    QVERIFY(m_owner->unregisterService(name));
    QTRY_COMPARE(m_calls.size(), 2);
    QCOMPARE(m_calls.last(), QStringLiteral("gone"));
}

void tst_DBusNameWatcher::entryWithDeadGuardIsDropped()
{
    const auto watcher = readyWatcher();
    auto guard = std::make_unique<QObject>();
    watcher->onNameAppeared(name, guard.get(), [this] { m_calls.append(QStringLiteral("dead")); });
    watcher->onNameAppeared(name, &m_guard, [this] { m_calls.append(QStringLiteral("alive")); });
    guard.reset();
    QVERIFY(m_owner->registerService(name));
    QTRY_COMPARE(m_calls, QStringList { QStringLiteral("alive") });
}

// A name that nobody will ever own is waited for again and again, as that of a handler that does not answer.
void tst_DBusNameWatcher::deadGuardTakesItsCallbackAlong()
{
    const auto watcher = readyWatcher();
    const auto load = std::make_shared<int>();
    auto alive = std::make_unique<QObject>();
    const QString there = m_owner->baseService();
    for (int i = 0; i < 100; ++i) {
        QObject guard;
        watcher->onNameAppeared(name, &guard, [load] {});
        watcher->onNameDisappeared(there, &guard, [load] {});
        watcher->onNameAppeared(name, alive.get(), [this, load] { m_calls.append(QStringLiteral("alive")); });
    }
    QCOMPARE(load.use_count(), 1 + 100);

    QVERIFY(m_owner->registerService(name));
    QTRY_COMPARE(m_calls.size(), 100);
    QCOMPARE(load.use_count(), 1);
    alive.reset(); // has nothing left to take along
}

void tst_DBusNameWatcher::callbackMayOwnTheGuardOfAnother()
{
    auto watcher = readyWatcher();
    const auto load = std::make_shared<int>();
    for (const bool byTheGuard : { true, false }) {
        auto first = std::make_unique<QObject>();
        QObject *guard = first.get();
        for (int i = 0; i < 3; ++i) {
            const auto next = std::make_shared<QObject>();
            watcher->onNameAppeared(name, guard, [next, load] {});
            guard = next.get();
        }
        QCOMPARE(load.use_count(), 1 + 3);
        if (byTheGuard) {
            first.reset();
        } else {
            watcher.reset();
        }
        QCOMPARE(load.use_count(), 1);
    }
}

void tst_DBusNameWatcher::everyEntryOfTheNameFiresInOrder()
{
    const auto watcher = readyWatcher();
    for (const QString &call : { QStringLiteral("1"), QStringLiteral("2"), QStringLiteral("3") }) {
        watcher->onNameAppeared(name, &m_guard, [this, call] { m_calls.append(call); });
    }
    QVERIFY(m_owner->registerService(name));
    QTRY_COMPARE(m_calls, (QStringList { QStringLiteral("1"), QStringLiteral("2"), QStringLiteral("3") }));
}

void tst_DBusNameWatcher::otherNamesDoNotFire()
{
    const auto watcher = readyWatcher();
    watcher->onNameAppeared(QStringLiteral("org.example.Nam"), &m_guard,
                            [this] { m_calls.append(QStringLiteral("other")); });
    watcher->onNameAppeared(name, &m_guard, [this] { m_calls.append(name); });
    QVERIFY(m_owner->registerService(name));
    QTRY_COMPARE(m_calls, QStringList { name });
}

void tst_DBusNameWatcher::changeOfOwnerIsNoDisappearance()
{
    QDBusConnection successor = m_bus->connect();
    QVERIFY(m_owner->interface()->registerService(name, QDBusConnectionInterface::DontQueueService,
                                                  QDBusConnectionInterface::AllowReplacement));
    const auto watcher = readyWatcher();
    watcher->onNameDisappeared(name, &m_guard, [this] { m_calls.append(QStringLiteral("gone")); });

    bool later = false;
    watcher->onNameAppeared(QStringLiteral("org.example.Last"), &m_guard, [&later] { later = true; });
    QVERIFY(successor.interface()->registerService(name, QDBusConnectionInterface::ReplaceExistingService));
    QVERIFY(successor.registerService(QStringLiteral("org.example.Last")));
    QTRY_VERIFY(later);
    QCOMPARE(m_calls, QStringList());
    watcher->onNameAppeared(name, nullptr, [this] { m_calls.append(QStringLiteral("there")); });
    QCOMPARE(m_calls, QStringList { QStringLiteral("there") });
}

void tst_DBusNameWatcher::callerIsKnownWhenItsCallIsHandled()
{
    const auto watcher = readyWatcher();
    Callee callee(watcher.get());
    QVERIFY(m_connection->registerObject(QStringLiteral("/"), &callee, QDBusConnection::ExportAllSlots));

    // Holds up the thread that reads from the bus, until the news of a caller and its call are both there.
    QSemaphore held;
    QSemaphore goOn;
    QTest::ignoreMessage(QtWarningMsg,
                         "Connecting to deprecated signal "
                         "QDBusConnectionInterface::serviceOwnerChanged(QString,QString,QString)");
    QObject::connect(
        m_connection->interface(), &QDBusConnectionInterface::serviceOwnerChanged, &callee,
        [&] {
            if (held.available() == 0) {
                held.release();
                goOn.acquire();
            }
        },
        Qt::DirectConnection);
    const auto send = [this](const QStringList &arguments) {
        QProcess program;
        program.start(QStringLiteral("dbus-send"),
                      QStringList { QStringLiteral("--bus=") + m_bus->address() } + arguments);
        return program.waitForFinished() && program.exitCode() == 0;
    };
    const QStringList call { QStringLiteral("--type=method_call"),
                             QStringLiteral("--dest=") + m_connection->baseService(), QStringLiteral("/"),
                             QStringLiteral("org.example.Callee.Here") };
    const QStringList question { QStringLiteral("--print-reply"),
                                 QStringLiteral("--dest=org.freedesktop.DBus"), QStringLiteral("/"),
                                 QStringLiteral("org.freedesktop.DBus.GetId") };
    const bool stranger = send(question) && held.tryAcquire(1, 30000);
    held.release();
    // The bus has passed the call on when it has answered a later one.
    const bool sent = send(call) && send(question);
    goOn.release();
    QVERIFY(stranger && sent);

    QTRY_COMPARE(callee.known.size(), 1);
    QVERIFY(callee.known.first());
}

void tst_DBusNameWatcher::callbackMayRegisterForTheSameName()
{
    const auto watcher = readyWatcher();
    watcher->onNameAppeared(name, &m_guard, [this, &watcher] {
        m_calls.append(QStringLiteral("outer"));
        // The name is known by now.
        watcher->onNameAppeared(name, &m_guard, [this] { m_calls.append(QStringLiteral("inner")); });
        watcher->onNameDisappeared(name, &m_guard, [this, &watcher] {
            m_calls.append(QStringLiteral("gone"));
            watcher->onNameAppeared(name, &m_guard, [this] { m_calls.append(QStringLiteral("again")); });
        });
    });
    QVERIFY(m_owner->registerService(name));
    QTRY_COMPARE(m_calls, (QStringList { QStringLiteral("outer"), QStringLiteral("inner") }));
    QVERIFY(m_owner->unregisterService(name));
    QTRY_COMPARE(m_calls.size(), 3);
    QCOMPARE(m_calls.last(), QStringLiteral("gone"));
    QVERIFY(m_owner->registerService(name));
    QTRY_COMPARE(m_calls.size(), 4);
    QCOMPARE(m_calls.last(), QStringLiteral("again"));
}

void tst_DBusNameWatcher::callbackMayDeleteTheGuardOfTheNext()
{
    const auto watcher = readyWatcher();
    auto guard = std::make_unique<QObject>();
    watcher->onNameAppeared(name, &m_guard, [&guard] { guard.reset(); });
    watcher->onNameAppeared(name, guard.get(), [this] { m_calls.append(QStringLiteral("dead")); });
    watcher->onNameAppeared(name, &m_guard, [this] { m_calls.append(QStringLiteral("last")); });
    QVERIFY(m_owner->registerService(name));
    QTRY_COMPARE(m_calls, QStringList { QStringLiteral("last") });
}

void tst_DBusNameWatcher::callbackMayDeleteItsOwnGuard()
{
    const auto watcher = readyWatcher();
    auto guard = std::make_unique<QObject>();
    const QString call = QStringLiteral("a text that lives in the callback");
    watcher->onNameAppeared(name, guard.get(), [this, &guard, call] {
        guard.reset();
        m_calls.append(call);
    });
    QVERIFY(m_owner->registerService(name));
    QTRY_COMPARE(m_calls, QStringList { call });
}

void tst_DBusNameWatcher::destroyedWatcherNeverFires()
{
    auto watcher = std::make_unique<DBusNameWatcher>(*m_connection);
    watcher->onNameAppeared(m_owner->baseService(), &m_guard, [this] { m_calls.append(name); });
    watcher.reset();
    readyWatcher();
    QCOMPARE(m_calls, QStringList());
}

void tst_DBusNameWatcher::withoutABusNothingFires()
{
    const LogCapture log;
    DBusNameWatcher watcher(QDBusConnection(QStringLiteral("no such connection")));
    watcher.onNameAppeared(name, &m_guard, [this] { m_calls.append(name); });
    watcher.onNameDisappeared(name, &m_guard, [this] { m_calls.append(name); });
    QCoreApplication::processEvents();
    QCOMPARE(m_calls, QStringList());
}

void tst_DBusNameWatcher::lostBusDoesNotHarm()
{
    DBusNameWatcher early(*m_connection);
    const auto watcher = readyWatcher();
    watcher->onNameAppeared(name, &m_guard, [this] { m_calls.append(name); });
    m_bus->stop();
    QTRY_VERIFY(!m_connection->isConnected());
    DBusNameWatcher late(*m_connection);
    late.onNameDisappeared(name, &m_guard, [this] { m_calls.append(name); });
    QCoreApplication::processEvents();
    QCOMPARE(m_calls, QStringList());
}

void tst_DBusNameWatcher::instanceIsOneAndOnTheSessionBus()
{
    // The session bus of the process is the bus of this function for good: the last one.
    m_bus->useAsSessionBus();
    QVERIFY(m_owner->registerService(name));
    QCOMPARE(DBusNameWatcher::instance(), DBusNameWatcher::instance());
    DBusNameWatcher::instance()->onNameAppeared(name, &m_guard, [this] { m_calls.append(name); });
    QTRY_COMPARE(m_calls.size(), 1);
}

QTEST_GUILESS_MAIN(tst_DBusNameWatcher)
#include "tst_dbus_name_watcher.moc"
