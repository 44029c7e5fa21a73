// What is started when a start is measured: tells when it began to run, through the FIFO that its last
// argument names. The ones before it are ignored, so that it can be started in the place of the sandbox.

#include <cstdint>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const std::int64_t nanoseconds = std::int64_t(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
    const int fifo = argc > 1 ? open(argv[argc - 1], O_WRONLY | O_CLOEXEC) : -1;
    return fifo >= 0 && write(fifo, &nanoseconds, sizeof(nanoseconds)) == sizeof(nanoseconds) ? 0 : 1;
}
