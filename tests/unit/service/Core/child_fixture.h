#pragma once

#include "Core/child_ipc.h"
#include "Core/process_spawner.h"

#include <QByteArray>
#include <QByteArrayList>

#include <cerrno>
#include <csignal>
#include <functional>
#include <memory>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

// What the tests of children share: output in memory files, waits with a limit.

constexpr int childLimitMs = 20000;

/// A file in memory that a child writes and the test reads afterwards.
class MemoryFile
{
public:
    MemoryFile()
        : m_fd(::memfd_create("captured", MFD_CLOEXEC))
    {
    }
    ~MemoryFile() { ::close(m_fd); }
    MemoryFile(const MemoryFile &) = delete;
    MemoryFile &operator=(const MemoryFile &) = delete;

    int fd() const { return m_fd; }

    QByteArray content() const
    {
        QByteArray all;
        char buffer[4096];
        ssize_t length = 0;
        while ((length = ::pread(m_fd, buffer, sizeof(buffer), all.size())) > 0) {
            all.append(buffer, static_cast<int>(length));
        }
        return all;
    }

private:
    const int m_fd;
};

/// Points a descriptor of this process elsewhere until the end of the scope.
class Redirected
{
public:
    Redirected(int target, int fd)
        : m_target(target)
        , m_saved(::fcntl(target, F_DUPFD_CLOEXEC, 10))
    {
        ::dup2(fd, target);
    }
    ~Redirected()
    {
        ::dup2(m_saved, m_target);
        ::close(m_saved);
    }
    Redirected(const Redirected &) = delete;
    Redirected &operator=(const Redirected &) = delete;

private:
    const int m_target;
    const int m_saved;
};

/// Sets the disposition of a signal until the end of the scope.
class Disposition
{
public:
    Disposition(int signal, void (*handler)(int))
        : m_signal(signal)
    {
        struct sigaction action = {};
        action.sa_handler = handler; // without SA_RESTART
        ::sigaction(signal, &action, &m_saved);
    }
    ~Disposition() { ::sigaction(m_signal, &m_saved, nullptr); }
    Disposition(const Disposition &) = delete;
    Disposition &operator=(const Disposition &) = delete;

private:
    const int m_signal;
    struct sigaction m_saved = {};
};

/// @returns whether the process has ended, without reaping it; also for one that is reaped already.
inline bool waitUntilDead(pid_t pid)
{
    const int fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (fd == -1) {
        return errno == ESRCH;
    }
    pollfd waited = { fd, POLLIN, 0 };
    const bool dead = ::poll(&waited, 1, childLimitMs) == 1;
    ::close(fd);
    return dead;
}

/// Ends a child. Nothing is sent to a pid that is none: to kill(2), -1 means every process of the machine,
/// which a test must not end when a start that it takes for granted has failed.
/// @returns 0, or -1 if nothing was sent.
inline int killChild(pid_t pid)
{
    return pid > 1 ? ::kill(pid, SIGKILL) : -1;
}

/// Stops a child, and returns when it stands still: until then it may read, and take something out of a pipe.
inline void stopChild(pid_t pid)
{
    if (pid > 1 && ::kill(pid, SIGSTOP) == 0) {
        while (::waitpid(pid, nullptr, WUNTRACED) == -1 && errno == EINTR) { }
    }
}

/// @returns the status word of the child, or -1 if it had to be killed or is no child.
inline int waitForChild(pid_t pid)
{
    if (pid <= 1) {
        return -1;
    }
    const bool dead = waitUntilDead(pid);
    if (!dead) {
        killChild(pid);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return dead ? status : -1;
}

struct Outcome
{
    int status = -1; ///< status word of wait(2)
    QByteArray output;
    QByteArray errors;
};

/// A child of a spawner with both output streams captured; killed with the object if it still runs.
class CapturedChild
{
public:
    ~CapturedChild()
    {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }

    bool spawn(const Core::ProcessSpawner::SetupChildCb &setupChild = [](Core::ChildIPC &) {})
    {
        const int out = m_output.fd();
        const int err = m_errors.fd();
        pid = spawner->spawn([out, err, &setupChild](Core::ChildIPC &ipc) {
            ::dup2(out, STDOUT_FILENO);
            ::dup2(err, STDERR_FILENO);
            setupChild(ipc);
        });
        return pid > 0;
    }

    bool exec(const QByteArrayList &arguments, const QByteArrayList &environment = {})
    {
        spawner->setArguments(arguments);
        spawner->setEnvironment(environment);
        return spawner->exec();
    }

    Outcome wait()
    {
        const int status = waitForChild(pid);
        pid = -1;
        return { status, m_output.content(), m_errors.content() };
    }

    std::unique_ptr<Core::ProcessSpawner> spawner = std::make_unique<Core::ProcessSpawner>();
    pid_t pid = -1;

private:
    MemoryFile m_output;
    MemoryFile m_errors;
};

/// Runs a function in a fork with both output streams captured; it leaves with status 0 behind it.
/// Messages of Qt's logger go to the errors, a text a line.
inline Outcome runInFork(const std::function<void()> &function)
{
    const MemoryFile output;
    const MemoryFile errors;
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(output.fd(), STDOUT_FILENO);
        ::dup2(errors.fd(), STDERR_FILENO);
        ::signal(SIGABRT, SIG_DFL);
        const rlimit noCore = { 0, 0 };
        ::setrlimit(RLIMIT_CORE, &noCore);
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &message) {
            const QByteArray line = message.toUtf8() + '\n';
            [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.constData(), line.size());
        });
        function();
        ::_exit(0);
    }
    const int status = waitForChild(pid);
    return { status, output.content(), errors.content() };
}
