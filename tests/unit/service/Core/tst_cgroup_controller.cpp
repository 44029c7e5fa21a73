#include "Core/cgroup_controller.h"

#include "Core/application_instance_id.h"
#include "Core/application_task_id.h"
#include "cgroup_controller_fixture.h"
#include "support/log_capture.h"

#include <QDir>
#include <QFileInfo>
#include <QSignalSpy>
#include <QTest>

#include <unistd.h>

using Core::ApplicationInstanceId;
using Core::ApplicationTaskId;
using Core::CGroupController;
using TestSupport::LogCapture;

namespace {

ApplicationInstanceId instance(const char *text)
{
    return ApplicationInstanceId(QString::fromUtf8(text));
}

ApplicationTaskId task(const char *text)
{
    return ApplicationTaskId(QString::fromUtf8(text));
}

} // namespace

class CGroupControllerTest : public CGroupTest
{
    Q_OBJECT

private slots:
    void init() { begin(); }
    void cleanup() { end(); }

    void asksForTheOwnUserWithoutWaiting();
    void nothingIsDoneBeforeTheHelperHasAnswered();
    void linesWithoutAUsableControllerAddNothing();
    void hierarchyWithoutTheSubtreeIsLeftOut();
    void linkedControllersAreOneHierarchy();

    void directoryOfAnApplication_data();
    void directoryOfAnApplication();
    void placingStopsAtTheFirstDirectoryThatCannotBeMade();
    void placingStopsAtTheFirstFileThatCannotBeWritten();
    void processThatIsNoneIsNotPlaced_data();
    void processThatIsNoneIsNotPlaced();
    void invalidInstanceTouchesNothing_data();
    void invalidInstanceTouchesNothing();
    void directoryOfATask();
    void settingsOfATaskAreNotWrittenIfPlacingFails();
    void settingsOfATaskThatFailAreReported();
    void invalidTaskTouchesNothing_data();
    void invalidTaskTouchesNothing();

private:
    QStringList everythingMade() const;
};

/// What is below the subtree of any hierarchy, relative to the directory of the hierarchies.
QStringList CGroupControllerTest::everythingMade() const
{
    QStringList found;
    QStringList pending;
    const QStringList hierarchies =
        QDir(m_tree->hierarchies()).entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks);
    for (const QString &hierarchy : hierarchies) {
        pending << hierarchy + subtree;
    }
    while (!pending.isEmpty()) {
        const QString directory = pending.takeFirst();
        const QFileInfoList entries =
            QDir(m_tree->group(directory))
                .entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
        for (const QFileInfo &entry : entries) {
            const QString path = directory + QLatin1Char('/') + entry.fileName();
            found << path;
            if (entry.isDir() && !entry.isSymLink()) {
                pending << path;
            }
        }
    }
    found.sort();
    return found;
}

void CGroupControllerTest::asksForTheOwnUserWithoutWaiting()
{
    makeController();
    QSignalSpy done(m_controller.get(), &CGroupController::initializationDone);
    QVERIFY(m_standIn->calls.isEmpty());
    QVERIFY(done.wait(patienceMs));
    QCOMPARE(m_standIn->calls.size(), 1);
    QCOMPARE(m_standIn->calls.first().signature(), QStringLiteral("u"));
    QCOMPARE(m_standIn->calls.first().arguments(), QVariantList { uint(::getuid()) });
    QCOMPARE(done.size(), 1);
}

void CGroupControllerTest::nothingIsDoneBeforeTheHelperHasAnswered()
{
    makeController();
    m_controller->registerState(QStringLiteral("active"), { { "cpu.shares", "1" } });

    const LogCapture log;
    QVERIFY(!m_controller->setupApplication(instance("org.example.App"), 1234));
    QVERIFY(!m_controller->setupTask(task("org.example.App.task_Sync"), 1234, {}));
    QVERIFY(!m_controller->applyState(instance("org.example.App"), QStringLiteral("active")));
    m_controller->removeApplication(instance("org.example.App"));
    const QString warning = QStringLiteral("Failed to created cgroup dir in \"%1\"")
                                .arg(m_tree->group(QStringLiteral("freezer")));
    QCOMPARE(log.messages(), QStringList({ warning, warning }));
    QCOMPARE(
        QDir(m_tree->group(QStringLiteral("freezer"))).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
        QStringList(QStringLiteral("procwarden")));
    QCOMPARE(everythingMade(), QStringList());
}

