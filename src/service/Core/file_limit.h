#pragma once

namespace Core {

/// Lets this process have as many descriptors as the system allows it.
///
/// Clients send descriptors in their messages, and a bus connection does not survive one for which there is
/// no number left. Programs that were not made for it may not cope with so many: see restoreFileLimit().
void raiseFileLimit();

/// For a child, between fork(2) and exec(3): sets the limit that the service was started with.
void restoreFileLimit() noexcept;

} // namespace Core
