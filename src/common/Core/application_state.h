#pragma once

#include <QMetaType>

namespace Core {

/// Where a running application or task is in its life. The numbers go on the bus as they are.
enum class ApplicationState : qint32 {
    Launched = 0, ///< just started, no window report yet
    Active = 1, ///< has an active window
    Inactive = 2, ///< visible or allowed to run, no active window
    Hidden = 3, ///< only hidden windows; normally frozen by the settings of the state
    Terminating = 4, ///< SIGTERM has been sent
    NotRunning = 5, ///< there is no record; returned by look-ups only
};

/// Why a process was stopped. The numbers go on the bus as they are.
enum class StopReason : qint32 {
    None = 0, ///< ended by itself, or its last window was closed
    Requested = 5, ///< somebody asked for it over the bus
    OomKilled = 6, ///< killed because memory ran short
};

} // namespace Core

Q_DECLARE_METATYPE(Core::ApplicationState)
Q_DECLARE_METATYPE(Core::StopReason)
