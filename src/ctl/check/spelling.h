#pragma once

#include <QString>
#include <QStringList>

namespace Ctl::Check {

/// The one of @p words that @p word was most likely meant to be; empty if none is near. Equal words do not
/// count.
[[nodiscard]] QString closest(const QString &word, const QStringList &words);

/// " (did you mean "WORD"?)" with a blank before it; empty for an empty @p word.
[[nodiscard]] QString didYouMean(const QString &word);

} // namespace Ctl::Check
