#include "top/terminal_capabilities.h"

// In a file of its own: term.h makes macros of words such as lines, columns and signals.
#include <curses.h>
#include <term.h>

namespace Ctl::Top {

bool canPlaceCursor()
{
    return cursor_address != nullptr && clear_screen != nullptr;
}

} // namespace Ctl::Top
