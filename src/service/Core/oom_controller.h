#pragma once

#include "Core/memory_level.h"

#include <QString>

#include <memory>

#include <sys/types.h>

namespace Core {

struct Candidate;
class OomControllerPrivate;

/// Judges how much memory is left, reads how the kernel's out-of-memory killer ranks processes, and says what
/// speaks for a process that is being started.
///
/// Main thread only. The configuration, `/etc/procwarden/oom.cfg`, is read once, at construction.
class OomController
{
public:
    using MemoryLevel = Core::MemoryLevel;

    /// What speaks for a process that is being started; bits of a mask.
    enum StartFlag : int {
        DirectRequest = 0x1, ///< somebody asked for this very application
        ExtraProtection = 0x2,
    };

    OomController();
    virtual ~OomController();

    OomController(const OomController &) = delete;
    OomController &operator=(const OomController &) = delete;

    /// Reads /proc/meminfo anew. A file that cannot be read, or lacks what is needed, is `Unknown`, after a
    /// warning.
    MemoryLevel readMemoryLevel() const;
    /// What the last readMemoryLevel() has found.
    const MemoryReading &lastReading() const;

    int checkIntervalMsec() const; ///< ms between two looks at the memory, above 0; so are the next two
    int checkIntervalMsecLowMem() const;
    int checkIntervalMsecCriticalMem() const;
    int notificationUnfreezeMsec() const; ///< how long a hidden application may run; 0 or less: not at all

    /// Fills in the scores of @p candidate for the group leader @p pid, and which process of its control
    /// group to kill: the one that has volunteered most through its `oom_score_adj`, the leader if none has.
    /// @returns false if the leader's scores cannot be read.
    bool readProcessScore(pid_t pid, Candidate *candidate) const;

    /// The value for `oom_score_adj` (see proc(5)) of a process started under @p flags: each
    /// StartFlag takes 100 off, so that the process is killed later than others.
    static int oomScoreForStart(int flags);

    /// Reads a file that holds one decimal integer, blanks around it allowed. @p path is below the root
    /// directory of the service. A file that cannot be opened is warned about.
    static bool readIntFromFile(const QString &path, int *value);

private:
    const std::unique_ptr<OomControllerPrivate> d;
};

} // namespace Core
