#include "Core/chronicle.h"

#include "Core/error.h"
#include "Core/runtime_controller.h"
#include "support/private_bus.h"

#include <QtTest>

#include <csignal>

using namespace Core;
using namespace TestSupport;

namespace {

constexpr int pid = 4711;
const QString sample = QStringLiteral("org.example.Sample");

Requestor application(const char *id)
{
    Requestor requestor;
    requestor.id = QString::fromLatin1(id);
    return requestor;
}

constexpr int exited(int status)
{
    return status << 8; // as in the status word of waitpid(2)
}

} // namespace

// What is remembered of launches and ends. The controller's signals are emitted by hand.
class TestChronicle : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void namesAreThoseOnTheBus();
    void stepsAreTakenOnce();
    void eachRunKeepsItsLaunch();
    void launchIsOfOneRunOnly();
    void launchesOfOneApplicationAreToldApart();
    void taskHasItsLaunch();
    void failedLaunchIsAnEnd();
    void failedTaskIsAnEnd();
    void longTextsAreCut_data();
    void longTextsAreCut();
    void verdictStands_data();
    void verdictStands();
    void verdictGoesWithTheEnd();
    void whatDoesNotRunCannotBeDecided();
    void requestorNeedsADecision();
    void firstWhoAskedStands();
    void requestorMayBecomeKnownLater();
    void whatNobodyAskedForHasNoRequestor();
    void whoIsAskedAbout_data();
    void whoIsAskedAbout();
    void onlyTheLastOnesAreKept();
    void othersEndsAreKeptFromOneApplication();
    void othersEndsAreKeptFromStrangers();
    void oldLaunchesAreForgotten();
    void launchesAreKeptFromStrangers();

private:
    void start(const QString &id)
    {
        if (id.contains(QLatin1String(".task_"))) {
            emit m_controller->taskStarted(id, pid, InvocationContext());
            return;
        }
        ApplicationRecord record;
        record.id = id;
        record.pid = pid;
        emit m_controller->applicationStarted(record);
    }
    void end(const QString &id, int status, StopReason reason = StopReason::None)
    {
        if (id.contains(QLatin1String(".task_"))) {
            emit m_controller->taskTerminated(id, pid, status, reason);
        } else {
            emit m_controller->applicationTerminated(id, pid, status, reason);
        }
    }

    /// Starts of @p count ids that nobody has.
    void failToStart(int count)
    {
        for (int number = 0; number < count; ++number) {
            const auto launch = m_chronicle->launchAsked(QStringLiteral("org.example.Gone%1").arg(number));
            m_chronicle->launchFailed(launch, Error(Error::HandlerNotFound, QStringLiteral("unknown")));
        }
    }

    PrivateBus m_bus;
    RuntimeController *m_controller = nullptr;
    std::unique_ptr<Chronicle> m_chronicle;
};

void TestChronicle::initTestCase()
{
    m_bus.useAsSessionBus();
    m_bus.useAsSystemBus();
    m_controller = RuntimeController::instance();
}

void TestChronicle::init()
{
    m_chronicle = std::make_unique<Chronicle>();
    m_chronicle->follow(m_controller, nullptr);
}

void TestChronicle::namesAreThoseOnTheBus()
{
    QStringList steps;
    for (int step = 0; step <= int(LaunchStep::FirstWindow); ++step) {
        steps.append(launchStepName(LaunchStep(step)));
    }
    QCOMPARE(steps.join(QLatin1Char(' ')),
             QStringLiteral("Asked Allowed Prompted Granted Prepared Spawned SetUp Grouped Released NameSeen "
                            "FirstWindow"));
    QStringList decisions;
    for (int decision = 0; decision <= int(Decision::LaunchFailed); ++decision) {
        decisions.append(decisionName(Decision(decision)));
    }
    QCOMPARE(decisions.join(QLatin1Char(' ')),
             QStringLiteral("exited crashed requested closed early-oom time-limit stopped launch-failed"));
}

