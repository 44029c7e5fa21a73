#pragma once

#include "table.h"

#include <QStringList>
#include <QVariantList>
#include <QVariantMap>

#include <functional>

namespace Ctl {

/// Prints what commands have found out, as text for people or as JSON: the same data either way.
class Output
{
public:
    /// A column of a table, whose cells are made of one entry each.
    struct Column
    {
        Table::Column head;
        std::function<Table::Cell(const QVariantMap &)> cell;
    };

    /// Looks at standard output: colours and width are those of a terminal only.
    Output();

    void setJson(bool json) { m_isJson = json; }
    [[nodiscard]] bool isJson() const { return m_isJson; }
    [[nodiscard]] bool isColoured() const { return m_isColoured; }
    [[nodiscard]] int width() const { return m_width; } ///< columns of the terminal, 0 for no limit

    /// A table with one line for each of @p entries; as JSON an array. @p whenEmpty stands for an empty
    /// table.
    void rows(const QVariantList &entries, const QVector<Column> &columns, const QString &whenEmpty) const;
    /// One text a line; as JSON an array of them.
    void texts(const QStringList &texts) const;
    /// @p text, or as JSON @p data.
    void record(const QVariantMap &data, const QString &text) const;
    /// The same on one line that is there at once, for streams.
    void event(const QVariantMap &data, const QString &text) const;

    [[nodiscard]] QString tableText(const QVariantList &entries, const QVector<Column> &columns) const;
    /// With the style where there are colours. Nothing in it is left that a terminal would obey.
    [[nodiscard]] QString highlighted(const QString &text, Style style) const;

    /// To standard output, as it is. Ends the program if it cannot be written.
    static void print(const QString &text);
    /// To standard error, behind the program's name.
    static void error(const QString &text);
    static void hint(const QString &text);

private:
    bool m_isJson = false;
    bool m_isColoured = false;
    int m_width = 0;
};

/// A column with the text of a key.
[[nodiscard]] Output::Column keyColumn(const QString &title, const QString &key, bool shrinks = false);

/// "label: value" lines with the labels flush right before the colon, as for one thing with many properties.
class Sheet
{
public:
    /// Left out if @p value is empty. Further lines of it stand below its first.
    void add(const QString &label, const QString &value);
    [[nodiscard]] QString text() const;

private:
    QVector<QPair<QString, QString>> m_lines;
};

} // namespace Ctl
