#pragma once

#include <QString>
#include <QVector>

namespace Ctl {

/// How a text stands out on a terminal.
enum class Style { Plain, Bold, Dim, Good, Notice, Bad };

/// @p text in @p style, with the escape sequences that ECMA-48 defines.
[[nodiscard]] QString styled(const QString &text, Style style);

/// Whether a terminal would do something else than show it: a control character, or one that turns the
/// direction of what follows.
[[nodiscard]] bool isObeyed(QChar character);

/// @p text without anything that a terminal would obey: each such character becomes "?".
[[nodiscard]] QString printable(const QString &text);

/// Aligned columns under their titles.
class Table
{
public:
    enum class Align { Left, Right };

    struct Column
    {
        QString title;
        Align align = Align::Left;
        bool shrinks = false; ///< may be cut where the width does not suffice
    };

    struct Cell
    {
        QString text;
        Style style = Style::Plain;
    };

    explicit Table(const QVector<Column> &columns);

    /// One cell for each column; missing ones are empty.
    void addRow(const QVector<Cell> &cells);

    /// Each line ends with a newline, and none with a blank. @p width: columns of the terminal, 0 for no
    /// limit.
    [[nodiscard]] QString render(int width, bool coloured) const;

private:
    [[nodiscard]] QVector<int> widths(int limit) const;

    QVector<Column> m_columns;
    QVector<QVector<Cell>> m_rows;
};

} // namespace Ctl
