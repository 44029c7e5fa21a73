#pragma once

#include <QVariantList>

namespace Core {

/// Largest message that is passed on for somebody else, in bytes: three pictures that fill a large screen.
///
/// A message may grow on its way, and a bus closes the connection of whoever sends it more than it takes,
/// which is 32 MiB if nothing else is configured.
constexpr qint64 maximumMessageSize = 24 * 1024 * 1024;

/// A generous estimate of the size of a message of these arguments, in bytes. Arguments may be as they came
/// over the bus; they are left as they are. What is larger than @p maximumMessageSize is not looked at to its
/// end.
[[nodiscard]] qint64 estimatedMessageSize(const QVariantList &arguments);

/// Whether a message of these arguments is small enough, by that estimate.
[[nodiscard]] inline bool fitsIntoMessage(const QVariantList &arguments)
{
    return estimatedMessageSize(arguments) <= maximumMessageSize;
}

} // namespace Core
