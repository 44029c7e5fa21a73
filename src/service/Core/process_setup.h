#pragma once

#include <QString>

#include <memory>

#include <sys/types.h>

namespace Core {

class ChildIPC;
class ProcessSetupPrivate;
class ProcessSpawner;

/// What a child does to itself before it runs its program: identity, group, score, priority, limits,
/// output.
///
/// The send operations run in the service, after ProcessSpawner::spawn(), on a short-lived object of this
/// class; the static ones run in the child's SetupChildCb. Each step's send and receive belong together,
/// and both ends must take the steps in the same order. The static ones keep to what is safe between
/// fork(2) and exec(3), and a message that does not arrive ends the child.
class ProcessSetup
{
public:
    /// @param spawner not owned, outlives this object.
    explicit ProcessSetup(ProcessSpawner *spawner);
    virtual ~ProcessSetup();
    ProcessSetup(const ProcessSetup &) = delete;
    ProcessSetup &operator=(const ProcessSetup &) = delete;

    /// @param pid the child's; it writes its own score file.
    /// @param score -1000 to 1000, see oom_score_adj in proc(5).
    /// @returns false if a write failed, after a warning. The other operations do not log.
    [[nodiscard]] bool sendOomScore(pid_t pid, int score);

    /// @param identifier under which the journal files the child's output; at most 255 bytes of UTF-8.
    [[nodiscard]] bool sendJournalIdentifier(const QString &identifier);

    /// Descriptors that were open at spawn(); a negative one leaves that stream as it is.
    [[nodiscard]] bool sendOutputFds(int stdoutFd, int stderrFd);

    /// @param level of nice(2) for the child's group; 0 leaves it as inherited.
    [[nodiscard]] bool sendNiceLevel(int level);

    /// @param seconds of processor time until SIGXCPU, two more until SIGKILL; negative sets no limit.
    [[nodiscard]] bool sendMaxRunningTime(int seconds);

    /// Drops effective and saved ids to the real user and group and makes the child the leader of a
    /// group of its own. Ends the child on failure.
    static void becomeRealUser(ChildIPC &ipc);

    /// @returns false if the score file cannot be opened (the score is then left unread) or written.
    [[nodiscard]] static bool receiveOomScore(ChildIPC &ipc);

    /// Attaches standard output and error to the journal. Without a journal both stay as they are.
    static void receiveJournalIdentifier(ChildIPC &ipc);

    /// @returns false if a descriptor cannot become standard output or error.
    [[nodiscard]] static bool receiveOutputFds(ChildIPC &ipc);

    /// @returns false if the system refuses a positive level. A negative one needs a privilege and may be
    ///          refused: the child then runs at the inherited level.
    [[nodiscard]] static bool receiveNiceLevel(ChildIPC &ipc);

    /// @returns false if the system refuses the limit.
    [[nodiscard]] static bool receiveMaxRunningTime(ChildIPC &ipc);

private:
    const std::unique_ptr<ProcessSetupPrivate> d;
};

} // namespace Core
