#include "Core/error.h"

#include <QDebug>

namespace Core {

Error::Error() = default;

Error::Error(Code code, const QString &message)
    : m_code(code)
    , m_message(message)
{
}

Error::Error(const Error &) = default;
Error::Error(Error &&) noexcept = default;
Error &Error::operator=(const Error &) = default;
Error &Error::operator=(Error &&) noexcept = default;
Error::~Error() = default;

QDebug operator<<(QDebug debug, const Error &error)
{
    const QDebugStateSaver saver(debug);
    debug.nospace().quote() << "Error(" << qint32(error.code()) << ", " << error.message() << ")";
    return debug;
}

} // namespace Core
