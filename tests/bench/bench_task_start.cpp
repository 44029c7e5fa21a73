// How long it takes from the call that starts a task until the started program runs its first line, against
// the same transient service of the user's systemd, in one run and in turn:
//
//   ours              Start of a worker through an invoker's session; what runs first is the sandbox program
//   start_transient   StartTransientUnit, called on the manager's own socket
//   systemd_run       the command systemd-run, which makes that call
//   fork_exec         nothing but that
//
// Each gets the same nice level, limit of processor time and OOM score. Medians.
//
// usage: bench_task_start ROUNDS FIFO STAMP-PROGRAM TASK-ID

#include "measuring.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>

#include <cstdio>
#include <functional>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

/// As the manager takes it, "(sv)".
struct UnitProperty
{
    QString name;
    QDBusVariant value;
};
Q_DECLARE_METATYPE(UnitProperty)

/// What a unit runs, "(sasb)".
struct UnitCommand
{
    QString path;
    QStringList arguments;
    bool mayFail = false;
};
Q_DECLARE_METATYPE(UnitCommand)

/// Another unit, "(sa(sv))"; none is used.
struct AuxiliaryUnit
{
    QString name;
    QList<UnitProperty> properties;
};
Q_DECLARE_METATYPE(AuxiliaryUnit)

// Beside the types, where Qt looks for them.
static QDBusArgument &operator<<(QDBusArgument &argument, const UnitProperty &property)
{
    argument.beginStructure();
    argument << property.name << property.value;
    argument.endStructure();
    return argument;
}

static const QDBusArgument &operator>>(const QDBusArgument &argument, UnitProperty & /*unused*/)
{
    return argument;
}

static QDBusArgument &operator<<(QDBusArgument &argument, const UnitCommand &command)
{
    argument.beginStructure();
    argument << command.path << command.arguments << command.mayFail;
    argument.endStructure();
    return argument;
}

static const QDBusArgument &operator>>(const QDBusArgument &argument, UnitCommand & /*unused*/)
{
    return argument;
}

static QDBusArgument &operator<<(QDBusArgument &argument, const AuxiliaryUnit &unit)
{
    argument.beginStructure();
    argument << unit.name << unit.properties;
    argument.endStructure();
    return argument;
}

static const QDBusArgument &operator>>(const QDBusArgument &argument, AuxiliaryUnit & /*unused*/)
{
    return argument;
}

namespace {

constexpr int callTimeoutMs = 60 * 1000;
constexpr int niceLevel = 5;
constexpr int cpuLimit = 30;
constexpr int oomScore = 300;

QDBusMessage call(const QDBusConnection &connection, const QDBusMessage &message)
{
    const QDBusMessage reply = connection.call(message, QDBus::Block, callTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage) {
        fail(qPrintable(reply.errorName() + QStringLiteral(": ") + reply.errorMessage()));
    }
    return reply;
}

QDBusMessage service(const QString &path, const char *interface, const char *member)
{
    return QDBusMessage::createMethodCall(QStringLiteral("org.kestrix.Procwarden"), path,
                                          QLatin1String("org.kestrix.Procwarden.") + QLatin1String(interface),
                                          QLatin1String(member));
}

/// Milliseconds from @p begin to the first line of the program that it has started.
double timeToProgram(int fifo, const std::function<void()> &begin)
{
    const qint64 started = now();
    begin();
    pollfd readable = { fifo, POLLIN, 0 };
    qint64 running = 0;
    if (poll(&readable, 1, callTimeoutMs) != 1 || read(fifo, &running, sizeof(running)) != sizeof(running)) {
        fail("the started program does not report");
    }
    return double(running - started) / 1e6;
}

void spawnAndWait(std::vector<const char *> argv)
{
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, const_cast<char **>(argv.data()), environ) != 0) {
        fail("cannot spawn");
    }
    waitpid(pid, nullptr, 0);
}

void forkAndExec(const char *program, const char *argument)
{
    const pid_t pid = fork();
    if (pid == 0) {
        execl(program, program, argument, nullptr);
        _exit(127);
    }
}

/// A task that runs is not started a second time.
void waitForTheEndOfTheTask()
{
    const QDBusConnection bus = QDBusConnection::sessionBus();
    const QDBusMessage list =
        service(QStringLiteral("/org/kestrix/Procwarden/Control1"), "Control1", "GetRunningApplications");
    for (;;) {
        const QDBusMessage reply = call(bus, list);
        const auto services = reply.arguments().value(1).value<QDBusArgument>();
        services.beginArray();
        if (services.atEnd()) {
            return;
        }
    }
}

