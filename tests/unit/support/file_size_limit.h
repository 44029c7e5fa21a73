#pragma once

#include <QtGlobal>

#include <csignal>

#include <sys/resource.h>

namespace TestSupport {

/// Files cannot grow beyond some size while this exists: a write fails as on a full disk.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        m_handler = std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_previous);
        rlimit limit = m_previous;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &m_previous);
        std::signal(SIGXFSZ, m_handler);
    }
    Q_DISABLE_COPY(FileSizeLimit)

private:
    rlimit m_previous {};
    void (*m_handler)(int) = SIG_DFL;
};

} // namespace TestSupport
