#include "Core/cgroup_controller.h"

#include "Core/application_instance_id.h"
#include "cgroup_controller_fixture.h"
#include "support/log_capture.h"

#include <QDir>
#include <QFileInfo>
#include <QTest>

using Core::ApplicationInstanceId;
using Core::CGroupController;
using TestSupport::LogCapture;

namespace {

const ApplicationInstanceId app(QStringLiteral("org.example.App"));

} // namespace

/// What is done with groups that are there: their settings, their removal, their members.
class CGroupControllerGroupsTest : public CGroupTest
{
    Q_OBJECT

private slots:
    void init();
    void cleanup() { end(); }

    void unregisteredStateWritesNothing();
    void eachSettingGoesToTheHierarchyOfItsName();
    void registeringAgainReplaces();
    void stateWithoutSettingsIsASuccess();
    void unwritableSettingDoesNotStopTheOthers();
    void settingIsNoPath_data();
    void settingIsNoPath();
    void settingOfAnUnknownHierarchyFails();
    void valueIsWrittenAsItIs();

    void removalOfTheLastInstanceRemovesTheApplication();
    void removalKeepsWhatElseIsThere();
    void removalOfNothingIsSilent();
    void groupThatCannotBeRemovedIsTold();
    void taskIdRemovesNoTask();

    void membersAreThoseOfTheMemoryGroup();
    void membersWithoutAGroupFile();
    void membersWithoutAMemoryGroup();
    void membersThatCannotBeRead();
    void memberLineThatIsNoNumberIsSkipped();

private:
    bool exists(const QString &relative) const { return QFileInfo::exists(m_tree->group(relative)); }
    void makeGroup(const char *directory) const
    {
        for (const QString &hierarchy : usualHierarchies) {
            m_tree->makeDirectory(QStringLiteral("sys/fs/cgroup/") + inGroup(hierarchy, directory));
        }
    }
};

void CGroupControllerGroupsTest::init()
{
    begin();
    QVERIFY(start());
}

void CGroupControllerGroupsTest::unregisteredStateWritesNothing()
{
    makeGroup("org.example.App/app");
    m_controller->registerState(QStringLiteral("active"), { { "cpu.shares", "1" } });
    const LogCapture log;
    QVERIFY(!m_controller->applyState(app, QStringLiteral("hidden")));
    QVERIFY(!m_controller->applyState(app, QString()));
    QCOMPARE(log.messages(), QStringList());
    QVERIFY(!exists(inGroup("cpu", "org.example.App/app/cpu.shares")));
}

void CGroupControllerGroupsTest::eachSettingGoesToTheHierarchyOfItsName()
{
    makeGroup("org.example.App/instance_2");
    m_controller->registerState(QStringLiteral("hidden"),
                                { { "cpu.shares", "128" },
                                  { "freezer.state", "FROZEN" },
                                  { "memory.soft.limit", "5" },
                                  { "memory", "no dot" } });
    QVERIFY(m_controller->applyState(ApplicationInstanceId(QStringLiteral("org.example.App.instance_2")),
                                     QStringLiteral("hidden")));
    QCOMPARE(m_tree->read(inGroup("cpu", "org.example.App/instance_2/cpu.shares")), QByteArray("128"));
    QCOMPARE(m_tree->read(inGroup("freezer", "org.example.App/instance_2/freezer.state")),
             QByteArray("FROZEN"));
    QCOMPARE(m_tree->read(inGroup("memory", "org.example.App/instance_2/memory.soft.limit")),
             QByteArray("5"));
    QCOMPARE(m_tree->read(inGroup("memory", "org.example.App/instance_2/memory")), QByteArray("no dot"));
}

void CGroupControllerGroupsTest::registeringAgainReplaces()
{
    makeGroup("org.example.App/app");
    m_controller->registerState(QStringLiteral("active"), { { "cpu.shares", "1" } });
    m_controller->registerState(QStringLiteral("active"), { { "freezer.state", "THAWED" } });
    QVERIFY(m_controller->applyState(app, QStringLiteral("active")));
    QVERIFY(!exists(inGroup("cpu", "org.example.App/app/cpu.shares")));
    QCOMPARE(m_tree->read(inGroup("freezer", "org.example.App/app/freezer.state")), QByteArray("THAWED"));
}

void CGroupControllerGroupsTest::stateWithoutSettingsIsASuccess()
{
    m_controller->registerState(QStringLiteral("active"), {});
    QVERIFY(m_controller->applyState(app, QStringLiteral("active")));
}

