#include "Core/file_limit.h"

#include <sys/resource.h>

namespace Core {

namespace {

rlimit original = {};
bool raised = false;

} // namespace

void raiseFileLimit()
{
    if (raised || getrlimit(RLIMIT_NOFILE, &original) != 0) {
        return;
    }
    rlimit limit = original;
    limit.rlim_cur = limit.rlim_max;
    raised = setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

void restoreFileLimit() noexcept
{
    if (raised) {
        setrlimit(RLIMIT_NOFILE, &original);
    }
}

} // namespace Core
