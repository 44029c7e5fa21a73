#include "Core/send_signal.h"

#include <cerrno>

#include <csignal>

namespace Core {

int sendSignal(pid_t pid, SignalTarget target, int signal)
{
    if (pid <= 1) {
        return EINVAL;
    }
    return ::kill(target == SignalTarget::Group ? -pid : pid, signal) == 0 ? 0 : errno;
}

} // namespace Core
