#pragma once

#include "Core/cgroup_controller.h"

#include <QStringList>

namespace Core {

/// What the process of one task needs, apart from what its id says.
struct TaskStartupInfo
{
    QStringList command; ///< program and arguments, at least one word; a program without "/" is in /usr/bin
    QStringList environment; ///< "NAME=value" each, besides the service's own
    QStringList permissions; ///< names, for the sandbox
    CGroupController::Settings cgroups; ///< control file name -> value, over the settings for all tasks
    qint32 weight = 0; ///< OOM score adjustment, -1000 to 1000
    qint32 priority = 0; ///< nice level; 0: as the service's
    qint32 cpuLimit = -1; ///< s of processor time, 0 is a real limit; negative: none
    bool createIpcSocket = false; ///< the task inherits a listening socket
};

} // namespace Core
