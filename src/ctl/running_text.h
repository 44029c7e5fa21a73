#pragma once

#include "output.h"

namespace Ctl {

/// The columns of ends, as GetHistory of org.kestrix.Procwarden.Introspect1 gives them.
[[nodiscard]] QVector<Output::Column> endColumns();

/// One end on one line: when, and what decided it.
[[nodiscard]] QString endText(const QVariantMap &end);

/// Good for a clean exit or one that was asked for, bad for a crash, a failed launch or a lack of memory.
[[nodiscard]] Style decisionStyle(const QString &decision);

/// "early-oom: memory is Critical, ...", or the detail alone where it says it all.
[[nodiscard]] QString decisionText(const QVariantMap &end);

} // namespace Ctl
