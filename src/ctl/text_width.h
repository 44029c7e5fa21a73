#pragma once

#include <QString>

// Columns of a terminal, in any locale: what this tool prints is UTF-8 everywhere.

namespace Ctl {

/// How many columns a character takes: 0 for combining ones, 2 for wide ones.
[[nodiscard]] int columnsOf(uint character);
[[nodiscard]] int columnsOf(const QString &text);

/// @p text in at most @p columns, without what stands behind.
[[nodiscard]] QString clipped(const QString &text, int columns);

/// @p text in at most @p columns, with an ellipsis for what is missing at its end.
[[nodiscard]] QString cut(const QString &text, int columns);

/// @p text in at most @p columns, with an ellipsis for what is missing in its middle: ids differ at their
/// ends.
[[nodiscard]] QString shortened(const QString &text, int columns);

/// @p text with blanks behind it, so that it takes @p columns at least.
[[nodiscard]] QString padded(const QString &text, int columns);

} // namespace Ctl
