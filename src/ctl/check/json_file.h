#pragma once

#include "check/finding.h"

#include <QStringList>

namespace Ctl::Check {

/// The hints that mean something, in a definition as in a request.
[[nodiscard]] QStringList intentHints();
/// NAME.intent
void checkIntentDefinition(const QString &path, Report &report);
/// manifest.json of a package.
void checkManifest(const QString &path, Report &report);

} // namespace Ctl::Check
