#include "Core/launcher.h"

namespace Core {

Launcher::Launcher(CGroupController *cgroups, OomController *oom, QObject *parent)
    : QObject(parent)
    , m_cgroups(cgroups)
    , m_oom(oom)
{
}

Launcher::~Launcher() = default;

} // namespace Core
