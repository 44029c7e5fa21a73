#include "Core/regular_file.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Core {

namespace {

int readOpenFile(int fd, QByteArray &data)
{
    struct stat status
    {
    };
    if (::fstat(fd, &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return S_ISDIR(status.st_mode) ? EISDIR : ENXIO;
    }
    if (status.st_size > maximumConfigurationSize) {
        return EFBIG;
    }
    data.resize(static_cast<int>(status.st_size));
    int length = 0;
    while (length < data.size()) {
        const ssize_t got = ::read(fd, data.data() + length, static_cast<size_t>(data.size() - length));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return errno;
        }
        if (got == 0) {
            break; // it became shorter meanwhile
        }
        length += static_cast<int>(got);
    }
    data.truncate(length);
    return 0;
}

} // namespace

int readRegularFile(const QString &path, QByteArray &data)
{
    data.clear();
    if (path.contains(QChar(0))) {
        return EINVAL; // the system would take the part before it for the name
    }
    // Without O_NONBLOCK, opening a FIFO waits for somebody who writes.
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        return errno;
    }
    const int error = readOpenFile(fd, data);
    ::close(fd);
    if (error != 0) {
        data.clear();
    }
    return error;
}

bool isRegularFile(const QString &path)
{
    const QFileInfo info(path);
    return info.isFile() && info.size() <= maximumConfigurationSize;
}

} // namespace Core
