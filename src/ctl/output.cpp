#include "output.h"

#include "exit_status.h"
#include "text_width.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sys/ioctl.h>
#include <unistd.h>

namespace Ctl {

namespace {

/// @returns whether all of it has been written.
bool write(FILE *file, const QString &text)
{
    const QByteArray bytes = text.toUtf8();
    const size_t written = std::fwrite(bytes.constData(), 1, size_t(bytes.size()), file);
    return std::fflush(file) == 0 && written == size_t(bytes.size());
}

/// JSON leaves some characters as they are that a terminal obeys. They stand in texts only, where they may be
/// written by their numbers.
QString jsonText(const QJsonDocument &document, QJsonDocument::JsonFormat format)
{
    const QString text = QString::fromUtf8(document.toJson(format));
    QString result;
    result.reserve(text.size());
    for (const QChar character : text) {
        if (character != QLatin1Char('\n') && isObeyed(character)) {
            result += QStringLiteral("\\u%1").arg(character.unicode(), 4, 16, QLatin1Char('0'));
        } else {
            result += character;
        }
    }
    return result;
}

int widthOfTerminal()
{
    if (qEnvironmentVariableIsSet("COLUMNS")) {
        return std::max(qEnvironmentVariableIntValue("COLUMNS"), 0);
    }
    winsize size = {};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

} // namespace

Output::Output()
{
    if (isatty(STDOUT_FILENO)) {
        m_isColoured = qEnvironmentVariableIsEmpty("NO_COLOR") && qgetenv("TERM") != "dumb";
        m_width = widthOfTerminal();
    }
}

void Output::rows(const QVariantList &entries, const QVector<Column> &columns, const QString &whenEmpty) const
{
    if (m_isJson) {
        print(jsonText(QJsonDocument(QJsonArray::fromVariantList(entries)), QJsonDocument::Indented));
    } else if (entries.isEmpty()) {
        print(whenEmpty + QLatin1Char('\n'));
    } else {
        print(tableText(entries, columns));
    }
}

void Output::texts(const QStringList &texts) const
{
    if (m_isJson) {
        print(jsonText(QJsonDocument(QJsonArray::fromStringList(texts)), QJsonDocument::Indented));
        return;
    }
    for (const QString &text : texts) {
        print(printable(text) + QLatin1Char('\n'));
    }
}

void Output::record(const QVariantMap &data, const QString &text) const
{
    print(m_isJson ? jsonText(QJsonDocument(QJsonObject::fromVariantMap(data)), QJsonDocument::Indented)
                   : text);
}

void Output::event(const QVariantMap &data, const QString &text) const
{
    const QJsonDocument document(QJsonObject::fromVariantMap(data));
    print((m_isJson ? jsonText(document, QJsonDocument::Compact) : text) + QLatin1Char('\n'));
}

QString Output::tableText(const QVariantList &entries, const QVector<Column> &columns) const
{
    QVector<Table::Column> heads;
    for (const Column &column : columns) {
        heads.append(column.head);
    }
    Table table(heads);
    for (const QVariant &entry : entries) {
        const QVariantMap map = entry.toMap();
        QVector<Table::Cell> cells;
        for (const Column &column : columns) {
            cells.append(column.cell(map));
        }
        table.addRow(cells);
    }
    return table.render(m_width, m_isColoured);
}

QString Output::highlighted(const QString &text, Style style) const
{
    return m_isColoured ? styled(printable(text), style) : printable(text);
}

void Output::print(const QString &text)
{
    if (write(stdout, text)) {
        return;
    }
    // Nothing that follows could be told either. A reader that has gone is no news to whoever has ended it.
    if (errno != EPIPE) {
        error(QStringLiteral("Cannot write: %1").arg(QString::fromLocal8Bit(std::strerror(errno))));
    }
    _exit(Refused);
}

void Output::error(const QString &text)
{
    (void)write(stderr, QStringLiteral("procwardenctl: %1\n").arg(printable(text)));
}

void Output::hint(const QString &text)
{
    (void)write(stderr, text + QLatin1Char('\n'));
}

Output::Column keyColumn(const QString &title, const QString &key, bool shrinks)
{
    return { { title, Table::Align::Left, shrinks }, [key](const QVariantMap &entry) {
                return Table::Cell { entry.value(key).toString() };
            } };
}

void Sheet::add(const QString &label, const QString &value)
{
    if (!value.isEmpty()) {
        m_lines.append({ label, value });
    }
}

QString Sheet::text() const
{
    int width = 0;
    for (const auto &line : m_lines) {
        width = std::max(width, columnsOf(line.first));
    }
    QString result;
    for (const auto &line : m_lines) {
        QString value = line.second;
        value.replace(QLatin1Char('\n'), QLatin1Char('\n') + QString(width + 2, QLatin1Char(' ')));
        result += QString(width - columnsOf(line.first), QLatin1Char(' ')) + line.first + QStringLiteral(": ")
            + value + QLatin1Char('\n');
    }
    return result;
}

} // namespace Ctl
