// The controller with everything that it needs being real but three: the helper and the permission daemon
// answer from this process, over a private bus, and the control groups are plain directories.

#include "Core/runtime_controller.h"
#include "Core/runtime_controller_p.h"

#include "support/private_bus.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusMessage>
#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

#include <unistd.h>

using Core::ApplicationId;
using Core::ApplicationInstanceId;
using Core::ApplicationRecord;
using Core::ApplicationState;
using Core::Error;
using Core::InvocationContext;
using Core::RuntimeController;
using Core::StopReason;

namespace {

const QString subtree = QStringLiteral("/procwarden/user-1");

/// Both daemons that a start needs, on the system bus.
class Daemons : public QObject, protected QDBusContext
{
    Q_OBJECT

public:
    void answerHeld()
    {
        for (const QDBusMessage &call : qAsConst(m_held)) {
            connection().send(call.createReply(1));
        }
        m_held.clear();
    }
    void setConnection(const QDBusConnection &connection) { m_connection = connection; }

    bool holdAnswers = false;

public slots:
    QString CreateUserHierarchies(uint) { return subtree; }
    int GetAllowed(const QString &)
    {
        if (holdAnswers) {
            setDelayedReply(true);
            m_held.append(message());
        }
        return 1;
    }

public:
    int held() const { return m_held.size(); }

private:
    QDBusConnection connection() const { return m_connection; }

    QDBusConnection m_connection { QString() };
    QVector<QDBusMessage> m_held;
};

void write(const QString &path, const QByteArray &content)
{
    QVERIFY2(QDir().mkpath(QFileInfo(path).path()), qPrintable(path));
    QFile file(path);
    QVERIFY2(file.open(QFile::WriteOnly), qPrintable(path));
    QCOMPARE(file.write(content), content.size());
}

QByteArray read(const QString &path)
{
    QFile file(path);
    return file.open(QFile::ReadOnly) ? file.readAll() : QByteArray();
}

/// What a start reported.
struct Outcome
{
    bool reported = false;
    ApplicationInstanceId id;
    Error error;
};

} // namespace

class tst_RuntimeController : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void callbacksWaitForTheControlGroupsInOrder();
    void startMakesARecordBeforeItReports();
    void secondStartOfARunningApplicationIsRefused();
    void secondStartDuringALaunchIsRefused();
    void startDuringTheEndIsRefused();
    void severalInstancesAreToldApartByTheirPid();
    void singleCoverIsRefusedOnlyWithAWindow();
    void blockedApplicationIsRefused();
    void unknownApplicationIsRefused_data();
    void unknownApplicationIsRefused();
    void failedLaunchCanBeTriedAgain();
    void windowCountsDecideTheState_data();
    void windowCountsDecideTheState();
    void updateOfWhatDoesNotRunIsRefused();
    void lastWindowClosedEndsTheApplication();
    void eachStateIsWrittenAfterItsDelay();
    void applicationThatIgnoresSigtermIsKilled();
    void terminationReportsItsReason();
    void terminateAllGoesByPrefix();
    void waitingEndsWithTheLastInstance();
    void waitingForNothingEndsAtOnce();
    void killAllEndsEverything();
    void killTimeoutOfTheEnvironment_data();
    void killTimeoutOfTheEnvironment();

private:
    Outcome *start(const QString &id, InvocationContext::StartReason reason = InvocationContext::DirectStart);
    ApplicationInstanceId startAndWait(const QString &id);
    void install(const QString &id, const QByteArray &keys);
    QString groupOf(const QString &controller, const QString &id) const;

    TestSupport::PrivateBus m_bus;
    QDBusConnection m_daemonConnection { QString() };
    Daemons m_daemons;
    QTemporaryDir m_root;
    RuntimeController *m_controller = nullptr;
    std::vector<std::unique_ptr<Outcome>> m_outcomes;
};

