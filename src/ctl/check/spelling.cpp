#include "check/spelling.h"

#include <algorithm>
#include <cstdlib>

namespace Ctl::Check {

namespace {

constexpr int longestWord = 100; // no key has more characters

/// How many letters must be added, dropped, replaced or swapped with the next one; @p limit if it is not
/// less.
int distance(const QString &one, const QString &other, int limit)
{
    if (std::abs(one.size() - other.size()) >= limit) {
        return limit;
    }
    int rows[3][longestWord + 1] = {}; // this one, the one before, and the one before that
    for (int i = 0; i <= one.size(); ++i) {
        int *const row = rows[i % 3];
        const int *const before = rows[(i + 2) % 3];
        for (int j = 0; j <= other.size(); ++j) {
            if (i == 0 || j == 0) {
                row[j] = i + j;
                continue;
            }
            const int replaced = before[j - 1] + (one.at(i - 1) == other.at(j - 1) ? 0 : 1);
            row[j] = std::min({ before[j] + 1, row[j - 1] + 1, replaced });
            if (i > 1 && j > 1 && one.at(i - 1) == other.at(j - 2) && one.at(i - 2) == other.at(j - 1)) {
                row[j] = std::min(row[j], rows[(i + 1) % 3][j - 2] + 1);
            }
        }
    }
    return rows[one.size() % 3][other.size()];
}

/// Without what is easily left out or put in, and in one case.
QString bare(const QString &word)
{
    QString result;
    for (const QChar c : word) {
        if (c.isLetterOrNumber()) {
            result += c.toLower();
        }
    }
    return result;
}

} // namespace

QString closest(const QString &word, const QStringList &words)
{
    const QString wanted = bare(word);
    if (wanted.isEmpty() || wanted.size() > longestWord) {
        return QString();
    }
    QString best;
    QString longer; // the shortest one that only has more at its end
    int bestDistance = wanted.size() < 4 ? 1 : wanted.size() < 6 ? 2 : 3; // one more than is near
    for (const QString &candidate : words) {
        if (candidate == word) {
            continue;
        }
        const QString other = bare(candidate);
        const bool lacksItsEnd =
            wanted.size() >= 6 && other.startsWith(wanted) && wanted.size() * 2 >= other.size();
        if (lacksItsEnd && (longer.isEmpty() || candidate.size() < longer.size())) {
            longer = candidate;
        }
        const int away = other.size() > longestWord ? bestDistance : distance(wanted, other, bestDistance);
        if (away < bestDistance) {
            best = candidate;
            bestDistance = away;
        }
    }
    return best.isEmpty() ? longer : best;
}

QString didYouMean(const QString &word)
{
    return word.isEmpty() ? QString() : QStringLiteral(" (did you mean \"%1\"?)").arg(word);
}

} // namespace Ctl::Check
