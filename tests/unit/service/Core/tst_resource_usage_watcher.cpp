#include "Core/resource_usage.h"
#include "Core/resource_usage_watcher.h"
#include "Core/runtime_tracker.h"
#include "runtime_fixture.h"

#include "support/held_bus.h"
#include "support/log_capture.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>

#include <limits>

#include <spawn.h>
#include <unistd.h>

using Core::ApplicationInstanceId;
using Core::ApplicationState;
using Core::ResourceUsage;
using Core::ResourceUsageWatcher;
using Core::RuntimeTracker;
using TestSupport::LogCapture;

namespace {

const QString daemonName = QStringLiteral("org.freedesktop.ohm");
const QString path = QStringLiteral("/org/solvaneos/PrivacyViolation");
const QString interface = QStringLiteral("org.solvaneos.PrivacyViolation");
const QString audio = QStringLiteral("audio_playback");
const QString player = QStringLiteral("org.example.Player");
const QString policyPlayer = QStringLiteral("policy.one.Player");

using Facts = QVector<ResourceUsage>;

QString notFound(int pid)
{
    return QStringLiteral("Could not find appId for given pid:  %1").arg(pid);
}

} // namespace

/// Tells when all that was sent before has arrived.
class Mark : public QObject
{
    Q_OBJECT

public:
    int count = 0;

public slots:
    void onMark() { ++count; }
};

class tst_ResourceUsageWatcher : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void recordHasItsSignature();
    void nobodyUsesAnythingAtFirst();
    void idInAFactIsTakenAsItIs();
    void eachListReplacesTheOneBefore();
    void emptyListClears();
    void processIsLookedUp();
    void unknownProcessCostsAWarning_data();
    void unknownProcessCostsAWarning();
    void idNeedsNoLookUp();
    void longListIsTaken();
    void whatIsNotTheDaemonsIsIgnored_data();
    void whatIsNotTheDaemonsIsIgnored();
    void anotherArgumentIsIgnored_data();
    void anotherArgumentIsIgnored();
    void daemonMayComeLaterAndAgain();
    void listThatComesWithTheDaemonCounts();
    void hiddenApplicationThatPlaysIsNotFrozen();

private:
    void send(const QDBusConnection &from, const QString &objectPath, const QString &interfaceName,
              const QString &member, const QVariantList &arguments);
    void notify(const Facts &facts);
    void pass(const QDBusConnection &from);

    std::unique_ptr<RuntimeFixture> m_runtime;
    QDBusConnection m_daemon { QString() };
    QDBusConnection m_other { QString() };
    std::unique_ptr<ResourceUsageWatcher> m_watcher;
    Mark m_mark;
};

void tst_ResourceUsageWatcher::initTestCase()
{
    m_runtime = std::make_unique<RuntimeFixture>();
    m_runtime->install(policyPlayer);
    m_daemon = m_runtime->bus().connect();
    m_other = m_runtime->bus().connect();
    QVERIFY(m_daemon.registerService(daemonName));
    QVERIFY(QDBusConnection::systemBus().connect(QString(), QStringLiteral("/mark"),
                                                 QStringLiteral("org.example.Mark"), QStringLiteral("Mark"),
                                                 &m_mark, SLOT(onMark())));
}

void tst_ResourceUsageWatcher::init()
{
    m_watcher = std::make_unique<ResourceUsageWatcher>();
}

void tst_ResourceUsageWatcher::cleanup()
{
    m_watcher.reset();
    m_runtime->end(); // also what a failure has left
}

void tst_ResourceUsageWatcher::send(const QDBusConnection &from, const QString &objectPath,
                                    const QString &interfaceName, const QString &member,
                                    const QVariantList &arguments)
{
    QDBusMessage signal = QDBusMessage::createSignal(objectPath, interfaceName, member);
    signal.setArguments(arguments);
    QVERIFY(from.send(signal));
    pass(from);
}

/// Returns when the watcher has got all that this connection has sent.
void tst_ResourceUsageWatcher::pass(const QDBusConnection &from)
{
    const int before = m_mark.count;
    QVERIFY(from.send(QDBusMessage::createSignal(QStringLiteral("/mark"), QStringLiteral("org.example.Mark"),
                                                 QStringLiteral("Mark"))));
    QTRY_COMPARE(m_mark.count, before + 1);
}

void tst_ResourceUsageWatcher::notify(const Facts &facts)
{
    send(m_daemon, path, interface, QStringLiteral("Notify"), { QVariant::fromValue(facts) });
}

void tst_ResourceUsageWatcher::recordHasItsSignature()
{
    QCOMPARE(QDBusMetaType::typeToSignature(qMetaTypeId<ResourceUsage>()), "(ssi)");
    QCOMPARE(QDBusMetaType::typeToSignature(qMetaTypeId<Facts>()), "a(ssi)");
    QCOMPARE(QMetaType::type("ResourceUsage"), qMetaTypeId<ResourceUsage>());
    QCOMPARE(QMetaType::type("QVector<ResourceUsage>"), qMetaTypeId<Facts>());
}