void TestChronicle::stepsAreTakenOnce()
{
    QVERIFY(!m_chronicle->launchUnderWay(sample));
    QVERIFY(m_chronicle->lastLaunch(sample).asked.isNull());

    const auto launch = m_chronicle->launchAsked(sample);
    launch->pass(LaunchStep::Spawned);
    const LaunchAccount first = m_chronicle->lastLaunch(sample);
    QCOMPARE(first.stepsMs.keys(), QList<LaunchStep> { LaunchStep::Spawned });
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 3) { } // without the event loop, in which the controller finds no helper
    launch->pass(LaunchStep::Spawned);
    QCOMPARE(m_chronicle->lastLaunch(sample).stepsMs, first.stepsMs);

    m_chronicle->launchAsked(sample);
    QVERIFY(m_chronicle->lastLaunch(sample).stepsMs.isEmpty());
}

/// The window of one instance is not the first one of another that is being launched.
void TestChronicle::eachRunKeepsItsLaunch()
{
    const QString first = sample + QStringLiteral(".instance_1");
    const QString second = sample + QStringLiteral(".instance_2");
    m_chronicle->launchAsked(sample)->pass(LaunchStep::Spawned);
    start(first);
    m_chronicle->launchAsked(sample);
    emit m_controller->applicationStateChanged(first, ApplicationState::Active);
    QVERIFY(m_chronicle->lastLaunch(sample).stepsMs.isEmpty());
    QCOMPARE(m_chronicle->launchOf(first).stepsMs.keys(),
             (QList<LaunchStep> { LaunchStep::Spawned, LaunchStep::FirstWindow }));

    start(second);
    emit m_controller->applicationStateChanged(second, ApplicationState::Terminating);
    QVERIFY(m_chronicle->launchOf(second).stepsMs.isEmpty()); // its last window has gone, not come
    emit m_controller->applicationStateChanged(second, ApplicationState::Hidden);
    QCOMPARE(m_chronicle->lastLaunch(sample).stepsMs.keys(), QList<LaunchStep> { LaunchStep::FirstWindow });
    end(first, exited(0));
    QCOMPARE(m_chronicle->endings(first).first().launch.stepsMs.size(), 2);
    QVERIFY(m_chronicle->launchOf(first).asked.isNull());
    end(second, exited(0));
    QCOMPARE(m_chronicle->endings(second).first().launch.stepsMs.size(), 1);
}

void TestChronicle::launchIsOfOneRunOnly()
{
    m_chronicle->launchAsked(sample);
    start(sample);
    end(sample, exited(0));
    QVERIFY(m_chronicle->endings().first().launch.asked.isValid());
    start(sample); // by whatever way
    QVERIFY(m_chronicle->launchOf(sample).asked.isNull());
    end(sample, exited(0));
    QVERIFY(m_chronicle->endings().first().launch.asked.isNull());
    start(sample + QStringLiteral(".task_sync"));
    QVERIFY(m_chronicle->launchOf(sample + QStringLiteral(".task_sync")).asked.isNull());
}

/// The first one asked for is the last one to run.
void TestChronicle::launchesOfOneApplicationAreToldApart()
{
    const auto slow = m_chronicle->launchAsked(sample);
    QCOMPARE(m_chronicle->launchUnderWay(sample), slow);
    const auto fast = m_chronicle->launchAsked(sample);
    QCOMPARE(m_chronicle->launchUnderWay(sample), fast);
    QVERIFY(!m_chronicle->launchUnderWay(QStringLiteral("org.example.Other")));
    const QString first = sample + QStringLiteral(".instance_1");
    const QString second = sample + QStringLiteral(".instance_2");

    slow->pass(LaunchStep::Prompted);
    m_chronicle->launchGoesOn(fast);
    start(first);
    m_chronicle->launchGoesOn(slow);
    start(second);
    QVERIFY(m_chronicle->launchOf(first).stepsMs.isEmpty());
    QCOMPARE(m_chronicle->launchOf(second).stepsMs.keys(), QList<LaunchStep> { LaunchStep::Prompted });
    QVERIFY(m_chronicle->lastLaunch(sample).stepsMs.isEmpty()); // the one that was asked for last
}

