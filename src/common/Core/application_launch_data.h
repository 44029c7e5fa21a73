#pragma once

#include <QString>

namespace Core {

/// How an application wants to be launched, as its desktop file declares it.
///
/// Values are compared case-sensitively with the one text that changes a default; any other text keeps it.
/// "Sandbox groups" are the groups X-Application, X-Sailjail and Sailjail: the first non-empty value counts.
struct ApplicationLaunchData
{
    QString exec; ///< `Exec`, with its field codes; may be empty
    QString execDBus; ///< `ExecDBus` of the sandbox groups: the command line of a D-Bus activation
    QString maemoService; ///< `X-Maemo-Service`: the bus name of a legacy application
    QString maemoObjectPath; ///< `X-Maemo-Object-Path`; "/" if only the service is given
    QString maemoMethod; ///< `X-Maemo-Method`, in the form `interface.method`
    QString maemoFixedArgs; ///< `X-Maemo-Fixed-Args`, separated by ";"
    QString dataDirectory; ///< `DataDirectory` of the sandbox groups
    bool sandboxed = true; ///< `Sandboxing` of the sandbox groups; false for "Disabled"
    bool singleInstance = true; ///< `X-Nemo-Single-Instance`; false for "no"
    bool singleCover = false; ///< `X-Solvane-Single-Cover`; true for "yes"
    bool compatibilityMode = false; ///< `Mode`; true for any value but "Normal"
};

} // namespace Core
