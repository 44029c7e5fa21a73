#pragma once

#include "check/finding.h"

namespace Ctl::Check {

// Files of the INI form of QSettings, which is asked for their values.

/// manifest.json's companion solvane.pkg.
void checkPackageFile(const QString &path, Report &report);
/// STATE.config
void checkStateFile(const QString &path, Report &report);
void checkOomConfiguration(const QString &path, Report &report);
void checkTaskConfiguration(const QString &path, Report &report);
void checkVersionOverrides(const QString &path, Report &report);

} // namespace Ctl::Check