QDBusMessage startOfTheTask(const QString &task)
{
    const QDBusConnection bus = QDBusConnection::sessionBus();
    QDBusMessage registration =
        service(QStringLiteral("/org/kestrix/Procwarden/TaskInvoker1"), "TaskInvoker1", "RegisterInvoker");
    registration << QStringLiteral("worker");
    const auto session = call(bus, registration).arguments().at(0).value<QDBusObjectPath>();
    QDBusMessage start = service(session.path(), "TaskInvokerSession1", "Start");
    start << task << QVariantMap()
          << QVariantMap { { QStringLiteral("Priority"), niceLevel },
                           { QStringLiteral("CPULimit"), cpuLimit },
                           { QStringLiteral("Weight"), oomScore } };
    return start;
}

QDBusMessage startOfTheUnit(int round, const char *program, const char *argument)
{
    const UnitCommand command { QString::fromLocal8Bit(program),
                                { QString::fromLocal8Bit(program), QString::fromLocal8Bit(argument) } };
    const QList<UnitProperty> properties {
        { QStringLiteral("ExecStart"), QDBusVariant(QVariant::fromValue(QList<UnitCommand> { command })) },
        { QStringLiteral("Nice"), QDBusVariant(niceLevel) },
        { QStringLiteral("LimitCPU"), QDBusVariant(quint64(cpuLimit)) },
        { QStringLiteral("OOMScoreAdjust"), QDBusVariant(oomScore) },
        { QStringLiteral("CollectMode"), QDBusVariant(QStringLiteral("inactive-or-failed")) },
    };
    auto start = QDBusMessage::createMethodCall(QString(), QStringLiteral("/org/freedesktop/systemd1"),
                                                QStringLiteral("org.freedesktop.systemd1.Manager"),
                                                QStringLiteral("StartTransientUnit"));
    start << QStringLiteral("bench-%1.service").arg(round) << QStringLiteral("fail")
          << QVariant::fromValue(properties) << QVariant::fromValue(QList<AuxiliaryUnit>());
    return start;
}

void measure(int rounds, const char *fifoPath, const char *program, const QString &task)
{
    const int fifo = open(fifoPath, O_RDWR | O_CLOEXEC);
    if (fifo < 0) {
        fail("cannot open the FIFO");
    }
    const QDBusConnection bus = QDBusConnection::sessionBus();
    const QDBusConnection manager = QDBusConnection::connectToPeer(
        QStringLiteral("unix:path=%1/systemd/private").arg(qEnvironmentVariable("XDG_RUNTIME_DIR")),
        QStringLiteral("manager"));
    if (!manager.isConnected()) {
        fail("the manager cannot be reached");
    }
    const QDBusMessage start = startOfTheTask(task);

    std::vector<double> ours, transient, run, plain;
    // In turn, so that whatever else the machine does falls on all of them.
    for (int round = 0; round < rounds; ++round) {
        waitForTheEndOfTheTask();
        ours.push_back(timeToProgram(fifo, [&] { call(bus, start); }));
        const QDBusMessage unit = startOfTheUnit(round, program, fifoPath);
        transient.push_back(timeToProgram(fifo, [&] { call(manager, unit); }));
        run.push_back(timeToProgram(fifo, [&] {
            spawnAndWait({ "systemd-run", "--user", "--quiet", "--collect", "-pNice=5", "-pLimitCPU=30",
                           "-pOOMScoreAdjust=300", program, fifoPath });
        }));
        plain.push_back(timeToProgram(fifo, [&] { forkAndExec(program, fifoPath); }));
        waitpid(-1, nullptr, 0);
    }
    std::printf("{\"bench\": \"task start to exec\", \"n\": %d, \"ours_ms\": %.3f, "
                "\"start_transient_ms\": %.3f, \"systemd_run_ms\": %.3f, \"fork_exec_ms\": %.3f, "
                "\"ratio_to_start_transient\": %.3f, \"ratio_to_systemd_run\": %.3f}\n",
                rounds, median(ours), median(transient), median(run), median(plain),
                median(ours) / median(transient), median(ours) / median(run));
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    if (argc != 5) {
        fail("usage: see the head of the source");
    }
    qDBusRegisterMetaType<UnitProperty>();
    qDBusRegisterMetaType<QList<UnitProperty>>();
    qDBusRegisterMetaType<UnitCommand>();
    qDBusRegisterMetaType<QList<UnitCommand>>();
    qDBusRegisterMetaType<AuxiliaryUnit>();
    qDBusRegisterMetaType<QList<AuxiliaryUnit>>();
    measure(QCoreApplication::arguments().at(1).toInt(), argv[2], argv[3],
            QCoreApplication::arguments().at(4));
    return 0;
}
