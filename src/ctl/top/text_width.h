#pragma once

#include <QString>

namespace Ctl::Top {

/// How many columns of a terminal a character takes: 0 for combining ones, 2 for wide ones.
[[nodiscard]] int columnsOf(uint character);
[[nodiscard]] int columnsOf(const QString &text);

/// @p text in at most @p columns, without what stands behind.
[[nodiscard]] QString clipped(const QString &text, int columns);

/// @p text in at most @p columns, with an ellipsis for what is missing in its middle: ids differ at their
/// ends.
[[nodiscard]] QString shortened(const QString &text, int columns);

} // namespace Ctl::Top
