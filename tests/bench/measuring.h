#pragma once

#include <QElapsedTimer>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <vector>

/// Ends the measuring program, with a line that begins with its name.
[[noreturn]] inline void fail(const char *what)
{
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what);
    std::exit(1);
}

inline void check(bool holds, const char *what)
{
    if (!holds) {
        fail(what);
    }
}

/// In nanoseconds, on the clock that all processes share.
inline qint64 now()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return qint64(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

inline double milliseconds(const std::function<void()> &work)
{
    QElapsedTimer timer;
    timer.start();
    work();
    return static_cast<double>(timer.nsecsElapsed()) / 1e6;
}

inline double median(std::vector<double> values)
{
    check(!values.empty(), "nothing was measured");
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}
