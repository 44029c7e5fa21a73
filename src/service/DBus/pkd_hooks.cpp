#include "DBus/pkd_hooks.h"

#include "Core/application_id.h"
#include "Core/application_registry.h"

namespace DBus {

PkdHooks::PkdHooks(QObject *parent)
    : Context(parent)
{
}

PkdHooks::~PkdHooks() = default;

void PkdHooks::OnRemove(const QString &appId)
{
    Core::ApplicationRegistry::instance()->clearDefaultHandlers(Core::ApplicationId(appId));
}

} // namespace DBus
