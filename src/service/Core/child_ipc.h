#pragma once

#include <cstddef>
#include <cstdint>

namespace Core {

/// The child's end of the pipe from the service.
///
/// Lives between fork(2) and exec(3) in a process that was forked from a threaded one: no operation
/// allocates, locks or calls anything that is not safe in a signal handler (signal-safety(7)). A read
/// that fails ends the process through die(), so what a read returns can be used without a check. The
/// end of the pipe counts as such a failure: this is how a child that will never be released ends.
///
/// Messages carry no type: both ends agree on their sequence, which process_spawner.cpp describes.
class ChildIPC
{
public:
    /// @param fd the read end of the pipe; not owned.
    explicit ChildIPC(int32_t fd);

    [[nodiscard]] int32_t readInt();

    /// Reads a byte string of at most @p capacity bytes; a longer one ends the process.
    /// No NUL is added: it is there if the sender counted it in.
    /// @returns the number of bytes in @p buffer.
    size_t readBytes(char *buffer, size_t capacity);

    /// Reads a list of NUL-terminated strings, one behind the other, into @p buffer.
    /// @param strings gets a pointer into @p buffer for each string and a null pointer behind the last;
    ///                so at most @p maxStrings - 1 strings fit, and more end the process.
    /// @param capacity bytes of all strings together, with their NULs; more end the process.
    void readStringList(char **strings, size_t maxStrings, char *buffer, size_t capacity);

    /// Writes @p message to standard error as it stands and ends the process with status 1, without
    /// running exit handlers of the service.
    [[noreturn]] static void die(const char *message);

private:
    int32_t m_fd;
};

} // namespace Core
