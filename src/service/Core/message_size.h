#pragma once

#include <QVariantList>

namespace Core {

/// Largest message that is passed on for somebody else, in bytes: three pictures that fill a large screen.
///
/// A message may grow on its way, and a bus closes the connection of whoever sends it more than it takes,
/// which is 32 MiB if nothing else is configured.
constexpr qint64 maximumMessageSize = 24 * 1024 * 1024;

/// Whether a message of these arguments is small enough, by a generous estimate of its size. Arguments may be
/// as they came over the bus; they are left as they are. What is too large is not looked at to its end.
[[nodiscard]] bool fitsIntoMessage(const QVariantList &arguments);

} // namespace Core
