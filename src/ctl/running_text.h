#pragma once

#include "output.h"

namespace Ctl {

/// The columns of ends, as GetHistory of org.kestrix.Procwarden.Introspect1 gives them.
[[nodiscard]] QVector<Output::Column> endColumns();

/// One end on one line: when, what decided it, of which process, by whom.
[[nodiscard]] QString endText(const QVariantMap &end);

/// Good for a clean exit or one that was asked for, bad for a crash, a failed launch or a lack of memory.
[[nodiscard]] Style decisionStyle(const QString &decision);

/// "early-oom: memory is Critical, ...", and by whom if somebody requested it.
[[nodiscard]] QString decisionText(const QVariantMap &end);

} // namespace Ctl
