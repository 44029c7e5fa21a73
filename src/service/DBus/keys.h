#pragma once

#include <QLatin1String>

/// Keys of the maps that the service's interfaces share.
namespace DBus::Keys {

// Details of an application: in the signals of the control interface and in the reply of a start.
inline const QLatin1String pid("Pid"); ///< int32
inline const QLatin1String startReason("StartReason"); ///< uint32, see Core::wireStartReason()
inline const QLatin1String stopReason("StopReason"); ///< uint32, Core::StopReason
inline const QLatin1String requestorId("RequestorId"); ///< string: who asked for the start; empty: nobody
inline const QLatin1String exitStatus("ExitStatus"); ///< int32: the raw status of waitpid(2)
inline const QLatin1String uris("Uris"); ///< array of strings: the URIs of the start
inline const QLatin1String state("State"); ///< uint32, Core::ApplicationState

} // namespace DBus::Keys
