#pragma once

namespace Ctl::Top {

/// Whether the terminal that curses works with can clear its screen and place its cursor.
[[nodiscard]] bool canPlaceCursor();

} // namespace Ctl::Top
