#include "Core/cgroup_controller.h"

#include "support/cgroup_tree.h"
#include "support/helper_stand_in.h"
#include "support/private_bus.h"

#include <QCoreApplication>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

#include <cstdio>
#include <memory>
#include <optional>

using TestSupport::CGroupTree;
using TestSupport::HelperStandIn;
using TestSupport::PrivateBus;

namespace {

const QString subtree = QStringLiteral("/procwarden/user-77");
const QByteArray allGroups = "3:cpu:/\n2:freezer:/\n1:memory:/\n";
const QStringList allHierarchies = { QStringLiteral("cpu"), QStringLiteral("freezer"),
                                     QStringLiteral("memory") };
const QString controllerArgument = QStringLiteral("--controller");
const QByteArray readyText = "ready\n";

const QByteArray noFeature = "critical: Cannot continue without cgroup feature\n";
const QByteArray notDelegated = "critical: CGgroup delegation to user failed\n";
const QByteArray notAvailable = "critical: A required cgroup is not available\n";

/// What the test starts as a process of its own, since the failures end it.
int runController(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    const Core::CGroupController controller;
    QObject::connect(&controller, &Core::CGroupController::initializationDone, &application, [] {
        std::fputs(readyText.constData(), stdout);
        QCoreApplication::exit(0);
    });
    return QCoreApplication::exec();
}

QByteArray missing(const char *controller)
{
    return QByteArray("warning: CGroup controller not delegated: \"") + controller + "\"\n";
}

} // namespace

/// The failures at start, each of which ends the process with status 1.
class CGroupControllerFailuresTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void completeSetUpGoesOn();
    void missingGroupFileEndsTheProcess();
    void badGroupFileEndsTheProcess_data();
    void badGroupFileEndsTheProcess();
    void missingHierarchyEndsTheProcess_data();
    void missingHierarchyEndsTheProcess();
    void refusalOfTheHelperEndsTheProcess_data();
    void refusalOfTheHelperEndsTheProcess();
    void absentHelperEndsTheProcess();
    void absentBusEndsTheProcess();
    void busThatGoesAwayEndsTheProcess();

private:
    void start(const CGroupTree &tree, const QString &busAddress);
    void finish(int status);

    std::unique_ptr<PrivateBus> m_bus;
    std::optional<QDBusConnection> m_connection;
    std::unique_ptr<QProcess> m_process;
    QByteArray m_output;
    QByteArray m_log;
};

void CGroupControllerFailuresTest::initTestCase()
{
    m_bus = std::make_unique<PrivateBus>();
    m_connection = m_bus->connect();
}

void CGroupControllerFailuresTest::start(const CGroupTree &tree, const QString &busAddress)
{
    m_process = std::make_unique<QProcess>();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PROCWARDEN_ROOTFS"), tree.root());
    environment.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), busAddress);
    environment.insert(QStringLiteral("QT_FORCE_STDERR_LOGGING"), QStringLiteral("1"));
    environment.insert(QStringLiteral("QT_MESSAGE_PATTERN"), QStringLiteral("%{type}: %{message}"));
    m_process->setProcessEnvironment(environment);
    m_process->start(QCoreApplication::applicationFilePath(), { controllerArgument });
}

void CGroupControllerFailuresTest::finish(int status)
{
    QTRY_COMPARE_WITH_TIMEOUT(m_process->state(), QProcess::NotRunning, 30000);
    m_output = m_process->readAllStandardOutput();
    m_log = m_process->readAllStandardError();
    QVERIFY2(m_process->exitStatus() == QProcess::NormalExit, m_log.constData());
    QVERIFY2(m_process->exitCode() == status, m_log.constData());
}

void CGroupControllerFailuresTest::completeSetUpGoesOn()
{
    const HelperStandIn helper(*m_connection, HelperStandIn::path(subtree));
    const CGroupTree tree;
    tree.setOwnGroups(allGroups);
    tree.addHierarchies(allHierarchies, subtree);
    start(tree, m_bus->address());
    finish(0);
    QCOMPARE(m_output, readyText);
    QCOMPARE(m_log, QByteArray());
}

void CGroupControllerFailuresTest::missingGroupFileEndsTheProcess()
{
    const HelperStandIn helper(*m_connection, HelperStandIn::path(subtree));
    const CGroupTree tree;
    start(tree, m_bus->address());
    finish(1);
    QCOMPARE(m_output, QByteArray());
    QCOMPARE(m_log,
             "warning: Cannot open cgroup file \"" + tree.root().toUtf8() + "/proc/self/cgroup\"\n"
                 + noFeature);
    QVERIFY(helper.calls.isEmpty());
}

void CGroupControllerFailuresTest::badGroupFileEndsTheProcess_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::newRow("two colons too many") << QByteArray("4:pids:/a:b:c");
    QTest::newRow("one colon too many") << QByteArray("4:pids:/a:b");
    QTest::newRow("one colon too few") << QByteArray("4:pids");
    QTest::newRow("no colon") << QByteArray("pids");
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("also one that would be skipped") << QByteArray("1:name=systemd:/a:b");
}