void tst_RuntimeController::initTestCase()
{
    QVERIFY(m_root.isValid());
    const QString root = m_root.path();
    qputenv("PROCWARDEN_ROOTFS", QFile::encodeName(root));
    qputenv("XDG_DATA_HOME", QFile::encodeName(root + QStringLiteral("/home/data")));
    qputenv("XDG_DATA_DIRS", QFile::encodeName(root + QStringLiteral("/usr/share")));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(root + QStringLiteral("/home/config")));
    qputenv("PROCWARDEN_KILL_TIMEOUT", "300");
    m_bus.useAsSystemBus();
    m_bus.useAsSessionBus();

    m_daemonConnection = m_bus.connect();
    m_daemons.setConnection(m_daemonConnection);
    for (const char *name : { "org.kestrix.Procwarden.Helper", "org.sailfishos.sailjaild1" }) {
        const QString service = QLatin1String(name);
        QString path = QLatin1Char('/') + service;
        path.replace(QLatin1Char('.'), QLatin1Char('/'));
        QVERIFY(
            m_daemonConnection.registerObject(path, service, &m_daemons, QDBusConnection::ExportAllSlots));
        QVERIFY(m_daemonConnection.registerService(service));
    }

    write(root + QStringLiteral("/proc/self/cgroup"), "4:freezer:/\n3:memory:/\n2:cpu:/\n");
    for (const char *controller : { "cpu", "freezer", "memory" }) {
        QVERIFY(
            QDir().mkpath(root + QStringLiteral("/sys/fs/cgroup/") + QLatin1String(controller) + subtree));
    }
    write(root + QStringLiteral("/etc/procwarden/os-version-support.cfg"),
          "[Applications]\npolicy.one.*=4.2.0\npolicy.two.*=5.2.0\n");

    const QString states = root + QStringLiteral("/home/data/") + QCoreApplication::applicationName()
        + QStringLiteral("/states/");
    write(states + QStringLiteral("active.config"), "[Backend settings]\ncgroup1.freezer.state=ACTIVE\n");
    write(states + QStringLiteral("inactive.config"), "[Backend settings]\ncgroup1.freezer.state=INACTIVE\n");
    write(states + QStringLiteral("hidden.config"),
          "ApplyWithDelay=50\n[Backend settings]\ncgroup1.freezer.state=HIDDEN\n");

    const QByteArray sleeper = "Exec=/bin/sleep 600\n";
    for (const char *id : { "org.example.App", "org.example.App2", "policy.one.App", "policy.two.App" }) {
        install(QLatin1String(id), sleeper);
    }
    install(QStringLiteral("org.example.Many"), sleeper + "X-Nemo-Single-Instance=no\n");
    install(QStringLiteral("org.example.Cover"),
            sleeper + "X-Nemo-Single-Instance=no\nX-Solvane-Single-Cover=yes\n");
    // The shell keeps running when its own group is asked to end, and so does what it waits for.
    write(root + QStringLiteral("/stubborn"), "trap '' TERM\n: >\"$0.ready\"\nwhile :; do sleep 600; done\n");
    install(QStringLiteral("org.example.Stubborn"),
            "Exec=/bin/sh " + QFile::encodeName(root) + "/stubborn\n");
    install(QStringLiteral("org.example.Broken"), "Exec=/bin/true\nX-Maemo-Service=org.example.Nowhere\n");
}

void tst_RuntimeController::install(const QString &id, const QByteArray &keys)
{
    const ApplicationId appId(id);
    write(m_root.filePath(QStringLiteral("usr/share/applications/%1.desktop").arg(id)),
          "[Desktop Entry]\nType=Application\nName=App\n" + keys + "[X-Application]\nSandboxing=Disabled\n"
              + "OrganizationName=" + appId.organisation().toUtf8()
              + "\nApplicationName=" + appId.name().toUtf8() + "\n");
}

