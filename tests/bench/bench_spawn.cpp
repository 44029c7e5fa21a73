// How long it takes from the decision to start a program until the program has taken the child over, beside
// a plain fork and exec of the same program with the same arguments and environment, in the same process and
// in turn. One line of JSON per figure:
//
//   {"bench": "spawn_exec", "runs": 500, "ours_ms": 0.41, "theirs_ms": 0.38, "ratio": 1.08}
//
// spawn_exec     both stages without a step between them
// spawn_setup    the same with what every application gets on the way: identity, score, journal, output
//
// Medians. The moment of the exec is when it closes the last writing end of a pipe.

#include "Core/child_ipc.h"
#include "Core/process_setup.h"
#include "Core/process_spawner.h"

#include "measuring.h"

#include <QByteArrayList>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int runs = 500;
constexpr int warmUpRuns = 20;

const QByteArrayList arguments { "/bin/true", "--application", "file:///home/user/Documents/notes.txt" };

/// Of the size that a session has.
QByteArrayList environment()
{
    QByteArrayList list { "PATH=/usr/local/bin:/usr/bin:/bin" };
    for (int i = 0; i < 40; ++i) {
        list << "SESSION_VARIABLE_" + QByteArray::number(i) + "=value of about the usual length";
    }
    return list;
}

/// Starts one child with @p start, which returns its pid.
/// @returns the milliseconds until the child ran its program.
double measure(const std::function<pid_t()> &start)
{
    int ends[2];
    check(::pipe2(ends, O_CLOEXEC) == 0, "no pipe");
    const auto begin = std::chrono::steady_clock::now();
    const pid_t pid = start();
    ::close(ends[1]);
    char byte;
    const ssize_t length = ::read(ends[0], &byte, 1);
    const auto end = std::chrono::steady_clock::now();
    ::close(ends[0]);
    int status = -1;
    check(pid > 0 && length == 0 && ::waitpid(pid, &status, 0) == pid && status == 0, "the child failed");
    return std::chrono::duration<double, std::milli>(end - begin).count();
}

pid_t plainly(const QByteArrayList &variables)
{
    std::vector<char *> argv;
    for (const QByteArray &argument : arguments) {
        argv.push_back(const_cast<char *>(argument.constData()));
    }
    std::vector<char *> envp;
    for (const QByteArray &variable : variables) {
        envp.push_back(const_cast<char *>(variable.constData()));
    }
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    return pid;
}

pid_t inTwoStages(Core::ProcessSpawner &spawner, const QByteArrayList &variables)
{
    spawner.setArguments(arguments);
    spawner.setEnvironment(variables);
    const pid_t pid = spawner.spawn([](Core::ChildIPC &) {});
    check(pid > 0 && spawner.exec(), "the spawner failed");
    return pid;
}

pid_t withSetup(Core::ProcessSpawner &spawner, const QByteArrayList &variables)
{
    spawner.setArguments(arguments);
    const pid_t pid = spawner.spawn([](Core::ChildIPC &ipc) {
        Core::ProcessSetup::becomeRealUser(ipc);
        if (!Core::ProcessSetup::receiveOomScore(ipc)) {
            Core::ChildIPC::die("Could not set OOM score\n");
        }
        Core::ProcessSetup::receiveJournalIdentifier(ipc);
        if (!Core::ProcessSetup::receiveOutputFds(ipc)) {
            Core::ChildIPC::die("Could not redirect stdout/stderr\n");
        }
    });
    check(pid > 0, "the spawner failed");
    Core::ProcessSetup setup(&spawner);
    check(setup.sendOomScore(pid, 500) && setup.sendJournalIdentifier(QStringLiteral("org.example.Notes"))
              && setup.sendOutputFds(-1, -1),
          "the setup failed");
    spawner.setEnvironment(variables);
    check(spawner.exec(), "the spawner failed");
    return pid;
}

void bench(const char *name, pid_t (*start)(Core::ProcessSpawner &, const QByteArrayList &))
{
    const QByteArrayList variables = environment();
    std::vector<double> ours;
    std::vector<double> theirs;
    for (int i = 0; i < warmUpRuns + runs; ++i) {
        Core::ProcessSpawner spawner;
        const double our = measure([&] { return start(spawner, variables); });
        const double their = measure([&] { return plainly(variables); });
        if (i >= warmUpRuns) {
            ours.push_back(our);
            theirs.push_back(their);
        }
    }
    const double our = median(ours);
    const double their = median(theirs);
    std::printf(
        "{\"bench\": \"%s\", \"runs\": %d, \"ours_ms\": %.4f, \"theirs_ms\": %.4f, \"ratio\": %.3f}\n", name,
        runs, our, their, our / their);
    std::fflush(stdout);
}

} // namespace

int main()
{
    ::signal(SIGPIPE, SIG_IGN); // as the service does
    ::unsetenv("PROCWARDEN_ROOTFS");
    bench("spawn_exec", &inTwoStages);
    bench("spawn_setup", &withSetup);
    return 0;
}
