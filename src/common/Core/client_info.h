#pragma once

#include <QMetaType>
#include <QString>

namespace Core {

/// Who called over the bus, and how much it may do.
struct ClientInfo
{
    bool privileged = false;
    QString appId; ///< of the application, instance or task that the caller belongs to; empty if to none

    friend bool operator==(const ClientInfo &one, const ClientInfo &other)
    {
        return one.privileged == other.privileged && one.appId == other.appId;
    }
    friend bool operator!=(const ClientInfo &one, const ClientInfo &other) { return !(one == other); }
};

} // namespace Core

Q_DECLARE_METATYPE(Core::ClientInfo)