void CGroupControllerFailuresTest::badGroupFileEndsTheProcess()
{
    QFETCH(QByteArray, line);
    const HelperStandIn helper(*m_connection, HelperStandIn::path(subtree));
    const CGroupTree tree;
    tree.setOwnGroups("3:cpu:/\n  " + line + " \n2:freezer:/\n1:memory:/\n");
    tree.addHierarchies(allHierarchies, subtree);
    start(tree, m_bus->address());
    finish(1);
    QCOMPARE(m_log, "warning: Invalid cgroup line \"" + line + "\"\n" + noFeature);
    QVERIFY(helper.calls.isEmpty());
}

void CGroupControllerFailuresTest::missingHierarchyEndsTheProcess_data()
{
    QTest::addColumn<QByteArray>("ownGroups");
    QTest::addColumn<QStringList>("hierarchies");
    QTest::addColumn<QByteArray>("warnings");
    QTest::newRow("no freezer in the kernel")
        << QByteArray("3:cpu:/\n1:memory:/\n") << allHierarchies << missing("freezer");
    QTest::newRow("no freezer delegated")
        << allGroups << QStringList({ QStringLiteral("cpu"), QStringLiteral("memory") })
        << missing("freezer");
    QTest::newRow("no memory delegated")
        << allGroups << QStringList({ QStringLiteral("cpu"), QStringLiteral("freezer") })
        << missing("memory");
    QTest::newRow("nothing delegated")
        << allGroups << QStringList() << missing("cpu") + missing("freezer") + missing("memory");
    QTest::newRow("only version 2") << QByteArray("0::/\n") << allHierarchies
                                    << missing("cpu") + missing("freezer") + missing("memory");
    QTest::newRow("empty file") << QByteArray() << allHierarchies
                                << missing("cpu") + missing("freezer") + missing("memory");
    // Without a link from "cpu" the shared hierarchy cannot be reached by the names of settings.
    QTest::newRow("shared hierarchy without links")
        << QByteArray("3:cpu,cpuacct:/\n2:freezer:/\n1:memory:/\n")
        << QStringList({ QStringLiteral("cpu,cpuacct"), QStringLiteral("freezer"), QStringLiteral("memory") })
        << missing("cpu");
}

void CGroupControllerFailuresTest::missingHierarchyEndsTheProcess()
{
    QFETCH(QByteArray, ownGroups);
    QFETCH(QStringList, hierarchies);
    QFETCH(QByteArray, warnings);
    const HelperStandIn helper(*m_connection, HelperStandIn::path(subtree));
    const CGroupTree tree;
    tree.setOwnGroups(ownGroups);
    tree.addHierarchies(hierarchies, subtree);
    start(tree, m_bus->address());
    finish(1);
    QCOMPARE(m_output, QByteArray());
    QCOMPARE(m_log, warnings + notAvailable);
}

void CGroupControllerFailuresTest::refusalOfTheHelperEndsTheProcess_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("access denied") << "org.freedesktop.DBus.Error.AccessDenied";
    QTest::newRow("failed") << "org.freedesktop.DBus.Error.Failed";
    QTest::newRow("no reply in time") << "org.freedesktop.DBus.Error.NoReply";
}

void CGroupControllerFailuresTest::refusalOfTheHelperEndsTheProcess()
{
    QFETCH(QString, name);
    const HelperStandIn helper(*m_connection, [name](const QDBusMessage &call) {
        return call.createErrorReply(name, QStringLiteral("not for you"));
    });
    const CGroupTree tree;
    tree.setOwnGroups(allGroups);
    tree.addHierarchies(allHierarchies, subtree);
    start(tree, m_bus->address());
    finish(1);
    QCOMPARE(m_output, QByteArray());
    QCOMPARE(m_log, "warning: CGroup setup failed: \"not for you\"\n" + notDelegated);
}

void CGroupControllerFailuresTest::absentHelperEndsTheProcess()
{
    const CGroupTree tree;
    tree.setOwnGroups(allGroups);
    start(tree, m_bus->address());
    finish(1);
    QVERIFY2(m_log.startsWith("warning: CGroup setup failed: \"") && m_log.endsWith("\"\n" + notDelegated),
             m_log.constData());
}

void CGroupControllerFailuresTest::absentBusEndsTheProcess()
{
    const CGroupTree tree;
    tree.setOwnGroups(allGroups);
    start(tree, QStringLiteral("unix:path=") + tree.path(QStringLiteral("no-bus")));
    finish(1);
    QVERIFY2(m_log.startsWith("warning: CGroup setup failed: \"") && m_log.endsWith("\"\n" + notDelegated),
             m_log.constData());
}

void CGroupControllerFailuresTest::busThatGoesAwayEndsTheProcess()
{
    PrivateBus bus;
    const QDBusConnection connection = bus.connect();
    const HelperStandIn silent(connection, [](const QDBusMessage &) { return QDBusMessage(); });
    const CGroupTree tree;
    tree.setOwnGroups(allGroups);
    tree.addHierarchies(allHierarchies, subtree);
    start(tree, bus.address());
    QTRY_COMPARE(silent.calls.size(), 1);
    bus.stop();
    finish(1);
    QVERIFY2(m_log.startsWith("warning: CGroup setup failed: \"") && m_log.endsWith("\"\n" + notDelegated),
             m_log.constData());
}

int main(int argc, char *argv[])
{
    if (argc > 1 && QString::fromLocal8Bit(argv[1]) == controllerArgument) {
        return runController(argc, argv);
    }
    QCoreApplication application(argc, argv);
    CGroupControllerFailuresTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_cgroup_controller_failures.moc"
