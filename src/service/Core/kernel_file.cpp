#include "Core/kernel_file.h"

#include <cerrno>
#include <charconv>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace Core {

namespace {

// Some hundred thousand processes; whatever goes on beyond that is nothing that the kernel tells of them.
constexpr size_t maximumSize = 4 * 1024 * 1024;

constexpr std::string_view blanks = " \t\n\v\f\r";

} // namespace

std::optional<int> parseDecimal(std::string_view text)
{
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return std::nullopt;
    }
    text = text.substr(first, text.find_last_not_of(blanks) - first + 1);
    const char *const end = text.data() + text.size();
    int value = 0;
    const auto [parsed, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && parsed == end ? std::make_optional(value) : std::nullopt;
}

// The buffer is left as it is: clearing it would cost more than most of the files do.
// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
KernelFile::KernelFile(const QByteArray &path)
    : m_fd(::open(path.constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY))
{
    if (m_fd >= 0) {
        fill();
    }
}

KernelFile::~KernelFile()
{
    close();
}

void KernelFile::close()
{
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

/// Reads more, behind what has not been handed out. False if there is no more, or no room for it.
bool KernelFile::fill()
{
    if (m_atEnd) {
        return false;
    }
    m_end -= m_begin;
    std::memmove(m_buffer, m_buffer + m_begin, m_end);
    m_begin = 0;
    if (m_end == sizeof(m_buffer)) {
        return false;
    }
    ssize_t length = 0;
    do {
        length = ::read(m_fd, m_buffer + m_end, sizeof(m_buffer) - m_end);
    } while (length < 0 && errno == EINTR);
    if (length > 0) {
        m_end += static_cast<size_t>(length);
        m_read += static_cast<size_t>(length);
        m_atEnd = m_read >= maximumSize;
        return true;
    }
    m_atEnd = true;
    if (length < 0 && errno == EISDIR) {
        close();
    }
    return false;
}

/// Where the line feed is among what has not been handed out.
const char *KernelFile::nextLineFeed() const
{
    return static_cast<const char *>(std::memchr(m_buffer + m_begin, '\n', m_end - m_begin));
}

/// Leaves out what follows of a line that was cut.
void KernelFile::skipRestOfLine()
{
    do {
        if (const char *const feed = nextLineFeed()) {
            m_begin = static_cast<size_t>(feed - m_buffer) + 1;
            break;
        }
        m_begin = m_end;
    } while (fill());
    m_lineIsCut = false;
}

bool KernelFile::readLine(std::string_view *line)
{
    if (m_lineIsCut) {
        skipRestOfLine();
    }
    const char *feed = nextLineFeed();
    while (!feed && fill()) {
        feed = nextLineFeed();
    }
    if (!feed && m_begin == m_end) {
        return false;
    }
    const char *const begin = m_buffer + m_begin;
    const char *const end = feed ? feed : m_buffer + m_end;
    *line = std::string_view(begin, static_cast<size_t>(end - begin));
    m_lineIsCut = !feed && !m_atEnd;
    m_begin = feed ? static_cast<size_t>(feed - m_buffer) + 1 : m_end;
    return true;
}

} // namespace Core