void CGroupControllerGroupsTest::unwritableSettingDoesNotStopTheOthers()
{
    makeGroup("org.example.App/app");
    const QString closed = inGroup("cpu", "org.example.App/app/cpu.closed");
    const QString full = inGroup("cpu", "org.example.App/app/cpu.full");
    m_tree->makeDirectory(QStringLiteral("sys/fs/cgroup/") + closed);
    m_tree->link(QStringLiteral("sys/fs/cgroup/") + full, QStringLiteral("/dev/full"));
    CGroupController::Settings settings { { "cpu.closed", "1" }, { "cpu.full", "1" } };
    for (int number = 0; number < 20; ++number) { // on both sides of the others, in whatever order
        settings.insert("cpu.open" + QByteArray::number(number), "1");
    }
    m_controller->registerState(QStringLiteral("active"), settings);

    const LogCapture log;
    QVERIFY(!m_controller->applyState(app, QStringLiteral("active")));
    QCOMPARE(log.messages().size(), 2);
    QCOMPARE(
        log.messages().filter(QStringLiteral("Cannot open file \"%1\" \"").arg(m_tree->group(closed))).size(),
        1);
    QCOMPARE(
        log.messages().filter(QStringLiteral("Failed to write to \"%1\" \"").arg(m_tree->group(full))).size(),
        1);
    for (int number = 0; number < 20; ++number) {
        QCOMPARE(m_tree->read(inGroup("cpu", "org.example.App/app/cpu.open") + QString::number(number)),
                 QByteArray("1"));
    }
}

void CGroupControllerGroupsTest::settingIsNoPath_data()
{
    QTest::addColumn<QByteArray>("key");
    QTest::newRow("directory above") << QByteArray("cpu/../../../../../out");
    QTest::newRow("directory above after the dot") << QByteArray("cpu./../../../../../../out");
    QTest::newRow("absolute") << QByteArray("/out");
    QTest::newRow("directory below") << QByteArray("cpu.x/out");
}

void CGroupControllerGroupsTest::settingIsNoPath()
{
    QFETCH(QByteArray, key);
    makeGroup("org.example.App/app/cpu.x");
    makeGroup("org.example.App/app/cpu.");
    m_controller->registerState(QStringLiteral("active"), { { key, "1" } });
    const LogCapture log;
    QVERIFY(!m_controller->applyState(app, QStringLiteral("active")));
    QCOMPARE(log.messages().size(), 1);
    QVERIFY2(log.messages().first().startsWith(QStringLiteral("Cannot open file "))
                 && log.messages().first().endsWith(QStringLiteral(" \"Invalid argument\"")),
             qUtf8Printable(log.messages().first()));
    const QDir tree(m_tree->root());
    QCOMPARE(tree.entryList(QDir::Files | QDir::Hidden), QStringList());
    QVERIFY(!exists(QStringLiteral("out")));
    QVERIFY(!exists(inGroup("cpu", "out")));
    QVERIFY(!exists(inGroup("cpu", "org.example.App/app/cpu.x/out")));
}

void CGroupControllerGroupsTest::settingOfAnUnknownHierarchyFails()
{
    makeGroup("org.example.App/app");
    m_controller->registerState(QStringLiteral("active"),
                                { { "blkio.weight", "1" }, { "", "1" }, { ".", "1" } });
    const LogCapture log;
    QVERIFY(!m_controller->applyState(app, QStringLiteral("active")));
    QCOMPARE(log.messages().size(), 3);
    QCOMPARE(log.messages().filter(QStringLiteral("Cannot open file ")).size(), 3);
    QVERIFY(!exists(QStringLiteral("blkio")));
}

void CGroupControllerGroupsTest::valueIsWrittenAsItIs()
{
    makeGroup("org.example.App/app");
    m_controller->registerState(QStringLiteral("active"),
                                { { "cpu.empty", "" }, { "cpu.bytes", QByteArray("a\0\n\xff", 4) } });
    QVERIFY(m_controller->applyState(app, QStringLiteral("active")));
    QCOMPARE(m_tree->read(inGroup("cpu", "org.example.App/app/cpu.empty")), QByteArray(""));
    QCOMPARE(m_tree->read(inGroup("cpu", "org.example.App/app/cpu.bytes")), QByteArray("a\0\n\xff", 4));
}

void CGroupControllerGroupsTest::removalOfTheLastInstanceRemovesTheApplication()
{
    makeGroup("org.example.App/instance_1");
    makeGroup("org.example.App/instance_2");
    const LogCapture log;
    m_controller->removeApplication(ApplicationInstanceId(QStringLiteral("org.example.App.instance_1")));
    for (const QString &hierarchy : usualHierarchies) {
        QVERIFY(!exists(inGroup(hierarchy, "org.example.App/instance_1")));
        QVERIFY(exists(inGroup(hierarchy, "org.example.App/instance_2")));
    }
    m_controller->removeApplication(ApplicationInstanceId(QStringLiteral("org.example.App.instance_2")));
    for (const QString &hierarchy : usualHierarchies) {
        QVERIFY(!exists(inGroup(hierarchy, "org.example.App")));
    }
    QCOMPARE(log.messages(), QStringList());
}

void CGroupControllerGroupsTest::removalKeepsWhatElseIsThere()
{
    makeGroup("org.example.App/app");
    makeGroup("org.example.App/task_Sync");
    makeGroup("org.example.App2/app");
    const LogCapture log;
    m_controller->removeApplication(app);
    for (const QString &hierarchy : usualHierarchies) {
        QVERIFY(!exists(inGroup(hierarchy, "org.example.App/app")));
        QVERIFY(exists(inGroup(hierarchy, "org.example.App/task_Sync")));
        QVERIFY(exists(inGroup(hierarchy, "org.example.App2/app")));
    }
    QCOMPARE(log.messages(), QStringList());
}

