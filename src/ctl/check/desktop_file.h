#pragma once

#include "check/finding.h"

namespace Ctl::Check {

/// What is wrong with, or easily misunderstood in, a desktop file and its task groups. What the catalogue,
/// the launcher and the sandbox make of the file is asked of them; nothing is started.
void checkDesktopFile(const QString &path, Report &report);

} // namespace Ctl::Check