void TestChronicle::taskHasItsLaunch()
{
    const QString task = sample + QStringLiteral(".task_sync");
    m_chronicle->launchAsked(task)->pass(LaunchStep::Spawned);
    start(task);
    QCOMPARE(m_chronicle->launchOf(task).stepsMs.keys(), QList<LaunchStep> { LaunchStep::Spawned });
    QCOMPARE(m_chronicle->lastLaunch(task).stepsMs.size(), 1);
    QVERIFY(m_chronicle->lastLaunch(sample).asked.isNull());
    end(task, exited(0));
    QCOMPARE(m_chronicle->endings(task).first().launch.stepsMs.size(), 1);
    // That of an application is none of its tasks'.
    m_chronicle->launchAsked(sample);
    start(task);
    QVERIFY(m_chronicle->launchOf(task).asked.isNull());
}

void TestChronicle::failedLaunchIsAnEnd()
{
    m_chronicle->launchFailed(m_chronicle->launchAsked(sample),
                              Error(Error::AccessDenied, QStringLiteral("no")));
    QCOMPARE(m_chronicle->lastLaunch(sample).failedAt, QStringLiteral("Asked"));

    const auto failed = m_chronicle->launchAsked(sample);
    failed->pass(LaunchStep::Grouped);
    failed->pass(LaunchStep::Allowed);
    failed->fail(LaunchStep::Granted);
    failed->fail(LaunchStep::Released); // as a consequence
    m_chronicle->launchFailed(failed, Error(Error::Failed, QStringLiteral("broken")));
    failed->pass(LaunchStep::Granted); // an answer that comes too late
    const LaunchAccount launch = m_chronicle->lastLaunch(sample);
    QCOMPARE(launch.stepsMs.keys(), (QList<LaunchStep> { LaunchStep::Allowed, LaunchStep::Grouped }));
    QCOMPARE(launch.failedAt, QStringLiteral("Granted"));
    QCOMPARE(launch.error, QStringLiteral("broken"));

    const auto endings = m_chronicle->endings(sample);
    QCOMPARE(endings.size(), 2);
    QCOMPARE(endings.first().decision, Decision::LaunchFailed);
    QCOMPARE(endings.first().detail, QStringLiteral("at \"Granted\": broken"));
    QVERIFY(endings.first().pid < 0);
    QVERIFY(!endings.first().isTask);
    QCOMPARE(endings.first().launch.failedAt, QStringLiteral("Granted"));
    QCOMPARE(endings.last().launch.failedAt, QStringLiteral("Asked"));
}

void TestChronicle::failedTaskIsAnEnd()
{
    const QString task = sample + QStringLiteral(".task_sync");
    const auto launch = m_chronicle->launchAsked(task);
    launch->fail(LaunchStep::Prepared);
    m_chronicle->launchFailed(launch, Error(Error::SpawnFailed, QStringLiteral("broken")));
    const auto endings = m_chronicle->endings(sample); // among those of its application
    QCOMPARE(endings.size(), 1);
    QCOMPARE(endings.first().id, task);
    QVERIFY(endings.first().isTask);
    QCOMPARE(endings.first().detail, QStringLiteral("at \"Prepared\": broken"));
}

void TestChronicle::longTextsAreCut_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("idLength");
    QTest::addColumn<int>("errorLength");

    const auto letters = [](int count) {
        return QString(count, QLatin1Char('x'));
    };
    const QString face = QString::fromUtf8("\xf0\x9f\x99\x82"); // two units
    QTest::newRow("short") << letters(511) << 511 << 511;
    QTest::newRow("longest id") << letters(512) << 512 << 512;
    QTest::newRow("longer than an id") << letters(513) << 512 << 513;
    QTest::newRow("longest error") << letters(1000) << 512 << 1000;
    QTest::newRow("longer than an error") << letters(1001) << 512 << 1000;
    QTest::newRow("huge") << letters(10000000) << 512 << 1000;
    QTest::newRow("nothing is cut in two")
        << letters(510) + face + letters(486) + face + letters(9) << 511 << 999;
}

