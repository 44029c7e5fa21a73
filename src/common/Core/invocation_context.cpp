#include "Core/invocation_context.h"

namespace Core {

quint32 wireStartReason(InvocationContext::StartReason reason)
{
    switch (reason) {
    case InvocationContext::NoReason:
        return 0;
    case InvocationContext::StartIntent:
        return 1;
    case InvocationContext::Autostart:
        return 2;
    case InvocationContext::IntentDelivery:
        return 3;
    case InvocationContext::DirectStart:
        return 4;
    case InvocationContext::DBusStart:
        return 6;
    }
    return 0;
}

} // namespace Core
