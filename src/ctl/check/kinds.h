#pragma once

#include "check/finding.h"

#include <QStringList>

#include <optional>

namespace Ctl::Check {

/// The kinds of files that are looked at.
enum class Kind { Desktop, Manifest, Package, State, Intent, Oom, Tasks, Versions };

struct Target
{
    QString path;
    Kind kind;
};

/// As `--type` takes it: "desktop".
[[nodiscard]] QString kindName(Kind kind);
[[nodiscard]] QStringList kindNames();
[[nodiscard]] std::optional<Kind> kindOfName(const QString &name);

/// Told by the name, else by what stands in the file.
[[nodiscard]] std::optional<Kind> kindOf(const QString &path);

/// What is found in one file. @p kind: if it is known already.
[[nodiscard]] QVector<Finding> checkFile(const QString &path, std::optional<Kind> kind = std::nullopt);

} // namespace Ctl::Check
