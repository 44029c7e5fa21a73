#include "child_stand_ins.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

// Nothing here allocates: all of it runs between fork and exec.

StandIn standIn;

namespace {

bool isRefused(const char *call)
{
    return ::strcmp(standIn.refused, call) == 0;
}

int refuse()
{
    errno = EPERM;
    return -1;
}

} // namespace

extern "C" int sd_journal_stream_fd(const char *identifier, int priority, int levelPrefix)
{
    if (standIn.journal < 0) {
        return -ENOENT;
    }
    char line[512];
    const int length = ::snprintf(line, sizeof(line), "%s|%d|%d", identifier, priority, levelPrefix);
    [[maybe_unused]] const ssize_t written = ::write(standIn.journalCall, line, static_cast<size_t>(length));
    return ::fcntl(standIn.journal, F_DUPFD_CLOEXEC, 100);
}

extern "C" int setregid(gid_t real, gid_t effective) noexcept
{
    return isRefused("setregid") ? refuse() : static_cast<int>(::syscall(SYS_setregid, real, effective));
}

extern "C" int setreuid(uid_t real, uid_t effective) noexcept
{
    return isRefused("setreuid") ? refuse() : static_cast<int>(::syscall(SYS_setreuid, real, effective));
}

extern "C" int setpriority(__priority_which_t which, id_t who, int priority) noexcept
{
    return isRefused("setpriority") ? refuse()
                                    : static_cast<int>(::syscall(SYS_setpriority, which, who, priority));
}

extern "C" int setrlimit(__rlimit_resource_t resource, const struct rlimit *limits) noexcept
{
    return isRefused("setrlimit") ? refuse()
                                  : static_cast<int>(::syscall(SYS_prlimit64, 0, resource, limits, nullptr));
}