void tst_RuntimeController::init()
{
    m_controller = RuntimeController::instance();
}

void tst_RuntimeController::cleanup()
{
    m_daemons.holdAnswers = false;
    m_daemons.answerHeld();
    QTRY_VERIFY(std::all_of(m_outcomes.cbegin(), m_outcomes.cend(),
                            [](const auto &outcome) { return outcome->reported; }));
    m_controller->killAll();
    QTRY_VERIFY(m_controller->runningApplications().isEmpty());
    m_outcomes.clear();
}

Outcome *tst_RuntimeController::start(const QString &id, InvocationContext::StartReason reason)
{
    InvocationContext context;
    context.reason = reason;
    m_outcomes.push_back(std::make_unique<Outcome>());
    Outcome *outcome = m_outcomes.back().get();
    m_controller->startApplication(ApplicationId(id), {}, {}, context,
                                   [outcome](const ApplicationInstanceId &instanceId, const Error &error) {
                                       outcome->reported = true;
                                       outcome->id = instanceId;
                                       outcome->error = error;
                                   });
    return outcome;
}

ApplicationInstanceId tst_RuntimeController::startAndWait(const QString &id)
{
    const Outcome *outcome = start(id);
    [outcome] {
        QTRY_VERIFY(outcome->reported);
    }();
    [outcome] {
        QVERIFY2(!outcome->error, qPrintable(outcome->error.message()));
    }();
    return outcome->id;
}

QString tst_RuntimeController::groupOf(const QString &controller, const QString &id) const
{
    return m_root.filePath(QStringLiteral("sys/fs/cgroup/%1%2/%3").arg(controller, subtree, id));
}

// The first one, since only then is the controller new.
void tst_RuntimeController::callbacksWaitForTheControlGroupsInOrder()
{
    QStringList calls;
    m_controller->whenInitialized([&calls] { calls.append(QStringLiteral("first")); });
    m_controller->whenInitialized([&calls] { calls.append(QStringLiteral("second")); });
    // A start that comes as early waits too, rather than fail for want of a place to put the child.
    const Outcome *early = start(QStringLiteral("org.example.App"));
    QCOMPARE(calls, QStringList());

    QTRY_COMPARE(calls, QStringList({ QStringLiteral("first"), QStringLiteral("second") }));
    bool atOnce = false;
    m_controller->whenInitialized([&atOnce] { atOnce = true; });
    QVERIFY(atOnce);
    QTRY_VERIFY(early->reported);
    QVERIFY(!early->error);
}

void tst_RuntimeController::startMakesARecordBeforeItReports()
{
    QSignalSpy started(m_controller, &RuntimeController::applicationStarted);
    InvocationContext context;
    context.reason = InvocationContext::StartIntent;
    const QList<QUrl> uris = { QUrl(QStringLiteral("web://host/")) };
    ApplicationRecord seen;
    m_controller->startApplication(ApplicationId(QStringLiteral("org.example.App")), {}, uris, context,
                                   [&](const ApplicationInstanceId &instanceId, const Error &) {
                                       seen =
                                           m_controller->applicationRecord(ApplicationId(instanceId.text()));
                                   });
    QVERIFY(m_controller->runningApplications().isEmpty());

    QTRY_COMPARE(seen.id, QStringLiteral("org.example.App"));
    QCOMPARE(seen.state, ApplicationState::Launched);
    QCOMPARE(seen.context.reason, InvocationContext::StartIntent);
    QCOMPARE(seen.uris, uris);
    QVERIFY(seen.pid > 1);
    QCOMPARE(started.count(), 1);
    QCOMPARE(started.at(0).at(0).value<ApplicationRecord>().pid, seen.pid);
    QCOMPARE(getpgid(seen.pid), seen.pid);
    for (const char *controller : { "cpu", "freezer", "memory" }) {
        QCOMPARE(read(groupOf(QLatin1String(controller), QStringLiteral("org.example.App/app/cgroup.procs"))),
                 QByteArray::number(seen.pid));
    }
}