void CGroupControllerTest::linesWithoutAUsableControllerAddNothing()
{
    QVERIFY(
        start("6:schedtune:/\n5:schedtune,cpuacct:/\n1:name=systemd:/x\n" + usualGroups + "0::/user.slice\n",
              usualHierarchies
                  + QStringList({ QStringLiteral("schedtune"), QStringLiteral("cpuacct"),
                                  QStringLiteral("name=systemd"), QStringLiteral("systemd") })));
    QVERIFY(m_controller->setupApplication(instance("org.example.App"), 1234));
    // "schedtune" is left out only where it is all that the field holds.
    for (const char *used : { "freezer", "cpu", "memory", "cpuacct", "schedtune" }) {
        QCOMPARE(m_tree->read(inGroup(used, "org.example.App/app/cgroup.procs")), QByteArray("1234"));
    }
    QCOMPARE(everythingMade().filter(QStringLiteral("systemd")), QStringList());

    m_controller.reset();
    makeTree();
    QVERIFY(start("6:schedtune:/\n  3:freezer,,cpu,:/ \r\n1:memory:/\n",
                  usualHierarchies + QStringList(QStringLiteral("schedtune"))));
    QVERIFY(m_controller->setupApplication(instance("org.example.App"), 1234));
    QCOMPARE(everythingMade().filter(QStringLiteral("cgroup.procs")).size(), 3);
    QCOMPARE(everythingMade().filter(QStringLiteral("schedtune")), QStringList());
}

void CGroupControllerTest::hierarchyWithoutTheSubtreeIsLeftOut()
{
    m_tree->addHierarchies({ QStringLiteral("cpuset"), QStringLiteral("devices") });
    QVERIFY(start("9:cpuset:/\n8:devices:/\n7:pids:/\n" + usualGroups));
    QVERIFY(m_controller->setupApplication(instance("org.example.App"), 1234));
    QVERIFY(QDir(m_tree->group(QStringLiteral("cpuset"))).isEmpty());
    QVERIFY(QDir(m_tree->group(QStringLiteral("devices"))).isEmpty());
    QVERIFY(!QFileInfo::exists(m_tree->group(QStringLiteral("pids"))));
}

void CGroupControllerTest::linkedControllersAreOneHierarchy()
{
    m_tree->link(QStringLiteral("sys/fs/cgroup/cpu"), QStringLiteral("cpu,cpuacct"));
    m_tree->link(QStringLiteral("sys/fs/cgroup/cpuacct"), QStringLiteral("cpu,cpuacct"));
    QVERIFY(start("4:cpu,cpuacct:/\n3:freezer:/\n1:memory:/\n",
                  { QStringLiteral("cpu,cpuacct"), QStringLiteral("freezer"), QStringLiteral("memory") }));
    // Each write that fails is told with the directory that it went to: one for the two controllers.
    m_tree->makeDirectory(QStringLiteral("sys/fs/cgroup/cpu,cpuacct") + subtree
                          + QStringLiteral("/org.example.App/app/cgroup.procs"));
    {
        const LogCapture log;
        QVERIFY(!m_controller->setupApplication(instance("org.example.App"), 1234));
        QCOMPARE(
            log.messages(),
            QStringList(QStringLiteral("Failed to add PID to cgroup \"%1\"")
                            .arg(m_tree->group(inGroup("cpu,cpuacct", "org.example.App/app/cgroup.procs")))));
    }
    {
        const LogCapture log;
        m_controller->removeApplication(instance("org.example.App"));
        QCOMPARE(log.messages(), QStringList(QStringLiteral("Cannot remove cgroup for \"org.example.App\"")));
    }
    // A setting's name reaches it through the link.
    m_controller->registerState(QStringLiteral("active"),
                                { { "cpu.shares", "7" }, { "cpuacct.usage", "0" } });
    QVERIFY(m_controller->applyState(instance("org.example.App"), QStringLiteral("active")));
    QCOMPARE(m_tree->read(inGroup("cpu,cpuacct", "org.example.App/app/cpu.shares")), QByteArray("7"));
}

void CGroupControllerTest::directoryOfAnApplication_data()
{
    QTest::addColumn<QByteArray>("id");
    QTest::addColumn<QString>("directory");
    QTest::newRow("only instance") << QByteArray("org.example.App") << "org.example.App/app";
    QTest::newRow("instance") << QByteArray("org.example.App.instance_12") << "org.example.App/instance_12";
    // Its suffix has the form of an instance that has no number.
    QTest::newRow("instance without a number")
        << QByteArray("org.example.App.instance_") << "org.example.App/instance_";
    QTest::newRow("name that looks like an instance")
        << QByteArray("org.example.App.instance_1x") << "org.example.App.instance_1x/app";
}

