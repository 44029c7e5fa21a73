#pragma once

#include "Core/launching_application.h"

namespace Core {

/// Starts the command line of an application's D-Bus service file, which then has to own its service name.
///
/// Of a debug start only the environment matters here.
class MaemoApplication : public LaunchingApplication
{
    Q_OBJECT

public:
    MaemoApplication(const LaunchRequest &request, CGroupController *cgroups, QObject *parent = nullptr);
    ~MaemoApplication() override;

protected:
    bool prepare() override;
};

} // namespace Core
