#pragma once

#include <QByteArray>
#include <QString>

namespace Core {

/// Largest file of a package or of the user's configuration that is read: some hundred times what makes
/// sense, and little enough that a broken one does no harm.
constexpr qint64 maximumConfigurationSize = 1024 * 1024;

/// Reads all of @p path into @p data. Never waits: what is no regular file, a FIFO or a device for example,
/// is not read.
/// @returns 0 or an errno: EINVAL for a path with a NUL, EISDIR or ENXIO for what is no regular file, EFBIG
///          for one above maximumConfigurationSize; @p data is empty then.
[[nodiscard]] int readRegularFile(const QString &path, QByteArray &data);

/// Whether @p path is a regular file of at most maximumConfigurationSize, for readers that open it
/// themselves.
[[nodiscard]] bool isRegularFile(const QString &path);

} // namespace Core
