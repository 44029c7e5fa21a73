#pragma once

namespace Core {

/// Knows how the kernel's and the service's own out-of-memory killing rank processes.
class OomController
{
public:
    /// What speaks for a process that is being started; bits of a mask.
    enum StartFlag : int {
        DirectRequest = 0x1, ///< somebody asked for this very application
        ExtraProtection = 0x2,
    };

    /// The value for `oom_score_adj` (see proc(5)) of a process started under @p flags: each
    /// StartFlag takes 100 off, so that the process is killed later than others.
    static int oomScoreForStart(int flags);
};

} // namespace Core
