// The early out-of-memory killer among very many, at the moment of an end, and where files cannot be read.

#include "early_oom_fixture.h"

#include "support/log_capture.h"

#include <QSet>
#include <QThread>

#include <algorithm>

#include <cerrno>

using Core::ApplicationId;
using Core::ApplicationInstanceId;
using Core::ApplicationState;
using Core::MemoryLevel;
using Core::MemoryMonitor;
using Core::RuntimeController;
using Core::StopReason;
using TestSupport::LogCapture;

namespace {

const QString one = QStringLiteral("org.example.One");
const QString two = QStringLiteral("org.example.Two");
const QString many = QStringLiteral("org.example.Many");

constexpr int crowd = 1000;

} // namespace

class tst_EarlyOomExtremes : public EarlyOomTest
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void oneOfAThousandIsKilled();
    void recordWhoseProcessesAreGoneIsOnlyWarnedAbout();
    void unreadableFilesOfARecordExcludeOnlyIt_data();
    void unreadableFilesOfARecordExcludeOnlyIt();
    void toldFiguresAreThoseOfTheMoment();
    void withoutFiguresTheLastOnesAreTold();

private:
    QStringList startMany(int count);
    void setAvailable(int kilobytes);
    static QStringList killLines(const LogCapture &log);
};

void tst_EarlyOomExtremes::initTestCase()
{
    m_runtime = std::make_unique<RuntimeFixture>();
    m_runtime->install(one);
    m_runtime->install(two);
    m_runtime->tree().write(
        QStringLiteral("usr/share/applications/%1.desktop").arg(many),
        "[Desktop Entry]\nType=Application\nName=Many\nExec=/bin/sleep 600\nX-Nemo-Single-Instance=no\n"
        "[X-Application]\nSandboxing=Disabled\nOrganizationName=org.example\nApplicationName=Many\n");
}

void tst_EarlyOomExtremes::init()
{
    m_runtime->configure("");
    makeController();
}

void tst_EarlyOomExtremes::cleanup()
{
    const LogCapture log;
    end();
}

/// What is available from now on; nobody looks yet.
void tst_EarlyOomExtremes::setAvailable(int kilobytes)
{
    m_runtime->tree().write(QStringLiteral("proc/meminfo"),
                            "MemTotal: 4000000 kB\nMemAvailable: " + QByteArray::number(kilobytes) + " kB\n");
}

QStringList tst_EarlyOomExtremes::killLines(const LogCapture &log)
{
    return log.warnings().filter(QStringLiteral("Early OOM: killing"));
}

/// Ids of instances of one process each, which all have scores of 0 and a group of their own. Some at a time,
/// since each start holds descriptors.
QStringList tst_EarlyOomExtremes::startMany(int count)
{
    QSignalSpy started(m_controller, &RuntimeController::applicationStarted);
    QStringList ids;
    for (int failed = 0; ids.size() < count && failed == 0;) {
        int pending = std::min(count - ids.size(), 50);
        for (int i = pending; i > 0; --i) {
            m_controller->startApplication(ApplicationId(many), {}, {}, {},
                                           [&](const ApplicationInstanceId &id, const Core::Error &error) {
                                               --pending;
                                               failed += error ? 1 : 0;
                                               ids.append(id.text());
                                           });
        }
        while (pending > 0) {
            if (!started.wait(60000)) {
                qFatal("the applications do not start");
            }
        }
    }
    for (const QString &id : qAsConst(ids)) {
        const pid_t pid = m_runtime->pidOf(id);
        const QByteArray group = "/procwarden/user-1/crowd/" + QByteArray::number(pid);
        m_runtime->setScores(pid, 0);
        m_runtime->tree().write(QStringLiteral("proc/%1/cgroup").arg(pid), "3:memory:" + group + '\n');
        m_runtime->tree().write(
            QStringLiteral("sys/fs/cgroup/memory%1/cgroup.procs").arg(QString::fromLatin1(group)),
            QByteArray::number(pid) + '\n');
    }
    return ids;
}

void tst_EarlyOomExtremes::oneOfAThousandIsKilled()
{
    LogCapture log;
    const QStringList ids = startMany(crowd);
    QCOMPARE(ids.size(), crowd);
    QCOMPARE(m_controller->runningApplications().size(), crowd);
    const QString offered = ids.at(617);
    const QString neverSeen = ids.at(333);
    m_runtime->setScores(m_runtime->pidOf(offered), 1);
    for (const QString &id : ids) {
        if (id != neverSeen) {
            m_controller->updateWindowStatus(ApplicationInstanceId(id), 1, 0, 0);
        }
    }

    log.clear();
    m_runtime->setLevel(MemoryLevel::Critical);
    QCOMPARE(m_selected->count(), 1);
    QCOMPARE(m_selected->at(0).at(0).toString(), offered);
    QCOMPARE(killLines(log).size(), 1);
    QVERIFY(killLines(log).first().endsWith(QStringLiteral("chosen by oom_score_adj")));
    QTRY_COMPARE(m_ended->count(), 1);
    pass();
    QTRY_COMPARE(m_ended->count(), 2);
    QCOMPARE(m_ended->at(0).at(0).toString(), offered);
    QCOMPARE(m_ended->at(1).at(0).toString(), neverSeen);
    QCOMPARE(m_controller->runningApplications().size(), crowd - 2);

    // Half of them cannot be read: that is said of each, and the others are chosen from.
    QSet<QString> readable;
    for (int i = 0; i < crowd; ++i) {
        if (i % 2 == 0) {
            m_runtime->removeScores(m_runtime->pidOf(ids.at(i)));
        } else if (ids.at(i) != offered && ids.at(i) != neverSeen) {
            readable.insert(ids.at(i));
        }
    }
    log.clear();
    pass();
    QCOMPARE(log.warnings().filter(QStringLiteral("Failed to read process score, excluding")).size(),
             crowd - 2 - readable.size());
    QTRY_COMPARE(m_ended->count(), 3);
    QVERIFY(readable.contains(m_ended->at(2).at(0).toString()));
}

