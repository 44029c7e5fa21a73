#include "Core/file_descriptor.h"

#include <fcntl.h>
#include <unistd.h>

namespace Core {

FileDescriptor::FileDescriptor(int descriptor)
{
    const int duplicate = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    if (duplicate >= 0) {
        m_descriptor = std::shared_ptr<const int>(new int(duplicate), [](const int *number) {
            close(*number);
            delete number;
        });
    }
}

int FileDescriptor::fileDescriptor() const
{
    return m_descriptor ? *m_descriptor : -1;
}

} // namespace Core