void tst_RuntimeController::secondStartOfARunningApplicationIsRefused()
{
    startAndWait(QStringLiteral("org.example.App"));
    const Outcome *second = start(QStringLiteral("org.example.App"));

    QVERIFY(second->reported);
    QCOMPARE(second->error.code(), Error::ApplicationAlreadyRunning);
    QCOMPARE(second->error.message(), QString());
    QCOMPARE(second->id.text(), QStringLiteral("org.example.App"));
}

void tst_RuntimeController::secondStartDuringALaunchIsRefused()
{
    m_daemons.holdAnswers = true;
    const Outcome *first = start(QStringLiteral("org.example.App"));
    QTRY_COMPARE(m_daemons.held(), 1);
    const Outcome *second = start(QStringLiteral("org.example.App"));
    QVERIFY(second->reported);
    QCOMPARE(second->error.code(), Error::ApplicationAlreadyLaunching);

    m_daemons.answerHeld();
    QTRY_VERIFY(first->reported);
    QVERIFY(!first->error);
    QCOMPARE(start(QStringLiteral("org.example.App"))->error.code(), Error::ApplicationAlreadyRunning);
}

void tst_RuntimeController::startDuringTheEndIsRefused()
{
    const ApplicationInstanceId id = startAndWait(QStringLiteral("org.example.Stubborn"));
    QVERIFY(!m_controller->terminateApplication(id, StopReason::Requested));

    QCOMPARE(start(QStringLiteral("org.example.Stubborn"))->error.code(), Error::ApplicationTerminating);
}

void tst_RuntimeController::severalInstancesAreToldApartByTheirPid()
{
    const ApplicationInstanceId one = startAndWait(QStringLiteral("org.example.Many"));
    const ApplicationInstanceId two = startAndWait(QStringLiteral("org.example.Many"));

    QVERIFY(one.text() != two.text());
    const ApplicationRecord record = m_controller->applicationRecord(ApplicationId(two.text()));
    QCOMPARE(two.text(), QStringLiteral("org.example.Many.instance_%1").arg(record.pid));
    QCOMPARE(m_controller->runningApplications().size(), 2);
}

void tst_RuntimeController::singleCoverIsRefusedOnlyWithAWindow()
{
    const ApplicationInstanceId one = startAndWait(QStringLiteral("org.example.Cover"));
    startAndWait(QStringLiteral("org.example.Cover"));

    QVERIFY(!m_controller->updateWindowStatus(one, 0, 1, 0));
    QCOMPARE(start(QStringLiteral("org.example.Cover"))->error.code(), Error::ApplicationAlreadyRunning);
}

void tst_RuntimeController::blockedApplicationIsRefused()
{
    const ApplicationId id(QStringLiteral("org.example.App"));
    m_controller->blockApplication(id);
    m_controller->blockApplication(id);
    QTest::ignoreMessage(QtDebugMsg, "Application is blocked, won't start it: \"org.example.App\"");
    QCOMPARE(start(id.text())->error.code(), Error::ApplicationBlocked);

    m_controller->unblockApplication(id);
    startAndWait(id.text());
    // What runs is not touched by a block.
    m_controller->blockApplication(id);
    QCOMPARE(m_controller->state(id.text()), ApplicationState::Launched);
    m_controller->unblockApplication(id);
}

void tst_RuntimeController::unknownApplicationIsRefused_data()
{
    QTest::addColumn<QString>("id");

    QTest::newRow("not installed") << QStringLiteral("org.example.Missing");
    QTest::newRow("empty") << QString();
    QTest::newRow("not an id") << QStringLiteral("../../etc/passwd");
    QTest::newRow("huge") << QStringLiteral("org.example.") + QString(100000, QLatin1Char('a'));
}

