#include "Core/application_instance_id.h"
#include "Core/application_task_id.h"
#include "Core/cgroup_controller.h"
#include "Core/resource_configuration.h"
#include "support/kernel_groups.h"
#include "support/patience.h"
#include "support/private_bus.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <cstdio>

#include <grp.h>
#include <unistd.h>

using Core::ApplicationInstanceId;
using Core::ApplicationTaskId;
using Core::CGroupController;
using TestSupport::KernelGroups;

namespace {

const QString serviceArgument = QStringLiteral("--service");
const QString helperName = QStringLiteral("org.kestrix.Procwarden.Helper");

void say(const QString &line)
{
    std::puts(qUtf8Printable(line));
    std::fflush(stdout);
}

QString contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).trimmed()
                                          : QStringLiteral("missing");
}

/// What the service does, by an ordinary user's process. Each line that it prints is looked at by the test.
class Story : public QObject
{
public:
    explicit Story(uid_t user)
        : m_subtree(QStringLiteral("/procwarden/user-%1").arg(user))
    {
    }

    int run();

private:
    void registerStates();
    void application();
    void task();
    void failures();
    void place(const char *what, bool placed, qint64 pid);
    void showGroups(qint64 pid) const;
    void show(const char *file, const QString &group) const;
    bool waitForFreezer(const QString &group, const QString &state) const;

    const QString m_subtree;
    CGroupController m_controller;
    QProcess m_process;
};

int Story::run()
{
    if (!QSignalSpy(&m_controller, &CGroupController::initializationDone).wait(patienceMs)) {
        say(QStringLiteral("no answer of the helper"));
        return 1;
    }
    m_process.start(QStringLiteral("/bin/sleep"), { QStringLiteral("1000") });
    m_process.waitForStarted();
    registerStates();
    application();
    failures();
    task();
    return 0;
}

void Story::registerStates()
{
    const Core::ResourceConfiguration configuration;
    const QStringList states = configuration.stateNames();
    say(states.join(QLatin1Char(' ')));
    for (const QString &state : states) {
        const QVariantMap values = configuration.settingsFor(state, QStringLiteral("cgroup1"));
        CGroupController::Settings settings;
        for (auto value = values.cbegin(); value != values.cend(); ++value) {
            settings.insert(value.key().toUtf8(), value.value().toString().toUtf8());
        }
        m_controller.registerState(state, settings);
    }
}

void Story::place(const char *what, bool placed, qint64 pid)
{
    say(QStringLiteral("%1 %2").arg(QLatin1String(what),
                                    placed ? QStringLiteral("placed") : QStringLiteral("failed")));
    showGroups(pid);
}

void Story::showGroups(qint64 pid) const
{
    const QStringList lines = contentOf(QStringLiteral("/proc/%1/cgroup").arg(pid)).split(QLatin1Char('\n'));
    const QStringList hierarchies = KernelGroups::hierarchies();
    for (const QString &hierarchy : hierarchies) {
        for (const QString &line : lines) {
            if (line.section(QLatin1Char(':'), 1, 1).split(QLatin1Char(',')).contains(hierarchy)) {
                say(hierarchy + QLatin1Char(' ') + line.section(QLatin1Char(':'), 2).remove(m_subtree));
            }
        }
    }
}

void Story::show(const char *file, const QString &group) const
{
    const QString name = QLatin1String(file);
    say(name + QLatin1Char(' ')
        + contentOf(QStringLiteral("/sys/fs/cgroup/") + name.section(QLatin1Char('.'), 0, 0) + m_subtree
                    + QLatin1Char('/') + group + QLatin1Char('/') + name));
}

bool Story::waitForFreezer(const QString &group, const QString &state) const
{
    // Freezing takes the kernel a moment, in which the state reads FREEZING.
    return QTest::qWaitFor(
        [&] {
            return contentOf(
                       QStringLiteral("/sys/fs/cgroup/freezer%1/%2/freezer.state").arg(m_subtree, group))
                == state;
        },
        patienceMs);
}

