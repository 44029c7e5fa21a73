#include "Core/launching_application.h"

#include "Core/chronicle.h"

#include "tested_launch.h"

using namespace Core;
using namespace TestSupport;

namespace {

const QString deniedMessage = QStringLiteral("Application not allowed by sailjaild");
const QString failureWarning = QStringLiteral("Failed to setup child process");

} // namespace

class TestLaunchingApplication : public LaunchTest
{
    Q_OBJECT

private slots:
    void initTestCase() { makeWorld("Exec=/bin/true"); }
    void init();
    void cleanup() { end(); }

    // The steps
    void programRunsWhenAllStepsHaveEnded();
    void childIsBlockedUntilSailjaildAnswers();
    void setupRunsAfterStartHasReturned();
    void stepsMayEndInAnyOrder_data();
    void stepsMayEndInAnyOrder();
    void everyStepHoldsTheChild();
    void promptHoldsTheChildAndIsAskedForThePackage();

    // Failures
    void failedPreparationMakesNoChild();
    void failedSpawnIsReturned();
    void applicationThatIsNotAllowedDoesNotRun_data();
    void applicationThatIsNotAllowedDoesNotRun();
    void refusedPromptDoesNotRun();
    void denialWhileAPromptIsOpenIsReportedOnce_data();
    void denialWhileAPromptIsOpenIsReportedOnce();
    void failedLaunchNeverReachesTheRelease();
    void denialBeforeTheSetupLeavesNoGroups();
    void childOfAFailedLaunchIsAbandonedOnce();
    void failureIsReportedOnce();
    void failureWithoutErrorIsNotReported();
    void groupThatCannotBeMadeFailsTheSetup();
    void childThatIsDeadFailsTheSetup();
    void childThatDiesAfterTheSetupFailsTheRelease();

    // The end
    void objectDeletesItselfAfterSuccess();
    void deletionEndsABlockedChildWithoutAReport();
    void releasedProgramOutlivesTheObject();
    void emptyCallbackIsAllowed_data();
    void emptyCallbackIsAllowed();
    void callbackMayEndTheOwner_data();
    void callbackMayEndTheOwner();

private:
    std::shared_ptr<Launch> m_history; ///< what the history is told of the launch
};

void TestLaunchingApplication::init()
{
    begin();
    m_history = Chronicle::instance()->launchAsked(testAppId);
}

void TestLaunchingApplication::programRunsWhenAllStepsHaveEnded()
{
    QPointer<TestedLaunch> launch = make({ m_recorder, "a", "", "b c" });
    const pid_t pid = launch->start();
    QVERIFY(pid > 0);
    QCOMPARE(TestedLaunch::reports, QList<Report>());
    QTRY_COMPARE(TestedLaunch::reports, (QList<Report> { { testAppId, pid, Error::NoError, QString() } }));
    verifyEnded(pid, 0);
    QCOMPARE(m_world->recorded(),
             (QStringList { QString::fromUtf8(m_recorder), QStringLiteral("a"), QString(),
                            QStringLiteral("b c") }));
    QCOMPARE(m_sailjaild->askedAllowed(), QStringList { testPackage });
    QCOMPARE(m_sailjaild->askedPrompt(), QStringList());
    QCOMPARE(m_history->account.stepsMs.keys(),
             (QList<LaunchStep> { LaunchStep::Allowed, LaunchStep::Spawned, LaunchStep::Grouped,
                                  LaunchStep::Released }));
    QCOMPARE(m_history->account.failedAt, QString());
    QTRY_VERIFY(!launch);
    QCOMPARE(TestedLaunch::reports.size(), 1);
    QCOMPARE(m_log->messages(), QStringList());
}

void TestLaunchingApplication::childIsBlockedUntilSailjaildAnswers()
{
    m_sailjaild->holdsAllowed = true;
    QPointer<TestedLaunch> launch = make({ m_recorder });
    const pid_t pid = launch->start();
    QTRY_COMPARE(launch->pendingSteps, 1);
    QVERIFY(staysAlive(pid));
    QCOMPARE(m_world->recorded(), QStringList());
    QCOMPARE(TestedLaunch::reports, QList<Report>());

    m_sailjaild->answerAllowed();
    QTRY_COMPARE(TestedLaunch::reports, (QList<Report> { { testAppId, pid, Error::NoError, QString() } }));
    verifyEnded(pid, 0);
    QCOMPARE(m_world->recorded().size(), 1);
}