void tst_RuntimeController::unknownApplicationIsRefused()
{
    QFETCH(QString, id);
    const Outcome *outcome = start(id);

    QVERIFY(outcome->reported);
    QCOMPARE(outcome->error.code(), Error::HandlerNotFound);
    QCOMPARE(outcome->error.message(), QStringLiteral("Cannot find application ") + id);
    QVERIFY(m_controller->runningApplications().isEmpty());
}

void tst_RuntimeController::failedLaunchCanBeTriedAgain()
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        const Outcome *outcome = start(QStringLiteral("org.example.Broken"));
        QTRY_VERIFY(outcome->reported);
        QCOMPARE(outcome->error.code(), Error::HandlerFailed);
        QCOMPARE(outcome->error.message(), QStringLiteral("Error launching org.example.Broken"));
    }
    QVERIFY(m_controller->runningApplications().isEmpty());
}

void tst_RuntimeController::windowCountsDecideTheState_data()
{
    QTest::addColumn<QString>("id");
    QTest::addColumn<int>("active");
    QTest::addColumn<int>("inactive");
    QTest::addColumn<int>("hidden");
    QTest::addColumn<ApplicationState>("state");

    const QString never = QStringLiteral("org.example.App");
    const QString mostly = QStringLiteral("policy.one.App");
    const QString always = QStringLiteral("policy.two.App");
    QTest::newRow("active beats all") << always << 1 << 1 << 1 << ApplicationState::Active;
    QTest::newRow("inactive beats hidden") << always << 0 << 2 << 1 << ApplicationState::Inactive;
    QTest::newRow("hidden, always frozen") << always << 0 << 0 << 1 << ApplicationState::Hidden;
    QTest::newRow("hidden, frozen unless used") << mostly << 0 << 0 << 1 << ApplicationState::Hidden;
    QTest::newRow("hidden, never frozen") << never << 0 << 0 << 1 << ApplicationState::Inactive;
    QTest::newRow("negative counts are none") << always << -1 << -1 << 1 << ApplicationState::Hidden;
    QTest::newRow("none") << always << 0 << 0 << 0 << ApplicationState::Terminating;
    QTest::newRow("negative hidden is none") << never << 0 << 0 << -1 << ApplicationState::Terminating;
}

void tst_RuntimeController::windowCountsDecideTheState()
{
    QFETCH(QString, id);
    QFETCH(int, active);
    QFETCH(int, inactive);
    QFETCH(int, hidden);
    QFETCH(ApplicationState, state);
    const ApplicationInstanceId instance = startAndWait(id);
    QSignalSpy changes(m_controller, &RuntimeController::applicationStateChanged);

    QVERIFY(!m_controller->updateWindowStatus(instance, active, inactive, hidden));
    QCOMPARE(m_controller->state(id), state);
    QCOMPARE(changes.count(), 1);
    QCOMPARE(changes.at(0).at(0).toString(), id);
    QCOMPARE(changes.at(0).at(1).value<ApplicationState>(), state);
    const ApplicationRecord record = m_controller->applicationRecord(ApplicationId(id));
    QCOMPARE(record.activeWindowCount, active);
    QCOMPARE(record.inactiveWindowCount, inactive);
    QCOMPARE(record.hiddenWindowCount, hidden);
}

void tst_RuntimeController::updateOfWhatDoesNotRunIsRefused()
{
    const Error error =
        m_controller->updateWindowStatus(ApplicationInstanceId(QStringLiteral("org.example.App")), 1, 0, 0);
    QCOMPARE(error.code(), Error::NotRunning);
    QCOMPARE(error.message(), QStringLiteral("Application not running: org.example.App"));
    QCOMPARE(m_controller->state(QStringLiteral("org.example.App")), ApplicationState::NotRunning);
    QVERIFY(m_controller->applicationRecord(ApplicationId(QStringLiteral("org.example.App"))).id.isEmpty());
}

