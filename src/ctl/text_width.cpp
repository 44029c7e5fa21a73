#include "text_width.h"

#include <QVector>

#include <algorithm>
#include <numeric>

#include <glib.h>

namespace Ctl {

namespace {

QString toText(const QVector<uint> &characters)
{
    return QString::fromUcs4(characters.constData(), characters.size());
}

/// How many characters from the beginning fit.
int fitting(const QVector<uint> &characters, int columns)
{
    int count = 0;
    for (int used = 0; count < characters.size(); ++count) {
        used += columnsOf(characters.at(count));
        if (used > columns) {
            break;
        }
    }
    return count;
}

} // namespace

int columnsOf(uint character)
{
    if (g_unichar_iszerowidth(character)) {
        return 0;
    }
    return g_unichar_iswide(character) ? 2 : 1;
}

int columnsOf(const QString &text)
{
    const QVector<uint> characters = text.toUcs4();
    return std::accumulate(characters.cbegin(), characters.cend(), 0,
                           [](int sum, uint character) { return sum + columnsOf(character); });
}

QString clipped(const QString &text, int columns)
{
    const QVector<uint> characters = text.toUcs4();
    return toText(characters.mid(0, fitting(characters, columns)));
}

QString cut(const QString &text, int columns)
{
    if (columnsOf(text) <= columns) {
        return text;
    }
    return columns < 1 ? QString() : clipped(text, columns - 1) + QChar(0x2026);
}

QString shortened(const QString &text, int columns)
{
    if (columnsOf(text) <= columns) {
        return text;
    }
    if (columns < 1) {
        return QString();
    }
    const QVector<uint> characters = text.toUcs4();
    const int ofHead = (columns - 1) / 2;
    const QVector<uint> head = characters.mid(0, fitting(characters, ofHead));
    QVector<uint> reversed = characters;
    std::reverse(reversed.begin(), reversed.end());
    QVector<uint> tail = reversed.mid(0, fitting(reversed, columns - 1 - ofHead));
    std::reverse(tail.begin(), tail.end());
    return toText(head) + QChar(0x2026) + toText(tail);
}

QString padded(const QString &text, int columns)
{
    return text + QString(std::max(columns - columnsOf(text), 0), QLatin1Char(' '));
}

} // namespace Ctl
