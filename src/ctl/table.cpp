#include "table.h"

#include "text_width.h"

#include <algorithm>
#include <numeric>

namespace Ctl {

namespace {

constexpr int gap = 2; // between columns
constexpr int narrowest = 8; // of a column that is cut: enough to tell entries apart

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

QString aligned(const QString &text, int width, Table::Align align)
{
    const QString whole = padded(text, width);
    return align == Table::Align::Right ? whole.mid(text.size()) + text : whole;
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
        int width = columnsOf(m_columns.at(i).title);
        for (const QVector<Cell> &row : m_rows) {
            width = std::max(width, columnsOf(row.at(i).text));
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
            const QString whole = aligned(text, columnWidths.at(i), m_columns.at(i).align);
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
