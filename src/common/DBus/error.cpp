#include "DBus/error.h"

namespace DBus {

Error::Error(const Core::Error &error)
    : Core::Error(error)
{
}

QString Error::name() const
{
    // The code may come from anywhere: only those named here have a name of their own on the bus.
    switch (code()) {
    case NoError:
        return QString();
    case HandlerNotFound:
        return QStringLiteral("org.kestrix.Procwarden.Error.HandlerNotFound");
    case HandlerFailed:
        return QStringLiteral("org.kestrix.Procwarden.Error.HandlerFailed");
    case InvalidArgs:
        return QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs");
    case NotSupported:
        return QStringLiteral("org.freedesktop.DBus.Error.NotSupported");
    case AccessDenied:
        return QStringLiteral("org.freedesktop.DBus.Error.AccessDenied");
    case ProcessNotHandled:
        return QStringLiteral("org.kestrix.Procwarden.Error.ProcessNotHandled");
    case ApplicationAlreadyRunning:
        return QStringLiteral("org.kestrix.Procwarden.Error.ApplicationAlreadyRunning");
    case ApplicationTerminating:
        return QStringLiteral("org.kestrix.Procwarden.Error.ApplicationTerminating");
    case TaskNotFound:
        return QStringLiteral("org.kestrix.Procwarden.Error.TaskNotFound");
    case ApplicationBlocked:
        return QStringLiteral("org.kestrix.Procwarden.Error.ApplicationBlocked");
    case ApplicationAlreadyLaunching:
        return QStringLiteral("org.kestrix.Procwarden.Error.ApplicationAlreadyLaunching");
    case Failed:
    case NotRunning:
    case SpawnFailed:
    case TooManyTasks:
        break;
    }
    return QStringLiteral("org.freedesktop.DBus.Error.Failed");
}

} // namespace DBus