void CGroupControllerTest::directoryOfAnApplication()
{
    QFETCH(QByteArray, id);
    QFETCH(QString, directory);
    QVERIFY(start());
    QVERIFY(m_controller->setupApplication(instance(id.constData()), 4321));
    QStringList expected;
    for (const QString &hierarchy : usualHierarchies) {
        expected << inGroup(hierarchy, directory.section(QLatin1Char('/'), 0, 0))
                 << inGroup(hierarchy, directory)
                 << inGroup(hierarchy, directory + QStringLiteral("/cgroup.procs"));
        QCOMPARE(m_tree->read(expected.last()), QByteArray("4321"));
    }
    expected.sort();
    QCOMPARE(everythingMade(), expected);
    // It may be there already, as after a removal that failed.
    QVERIFY(m_controller->setupApplication(instance(id.constData()), 17));
    QCOMPARE(m_tree->read(inGroup(QStringLiteral("cpu"), directory + QStringLiteral("/cgroup.procs"))),
             QByteArray("17"));
    QCOMPARE(everythingMade(), expected);
}

void CGroupControllerTest::placingStopsAtTheFirstDirectoryThatCannotBeMade()
{
    QVERIFY(start());
    m_tree->write(QStringLiteral("sys/fs/cgroup/cpu") + subtree + QStringLiteral("/org.example.App"),
                  "a file");
    const LogCapture log;
    QVERIFY(!m_controller->setupApplication(instance("org.example.App"), 1234));
    QCOMPARE(log.messages(),
             QStringList(QStringLiteral("Failed to created cgroup dir in \"%1\"")
                             .arg(m_tree->group(QStringLiteral("cpu") + subtree))));
    // In the order in which the kernel names them: freezer, cpu, memory.
    QVERIFY(!m_tree->read(inGroup("freezer", "org.example.App/app/cgroup.procs")).isNull());
    QVERIFY(!QFileInfo::exists(m_tree->group(inGroup("memory", "org.example.App"))));
}

void CGroupControllerTest::placingStopsAtTheFirstFileThatCannotBeWritten()
{
    QVERIFY(start());
    m_tree->link(QStringLiteral("sys/fs/cgroup/cpu") + subtree
                     + QStringLiteral("/org.example.App/app/cgroup.procs"),
                 QStringLiteral("/dev/full"));
    const LogCapture log;
    QVERIFY(!m_controller->setupApplication(instance("org.example.App"), 1234));
    QCOMPARE(log.messages(),
             QStringList(QStringLiteral("Failed to add PID to cgroup \"%1\"")
                             .arg(m_tree->group(inGroup("cpu", "org.example.App/app/cgroup.procs")))));
    QVERIFY(!m_tree->read(inGroup("freezer", "org.example.App/app/cgroup.procs")).isNull());
    QVERIFY(!QFileInfo::exists(m_tree->group(inGroup("memory", "org.example.App"))));
}

void CGroupControllerTest::processThatIsNoneIsNotPlaced_data()
{
    QTest::addColumn<int>("pid");
    QTest::newRow("the writer itself") << 0;
    QTest::newRow("failed fork") << -1;
}

void CGroupControllerTest::processThatIsNoneIsNotPlaced()
{
    QFETCH(int, pid);
    QVERIFY(start());
    const LogCapture log;
    QVERIFY(!m_controller->setupApplication(instance("org.example.App"), pid));
    QCOMPARE(log.messages(),
             QStringList(QStringLiteral("Failed to add PID to cgroup \"%1\"")
                             .arg(m_tree->group(inGroup("freezer", "org.example.App/app/cgroup.procs")))));
    QCOMPARE(everythingMade().filter(QStringLiteral("cgroup.procs")), QStringList());
}

void CGroupControllerTest::invalidInstanceTouchesNothing_data()
{
    QTest::addColumn<QString>("id");
    QTest::newRow("empty") << "";
    QTest::newRow("no organisation") << "App";
    QTest::newRow("path") << "../../../../tmp/org.example.App";
    QTest::newRow("absolute path") << "/tmp/x.App";
    QTest::newRow("path with an instance") << "../x.App.instance_1";
    QTest::newRow("huge") << QString(70000, QLatin1Char('/'));
}