void tst_RuntimeController::lastWindowClosedEndsTheApplication()
{
    const ApplicationInstanceId id = startAndWait(QStringLiteral("policy.two.App"));
    m_controller->updateWindowStatus(id, 1, 0, 0);
    QSignalSpy terminated(m_controller, &RuntimeController::applicationTerminated);
    QSignalSpy changes(m_controller, &RuntimeController::applicationStateChanged);
    m_controller->updateWindowStatus(id, 0, 0, 0);

    QTRY_COMPARE(terminated.count(), 1);
    QCOMPARE(terminated.at(0).at(2).toInt(), SIGTERM); // the raw status: no exit code, the signal's number
    QCOMPARE(terminated.at(0).at(3).value<StopReason>(), StopReason::None);
    QCOMPARE(changes.count(), 1);
    QCOMPARE(changes.at(0).at(1).value<ApplicationState>(), ApplicationState::Terminating);
}

void tst_RuntimeController::eachStateIsWrittenAfterItsDelay()
{
    const ApplicationInstanceId id = startAndWait(QStringLiteral("policy.two.App"));
    const QString freezer =
        groupOf(QStringLiteral("freezer"), QStringLiteral("policy.two.App/app/freezer.state"));

    QFile::remove(freezer); // an earlier test may have left it
    m_controller->updateWindowStatus(id, 1, 0, 0);
    QCOMPARE(read(freezer), QByteArray()); // a delay of 0 is the next turn of the event loop
    QTRY_COMPARE(read(freezer), QByteArrayLiteral("ACTIVE"));

    // Leaving a state does not call off what its entry has armed: the later timer of the earlier state wins.
    m_controller->updateWindowStatus(id, 0, 0, 1);
    m_controller->updateWindowStatus(id, 0, 1, 0);
    QTRY_COMPARE(read(freezer), QByteArrayLiteral("INACTIVE"));
    QTRY_COMPARE(read(freezer), QByteArrayLiteral("HIDDEN"));
}

void tst_RuntimeController::applicationThatIgnoresSigtermIsKilled()
{
    const QString ready = m_root.filePath(QStringLiteral("stubborn.ready"));
    QFile::remove(ready);
    const ApplicationInstanceId id = startAndWait(QStringLiteral("org.example.Stubborn"));
    QTRY_VERIFY(QFile::exists(ready));
    QSignalSpy terminated(m_controller, &RuntimeController::applicationTerminated);

    QVERIFY(!m_controller->terminateApplication(id, StopReason::Requested));
    QTRY_COMPARE(terminated.count(), 1);
    QCOMPARE(terminated.at(0).at(2).toInt(), SIGKILL);
}

void tst_RuntimeController::terminationReportsItsReason()
{
    QSignalSpy terminated(m_controller, &RuntimeController::applicationTerminated);
    const ApplicationInstanceId id = startAndWait(QStringLiteral("org.example.App"));
    const pid_t pid = m_controller->applicationRecord(ApplicationId(id.text())).pid;

    QVERIFY(!m_controller->terminateApplication(id, StopReason::Requested));
    QTRY_COMPARE(terminated.count(), 1);
    QCOMPARE(terminated.at(0).at(0).toString(), id.text());
    QCOMPARE(terminated.at(0).at(1).value<pid_t>(), pid);
    QCOMPARE(terminated.at(0).at(3).value<StopReason>(), StopReason::Requested);
    QCOMPARE(m_controller->terminateApplication(id, StopReason::Requested).code(), Error::NotRunning);
}

void tst_RuntimeController::terminateAllGoesByPrefix()
{
    startAndWait(QStringLiteral("org.example.App"));
    startAndWait(QStringLiteral("org.example.App2"));
    startAndWait(QStringLiteral("policy.one.App"));

    QVERIFY(
        !m_controller->terminateAll(ApplicationId(QStringLiteral("org.example.App")), StopReason::Requested));
    QTRY_COMPARE(m_controller->runningApplications().size(), 1);
    QCOMPARE(m_controller->runningApplications().at(0).id, QStringLiteral("policy.one.App"));
    QVERIFY(
        !m_controller->terminateAll(ApplicationId(QStringLiteral("org.example.App")), StopReason::Requested));
}