void TestLaunchingApplication::setupRunsAfterStartHasReturned()
{
    m_sailjaild->holdsAllowed = true;
    std::unique_ptr<TestedLaunch> launch(make({ m_recorder }));
    QCOMPARE(launch->pendingSteps, 1);
    QCOMPARE(launch->instanceId.text(), QString());
    const pid_t pid = launch->start();
    QCOMPARE(launch->pendingSteps, 2);
    QCOMPARE(launch->instanceId.text(), testAppId);
    const QString group = m_world->groupPath(QStringLiteral("memory"), testAppId);
    QDir(group).removeRecursively();
    QCoreApplication::sendPostedEvents(launch.get(), QEvent::MetaCall);
    QCOMPARE(launch->pendingSteps, 1);
    QVERIFY(QFileInfo::exists(group));
    launch.reset();
    verifyEnded(pid, 1);
}

void TestLaunchingApplication::stepsMayEndInAnyOrder_data()
{
    QTest::addColumn<bool>("promptFirst");
    QTest::newRow("allowed, then granted") << false;
    QTest::newRow("granted, then allowed") << true;
}

void TestLaunchingApplication::stepsMayEndInAnyOrder()
{
    QFETCH(bool, promptFirst);
    m_sailjaild->holdsAllowed = true;
    m_sailjaild->holdsPrompt = true;
    QPointer<TestedLaunch> launch = make({ m_recorder });
    launch->onPrepare = [launch] {
        launch->promptPermissions([launch](const QStringList &) { launch->stepDone(); });
        return true;
    };
    const pid_t pid = launch->start();
    QCOMPARE(launch->pendingSteps, 3);
    QTRY_COMPARE(launch->pendingSteps, 2);
    QTRY_COMPARE(m_sailjaild->object.calls().size(), 2);
    if (promptFirst) {
        m_sailjaild->answerPrompt();
    } else {
        m_sailjaild->answerAllowed();
    }
    QTRY_COMPARE(launch->pendingSteps, 1);
    QVERIFY(staysAlive(pid));
    QCOMPARE(TestedLaunch::reports.size(), 0);
    if (promptFirst) {
        m_sailjaild->answerAllowed();
    } else {
        m_sailjaild->answerPrompt();
    }
    QTRY_COMPARE(TestedLaunch::reports.size(), 1);
    verifyEnded(pid, 0);
    QCOMPARE(m_world->recorded().size(), 1);
}

void TestLaunchingApplication::everyStepHoldsTheChild()
{
    QPointer<TestedLaunch> launch = make({ m_recorder });
    launch->onPrepare = [launch] {
        ++launch->pendingSteps;
        return true;
    };
    const pid_t pid = launch->start();
    QTRY_COMPARE(launch->pendingSteps, 1);
    QVERIFY(staysAlive(pid));
    launch->stepDone();
    QCOMPARE(TestedLaunch::reports.size(), 1);
    verifyEnded(pid, 0);
}

void TestLaunchingApplication::promptHoldsTheChildAndIsAskedForThePackage()
{
    m_sailjaild->granted = QStringList { QStringLiteral("Audio") };
    QPointer<TestedLaunch> launch = make({ m_recorder });
    QStringList granted;
    launch->onPrepare = [launch, &granted] {
        launch->promptPermissions([launch, &granted](const QStringList &permissions) {
            granted = permissions;
            launch->stepDone();
        });
        return true;
    };
    const pid_t pid = launch->start();
    QTRY_COMPARE(TestedLaunch::reports.size(), 1);
    QCOMPARE(granted, QStringList { QStringLiteral("Audio") });
    QCOMPARE(m_sailjaild->askedPrompt(), QStringList { testPackage });
    QVERIFY(m_history->account.stepsMs.contains(LaunchStep::Prompted));
    QVERIFY(m_history->account.stepsMs.contains(LaunchStep::Granted));
    verifyEnded(pid, 0);
}