void tst_ResourceUsageWatcher::nobodyUsesAnythingAtFirst()
{
    QVERIFY(!m_watcher->isUsingResource(player));
    QVERIFY(!m_watcher->isUsingResource(QString()));
}

void tst_ResourceUsageWatcher::idInAFactIsTakenAsItIs()
{
    const LogCapture log;
    notify({ { audio, player, 0 }, { QString(), QStringLiteral("no id at all"), -1 } });
    QVERIFY(m_watcher->isUsingResource(player));
    QVERIFY(m_watcher->isUsingResource(QStringLiteral("no id at all"))); // whatever is used: it is a use
    QVERIFY(!m_watcher->isUsingResource(QStringLiteral("org.example.Play")));
    QVERIFY(!m_watcher->isUsingResource(QString()));
    QCOMPARE(log.messages(), QStringList());
}

void tst_ResourceUsageWatcher::eachListReplacesTheOneBefore()
{
    notify({ { audio, player, 0 }, { audio, QStringLiteral("org.example.Other"), 0 } });
    notify({ { audio, QStringLiteral("org.example.Other"), 0 } });
    QVERIFY(!m_watcher->isUsingResource(player));
    QVERIFY(m_watcher->isUsingResource(QStringLiteral("org.example.Other")));
}

void tst_ResourceUsageWatcher::emptyListClears()
{
    notify({ { audio, player, 0 } });
    QVERIFY(m_watcher->isUsingResource(player));
    notify({});
    QVERIFY(!m_watcher->isUsingResource(player));
}

void tst_ResourceUsageWatcher::processIsLookedUp()
{
    char program[] = "sleep";
    char duration[] = "600";
    char *arguments[] = { program, duration, nullptr };
    pid_t child = 0;
    QCOMPARE(::posix_spawnp(&child, program, nullptr, nullptr, arguments, environ), 0);
    RuntimeTracker::instance()->addProcess(child, player);
    QSignalSpy ended(RuntimeTracker::instance(), &RuntimeTracker::applicationTerminated);

    LogCapture log;
    notify({ { audio, QString(), child } });
    const bool found = m_watcher->isUsingResource(player);
    const QStringList warnings = log.warnings();

    // Once it has ended, its pid is nobody's.
    RuntimeFixture::sendSignal(child, SIGKILL);
    QTRY_COMPARE(ended.count(), 1);
    QVERIFY(found);
    QCOMPARE(warnings, QStringList());
    log.clear();
    notify({ { audio, QString(), child } });
    QVERIFY(!m_watcher->isUsingResource(player));
    QCOMPARE(log.warnings(), QStringList(notFound(child)));
}

void tst_ResourceUsageWatcher::unknownProcessCostsAWarning_data()
{
    QTest::addColumn<int>("pid");

    QTest::newRow("of no application") << int(::getpid());
    QTest::newRow("the first one") << 1;
    QTest::newRow("zero") << 0;
    QTest::newRow("negative") << -1;
    QTest::newRow("smallest") << std::numeric_limits<int>::min();
    QTest::newRow("greatest") << std::numeric_limits<int>::max();
}

void tst_ResourceUsageWatcher::unknownProcessCostsAWarning()
{
    QFETCH(int, pid);
    const LogCapture log;
    notify({ { audio, QStringLiteral("org.example.Before"), 0 },
             { audio, QString(), pid },
             { audio, QStringLiteral("org.example.After"), 0 } });
    QCOMPARE(log.warnings(), QStringList(notFound(pid)));
    QVERIFY(m_watcher->isUsingResource(QStringLiteral("org.example.Before")));
    QVERIFY(m_watcher->isUsingResource(QStringLiteral("org.example.After")));
    QVERIFY(m_watcher->isUsingResource(QString())); // an entry of nothing
}

void tst_ResourceUsageWatcher::idNeedsNoLookUp()
{
    const LogCapture log;
    notify({ { audio, player, std::numeric_limits<int>::max() } });
    QVERIFY(m_watcher->isUsingResource(player));
    QCOMPARE(log.warnings(), QStringList());
}

void tst_ResourceUsageWatcher::longListIsTaken()
{
    Facts facts;
    for (int i = 0; i < 10000; ++i) {
        facts.append({ audio, QStringLiteral("org.example.App%1").arg(i), i });
    }
    facts.append({ QString(100000, QLatin1Char('r')), QString(100000, QLatin1Char('x')), 0 });
    notify(facts);
    QVERIFY(m_watcher->isUsingResource(QStringLiteral("org.example.App9999")));
    QVERIFY(m_watcher->isUsingResource(QString(100000, QLatin1Char('x'))));
    QVERIFY(!m_watcher->isUsingResource(QStringLiteral("org.example.App10000")));
}

