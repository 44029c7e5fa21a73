#pragma once

#include <QVariant>

namespace Ctl {

/// A value from the bus as Qt's plain ones, at any depth: maps as QVariantMap, arrays and structures as
/// QVariantList, variants as what they hold, paths as text, a file descriptor as the text "fd".
[[nodiscard]] QVariant plainValue(const QVariant &value);

} // namespace Ctl
