// Two-stage start of a child over a pipe that leads from the service to the child; nothing flows back.
//
//   service                                   child
//   spawn():  pipe, fork, keep the write end  reset signals, pipe becomes descriptor 0
//   send...() what the callback reads   --->  SetupChildCb
//   exec():   environment, arguments    --->  read both lists, execvpe
//
// All numbers are in the host's byte order, without header, framing or padding:
//
//   integer       4 bytes, signed
//   byte string   8 bytes, unsigned length n, then n bytes
//   list          4 bytes, signed count c, then c byte strings, each with its NUL counted in
//
// Every piece (number or bytes) is one write and one read, and a short transfer is a failure on either
// side. The child's limits keep a whole launch well below the pipe's capacity of 64 KiB, so that the
// kernel takes and gives every piece whole, and takes it at once. The service waits only for a child that
// it sends more than that, and not for long.

#include "Core/process_spawner.h"

#include "Core/file_limit.h"

#include "Core/child_ipc.h"

#include <QDebug>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace Core {

namespace {

// With the closing null pointers.
constexpr size_t maxEnvironment = ProcessSpawner::maximumEnvironment + 1;
constexpr size_t maxArguments = ProcessSpawner::maximumArguments + 1;
constexpr size_t maxListBytes = ProcessSpawner::maximumListBytes;
constexpr int fullPipeLimitMs = 500; // a child that reads empties the pipe much faster

/// The write ends of all spawners. A later child inherits those of earlier ones and must close them, or
/// an abandoned child would not see the end of its pipe while a later one still waits for its release.
/// Never destroyed: a spawner may outlive static data.
std::vector<int> &openWriteEnds()
{
    static auto *const fds = new std::vector<int>;
    return *fds;
}

/// A child that does not read, since it is stopped or frozen, is given up when the pipe has been full for a
/// moment: the service must not stand still with it.
bool writeWhole(int fd, const void *data, size_t length)
{
    ssize_t written = ::write(fd, data, length);
    if (written == -1 && errno == EAGAIN) {
        pollfd room = { fd, POLLOUT, 0 };
        if (::poll(&room, 1, fullPipeLimitMs) == 1) {
            written = ::write(fd, data, length);
        }
    }
    return written == static_cast<ssize_t>(length);
}

void resetSignals(const sigset_t &mask)
{
    for (const int signal : { SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGPIPE }) {
        ::signal(signal, SIG_DFL);
    }
    ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

} // namespace

class ProcessSpawnerPrivate
{
public:
    /// noexcept: nothing may unwind from the child into the service's frames.
    void runChild(int readEnd, const sigset_t &mask, const ProcessSpawner::SetupChildCb &setupChild) noexcept;

    QByteArrayList environment;
    QByteArrayList arguments;
    ChildIPC ipc { -1 }; ///< used in the child only
    qint32 ipcWriteFd = -1;
};

/// The child's life until its program runs: fixed buffers and calls that are safe in a signal handler.
void ProcessSpawnerPrivate::runChild(int readEnd, const sigset_t &mask,
                                     const ProcessSpawner::SetupChildCb &setupChild) noexcept
{
    resetSignals(mask);
    restoreFileLimit();
    // Close-on-exec, so the program starts without descriptor 0: it gets neither this pipe nor the
    // service's standard input. The call refuses a read end that is descriptor 0 already.
    if (::dup3(readEnd, STDIN_FILENO, O_CLOEXEC) == -1) {
        ChildIPC::die("dup3 failed\n");
    }
    ipc = ChildIPC(STDIN_FILENO);
    setupChild(ipc);

    char *envp[maxEnvironment];
    char environmentBytes[maxListBytes];
    ipc.readStringList(envp, maxEnvironment, environmentBytes, maxListBytes);
    char *argv[maxArguments];
    char argumentBytes[maxListBytes];
    ipc.readStringList(argv, maxArguments, argumentBytes, maxListBytes);
    if (argv[0] == nullptr) {
        ChildIPC::die("No arguments given to child process\n");
    }
    ::execvpe(argv[0], argv, envp);
    ChildIPC::die("exec failed\n");
}

ProcessSpawner::ProcessSpawner()
    : d(std::make_unique<ProcessSpawnerPrivate>())
{
}

ProcessSpawner::~ProcessSpawner()
{
    auto &fds = openWriteEnds();
    fds.erase(std::remove(fds.begin(), fds.end(), d->ipcWriteFd), fds.end());
    ::close(d->ipcWriteFd); // harmless for -1
}

void ProcessSpawner::setArguments(const QByteArrayList &arguments)
{
    d->arguments = arguments;
}

QByteArrayList ProcessSpawner::arguments() const
{
    return d->arguments;
}

void ProcessSpawner::setEnvironment(const QByteArrayList &environment)
{
    d->environment = environment;
}

pid_t ProcessSpawner::spawn(const SetupChildCb &setupChild)
{
    Q_ASSERT_X(d->ipcWriteFd < 0, "ProcessSpawner::spawn", "spawn called twice?");

    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) == -1) {
        qWarning() << "Failed to create IPC pipe to child process";
        return -1;
    }
    const auto [readEnd, writeEnd] = fds;
    ::fcntl(writeEnd, F_SETFL, O_NONBLOCK);
    auto &allWriteEnds = openWriteEnds(); // made here at the latest: the child must not allocate

    // Until the child has reset the dispositions it would run the service's handlers: a SIGTERM that is
    // sent to it at once would be swallowed. So signals wait until it has.
    sigset_t all;
    sigset_t mask;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &mask);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(writeEnd);
        for (const int fd : allWriteEnds) {
            ::close(fd);
        }
        d->runChild(readEnd, mask, setupChild);
        ::_exit(1);
    }
    const int forkError = errno;
    ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);

    if (pid < 0) {
        // Both ends stay open: the caller gives the launch up, and the service is out of processes.
        qWarning() << "Fork failed, errno" << forkError;
        return pid;
    }
    // The child does the same for itself. Whoever comes first, a stop that follows now finds the group.
    ::setpgid(pid, pid);
    ::close(readEnd);
    d->ipcWriteFd = writeEnd;
    allWriteEnds.push_back(writeEnd);
    return pid;
}

bool ProcessSpawner::sendInt(qint32 value)
{
    return writeWhole(d->ipcWriteFd, &value, sizeof(value));
}

bool ProcessSpawner::sendBytes(const char *data, quint64 length)
{
    return writeWhole(d->ipcWriteFd, &length, sizeof(length)) && writeWhole(d->ipcWriteFd, data, length);
}

bool ProcessSpawner::sendStringList(const QByteArrayList &list)
{
    return sendInt(list.size()) && std::all_of(list.cbegin(), list.cend(), [this](const QByteArray &string) {
               return sendBytes(string.constData(), static_cast<quint64>(string.size()) + 1);
           });
}

bool ProcessSpawner::exec()
{
    Q_ASSERT_X(d->ipcWriteFd >= 0, "ProcessSpawner::exec", "exec() must be called after spawn!");
    return sendStringList(d->environment) && sendStringList(d->arguments);
}

} // namespace Core
