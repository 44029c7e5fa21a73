#include "table.h"

#include <algorithm>
#include <numeric>

#include <wchar.h>

namespace Ctl {

namespace {

constexpr int gap = 2; // between columns
constexpr int narrowest = 8; // of a column that is cut: enough to tell entries apart

/// East Asian characters take two columns, combining ones none. One where the locale does not know.
int widthOf(uint character)
{
    const int width = wcwidth(wchar_t(character));
    return width < 0 ? 1 : width;
}

/// @p text in at most @p width columns, with an ellipsis for what is missing.
QString cut(const QString &text, int width)
{
    if (displayWidth(text) <= width) {
        return text;
    }
    const QVector<uint> characters = text.toUcs4();
    int count = 0;
    for (int left = width - 1; count < characters.size(); ++count) {
        left -= widthOf(characters.at(count));
        if (left < 0) {
            break;
        }
    }
    return QString::fromUcs4(characters.constData(), count) + QChar(0x2026);
}

QString escape(Style style)
{
    switch (style) {
    case Style::Plain:
        return QString();
    case Style::Bold:
        return QStringLiteral("\033[1m");
    case Style::Dim:
        return QStringLiteral("\033[2m");
    case Style::Good:
        return QStringLiteral("\033[32m");
    case Style::Notice:
        return QStringLiteral("\033[33m");
    case Style::Bad:
        return QStringLiteral("\033[31m");
    }
    return QString();
}

QString padded(const QString &text, int width, Table::Align align)
{
    const QString blanks(std::max(width - displayWidth(text), 0), QLatin1Char(' '));
    return align == Table::Align::Right ? blanks + text : text + blanks;
}

} // namespace

QString styled(const QString &text, Style style)
{
    return style == Style::Plain || text.isEmpty() ? text : escape(style) + text + QStringLiteral("\033[0m");
}

bool isObeyed(QChar character)
{
    const ushort code = character.unicode();
    const bool turns = (code >= 0x202a && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069);
    return turns || character.category() == QChar::Other_Control;
}

QString printable(const QString &text)
{
    QString result = text;
    for (QChar &character : result) {
        if (isObeyed(character)) {
            character = QLatin1Char('?');
        }
    }
    return result;
}

int displayWidth(const QString &text)
{
    const QVector<uint> characters = text.toUcs4();
    return std::accumulate(characters.cbegin(), characters.cend(), 0,
                           [](int sum, uint character) { return sum + widthOf(character); });
}

Table::Table(const QVector<Column> &columns)
    : m_columns(columns)
{
}

void Table::addRow(const QVector<Cell> &cells)
{
    QVector<Cell> row = cells;
    row.resize(m_columns.size());
    for (Cell &cell : row) {
        cell.text = printable(cell.text);
    }
    m_rows.append(row);
}

QVector<int> Table::widths(int limit) const
{
    QVector<int> result;
    for (int i = 0; i < m_columns.size(); ++i) {
        int width = displayWidth(m_columns.at(i).title);
        for (const QVector<Cell> &row : m_rows) {
            width = std::max(width, displayWidth(row.at(i).text));
        }
        result.append(width);
    }
    if (limit <= 0) {
        return result;
    }
    int tooMuch = std::accumulate(result.cbegin(), result.cend(), gap * (result.size() - 1)) - limit;
    while (tooMuch > 0) {
        // From the widest one, so that the narrow ones stay whole.
        int widest = -1;
        for (int i = 0; i < result.size(); ++i) {
            if (m_columns.at(i).shrinks && result.at(i) > narrowest
                && (widest < 0 || result.at(i) > result.at(widest))) {
                widest = i;
            }
        }
        if (widest < 0) {
            break;
        }
        --result[widest];
        --tooMuch;
    }
    return result;
}

QString Table::render(int width, bool coloured) const
{
    const QVector<int> columnWidths = widths(width);
    QString result;
    const auto addLine = [&](const QVector<Cell> &cells) {
        QString line;
        int blanks = 0; // that stand before the next text
        for (int i = 0; i < cells.size(); ++i) {
            const QString text = cut(cells.at(i).text, columnWidths.at(i));
            const QString whole = padded(text, columnWidths.at(i), m_columns.at(i).align);
            const int before = whole.indexOf(text);
            if (!text.isEmpty()) {
                line += QString(blanks + before, QLatin1Char(' '));
                line += coloured ? styled(text, cells.at(i).style) : text;
                blanks = whole.size() - before - text.size() + gap;
            } else {
                blanks += columnWidths.at(i) + gap;
            }
        }
        result += line + QLatin1Char('\n');
    };
    QVector<Cell> titles;
    for (const Column &column : m_columns) {
        titles.append({ column.title, Style::Bold });
    }
    addLine(titles);
    for (const QVector<Cell> &row : m_rows) {
        addLine(row);
    }
    return result;
}

} // namespace Ctl