void CGroupControllerTest::invalidInstanceTouchesNothing()
{
    QFETCH(QString, id);
    QVERIFY(start());
    m_controller->registerState(QStringLiteral("active"), { { "cpu.shares", "1" } });
    const ApplicationInstanceId invalid(id);
    const LogCapture log;
    QVERIFY(!m_controller->setupApplication(invalid, 1234));
    QVERIFY(!m_controller->applyState(invalid, QStringLiteral("active")));
    m_controller->removeApplication(invalid);
    QCOMPARE(log.messages(),
             QStringList(QStringLiteral("Failed to created cgroup dir in \"%1\"")
                             .arg(m_tree->group(QStringLiteral("freezer") + subtree))));
    QCOMPARE(everythingMade(), QStringList());
    QVERIFY(QFileInfo::exists(m_tree->group(QStringLiteral("freezer") + subtree)));
}

void CGroupControllerTest::directoryOfATask()
{
    QVERIFY(start());
    QVERIFY(m_controller->setupTask(task("org.example.App.task_Sync"), 99,
                                    { { "cpu.shares", "64" }, { "memory.swappiness", "100" } }));
    for (const QString &hierarchy : usualHierarchies) {
        QCOMPARE(m_tree->read(inGroup(hierarchy, "org.example.App/task_Sync/cgroup.procs")),
                 QByteArray("99"));
    }
    QCOMPARE(m_tree->read(inGroup("cpu", "org.example.App/task_Sync/cpu.shares")), QByteArray("64"));
    QCOMPARE(m_tree->read(inGroup("memory", "org.example.App/task_Sync/memory.swappiness")),
             QByteArray("100"));
    QVERIFY(m_controller->setupTask(task("org.example.App.task_Other"), 100, {}));
}

void CGroupControllerTest::settingsOfATaskAreNotWrittenIfPlacingFails()
{
    QVERIFY(start());
    m_tree->link(QStringLiteral("sys/fs/cgroup/memory") + subtree
                     + QStringLiteral("/org.example.App/task_Sync/cgroup.procs"),
                 QStringLiteral("/dev/full"));
    const LogCapture log;
    QVERIFY(!m_controller->setupTask(task("org.example.App.task_Sync"), 99, { { "cpu.shares", "64" } }));
    QCOMPARE(log.messages().size(), 1);
    QVERIFY(m_tree->read(inGroup("cpu", "org.example.App/task_Sync/cpu.shares")).isNull());
}

void CGroupControllerTest::settingsOfATaskThatFailAreReported()
{
    QVERIFY(start());
    const QString file = inGroup("cpu", "org.example.App/task_Sync/cpu.shares");
    m_tree->makeDirectory(QStringLiteral("sys/fs/cgroup/") + file);
    const LogCapture log;
    QVERIFY(!m_controller->setupTask(task("org.example.App.task_Sync"), 99, { { "cpu.shares", "64" } }));
    QCOMPARE(log.messages().size(), 1);
    QVERIFY2(log.messages().first().startsWith(
                 QStringLiteral("Cannot open file \"%1\" ").arg(m_tree->group(file))),
             qUtf8Printable(log.messages().first()));
    QCOMPARE(m_tree->read(inGroup("memory", "org.example.App/task_Sync/cgroup.procs")), QByteArray("99"));
}

void CGroupControllerTest::invalidTaskTouchesNothing_data()
{
    QTest::addColumn<QString>("id");
    QTest::newRow("empty") << "";
    QTest::newRow("no name") << "org.example.App.task_";
    QTest::newRow("application") << "org.example.App";
    QTest::newRow("instance") << "org.example.App.instance_1";
    QTest::newRow("directory in the name") << "org.example.App.task_a/b";
}

void CGroupControllerTest::invalidTaskTouchesNothing()
{
    QFETCH(QString, id);
    QVERIFY(start());
    const LogCapture log;
    QVERIFY(!m_controller->setupTask(ApplicationTaskId(id), 1234, { { "cpu.shares", "1" } }));
    QCOMPARE(log.messages(),
             QStringList(QStringLiteral("Failed to created cgroup dir in \"%1\"")
                             .arg(m_tree->group(QStringLiteral("freezer") + subtree))));
    QCOMPARE(everythingMade(), QStringList());
}

QTEST_GUILESS_MAIN(CGroupControllerTest)

#include "tst_cgroup_controller.moc"