void Story::application()
{
    const ApplicationInstanceId id(QStringLiteral("org.example.Kernel.instance_2"));
    const QString group = QStringLiteral("org.example.Kernel/instance_2");
    const pid_t pid = static_cast<pid_t>(m_process.processId());
    place("application", m_controller.setupApplication(id, pid), pid);
    say(QStringLiteral("members %1").arg(CGroupController::processesInSameGroup(pid) == QSet<int> { pid }));

    say(QStringLiteral("hidden %1").arg(m_controller.applyState(id, QStringLiteral("hidden"))));
    say(QStringLiteral("frozen %1").arg(waitForFreezer(group, QStringLiteral("FROZEN"))));
    show("cpu.shares", group);
    show("memory.swappiness", group);
    say(QStringLiteral("active %1").arg(m_controller.applyState(id, QStringLiteral("active"))));
    show("freezer.state", group);
    show("cpu.shares", group);
    show("memory.swappiness", group);

    // Killed while it is frozen, it ends when it is thawed.
    m_controller.applyState(id, QStringLiteral("hidden"));
    waitForFreezer(group, QStringLiteral("FROZEN"));
    ::kill(pid, SIGKILL);
    say(QStringLiteral("ended while frozen %1").arg(m_process.waitForFinished(0)));
    m_controller.applyState(id, QStringLiteral("inactive"));
    say(QStringLiteral("ended when thawed %1").arg(m_process.waitForFinished()));
    m_controller.removeApplication(id);
    say(QStringLiteral("removed %1")
            .arg(QDir(QStringLiteral("/sys/fs/cgroup/cpu") + m_subtree)
                     .entryList(QDir::Dirs | QDir::NoDotAndDotDot)
                     .isEmpty()));
}

void Story::failures()
{
    const ApplicationInstanceId id(QStringLiteral("org.example.Kernel"));
    m_process.start(QStringLiteral("/bin/sleep"), { QStringLiteral("1000") });
    m_process.waitForStarted();
    m_controller.setupApplication(id, static_cast<pid_t>(m_process.processId()));
    m_controller.registerState(
        QStringLiteral("bad"),
        { { "freezer.state", "MELTED" }, { "cpu.nothing", "1" }, { "cpu.shares", "77" } });
    say(QStringLiteral("bad %1").arg(m_controller.applyState(id, QStringLiteral("bad"))));
    show("cpu.shares", QStringLiteral("org.example.Kernel/app"));
    say(QStringLiteral("no such process %1").arg(m_controller.setupApplication(id, 0x3fffffff)));
    m_controller.removeApplication(id); // its process still runs
}

void Story::task()
{
    const ApplicationTaskId id(QStringLiteral("org.example.Kernel.task_Sync"));
    const pid_t pid = static_cast<pid_t>(m_process.processId());
    place("task", m_controller.setupTask(id, pid, { { "cpu.shares", "64" } }), pid);
    show("cpu.shares", QStringLiteral("org.example.Kernel/task_Sync"));
    m_process.kill();
    m_process.waitForFinished();
}

int runService(uid_t user)
{
    // A bus lets in no user without an account, so this comes first.
    QDBusConnection::systemBus();
    if (::setgroups(0, nullptr) != 0 || ::setresgid(user, user, user) != 0
        || ::setresuid(user, user, user) != 0) {
        std::perror("cannot become the user");
        return 1;
    }
    Story story(user);
    return story.run();
}

} // namespace

/// The service's groups on the kernel, made by the helper's program, used by an ordinary user.
class CGroupKernelTest : public QObject
{
    Q_OBJECT

private slots:
    void processesArePlacedFrozenAndThawed();
};

