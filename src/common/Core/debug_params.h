#pragma once

#include <QString>
#include <QStringList>
#include <QVariantMap>

namespace Core {

/// How a debug start differs from a normal one; a default-made value means a normal start.
struct DebugParams
{
    QStringList firejailParams; ///< further arguments for the sandbox program
    QStringList environment; ///< `NAME=value` each
    QStringList applicationWrapper; ///< program and arguments put in front of the application's own
    QStringList commandLineParams; ///< program and arguments in place of the desktop file's
    bool noSandbox = false;
    QString stdoutFile; ///< empty: standard output goes where it always goes
    QString stderrFile;

    /// Reads the keys of the fields' names, except that `noSandbox` is the inverse of the boolean
    /// "sandbox". A missing key gives the field's default; a value that is no boolean does not take the
    /// sandbox away.
    [[nodiscard]] static DebugParams fromMap(const QVariantMap &map);

    friend bool operator==(const DebugParams &one, const DebugParams &other)
    {
        return one.firejailParams == other.firejailParams && one.environment == other.environment
            && one.applicationWrapper == other.applicationWrapper
            && one.commandLineParams == other.commandLineParams && one.noSandbox == other.noSandbox
            && one.stdoutFile == other.stdoutFile && one.stderrFile == other.stderrFile;
    }
    friend bool operator!=(const DebugParams &one, const DebugParams &other) { return !(one == other); }
};

} // namespace Core
