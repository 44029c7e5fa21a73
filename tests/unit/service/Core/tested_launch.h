#pragma once

#include "launch_fixture.h"

#include <QPointer>

#include <functional>

/// A launch whose command line is given, and whose inside can be seen.
class TestedLaunch : public Core::LaunchingApplication
{
public:
    TestedLaunch(const Core::LaunchRequest &request, Core::CGroupController *controller,
                 QObject *parent = nullptr)
        : Core::LaunchingApplication(request, controller, parent)
    {
        setCallback([this](const Core::ApplicationInstanceId &id, pid_t process, const Core::Error &error) {
            reports << Report { id.text(), process, error.code(), error.message() };
            if (onReport) {
                const auto run = onReport;
                run();
            }
        });
    }

    bool prepare() override
    {
        spawner.setArguments(arguments);
        return onPrepare ? onPrepare() : true;
    }

    using LaunchingApplication::callback;
    using LaunchingApplication::fail;
    using LaunchingApplication::instanceId;
    using LaunchingApplication::packageName;
    using LaunchingApplication::pendingSteps;
    using LaunchingApplication::promptPermissions;
    using LaunchingApplication::references;
    using LaunchingApplication::spawner;
    using LaunchingApplication::stderrFile;
    using LaunchingApplication::stdoutFile;
    using LaunchingApplication::stepDone;

    QByteArrayList arguments;
    std::function<bool()> onPrepare;
    std::function<void()> onReport;
    inline static QList<Report> reports; ///< of all launches
};