void CGroupKernelTest::processesArePlacedFrozenAndThawed()
{
    if (!KernelGroups::areUsable()) {
        QSKIP("needs root and version 1 hierarchies");
    }
    const KernelGroups groups;
    TestSupport::PrivateBus bus;
    bus.useAsSystemBus();
    const QDBusConnection connection = bus.connect();
    // The installed layout of the state files.
    const QTemporaryDir data;
    QVERIFY(::chown(QFile::encodeName(data.path()).constData(), groups.user(), groups.user()) == 0);
    QVERIFY(QDir(data.path()).mkpath(QStringLiteral("procwarden/states")));
    for (const char *state : { "active", "background", "hidden", "inactive" }) {
        const QString file = QStringLiteral("states/%1.config").arg(QLatin1String(state));
        QVERIFY(QFile::copy(QStringLiteral(PROCWARDEN_DATA_DIR "/") + file,
                            data.filePath(QStringLiteral("procwarden/") + file)));
    }

    QProcess helper;
    helper.setProcessChannelMode(QProcess::ForwardedChannels);
    helper.start(QStringLiteral(PROCWARDEN_BIN_DIR "/procwarden-helper"), QStringList());
    QTRY_VERIFY(connection.interface()->isServiceRegistered(helperName));

    QProcess service;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_DATA_DIRS"), data.path());
    environment.insert(QStringLiteral("XDG_DATA_HOME"), data.filePath(QStringLiteral("home")));
    environment.insert(QStringLiteral("HOME"), data.path());
    environment.insert(QStringLiteral("QT_FORCE_STDERR_LOGGING"), QStringLiteral("1"));
    environment.insert(QStringLiteral("QT_MESSAGE_PATTERN"), QStringLiteral("%{type}: %{message}"));
    service.setProcessEnvironment(environment);
    service.start(QCoreApplication::applicationFilePath(),
                  { serviceArgument, QString::number(groups.user()) });
    QVERIFY(service.waitForFinished());
    const QByteArray log = service.readAllStandardError();
    const QString output = QString::fromUtf8(service.readAllStandardOutput());
    helper.terminate();
    QVERIFY(helper.waitForFinished());
    QCOMPARE(helper.exitCode(), 0);

    const QString expected = QStringLiteral("active background hidden inactive\n"
                                            "application placed\n"
                                            "cpu /org.example.Kernel/instance_2\n"
                                            "freezer /org.example.Kernel/instance_2\n"
                                            "memory /org.example.Kernel/instance_2\n"
                                            "members 1\n"
                                            "hidden 1\n"
                                            "frozen 1\n"
                                            "cpu.shares 128\n"
                                            "memory.swappiness 100\n"
                                            "active 1\n"
                                            "freezer.state THAWED\n"
                                            "cpu.shares 1024\n"
                                            "memory.swappiness 60\n"
                                            "ended while frozen 0\n"
                                            "ended when thawed 1\n"
                                            "removed 1\n"
                                            "bad 0\n"
                                            "cpu.shares 77\n"
                                            "no such process 0\n"
                                            "task placed\n"
                                            "cpu /org.example.Kernel/task_Sync\n"
                                            "freezer /org.example.Kernel/task_Sync\n"
                                            "memory /org.example.Kernel/task_Sync\n"
                                            "cpu.shares 64\n");
    QVERIFY2(output == expected, qUtf8Printable(output + QString::fromUtf8(log)));
    QCOMPARE(service.exitCode(), 0);
    const QString app = QStringLiteral("/org.example.Kernel/app");
    QStringList warnings = QString::fromUtf8(log).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    warnings.sort(); // the order of the settings is not fixed
    QStringList expectedWarnings = {
        QStringLiteral("warning: Cannot open file \"%1%2/cpu.nothing\" \"Permission denied\"")
            .arg(groups.directory(QStringLiteral("cpu")), app),
        QStringLiteral("warning: Failed to write to \"%1%2/freezer.state\" \"Invalid argument\"")
            .arg(groups.directory(QStringLiteral("freezer")), app),
    };
    QStringList afterwards;
    // In the order in which the kernel names the hierarchies; accounting may be one of them.
    for (const QString &warning : qAsConst(warnings)) {
        if (warning == QStringLiteral("warning: Cannot remove cgroup for \"org.example.Kernel\"")
            || warning.startsWith(QStringLiteral("warning: Failed to add PID to cgroup \""))) {
            afterwards << warning;
        }
    }
    QVERIFY2(afterwards.size() >= 4, log.constData());
    for (const QString &warning : qAsConst(afterwards)) {
        warnings.removeOne(warning);
    }
    QCOMPARE(warnings, expectedWarnings);
}

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("procwarden"));
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.value(1) == serviceArgument) {
        return runService(arguments.value(2).toUInt());
    }
    CGroupKernelTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_cgroup_kernel.moc"
