#include "Core/child_ipc.h"

#include <cstring>

#include <unistd.h>

namespace Core {

namespace {

/// One read that must return everything: the service writes each piece with a single write.
bool readWhole(int fd, void *data, size_t length)
{
    return ::read(fd, data, length) == static_cast<ssize_t>(length);
}

} // namespace

ChildIPC::ChildIPC(int32_t fd)
    : m_fd(fd)
{
}

int32_t ChildIPC::readInt()
{
    int32_t value = 0;
    if (!readWhole(m_fd, &value, sizeof(value))) {
        die("Coudn't read int value\n");
    }
    return value;
}

size_t ChildIPC::readBytes(char *buffer, size_t capacity)
{
    uint64_t length = 0;
    if (!readWhole(m_fd, &length, sizeof(length))) {
        die("Coudn't read string length\n");
    }
    if (length > capacity) {
        die("Buffer too small\n");
    }
    if (!readWhole(m_fd, buffer, length)) {
        die("couldn't read string data");
    }
    return length;
}

void ChildIPC::readStringList(char **strings, size_t maxStrings, char *buffer, size_t capacity)
{
    int32_t received = 0;
    if (!readWhole(m_fd, &received, sizeof(received))) {
        die("Coudn't read number of variables\n");
    }
    // As an unsigned number, so that a negative count is refused as well.
    const auto count = static_cast<uint32_t>(received);
    if (count >= maxStrings) {
        die("Buffer not large enough to read the variables\n");
    }
    for (uint32_t i = 0; i < count; ++i) {
        const size_t length = readBytes(buffer, capacity);
        strings[i] = buffer;
        buffer += length;
        capacity -= length;
    }
    strings[count] = nullptr;
}

void ChildIPC::die(const char *message)
{
    // Nobody is left to hear about a failed write.
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, message, ::strlen(message));
    ::_exit(1);
}

} // namespace Core