void tst_EarlyOomExtremes::recordWhoseProcessesAreGoneIsOnlyWarnedAbout()
{
    const QString gone = startMany(1).value(0);
    const pid_t pid = m_runtime->pidOf(gone);
    QVERIFY(pid > 1);
    QVERIFY(m_runtime->start(two) > 0);
    m_runtime->setScores(pid, 500);
    // The thread that waits for children takes it from the kernel; that it has ended is still to be told,
    // since no events are handled here.
    RuntimeFixture::killGroup(pid);
    QElapsedTimer timer;
    timer.start();
    while ((::kill(-pid, 0) == 0 || errno != ESRCH) && timer.elapsed() < 20000) {
        QThread::msleep(1);
    }
    QCOMPARE(::kill(-pid, 0), -1);
    QCOMPARE(m_controller->state(gone), ApplicationState::Launched);

    const LogCapture log;
    m_runtime->setLevel(MemoryLevel::Critical);
    QCOMPARE(killLines(log).size(), 1);
    QCOMPARE(log.warnings().filter(QStringLiteral("Cannot kill")),
             QStringList(QStringLiteral("Cannot kill \"%1\" - errno: %2").arg(gone).arg(ESRCH)));
    QCOMPARE(m_selected->count(), 1);
    QCOMPARE(m_controller->state(gone), ApplicationState::Inactive);
    QCOMPARE(m_controller->state(two), ApplicationState::Launched);

    // The end that was on its way is told as ever, and the next pass has the other one.
    QTRY_COMPARE(m_ended->count(), 1);
    QCOMPARE(m_ended->at(0).at(0).toString(), gone);
    QCOMPARE(m_ended->at(0).at(3).value<StopReason>(), StopReason::OomKilled);
    pass();
    QTRY_COMPARE(m_ended->count(), 2);
    QCOMPARE(m_ended->at(1).at(0).toString(), two);
}

void tst_EarlyOomExtremes::unreadableFilesOfARecordExcludeOnlyIt_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("target");

    // What can be opened, and fails when it is read, as a file of a process that ends in between does.
    const QString unreadable = QStringLiteral("/proc/self/mem");
    QTest::newRow("reading the score fails") << QStringLiteral("oom_score") << unreadable;
    QTest::newRow("reading the adjustment fails") << QStringLiteral("oom_score_adj") << unreadable;
    QTest::newRow("score is a directory") << QStringLiteral("oom_score") << QStringLiteral("/proc");
    QTest::newRow("adjustment never ends") << QStringLiteral("oom_score_adj") << QStringLiteral("/dev/zero");
}

void tst_EarlyOomExtremes::unreadableFilesOfARecordExcludeOnlyIt()
{
    QFETCH(QString, file);
    QFETCH(QString, target);
    const pid_t pid = m_runtime->start(one);
    QVERIFY(pid > 0);
    QVERIFY(m_runtime->start(two) > 0);
    m_runtime->setScores(pid, 900);
    const QString path = QStringLiteral("proc/%1/%2").arg(pid).arg(file);
    QVERIFY(QFile::remove(m_runtime->tree().path(path)));
    m_runtime->tree().link(path, target);

    const LogCapture log;
    m_runtime->setLevel(MemoryLevel::Critical);
    QVERIFY(
        log.warnings().contains(QStringLiteral("Failed to read process score, excluding \"%1\"").arg(one)));
    QTRY_COMPARE(m_ended->count(), 1);
    QCOMPARE(m_ended->at(0).at(0).toString(), two);
    QFile::remove(m_runtime->tree().path(path));
}

void tst_EarlyOomExtremes::toldFiguresAreThoseOfTheMoment()
{
    QVERIFY(m_runtime->start(one) > 0);
    QVERIFY(m_runtime->start(two) > 0);
    LogCapture log;
    m_runtime->setLevel(MemoryLevel::Critical);
    QTRY_COMPARE(m_ended->count(), 1);
    QCOMPARE(killLines(log).size(), 1);
    QVERIFY(killLines(log).first().contains(QStringLiteral("memory is Critical, 51200 kB of 4000000 kB")));

    setAvailable(90000);
    log.clear();
    pass();
    QTRY_COMPARE(m_ended->count(), 2);
    QCOMPARE(killLines(log).size(), 1);
    QVERIFY(killLines(log).first().contains(QStringLiteral("memory is Critical, 90000 kB of 4000000 kB")));
    QCOMPARE(MemoryMonitor::instance()->reading().availableKb, 51200); // it has not looked again
}

void tst_EarlyOomExtremes::withoutFiguresTheLastOnesAreTold()
{
    QVERIFY(m_runtime->start(one) > 0);
    QVERIFY(m_runtime->start(two) > 0);
    m_runtime->setLevel(MemoryLevel::Critical);
    QTRY_COMPARE(m_ended->count(), 1);

    QFile::remove(m_runtime->tree().path(QStringLiteral("proc/meminfo")));
    const LogCapture log;
    pass();
    QTRY_COMPARE(m_ended->count(), 2);
    QCOMPARE(killLines(log).size(), 1);
    QVERIFY(killLines(log).first().contains(QStringLiteral("memory is Critical, 51200 kB of 4000000 kB")));
}

QTEST_GUILESS_MAIN(tst_EarlyOomExtremes)
#include "tst_early_oom_extremes.moc"