/// What a stranger asks for, and what is said about it, may be as long as a message of the bus.
void TestChronicle::longTextsAreCut()
{
    QFETCH(QString, text);
    QFETCH(int, idLength);
    QFETCH(int, errorLength);
    const auto launch = m_chronicle->launchAsked(text);
    m_chronicle->launchFailed(launch, Error(Error::Failed, text));

    const Ending ending = m_chronicle->endings().first();
    const auto verifyCut = [&text](const QString &kept, int length) {
        QCOMPARE(kept.size(), length);
        QVERIFY(kept == text || (kept.endsWith(QChar(0x2026)) && text.startsWith(kept.chopped(1))));
        QVERIFY(!kept.contains(QChar::ReplacementCharacter));
        QCOMPARE(QString::fromUtf8(kept.toUtf8()), kept);
    };
    verifyCut(ending.id, idLength);
    verifyCut(ending.launch.error, errorLength);
    QCOMPARE(ending.detail, QStringLiteral("at \"Asked\": ") + ending.launch.error);
    QVERIFY(ending.detail.size() <= Chronicle::maximumDetailLength);
    QCOMPARE(m_chronicle->lastLaunch(launch->id).error, ending.launch.error);

    start(sample);
    m_chronicle->decide(sample, Decision::Requested, text);
    end(sample, exited(0));
    QVERIFY(m_chronicle->endings().first().detail.size() <= Chronicle::maximumDetailLength);
}

void TestChronicle::verdictStands_data()
{
    QTest::addColumn<QList<int>>("decisions");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("decided");
    QTest::addColumn<QString>("detail");

    const auto list = [](std::initializer_list<Decision> decisions) {
        QList<int> numbers;
        for (const Decision decision : decisions) {
            numbers.append(int(decision));
        }
        return numbers;
    };
    QTest::newRow("by itself") << list({}) << exited(0) << "exited"
                               << "exit status 0";
    QTest::newRow("with a failure") << list({}) << exited(9) << "exited"
                                    << "exit status 9";
    QTest::newRow("crash") << list({}) << SIGSEGV << "crashed"
                           << "signal 11 (SIGSEGV)";
    QTest::newRow("crash with a core") << list({}) << (SIGABRT | 0x80) << "crashed"
                                       << "signal 6 (SIGABRT)";
    QTest::newRow("requested") << list({ Decision::Requested }) << SIGTERM << "requested"
                               << "why 2; signal 15 (SIGTERM)";
    QTest::newRow("the first stands")
        << list({ Decision::Closed, Decision::Requested }) << SIGKILL << "closed"
        << "why 3; signal 9 (SIGKILL)";
    QTest::newRow("a kill goes before")
        << list({ Decision::Closed, Decision::EarlyOom }) << SIGKILL << "early-oom"
        << "why 4; signal 9 (SIGKILL)";
}

void TestChronicle::verdictStands()
{
    QFETCH(QList<int>, decisions);
    QFETCH(int, status);
    QFETCH(QString, decided);
    QFETCH(QString, detail);

    start(sample);
    for (const int decision : decisions) {
        m_chronicle->decide(sample, Decision(decision), QStringLiteral("why %1").arg(decision));
    }
    end(sample, status, StopReason::Requested);
    const Ending ending = m_chronicle->endings().value(0);
    QCOMPARE(ending.id, sample);
    QCOMPARE(decisionName(ending.decision), decided);
    QCOMPARE(ending.detail, detail);
    QCOMPARE(ending.pid, pid);
    QCOMPARE(ending.exitStatus, status);
    QCOMPARE(ending.stopReason, StopReason::Requested);
    QVERIFY(ending.started <= ending.ended);
}

void TestChronicle::verdictGoesWithTheEnd()
{
    start(sample);
    QVERIFY(!m_chronicle->runsSince(sample).isNull());
    m_chronicle->decide(sample, Decision::Requested);
    end(sample, exited(0));
    QVERIFY(m_chronicle->runsSince(sample).isNull());
    start(sample);
    end(sample, exited(0));
    QCOMPARE(m_chronicle->endings().first().decision, Decision::Exited);
}

void TestChronicle::whatDoesNotRunCannotBeDecided()
{
    m_chronicle->decide(sample, Decision::Requested);
    start(sample);
    end(sample, exited(0));
    QCOMPARE(m_chronicle->endings().first().decision, Decision::Exited);
}

