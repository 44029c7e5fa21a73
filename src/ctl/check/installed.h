#pragma once

#include "check/kinds.h"

namespace Ctl::Check {

/// All that the service would read here, in the order of its directories. What is hidden by another file is
/// among it.
[[nodiscard]] QVector<Target> installedTargets();

/// What is found between them, beyond what each of them has by itself.
[[nodiscard]] QVector<Finding> checkTogether(const QVector<Target> &targets);

} // namespace Ctl::Check
