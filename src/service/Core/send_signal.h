#pragma once

#include <sys/types.h>

namespace Core {

enum class SignalTarget {
    Process, ///< the process alone
    Group, ///< every process of the group that the process leads
};

/// Sends a signal; the only place of the program that calls kill(2).
///
/// kill(2) gives 0, -1 and other negative numbers meanings of their own ("my group", "everybody"),
/// and 1 is the init process. A pid that was never set must not reach them, so a @p pid below 2 is
/// refused without a system call, for both targets. So is the service's own, whatever a file says.
///
/// @param signal as of signal(7); 0 only asks whether the target exists.
/// @returns 0, or the errno of the call: ESRCH when there is no such process or group, EINVAL for a
///          refused pid. Nothing is logged.
[[nodiscard]] int sendSignal(pid_t pid, SignalTarget target, int signal);

} // namespace Core