void TestChronicle::requestorNeedsADecision()
{
    start(sample);
    m_chronicle->requestedBy(sample, application("org.example.Early"));
    m_chronicle->decide(sample, Decision::Requested);
    m_chronicle->requestedBy(sample, application("org.example.First"));
    m_chronicle->requestedBy(sample, application("org.example.Second"));
    end(sample, exited(0));
    QCOMPARE(m_chronicle->endings().first().requestor->id, QStringLiteral("org.example.First"));
}

void TestChronicle::firstWhoAskedStands()
{
    // Nobody of the service's own, say the user by the task switcher.
    Requestor stranger;
    stranger.bus = QStringLiteral("session");
    start(sample);
    m_chronicle->decide(sample, Decision::Stopped);
    m_chronicle->requestedBy(sample, stranger);
    m_chronicle->requestedBy(sample, application("org.example.Late"));
    end(sample, exited(0));
    QCOMPARE(m_chronicle->endings().first().requestor->id, QString());
    QCOMPARE(m_chronicle->endings().first().requestor->bus, QStringLiteral("session"));
}

/// One request may end many, and they may be gone before it is known whose it was.
void TestChronicle::requestorMayBecomeKnownLater()
{
    const QString task = sample + QStringLiteral(".task_sync");
    const QString other = QStringLiteral("org.example.Other");
    const QString closed = sample + QStringLiteral(".instance_1");
    const auto requestor = std::make_shared<Requestor>();
    for (const QString &id : { sample, task, other, closed }) {
        start(id);
        m_chronicle->decide(id, id == closed ? Decision::Closed : Decision::Requested);
    }
    m_chronicle->allRequestedBy(sample, requestor);
    for (const QString &id : { sample, task, other, closed }) {
        end(id, exited(0));
    }
    requestor->pid = 7;
    for (const QString &id : { sample, task }) {
        QCOMPARE(m_chronicle->endings(id).last().requestor->pid, 7);
    }
    for (const QString &id : { other, closed }) {
        QVERIFY(!m_chronicle->endings(id).first().requestor);
    }
}

void TestChronicle::whatNobodyAskedForHasNoRequestor()
{
    for (const Decision decision : { Decision::Closed, Decision::EarlyOom, Decision::TimeLimit }) {
        start(sample);
        m_chronicle->decide(sample, decision);
        m_chronicle->requestedBy(sample, application("org.example.Late"));
        end(sample, exited(0));
        QCOMPARE(m_chronicle->endings().first().decision, decision);
        QVERIFY(!m_chronicle->endings().first().requestor);
    }
}

void TestChronicle::whoIsAskedAbout_data()
{
    QTest::addColumn<QString>("id");
    QTest::addColumn<int>("limit");
    QTest::addColumn<QString>("found");

    QTest::newRow("all") << "" << 0 << "o s2 t s1 s";
    QTest::newRow("all, limited") << "" << 2 << "o s2";
    QTest::newRow("application") << sample << 0 << "s2 t s1 s";
    QTest::newRow("application, limited") << sample << 3 << "s2 t s1";
    QTest::newRow("instance") << sample + QStringLiteral(".instance_1") << 0 << "s1";
    QTest::newRow("task") << sample + QStringLiteral(".task_sync") << 0 << "t";
    QTest::newRow("prefix") << "org.example.Sam" << 0 << "";
}

void TestChronicle::whoIsAskedAbout()
{
    QFETCH(QString, id);
    QFETCH(int, limit);
    const QMap<QString, QString> names {
        { sample, QStringLiteral("s") },
        { sample + QStringLiteral(".instance_1"), QStringLiteral("s1") },
        { sample + QStringLiteral(".task_sync"), QStringLiteral("t") },
        { sample + QStringLiteral(".instance_2"), QStringLiteral("s2") },
        { QStringLiteral("org.example.Sample2"), QStringLiteral("o") },
    };
    for (const char *name : { "s", "s1", "t", "s2", "o" }) {
        const QString full = names.key(QLatin1String(name));
        start(full);
        end(full, exited(0));
    }
    QStringList found;
    for (const Ending &ending : m_chronicle->endings(id, limit)) {
        found.append(names.value(ending.id));
        QCOMPARE(ending.isTask, names.value(ending.id) == QLatin1String("t"));
    }
    QTEST(found.join(QLatin1Char(' ')), "found");
}

