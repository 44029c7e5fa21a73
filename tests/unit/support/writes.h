#pragma once

#include <QFile>
#include <QString>

#include <sys/inotify.h>
#include <unistd.h>

namespace TestSupport {

/// Counts how often a file has been written from now on, also when nobody looked in between.
class Writes
{
public:
    explicit Writes(const QString &path)
        : m_inotify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
    {
        // With its opening, since two events that are alike would be one.
        if (::inotify_add_watch(m_inotify, QFile::encodeName(path).constData(), IN_OPEN | IN_CLOSE_WRITE)
            < 0) {
            qFatal("no file to watch");
        }
    }
    ~Writes() { ::close(m_inotify); }

    Writes(const Writes &) = delete;
    Writes &operator=(const Writes &) = delete;

    int count()
    {
        inotify_event event; // of a file, thus without a name
        while (::read(m_inotify, &event, sizeof(event)) == ssize_t(sizeof(event))) {
            m_count += (event.mask & IN_CLOSE_WRITE) != 0;
        }
        return m_count;
    }

private:
    const int m_inotify;
    int m_count = 0;
};

} // namespace TestSupport
