#pragma once

#include <QByteArrayList>
#include <QList>
#include <QUrl>
#include <QVariantMap>

namespace Core {

class ApplicationId;
class Firejail;
struct ApplicationLaunchData;
struct DebugParams;

/// The command line of an application as it is run, before any sandbox.
struct ApplicationCommand
{
    QByteArray program; ///< the application's own, behind any wrapper
    QByteArrayList argv; ///< never empty
    bool sandboxed = true;

    /// Composes it of what the desktop file says, or a debug start instead of that.
    /// @param hints "startDBus", see Launcher::launch()
    [[nodiscard]] static ApplicationCommand make(const ApplicationLaunchData &launchData,
                                                 const DebugParams &debugParams, const QVariantMap &hints,
                                                 const QList<QUrl> &uris);
};

/// Tells @p firejail all that is known of the application before it is asked for permissions.
void fillFirejail(Firejail &firejail, const ApplicationId &appId, const ApplicationLaunchData &launchData,
                  const DebugParams &debugParams, const QString &desktopFile, const QByteArray &program);

} // namespace Core
