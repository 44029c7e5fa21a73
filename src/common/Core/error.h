#pragma once

#include <QMetaType>
#include <QString>

class QDebug;

namespace Core {

/// A failure inside the service: its kind and a message for humans. A default-made one means success.
class Error
{
public:
    /// The numbers appear in logs and reports; they never change.
    enum Code : qint32 {
        NoError = 0,
        Failed = 1, ///< any other failure
        HandlerNotFound = 2, ///< no application handles an intent
        HandlerFailed = 3, ///< the intent's handler reported a failure
        InvalidArgs = 4, ///< malformed arguments, bad hints, bad configuration of a request
        NotSupported = 5, ///< the target does not offer the operation
        AccessDenied = 6, ///< the caller may not do this
        ProcessNotHandled = 7, ///< a pid that no record of the service covers
        NotRunning = 8, ///< the application is not running
        ApplicationAlreadyRunning = 9, ///< start of a single-instance application that runs
        ApplicationTerminating = 10, ///< start while the only instance is being stopped
        TaskNotFound = 11, ///< no such task
        SpawnFailed = 12, ///< the child could not be created or set up
        ApplicationBlocked = 13, ///< somebody prevents launches of the application
        TooManyTasks = 14, ///< the application runs as many tasks as it may
        ApplicationAlreadyLaunching = 15 ///< start of a single-instance application that is being launched
    };

    Error();
    Error(Code code, const QString &message);
    Error(const Error &);
    Error(Error &&) noexcept;
    Error &operator=(const Error &);
    Error &operator=(Error &&) noexcept;
    virtual ~Error();

    [[nodiscard]] Code code() const { return m_code; }
    /// May be empty.
    [[nodiscard]] QString message() const { return m_message; }

    /// True on failure.
    explicit operator bool() const { return m_code != NoError; }

private:
    Code m_code = NoError;
    QString m_message;
};

/// Writes `Error(code, "message")`.
QDebug operator<<(QDebug debug, const Error &error);

} // namespace Core

Q_DECLARE_METATYPE(Core::Error)