void tst_ResourceUsageWatcher::whatIsNotTheDaemonsIsIgnored_data()
{
    QTest::addColumn<bool>("byTheDaemon");
    QTest::addColumn<QString>("objectPath");
    QTest::addColumn<QString>("interfaceName");
    QTest::addColumn<QString>("member");

    const QString notifyMember = QStringLiteral("Notify");
    QTest::newRow("sender") << false << path << interface << notifyMember;
    QTest::newRow("object") << true << QStringLiteral("/org/solvaneos/Other") << interface << notifyMember;
    QTest::newRow("interface") << true << path << QStringLiteral("org.solvaneos.Other") << notifyMember;
    QTest::newRow("member") << true << path << interface << QStringLiteral("Notified");
}

void tst_ResourceUsageWatcher::whatIsNotTheDaemonsIsIgnored()
{
    QFETCH(bool, byTheDaemon);
    QFETCH(QString, objectPath);
    QFETCH(QString, interfaceName);
    QFETCH(QString, member);
    notify({ { audio, player, 0 } });
    send(byTheDaemon ? m_daemon : m_other, objectPath, interfaceName, member,
         { QVariant::fromValue(Facts { { audio, QStringLiteral("org.example.Wrong"), 0 } }) });
    QVERIFY(m_watcher->isUsingResource(player));
    QVERIFY(!m_watcher->isUsingResource(QStringLiteral("org.example.Wrong")));
}

void tst_ResourceUsageWatcher::anotherArgumentIsIgnored_data()
{
    QTest::addColumn<QVariantList>("arguments");

    QTest::newRow("none") << QVariantList();
    QTest::newRow("a text") << QVariantList { player };
    QTest::newRow("texts") << QVariantList { QStringList(player) };
    QTest::newRow("one record without a list") << QVariantList { QVariant::fromValue(ResourceUsage {}) };
    QTest::newRow("a list of variants") << QVariantList { QVariant(QVariantList { 1, player }) };
}

void tst_ResourceUsageWatcher::anotherArgumentIsIgnored()
{
    QFETCH(QVariantList, arguments);
    notify({ { audio, player, 0 } });
    send(m_daemon, path, interface, QStringLiteral("Notify"), arguments);
    QVERIFY(m_watcher->isUsingResource(player));
}

void tst_ResourceUsageWatcher::daemonMayComeLaterAndAgain()
{
    m_watcher.reset();
    QVERIFY(m_daemon.unregisterService(daemonName));
    m_watcher = std::make_unique<ResourceUsageWatcher>();
    for (QDBusConnection *owner : { &m_other, &m_daemon }) {
        QVERIFY(owner->registerService(daemonName));
        const QVariant facts = QVariant::fromValue(Facts { { audio, player, 0 } });
        send(*owner, path, interface, QStringLiteral("Notify"), { facts });
        QVERIFY(m_watcher->isUsingResource(player));
        send(*owner, path, interface, QStringLiteral("Notify"), { QVariant::fromValue(Facts()) });
        QVERIFY(!m_watcher->isUsingResource(player));
        if (owner == &m_other) {
            QVERIFY(owner->unregisterService(daemonName));
        }
    }
}

// A daemon that has crashed and is back tells at once who plays, and then nothing until that changes.
void tst_ResourceUsageWatcher::listThatComesWithTheDaemonCounts()
{
    notify({ { audio, QStringLiteral("org.example.Other"), 0 } });
    QVERIFY(m_daemon.unregisterService(daemonName));
    bool sent = false;
    {
        const TestSupport::HeldBus held(m_daemon);
        const TestSupport::OtherProgram restarted(m_runtime->bus().address());
        sent = restarted.own("org.freedesktop.ohm")
            && restarted.signal("/org/solvaneos/PrivacyViolation", "org.solvaneos.PrivacyViolation", "Notify",
                                "a(ssi)", 1, "audio_playback", "org.example.Player", 0)
            && restarted.finish();
    }
    QVERIFY(sent);
    QTRY_VERIFY(m_watcher->isUsingResource(player));
    QTRY_VERIFY(m_daemon.registerService(daemonName));
}

void tst_ResourceUsageWatcher::hiddenApplicationThatPlaysIsNotFrozen()
{
    m_runtime->makeController();
    Core::RuntimeController *controller = m_runtime->controller();
    const ApplicationInstanceId id(policyPlayer);
    QVERIFY(m_runtime->start(policyPlayer) > 0);

    notify({ { audio, policyPlayer, 0 } });
    controller->updateWindowStatus(id, 0, 0, 1);
    QCOMPARE(controller->state(policyPlayer), ApplicationState::Inactive);

    // It is asked when the windows change, not when the list does.
    notify({});
    QCOMPARE(controller->state(policyPlayer), ApplicationState::Inactive);
    controller->updateWindowStatus(id, 0, 0, 1);
    QCOMPARE(controller->state(policyPlayer), ApplicationState::Hidden);

    // By its process, as a daemon does that knows no more.
    notify({ { audio, QString(), m_runtime->pidOf(policyPlayer) } });
    controller->updateWindowStatus(id, 0, 0, 1);
    QCOMPARE(controller->state(policyPlayer), ApplicationState::Inactive);
}

QTEST_GUILESS_MAIN(tst_ResourceUsageWatcher)
#include "tst_resource_usage_watcher.moc"
