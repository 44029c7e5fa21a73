#pragma once

#include "Core/firejail.h"
#include "Core/launching_application.h"

#include <QByteArrayList>

namespace Core {

/// Starts the command line of a desktop file, in a sandbox unless it must not or makes its own.
class RegularApplication : public LaunchingApplication
{
    Q_OBJECT

public:
    RegularApplication(const LaunchRequest &request, CGroupController *cgroups, QObject *parent = nullptr);
    ~RegularApplication() override;

protected:
    bool prepare() override;

private:
    void onPermissionsGranted(const QStringList &granted);

    QByteArrayList argv; ///< the program's own, before firejail
    Firejail firejail;
};

} // namespace Core
