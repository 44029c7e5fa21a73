#pragma once

#include "check/finding.h"

#include <QByteArray>

namespace Ctl::Check {

/// Reads a file as the readers do, without ever waiting, and reports what makes them pass it over.
/// @returns whether there is something to look at.
[[nodiscard]] bool readFile(const QString &path, QByteArray &content, Report &report);

/// Line of the byte at @p offset, from 1.
[[nodiscard]] int lineAt(const QByteArray &content, int offset);

} // namespace Ctl::Check
