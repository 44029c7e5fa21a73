#pragma once

#include <QDBusContext>
#include <QObject>

class QDBusConnection;
class QDBusMessage;

namespace Core {
class Error;
struct ClientInfo;
} // namespace Core

namespace DBus {

/// What every exported object derives from: it tells who is calling and sends errors in the bus's terms.
///
/// Main thread only.
// The macro is needed although there is neither signal nor slot: Qt D-Bus finds the QDBusContext of an object
// through its meta-object.
class Context : public QObject, public QDBusContext
{
    Q_OBJECT

public:
    using QObject::QObject;

    /// The caller of the slot that runs now. Blocks for one round trip to the bus daemon.
    ///
    /// A process that the service did not start is privileged and has no application; so is the service
    /// itself when it calls a slot directly. A process that it did start is privileged if it runs as the user
    /// "root" or in the group "privileged", and its appId is the instance id or the full task id that it
    /// belongs to.
    Core::ClientInfo clientInfo() const;

    /// Answers the call that runs now with @p error. To be used inside a slot.
    void sendError(const Core::Error &error) const;

    /// Answers the delayed @p message, which came over @p connection, with @p error.
    static void sendError(const QDBusConnection &connection, const QDBusMessage &message,
                          const Core::Error &error);
};

} // namespace DBus