void TestLaunchingApplication::failedPreparationMakesNoChild()
{
    std::unique_ptr<TestedLaunch> launch(make({ m_recorder }));
    launch->onPrepare = [] {
        return false;
    };
    QVERIFY(launch->start() < 0);
    QCOMPARE(m_log->messages(),
             QStringList { QStringLiteral("Error preparing launch for \"org.example.Notes\"") });
    QCOMPARE(m_history->account.failedAt, QStringLiteral("Prepared"));
    // The answer of sailjaild still comes, to an object that nobody deletes here.
    QTRY_COMPARE(m_sailjaild->askedAllowed().size(), 1);
    QTRY_COMPARE(launch->pendingSteps, 1);
    QCOMPARE(TestedLaunch::reports, QList<Report>());
}

void TestLaunchingApplication::failedSpawnIsReturned()
{
    std::unique_ptr<TestedLaunch> launch(make({ m_recorder }));
    pid_t pid = 0;
    {
        const NoPipes none;
        pid = launch->start();
    }
    QVERIFY(pid < 0);
    QCOMPARE(m_log->messages(),
             (QStringList { QStringLiteral("Failed to create IPC pipe to child process"),
                            QStringLiteral("Failed to start child process") }));
    QCOMPARE(launch->instanceId.text(), QString());
    QCOMPARE(m_history->account.failedAt, QStringLiteral("Spawned"));
}

void TestLaunchingApplication::applicationThatIsNotAllowedDoesNotRun_data()
{
    QTest::addColumn<QString>("daemon");
    QTest::newRow("says no") << QStringLiteral("no");
    QTest::newRow("is absent") << QStringLiteral("absent");
    QTest::newRow("answers with an error") << QStringLiteral("error");
    QTest::newRow("answers another type") << QStringLiteral("type");
}

void TestLaunchingApplication::applicationThatIsNotAllowedDoesNotRun()
{
    QFETCH(QString, daemon);
    m_sailjaild->allowed = 0;
    if (daemon == QLatin1String("absent")) {
        m_sailjaild.reset();
    } else if (daemon == QLatin1String("error")) {
        m_sailjaild->object.setHandler([](const QDBusMessage &call, const QDBusConnection &connection) {
            connection.send(call.createErrorReply(QDBusError::Failed, QStringLiteral("no")));
        });
    } else if (daemon == QLatin1String("type")) {
        m_sailjaild->object.answerWith({ QStringLiteral("1") });
    }
    QPointer<TestedLaunch> launch = make({ m_recorder });
    const pid_t pid = launch->start();
    QVERIFY(pid > 0);
    QTRY_COMPARE(TestedLaunch::reports, QList<Report> { failure(Error::AccessDenied, deniedMessage) });
    QCOMPARE(m_history->account.failedAt, QStringLiteral("Allowed"));
    QTRY_VERIFY(!launch);
    verifyEnded(pid, 1);
    QCOMPARE(m_world->recorded(), QStringList());
    QCOMPARE(TestedLaunch::reports.size(), 1);
    QCOMPARE(m_log->messages(QtDebugMsg),
             QStringList { QStringLiteral("Application not allowed by sailjaild: \"notes.v2\"") });
    QCOMPARE(m_log->warnings(), QStringList { failureWarning });
}

void TestLaunchingApplication::refusedPromptDoesNotRun()
{
    m_sailjaild->refusal = QStringLiteral("The user said no");
    QPointer<TestedLaunch> launch = make({ m_recorder });
    launch->onPrepare = [launch] {
        launch->promptPermissions([launch](const QStringList &) { launch->stepDone(); });
        return true;
    };
    const pid_t pid = launch->start();
    QTRY_COMPARE(TestedLaunch::reports, QList<Report> { failure(Error::AccessDenied, m_sailjaild->refusal) });
    QCOMPARE(m_history->account.failedAt, QStringLiteral("Granted"));
    QTRY_VERIFY(!launch);
    verifyEnded(pid, 1);
    QCOMPARE(m_world->recorded(), QStringList());
    QCOMPARE(m_log->messages(),
             (QStringList { QStringLiteral("Permissions request failed: \"The user said no\""),
                            QStringLiteral("Perhaps the user has declined to grant permissions"),
                            failureWarning }));
}

