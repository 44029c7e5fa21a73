#pragma once

#include <QLatin1String>

/// What the notification interface is called on the bus, on both sides of the service: as it offers the
/// interface to clients, and as it uses the server's.
namespace Core::NotificationNames {

inline const QLatin1String path("/org/freedesktop/Notifications");
inline const char interface[] = "org.freedesktop.Notifications"; ///< also the name that clients look for
inline const QLatin1String server("org.solvaneos.Notifications"); ///< behind which the server itself sits

// Methods
inline const QLatin1String getCapabilities("GetCapabilities");
inline const QLatin1String notify("Notify");
inline const QLatin1String closeNotification("CloseNotification");
inline const QLatin1String getServerInformation("GetServerInformation");
inline const QLatin1String getNotifications("GetNotifications");
inline const QLatin1String getNotificationsByCategory("GetNotificationsByCategory");

// Signals
inline const QLatin1String notificationClosed("NotificationClosed");
inline const QLatin1String actionInvoked("ActionInvoked");
inline const QLatin1String inputTextSet("InputTextSet");

} // namespace Core::NotificationNames
