#pragma once

#include "check/finding.h"

namespace Ctl::Check {

/// NAME.intent
void checkIntentDefinition(const QString &path, Report &report);
/// manifest.json of a package.
void checkManifest(const QString &path, Report &report);

} // namespace Ctl::Check
