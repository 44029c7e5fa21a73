#pragma once

#include <QLatin1String>

/// Keys of the maps that the service's interfaces share.
namespace DBus::Keys {

// Details of an application: in the signals of the control interface and in the reply of a start.
constexpr QLatin1String pid("Pid"); ///< int32
constexpr QLatin1String startReason("StartReason"); ///< uint32, see Core::wireStartReason()
constexpr QLatin1String stopReason("StopReason"); ///< uint32, Core::StopReason
constexpr QLatin1String requestorId("RequestorId"); ///< string: who asked for the start, empty if nobody did
constexpr QLatin1String exitStatus("ExitStatus"); ///< int32: the raw status of waitpid(2)
constexpr QLatin1String uris("Uris"); ///< array of strings: the URIs of the start
constexpr QLatin1String state("State"); ///< uint32, Core::ApplicationState

} // namespace DBus::Keys