void TestLaunchingApplication::denialWhileAPromptIsOpenIsReportedOnce_data()
{
    QTest::addColumn<QString>("refusal");
    QTest::addColumn<bool>("atOnce");
    QTest::newRow("granted with it") << QString() << true;
    QTest::newRow("refused with it") << QStringLiteral("no") << true;
    QTest::newRow("granted later") << QString() << false;
    QTest::newRow("refused later") << QStringLiteral("no") << false;
}

void TestLaunchingApplication::denialWhileAPromptIsOpenIsReportedOnce()
{
    QFETCH(QString, refusal);
    QFETCH(bool, atOnce);
    m_sailjaild->allowed = 0;
    m_sailjaild->holdsAllowed = true;
    m_sailjaild->holdsPrompt = true;
    m_sailjaild->refusal = refusal;
    QPointer<TestedLaunch> launch = make({ m_recorder });
    launch->onPrepare = [launch] {
        launch->promptPermissions([launch](const QStringList &) { launch->stepDone(); });
        return true;
    };
    const pid_t pid = launch->start();
    QTRY_COMPARE(m_sailjaild->object.calls().size(), 2);
    m_sailjaild->answerAllowed();
    if (atOnce) {
        m_sailjaild->answerPrompt();
    }
    QTRY_COMPARE(TestedLaunch::reports.size(), 1);
    QTRY_VERIFY(!launch);
    m_sailjaild->answerPrompt();
    verifyEnded(pid, 1);
    QTest::qWait(50);
    QCOMPARE(TestedLaunch::reports, QList<Report> { failure(Error::AccessDenied, deniedMessage) });
    QCOMPARE(m_history->account.failedAt, QStringLiteral("Allowed"));
    QCOMPARE(m_world->recorded(), QStringList());
}

void TestLaunchingApplication::failedLaunchNeverReachesTheRelease()
{
    m_sailjaild->holdsAllowed = true;
    QPointer<TestedLaunch> launch = make({ m_recorder });
    const pid_t pid = launch->start();
    QTRY_COMPARE(m_sailjaild->askedAllowed().size(), 1);
    QTRY_COMPARE(launch->pendingSteps, 1);
    ++launch->pendingSteps; // a step that fails does not end
    launch->fail(Error(Error::InvalidArgs, QStringLiteral("bad")));
    launch->stepDone(); // the late answer of another one
    QCOMPARE(launch->pendingSteps, 1);
    QTRY_VERIFY(!launch);
    verifyEnded(pid, 1);
    QCOMPARE(TestedLaunch::reports, QList<Report> { failure(Error::InvalidArgs, QStringLiteral("bad")) });
    QCOMPARE(m_world->recorded(), QStringList());
}

void TestLaunchingApplication::denialBeforeTheSetupLeavesNoGroups()
{
    const QString group = m_world->groupPath(QStringLiteral("memory"), testAppId);
    QDir(group).removeRecursively();
    QPointer<TestedLaunch> launch = make({ m_recorder });
    const pid_t pid = launch->start();
    // As when the answer of an absent daemon is there before the queued setup.
    launch->fail(Error(Error::AccessDenied, deniedMessage));
    QTRY_VERIFY(!launch);
    verifyEnded(pid, 1);
    QVERIFY(!QFileInfo::exists(group));
    QCOMPARE(TestedLaunch::reports, QList<Report> { failure(Error::AccessDenied, deniedMessage) });
    QCOMPARE(m_log->messages(), QStringList { failureWarning });
}

void TestLaunchingApplication::childOfAFailedLaunchIsAbandonedOnce()
{
    m_sailjaild->holdsAllowed = true;
    m_request.launchData.singleInstance = false;
    QPointer<TestedLaunch> launch = make({ m_recorder });
    QStringList events;
    connect(launch, &LaunchingApplication::childAbandoned, this,
            [&events](pid_t child, const ApplicationInstanceId &id) {
                events << QStringLiteral("abandoned %1 %2").arg(child).arg(id.text());
            });
    launch->onReport = [&events] {
        events << QStringLiteral("reported");
    };
    const pid_t pid = launch->start();
    QTRY_COMPARE(launch->pendingSteps, 1);
    launch->fail(Error(Error::Failed, QStringLiteral("first")));
    launch->fail(Error(Error::Failed, QStringLiteral("second")));
    QTRY_VERIFY(!launch);
    verifyEnded(pid, 1);
    QCOMPARE(events,
             (QStringList { QStringLiteral("abandoned %1 org.example.Notes.instance_%1").arg(pid),
                            QStringLiteral("reported") }));
}

