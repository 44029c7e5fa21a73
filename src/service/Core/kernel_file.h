#pragma once

#include <QByteArray>

#include <optional>
#include <string_view>

namespace Core {

/// The decimal integer that @p text is, blanks around it allowed; nothing if it is anything else or does not
/// fit.
std::optional<int> parseDecimal(std::string_view text);

/// A small text file that the kernel makes up as it is read; see proc(5).
///
/// Goes through a buffer of its own, on the stack, and allocates nothing: such files are read by the
/// thousand, and when memory is short. Never waits, also where there is a FIFO instead of what was expected.
class KernelFile
{
public:
    /// Opens @p path, which is absolute and encoded, and reads as much of it as the buffer takes.
    explicit KernelFile(const QByteArray &path);
    ~KernelFile();

    KernelFile(const KernelFile &) = delete;
    KernelFile &operator=(const KernelFile &) = delete;

    /// False also for a directory. What can be opened and not read is a file without content: so is that of a
    /// process that has ended in between.
    bool isOpen() const { return m_fd >= 0; }

    /// The number that is all of the content.
    std::optional<int> number() const { return parseDecimal(std::string_view(m_buffer, m_end)); }

    /// Moves @p line to the next one, without its line feed. It is there until the next call. One that is
    /// longer than any line of the kernel's is cut.
    /// @returns false when there are no more.
    bool readLine(std::string_view *line);

private:
    bool fill();
    const char *nextLineFeed() const;
    void skipRestOfLine();
    void close();

    int m_fd = -1;
    bool m_atEnd = false; ///< of the file, or of what is taken of it; the buffer may hold more
    bool m_lineIsCut = false; ///< the last one that was handed out
    size_t m_read = 0; ///< in all
    size_t m_begin = 0; ///< of what has not been handed out
    size_t m_end = 0;
    char m_buffer[8192]; ///< above the kernel's longest line, a path of 4096 bytes
};

} // namespace Core
