#include "Core/debug_params.h"

namespace Core {

DebugParams DebugParams::fromMap(const QVariantMap &map)
{
    DebugParams params;
    params.firejailParams = map.value(QStringLiteral("firejailParams")).toStringList();
    params.environment = map.value(QStringLiteral("environment")).toStringList();
    params.applicationWrapper = map.value(QStringLiteral("applicationWrapper")).toStringList();
    params.commandLineParams = map.value(QStringLiteral("commandLineParams")).toStringList();
    // QVariant takes many a value for false, an empty list among them: only a boolean counts.
    const QVariant sandbox = map.value(QStringLiteral("sandbox"));
    params.noSandbox = sandbox.userType() == QMetaType::Bool && !sandbox.toBool();
    params.stdoutFile = map.value(QStringLiteral("stdoutFile")).toString();
    params.stderrFile = map.value(QStringLiteral("stderrFile")).toString();
    return params;
}

} // namespace Core
