#pragma once

#include <QByteArrayList>

#include <functional>
#include <memory>

#include <sys/types.h>

namespace Core {

class ChildIPC;
class ProcessSpawnerPrivate;

/// Starts one child in two stages: spawn() makes the process, exec() lets it run its program.
///
/// Between the two the child is blocked on a pipe, while the service, which knows the pid from the
/// start, asks for permissions and places it in control groups. Order of the calls: spawn() once, what
/// the SetupChildCb reads, exec() once; the two lists may be set at any time before exec().
///
/// Destroying the spawner before exec() abandons the child: it finds the end of the pipe and leaves with
/// status 1. After exec() the child no longer depends on the spawner. Exits are not this class's
/// concern, RuntimeTracker reaps every child. Main thread only.
///
/// SIGPIPE must be ignored in the service: a write to a child that is dead then returns false.
class ProcessSpawner
{
public:
    // What a child has room for: a list that is longer ends it.
    static constexpr size_t maximumEnvironment = 127; ///< entries
    static constexpr size_t maximumArguments = 63;
    static constexpr size_t maximumListBytes = 8192; ///< of all strings of one list with their NULs

    /// Runs in the child before the lists are read; it reads what the service sends meanwhile.
    ///
    /// The process was forked from a threaded one: the function must not allocate, lock, log or call
    /// anything else that is not safe in a signal handler, so what it needs is captured before. It must
    /// not be empty. Failures end the child through ChildIPC::die.
    using SetupChildCb = std::function<void(ChildIPC &ipc)>;

    ProcessSpawner();
    virtual ~ProcessSpawner();
    ProcessSpawner(const ProcessSpawner &) = delete;
    ProcessSpawner &operator=(const ProcessSpawner &) = delete;

    /// The argument vector; element 0 is the file to execute, searched in PATH if it holds no slash.
    /// The child takes at most 63 arguments of together 8192 bytes, NULs included.
    void setArguments(const QByteArrayList &arguments);
    QByteArrayList arguments() const;

    /// The whole environment of the program, "NAME=value" each: nothing is inherited.
    /// The child takes at most 127 entries of together 8192 bytes, NULs included.
    void setEnvironment(const QByteArrayList &environment);

    /// Makes the child, the leader of a process group of its own.
    /// @returns its pid; negative if there is no child, after a warning.
    [[nodiscard]] pid_t spawn(const SetupChildCb &setupChild);

    /// The messages that the SetupChildCb reads, in its order. Each returns false if the child did not
    /// take it whole, mostly because it is dead; nothing is logged. A child that takes nothing at all, being
    /// stopped or frozen, can hold up the caller for half a second when the pipe is full.
    [[nodiscard]] bool sendInt(qint32 value);
    [[nodiscard]] bool sendBytes(const char *data, quint64 length);
    [[nodiscard]] bool sendStringList(const QByteArrayList &list);

    /// Sends environment and arguments and so lets the child run its program.
    /// @returns false if the child did not take them. True does not say that the program runs: a child
    ///          that finds the lists too long or the file missing only ends, with status 1.
    [[nodiscard]] bool exec();

private:
    const std::unique_ptr<ProcessSpawnerPrivate> d;
};

} // namespace Core