void TestLaunchingApplication::failureIsReportedOnce()
{
    QPointer<TestedLaunch> launch = make({ m_recorder });
    launch->fail(Error(Error::Failed, QStringLiteral("first")));
    QVERIFY(!launch->callback);
    launch->fail(Error(Error::InvalidArgs, QStringLiteral("second")));
    QCOMPARE(TestedLaunch::reports, QList<Report> { failure(Error::Failed, QStringLiteral("first")) });
    QCOMPARE(m_log->messages(), (QStringList { failureWarning, failureWarning }));
    QTRY_VERIFY(!launch);
}

void TestLaunchingApplication::failureWithoutErrorIsNotReported()
{
    QPointer<TestedLaunch> launch = make({ m_recorder });
    launch->fail(Error());
    QCOMPARE(TestedLaunch::reports, QList<Report>());
    QVERIFY(launch->callback);
    QCOMPARE(m_log->messages(), QStringList { failureWarning });
    QTRY_VERIFY(!launch);
}

void TestLaunchingApplication::groupThatCannotBeMadeFailsTheSetup()
{
    // A file in the place of the application's directory.
    const QString directory = m_world->groupPath(QStringLiteral("freezer"), testAppId);
    QDir(directory).removeRecursively();
    QFile obstacle(directory);
    QVERIFY(obstacle.open(QIODevice::WriteOnly));
    obstacle.close();

    QPointer<TestedLaunch> launch = make({ m_recorder });
    const pid_t pid = launch->start();
    QVERIFY(pid > 0);
    QTRY_COMPARE(TestedLaunch::reports,
                 QList<Report> { failure(Error::Failed, QStringLiteral("Cannot setup child process")) });
    QTRY_VERIFY(!launch);
    QVERIFY(obstacle.remove());
    verifyEnded(pid, 1);
    QCOMPARE(m_world->recorded(), QStringList());
    const QStringList warnings = m_log->warnings();
    QCOMPARE(warnings.size(), 3); // the first is the control group controller's
    QCOMPARE(warnings.mid(1), (QStringList { QStringLiteral("Could not setup cgroup"), failureWarning }));
    QCOMPARE(m_history->account.failedAt, QStringLiteral("Grouped"));
}

void TestLaunchingApplication::childThatIsDeadFailsTheSetup()
{
    const Disposition ignored(SIGPIPE, SIG_IGN);
    QPointer<TestedLaunch> launch = make({ m_recorder });
    const pid_t pid = launch->start();
    QCOMPARE(killChild(pid), 0);
    waitForChild(pid);
    QTRY_COMPARE(TestedLaunch::reports,
                 QList<Report> { failure(Error::Failed, QStringLiteral("Cannot setup child process")) });
    QTRY_VERIFY(!launch);
    QCOMPARE(m_log->warnings(),
             (QStringList { QStringLiteral("Error sending OOM data to child process"), failureWarning }));
    QCOMPARE(m_history->account.failedAt, QStringLiteral("SetUp"));
    QCOMPARE(TestedLaunch::reports.size(), 1);
}

void TestLaunchingApplication::childThatDiesAfterTheSetupFailsTheRelease()
{
    const Disposition ignored(SIGPIPE, SIG_IGN);
    m_sailjaild->holdsAllowed = true;
    QPointer<TestedLaunch> launch = make({ m_recorder });
    const pid_t pid = launch->start();
    QTRY_COMPARE(launch->pendingSteps, 1);
    QTRY_COMPARE(m_sailjaild->askedAllowed().size(), 1);
    QCOMPARE(killChild(pid), 0);
    waitForChild(pid);
    m_sailjaild->answerAllowed();
    QTRY_COMPARE(TestedLaunch::reports,
                 QList<Report> { failure(Error::Failed, QStringLiteral("exec() call failed")) });
    QTRY_VERIFY(!launch);
    QCOMPARE(m_log->warnings(),
             (QStringList { QStringLiteral("Error starting child program"), failureWarning }));
    QCOMPARE(m_history->account.failedAt, QStringLiteral("Released"));
    QCOMPARE(TestedLaunch::reports.size(), 1);
}