void CGroupControllerGroupsTest::removalOfNothingIsSilent()
{
    const LogCapture log;
    m_controller->removeApplication(app);
    QCOMPARE(log.messages(), QStringList());
    QVERIFY(exists(QStringLiteral("cpu") + subtree));

    makeGroup("org.example.App"); // as an earlier removal may leave it
    m_controller->removeApplication(app);
    QCOMPARE(log.messages(), QStringList());
    QVERIFY(!exists(inGroup("cpu", "org.example.App")));
}

void CGroupControllerGroupsTest::groupThatCannotBeRemovedIsTold()
{
    makeGroup("org.example.App/instance_3");
    makeGroup("org.example.App/instance_3/of.its.own");
    const LogCapture log;
    m_controller->removeApplication(ApplicationInstanceId(QStringLiteral("org.example.App.instance_3")));
    const QString warning = QStringLiteral("Cannot remove cgroup for \"org.example.App.instance_3\"");
    QCOMPARE(log.messages(), QStringList({ warning, warning, warning }));
    QVERIFY(exists(inGroup("cpu", "org.example.App/instance_3")));
}

void CGroupControllerGroupsTest::taskIdRemovesNoTask()
{
    makeGroup("org.example.App/task_Sync");
    const LogCapture log;
    m_controller->removeApplication(ApplicationInstanceId(QStringLiteral("org.example.App.task_Sync")));
    QCOMPARE(log.messages(), QStringList());
    QVERIFY(exists(inGroup("cpu", "org.example.App/task_Sync")));
}

void CGroupControllerGroupsTest::membersAreThoseOfTheMemoryGroup()
{
    m_tree->write(QStringLiteral("proc/50/cgroup"),
                  "4:cpu:/wrong\n3:memory,other:/wrong\n2: memory:/wrong\n"
                  "1:memory:/with:colons/x\n0:memory:/second\n");
    m_tree->write(QStringLiteral("sys/fs/cgroup/memory/with:colons/x/cgroup.procs"), "50\n7\n50\n 123456 \n");
    const LogCapture log;
    QCOMPARE(CGroupController::processesInSameGroup(50), (QSet<int> { 7, 50, 123456 }));
    QCOMPARE(log.messages(), QStringList());
}

void CGroupControllerGroupsTest::membersWithoutAGroupFile()
{
    const LogCapture log;
    QVERIFY(CGroupController::processesInSameGroup(51).isEmpty());
    QCOMPARE(log.messages(), QStringList(QStringLiteral("Missing cgroup file for pid 51")));
}

void CGroupControllerGroupsTest::membersWithoutAMemoryGroup()
{
    // The files of the root group, which would be the whole system, must not be taken for it.
    m_tree->write(QStringLiteral("sys/fs/cgroup/memory/cgroup.procs"), "1\n2\n");
    m_tree->write(QStringLiteral("proc/52/cgroup"), "0::/user.slice\n3:cpu:/x\nmemory\n2:memory\n");
    QVERIFY(CGroupController::processesInSameGroup(52).isEmpty());
    m_tree->write(QStringLiteral("proc/53/cgroup"), "");
    QVERIFY(CGroupController::processesInSameGroup(53).isEmpty());
    m_tree->write(QStringLiteral("proc/56/cgroup"), "3:cpu:/x\n2:memory:/\n");
    QVERIFY(CGroupController::processesInSameGroup(56).isEmpty());
}

void CGroupControllerGroupsTest::membersThatCannotBeRead()
{
    m_tree->write(QStringLiteral("proc/54/cgroup"), "1:memory:/gone\n");
    const LogCapture log;
    QVERIFY(CGroupController::processesInSameGroup(54).isEmpty());
    QCOMPARE(log.messages(),
             QStringList(QStringLiteral("Could not open file: \"%1\"")
                             .arg(m_tree->group(QStringLiteral("memory/gone/cgroup.procs")))));
}

void CGroupControllerGroupsTest::memberLineThatIsNoNumberIsSkipped()
{
    m_tree->write(QStringLiteral("proc/55/cgroup"), "1:memory:/x\n");
    m_tree->write(QStringLiteral("sys/fs/cgroup/memory/x/cgroup.procs"), "1\nabc\n\n99999999999999\n55");
    const LogCapture log;
    QCOMPARE(CGroupController::processesInSameGroup(55), (QSet<int> { 1, 55 }));
    QCOMPARE(log.messages(),
             QStringList({ QStringLiteral("Could not parse line: \"abc\""),
                           QStringLiteral("Could not parse line: \"\""),
                           QStringLiteral("Could not parse line: \"99999999999999\"") }));
}

QTEST_GUILESS_MAIN(CGroupControllerGroupsTest)

#include "tst_cgroup_controller_groups.moc"
