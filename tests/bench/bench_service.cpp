// The service as its clients feel it, against what everybody knows, in one run:
//
//   start    from the Start call to the program's first line; against fork and exec, and systemd-run --scope
//   running  GetRunningApplications; against GetId, the bus daemon's own quickest answer
//
// usage: bench_service start ROUNDS FIFO STAMP-PROGRAM APPLICATION
//        bench_service running CALLS RECORDS

#include "measuring.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>

#include <cstdio>
#include <functional>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int callTimeoutMs = 60 * 1000;

QDBusMessage call(const QDBusMessage &message)
{
    const QDBusMessage reply = QDBusConnection::sessionBus().call(message, QDBus::Block, callTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage) {
        fail(qPrintable(reply.errorName() + QStringLiteral(": ") + reply.errorMessage()));
    }
    return reply;
}

QDBusMessage control(const char *member)
{
    return QDBusMessage::createMethodCall(
        QStringLiteral("org.kestrix.Procwarden"), QStringLiteral("/org/kestrix/Procwarden/Control1"),
        QStringLiteral("org.kestrix.Procwarden.Control1"), QString::fromLatin1(member));
}

/// Milliseconds from @p begin to the first line of the program that it has started.
double timeToProgram(int fifo, const std::function<void()> &begin)
{
    const qint64 started = now();
    begin();
    qint64 running = 0;
    if (read(fifo, &running, sizeof(running)) != sizeof(running)) {
        fail("the started program does not report");
    }
    return double(running - started) / 1e6;
}

void spawn(std::vector<const char *> argv)
{
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, const_cast<char **>(argv.data()), environ) != 0) {
        fail("cannot spawn");
    }
}

void forkAndExec(const char *program, const char *argument)
{
    const pid_t pid = fork();
    if (pid == 0) {
        execl(program, program, argument, nullptr);
        _exit(127);
    }
}

void reapAll()
{
    while (waitpid(-1, nullptr, 0) > 0) { }
}

void measureStart(int rounds, const char *fifoPath, const char *program, const char *application)
{
    const int fifo = open(fifoPath, O_RDWR | O_CLOEXEC);
    if (fifo < 0) {
        fail("cannot open the FIFO");
    }
    QDBusMessage start = control("Start");
    start << QString::fromLocal8Bit(application);

    std::vector<double> ours, plain, scope;
    // In turn, so that whatever else the machine does falls on all three.
    for (int round = 0; round < rounds; ++round) {
        ours.push_back(timeToProgram(fifo, [&start] { call(start); }));
        plain.push_back(timeToProgram(fifo, [&] { forkAndExec(program, fifoPath); }));
        reapAll();
        scope.push_back(timeToProgram(fifo, [&] {
            spawn({ "systemd-run", "--user", "--scope", "--quiet", program, fifoPath });
        }));
        reapAll();
    }
    std::printf(
        "{\"bench\": \"start to exec\", \"n\": %d, \"ours_ms\": %.3f, \"fork_exec_ms\": %.3f, "
        "\"systemd_run_scope_ms\": %.3f, \"above_fork_exec_ms\": %.3f, \"ratio_to_systemd_run\": %.3f}\n",
        rounds, median(ours), median(plain), median(scope), median(ours) - median(plain),
        median(ours) / median(scope));
}

double timeOf(const QDBusMessage &message)
{
    const qint64 begin = now();
    call(message);
    return double(now() - begin) / 1e6;
}

void measureRunning(int calls, int records)
{
    const QDBusMessage list = control("GetRunningApplications");
    const QDBusMessage getId = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetId"));
    std::vector<double> ours, theirs;
    for (int round = 0; round < calls; ++round) {
        ours.push_back(timeOf(list));
        theirs.push_back(timeOf(getId));
    }
    std::printf("{\"bench\": \"GetRunningApplications\", \"n\": %d, \"ours_ms\": %.3f, \"theirs_ms\": %.3f, "
                "\"ratio\": %.2f}\n",
                records, median(ours), median(theirs), median(ours) / median(theirs));
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (argc == 6 && arguments[1] == QLatin1String("start")) {
        measureStart(arguments[2].toInt(), argv[3], argv[4], argv[5]);
    } else if (argc == 4 && arguments[1] == QLatin1String("running")) {
        measureRunning(arguments[2].toInt(), arguments[3].toInt());
    } else {
        fail("usage: see the head of the source");
    }
    return 0;
}
