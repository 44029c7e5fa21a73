#pragma once

#include "Core/client_info.h"
#include "Core/requestor.h"

#include <QDBusContext>
#include <QObject>

#include <functional>
#include <memory>

#include <sys/types.h>

class QDBusConnection;
class QDBusMessage;

namespace Core {
class Error;
} // namespace Core

namespace DBus {

/// Who is calling, and what is kept of it where the history wants to know later.
struct Caller
{
    Core::ClientInfo info;
    Core::Requestor requestor;
};

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

    /// The same with what the history keeps of it: of one of the service's own the id, of any other process
    /// what proc(5) tells. Blocks no longer than clientInfo() does.
    Caller caller() const;

    /// Asks the bus daemon who is calling, without waiting for its answer. Not for those who may be the
    /// service's own.
    ///
    /// @param known runs once, later, when all is known that there is to know.
    /// @returns what has the bus at once and the rest before @p known runs.
    std::shared_ptr<const Core::Requestor> identifyCaller(const std::function<void()> &known);

    /// Answers the call that runs now with @p error. To be used inside a slot.
    void sendError(const Core::Error &error) const;

    /// Answers the delayed @p message, which came over @p connection, with @p error.
    static void sendError(const QDBusConnection &connection, const QDBusMessage &message,
                          const Core::Error &error);

private:
    pid_t callerPid() const;
    QString callerBus() const;
};

} // namespace DBus
