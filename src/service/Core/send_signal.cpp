#include "Core/send_signal.h"

#include <cerrno>

#include <csignal>

#include <unistd.h>

namespace Core {

int sendSignal(pid_t pid, SignalTarget target, int signal)
{
    if (pid <= 1 || pid == ::getpid()) {
        return EINVAL;
    }
    return ::kill(target == SignalTarget::Group ? -pid : pid, signal) == 0 ? 0 : errno;
}

} // namespace Core
