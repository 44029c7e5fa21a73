#pragma once

#include "Core/process_id.h"

namespace Core {

/// Why an application or a task is started, and for whom.
struct InvocationContext
{
    enum StartReason : qint32 {
        NoReason = 0, ///< a task started by a client
        StartIntent = 1, ///< the intent "Start"
        Autostart = 2, ///< a task's autostart
        IntentDelivery = 3, ///< an intent is handed to its handler
        DirectStart = 4, ///< a start, also a debug start, over the control interface
        DBusStart = 5 ///< the intent "Start" that counts as a D-Bus activation
    };

    StartReason reason = NoReason;
    ProcessId requestor; ///< empty when nobody asked

    friend bool operator==(const InvocationContext &one, const InvocationContext &other)
    {
        return one.reason == other.reason && one.requestor == other.requestor;
    }
    friend bool operator!=(const InvocationContext &one, const InvocationContext &other)
    {
        return !(one == other);
    }
};

/// The number that stands for @p reason on the bus. It is not the enumerator's for all of them: 5 is never
/// sent, a D-Bus activation is 6, and an unknown reason is 0.
[[nodiscard]] quint32 wireStartReason(InvocationContext::StartReason reason);

} // namespace Core

Q_DECLARE_METATYPE(Core::InvocationContext)