void TestLaunchingApplication::objectDeletesItselfAfterSuccess()
{
    QPointer<TestedLaunch> launch = make(sleepArguments);
    // The object is whole while it reports.
    int references = 0;
    launch->onReport = [launch, &references] {
        references = launch ? launch->references : -1;
    };
    const pid_t pid = launch->start();
    QTRY_COMPARE(TestedLaunch::reports.size(), 1);
    QCOMPARE(references, 1);
    QTRY_VERIFY(!launch);
    QCOMPARE(killChild(pid), 0);
    waitForChild(pid);
}

void TestLaunchingApplication::deletionEndsABlockedChildWithoutAReport()
{
    m_sailjaild->holdsAllowed = true;
    auto owner = std::make_unique<QObject>();
    QPointer<TestedLaunch> launch = make({ m_recorder }, owner.get());
    const pid_t pid = launch->start();
    QTRY_COMPARE(launch->pendingSteps, 1);
    owner.reset();
    QVERIFY(!launch);
    verifyEnded(pid, 1);
    m_sailjaild->answerAllowed();
    QTest::qWait(50);
    QCOMPARE(TestedLaunch::reports, QList<Report>());
}

void TestLaunchingApplication::releasedProgramOutlivesTheObject()
{
    QPointer<TestedLaunch> launch = make(sleepArguments);
    const pid_t pid = launch->start();
    QTRY_VERIFY(!launch);
    QVERIFY(staysAlive(pid));
    QCOMPARE(killChild(pid), 0);
    waitForChild(pid);
}

void TestLaunchingApplication::emptyCallbackIsAllowed_data()
{
    QTest::addColumn<bool>("allowed");
    QTest::newRow("success") << true;
    QTest::newRow("failure") << false;
}

void TestLaunchingApplication::emptyCallbackIsAllowed()
{
    QFETCH(bool, allowed);
    m_sailjaild->allowed = allowed ? 1 : 0;
    QPointer<TestedLaunch> launch = make({ m_recorder });
    launch->setCallback(nullptr);
    const pid_t pid = launch->start();
    QTRY_VERIFY(!launch);
    verifyEnded(pid, allowed ? 0 : 1);
}

void TestLaunchingApplication::callbackMayEndTheOwner_data()
{
    QTest::addColumn<QString>("outcome");
    QTest::newRow("success") << QStringLiteral("success");
    QTest::newRow("not allowed") << QStringLiteral("not allowed");
    QTest::newRow("refused") << QStringLiteral("refused");
    QTest::newRow("release fails") << QStringLiteral("release");
    QTest::newRow("setup fails") << QStringLiteral("setup");
}

void TestLaunchingApplication::callbackMayEndTheOwner()
{
    QFETCH(QString, outcome);
    const Disposition ignored(SIGPIPE, SIG_IGN);
    m_sailjaild->allowed = outcome == QLatin1String("not allowed") ? 0 : 1;
    m_sailjaild->refusal = outcome == QLatin1String("refused") ? outcome : QString();
    m_sailjaild->holdsAllowed = outcome == QLatin1String("release");
    auto *owner = new QObject;
    QPointer<TestedLaunch> launch = make({ m_recorder }, owner);
    launch->onPrepare = [launch] {
        launch->promptPermissions([launch](const QStringList &) { launch->stepDone(); });
        return true;
    };
    launch->onReport = [owner] {
        delete owner;
    };
    const pid_t pid = launch->start();
    if (outcome == QLatin1String("setup")) {
        killChild(pid);
        waitForChild(pid);
    } else if (outcome == QLatin1String("release")) {
        QTRY_COMPARE(launch->pendingSteps, 1);
        QTRY_COMPARE(m_sailjaild->askedAllowed().size(), 1);
        killChild(pid);
        waitForChild(pid);
        m_sailjaild->answerAllowed();
    }
    QTRY_COMPARE(TestedLaunch::reports.size(), 1);
    QVERIFY(!launch);
    ::waitpid(pid, nullptr, 0);
}

QTEST_GUILESS_MAIN(TestLaunchingApplication)
#include "tst_launching_application.moc"