void tst_RuntimeController::waitingEndsWithTheLastInstance()
{
    const ApplicationInstanceId one = startAndWait(QStringLiteral("org.example.Many"));
    const ApplicationInstanceId two = startAndWait(QStringLiteral("org.example.Many"));
    QStringList ended;
    m_controller->waitForNotRunning(ApplicationId(QStringLiteral("org.example.Many")),
                                    [&ended] { ended.append(QStringLiteral("exact")); });
    // Waits by prefix too, but only the end of an application with this very id would be noticed.
    m_controller->waitForNotRunning(ApplicationId(QStringLiteral("org.example.Man")),
                                    [&ended] { ended.append(QStringLiteral("prefix")); });

    m_controller->terminateApplication(one, StopReason::Requested);
    QTRY_COMPARE(m_controller->runningApplications().size(), 1);
    QCOMPARE(ended, QStringList());
    m_controller->terminateApplication(two, StopReason::Requested);
    QTRY_COMPARE(ended, QStringList(QStringLiteral("exact")));
}

void tst_RuntimeController::waitingForNothingEndsAtOnce()
{
    bool ended = false;
    m_controller->waitForNotRunning(ApplicationId(QStringLiteral("org.example.App")),
                                    [&ended] { ended = true; });
    QVERIFY(ended);
}

void tst_RuntimeController::killAllEndsEverything()
{
    QSignalSpy terminated(m_controller, &RuntimeController::applicationTerminated);
    startAndWait(QStringLiteral("org.example.Stubborn"));
    const ApplicationInstanceId frozen = startAndWait(QStringLiteral("policy.two.App"));
    const QString freezer =
        groupOf(QStringLiteral("freezer"), QStringLiteral("policy.two.App/app/freezer.state"));
    m_controller->updateWindowStatus(frozen, 0, 0, 1);
    QTRY_COMPARE(read(freezer), QByteArrayLiteral("HIDDEN"));

    m_controller->killAll();
    QCOMPARE(read(freezer), QByteArrayLiteral("INACTIVE"));
    QCOMPARE(m_controller->runningApplications().size(), 2);
    QTRY_COMPARE(terminated.count(), 2);
    QCOMPARE(terminated.at(0).at(2).toInt(), SIGKILL);
    QCOMPARE(terminated.at(1).at(2).toInt(), SIGKILL);
}

void tst_RuntimeController::killTimeoutOfTheEnvironment_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<int>("timeoutMs");

    QTest::newRow("unset") << QByteArray() << 2000;
    QTest::newRow("empty") << QByteArrayLiteral("") << 2000;
    QTest::newRow("a number") << QByteArrayLiteral("500") << 500;
    QTest::newRow("zero") << QByteArrayLiteral("0") << 2000;
    QTest::newRow("negative") << QByteArrayLiteral("-1") << 2000;
    QTest::newRow("no number") << QByteArrayLiteral("5s") << 2000;
    QTest::newRow("too large") << QByteArrayLiteral("99999999999") << 2000;
}

void tst_RuntimeController::killTimeoutOfTheEnvironment()
{
    QFETCH(QByteArray, value);
    QFETCH(int, timeoutMs);
    if (value.isNull()) {
        qunsetenv("PROCWARDEN_KILL_TIMEOUT");
    } else {
        qputenv("PROCWARDEN_KILL_TIMEOUT", value);
    }
    QCOMPARE(Core::killTimeoutFromEnvironment(), timeoutMs);
}

QTEST_GUILESS_MAIN(tst_RuntimeController)
#include "tst_runtime_controller.moc"