void TestChronicle::onlyTheLastOnesAreKept()
{
    for (int number = 0; number < Chronicle::maximumEndings + 5; ++number) {
        start(sample);
        end(sample, exited(number & 0x7f));
    }
    const auto endings = m_chronicle->endings();
    QCOMPARE(endings.size(), 200);
    QCOMPARE(endings.first().exitStatus, exited((Chronicle::maximumEndings + 4) & 0x7f));
    QCOMPARE(endings.last().exitStatus, exited(5));
}

/// What starts and fails in a loop must not hide why others ended.
void TestChronicle::othersEndsAreKeptFromOneApplication()
{
    const QString other = QStringLiteral("org.example.Other");
    const QString task = other + QStringLiteral(".task_sync");
    const QString instance = sample + QStringLiteral(".instance_1");
    for (const QString &id : { other, task }) {
        start(id);
        end(id, exited(0));
    }
    for (int number = 0; number < 2 * Chronicle::maximumEndings; ++number) {
        const QString &id = number % 2 ? sample : instance; // which are of one application
        start(id);
        end(id, exited(number & 0x7f));
    }
    QCOMPARE(m_chronicle->endings().size(), 200);
    QCOMPARE(m_chronicle->endings(other).size(), 2);
    QCOMPARE(m_chronicle->endings().first().exitStatus, exited((2 * Chronicle::maximumEndings - 1) & 0x7f));
    QCOMPARE(m_chronicle->endings().at(197).exitStatus, exited((2 * Chronicle::maximumEndings - 198) & 0x7f));
}

/// Anybody may ask for anything, so that all that nobody has counts as one application.
void TestChronicle::othersEndsAreKeptFromStrangers()
{
    QStringList ids;
    for (int number = 0; number < 10; ++number) {
        ids.append(QStringLiteral("org.example.App%1").arg(number));
    }
    for (int number = 0; number < 150; ++number) {
        const QString &id = ids.at(number % 10);
        start(id);
        end(id, exited(0));
    }
    failToStart(3 * Chronicle::maximumEndings);
    QCOMPARE(m_chronicle->endings().size(), 200);
    for (const QString &id : qAsConst(ids)) {
        QCOMPARE(m_chronicle->endings(id).size(), 15);
    }
}

void TestChronicle::oldLaunchesAreForgotten()
{
    m_chronicle->launchAsked(sample);
    for (int number = 0; number < 600; ++number) {
        m_chronicle->launchAsked(QStringLiteral("org.example.App%1").arg(number));
    }
    QVERIFY(m_chronicle->lastLaunch(sample).asked.isNull());
    QVERIFY(!m_chronicle->lastLaunch(QStringLiteral("org.example.App599")).asked.isNull());
    QVERIFY(!m_chronicle->lastLaunch(QStringLiteral("org.example.App100")).asked.isNull());
}

void TestChronicle::launchesAreKeptFromStrangers()
{
    m_chronicle->launchAsked(sample)->pass(LaunchStep::Spawned);
    const auto failed = m_chronicle->launchAsked(QStringLiteral("org.example.Other"));
    failed->fail(LaunchStep::Granted);
    m_chronicle->launchFailed(failed, Error(Error::AccessDenied, QStringLiteral("no")));
    failToStart(600);
    QVERIFY(m_chronicle->lastLaunch(sample).asked.isValid());
    QCOMPARE(m_chronicle->lastLaunch(failed->id).failedAt, QStringLiteral("Granted"));
    QVERIFY(m_chronicle->lastLaunch(QStringLiteral("org.example.Gone0")).asked.isNull());
    QCOMPARE(m_chronicle->lastLaunch(QStringLiteral("org.example.Gone599")).error, QStringLiteral("unknown"));
}

QTEST_GUILESS_MAIN(TestChronicle)
#include "tst_chronicle.moc"
