#include "top/view.h"

#include "text_width.h"
#include "words.h"

#include "Core/application_state.h"

#include <QDateTime>

#include <algorithm>
#include <limits>

namespace Ctl::Top {

namespace {

constexpr int gap = 2; // between columns
constexpr int narrowestId = 16; // before further columns are left out
constexpr int unlimited = std::numeric_limits<int>::max();

using Cell = Table::Cell;

struct Column
{
    QString title;
    Table::Align align = Table::Align::Left;
    int rank = 0; // the greatest one is left out first
    Cell (*cell)(const Row &row, qint64 nowMs) = nullptr;
    std::optional<SortKey> key;
};

QString clockText(qint64 timeMs)
{
    return QDateTime::fromMSecsSinceEpoch(timeMs).toString(QStringLiteral("HH:mm:ss"));
}

QString percentText(double percent)
{
    return QString::number(percent, 'f', 1);
}

QString spanText(const std::optional<qint64> &fromMs, qint64 nowMs)
{
    return fromMs ? durationText(std::max<qint64>(nowMs - *fromMs, 0)) : QString();
}

bool isHidden(const Row &row)
{
    return row.state == uint(Core::ApplicationState::Hidden);
}

Cell idCell(const Row &row, qint64 /*nowMs*/)
{
    return { row.id };
}

Cell stateCell(const Row &row, qint64 /*nowMs*/)
{
    return { stateName(row.state), stateStyle(row.state) };
}

Cell frozenCell(const Row &row, qint64 /*nowMs*/)
{
    if (!row.frozen) {
        return {};
    }
    // Hidden ones are meant to be, normally.
    const Style style = *row.frozen ? Style::Dim : isHidden(row) ? Style::Notice : Style::Plain;
    return { yesOrNo(*row.frozen), style };
}

Cell changedCell(const Row &row, qint64 nowMs)
{
    constexpr qint64 freshMs = 10000; // long enough to be noticed
    if (!row.frozenChangedMs) {
        return {};
    }
    return { clockText(*row.frozenChangedMs),
             nowMs - *row.frozenChangedMs < freshMs ? Style::Notice : Style::Plain };
}

Cell hiddenCell(const Row &row, qint64 nowMs)
{
    return { spanText(row.hiddenMs, nowMs) };
}

Cell cpuHiddenCell(const Row &row, qint64 /*nowMs*/)
{
    return { row.cpuHiddenMs ? durationText(qint64(*row.cpuHiddenMs)) : QString() };
}

Cell percentCell(const Row &row, qint64 /*nowMs*/)
{
    return { row.cpuPercent ? percentText(*row.cpuPercent) : QString() };
}

Cell cpuCell(const Row &row, qint64 /*nowMs*/)
{
    return { row.cpuMs ? durationText(qint64(*row.cpuMs)) : QString() };
}

Cell memoryCell(const Row &row, qint64 /*nowMs*/)
{
    return { row.memoryKb ? sizeText(*row.memoryKb) : QString() };
}

Cell oomCell(const Row &row, qint64 /*nowMs*/)
{
    return { row.oomRank ? QString::number(*row.oomRank) : QString() };
}

Cell pidCell(const Row &row, qint64 /*nowMs*/)
{
    return { QString::number(row.pid) };
}

Cell sinceCell(const Row &row, qint64 nowMs)
{
    return { spanText(row.startedMs, nowMs) };
}

/// The id comes first, and is never left out.
QVector<Column> columnsFor(const Model &model)
{
    constexpr auto right = Table::Align::Right;
    QVector<Column> columns = {
        { QStringLiteral("ID"), Table::Align::Left, 0, idCell, SortKey::Id },
        { QStringLiteral("STATE"), Table::Align::Left, 3, stateCell, SortKey::State },
        { QStringLiteral("FROZEN"), Table::Align::Left, 4, frozenCell, std::nullopt },
    };
    if (model.watch() != Model::Watch::Nothing) {
        columns.last().rank = 1;
        columns.append({ { QStringLiteral("CHANGED"), Table::Align::Left, 2, changedCell, std::nullopt },
                         { QStringLiteral("HIDDEN FOR"), right, 9, hiddenCell, std::nullopt },
                         { QStringLiteral("CPU HIDDEN"), right, 5, cpuHiddenCell, std::nullopt } });
    }
    columns.append({ { QStringLiteral("CPU%"), right, 2, percentCell, SortKey::Cpu },
                     { QStringLiteral("CPU"), right, 7, cpuCell, std::nullopt },
                     { QStringLiteral("MEMORY"), right, 1, memoryCell, SortKey::Memory },
                     { QStringLiteral("OOM"), right, 6, oomCell, SortKey::OomRank },
                     { QStringLiteral("PID"), right, 8, pidCell, std::nullopt },
                     { QStringLiteral("SINCE"), right, 10, sinceCell, std::nullopt } });
    return columns;
}

/// Spans that fit.
Line clippedTo(const Line &line, int width)
{
    Line result;
    result.isSelected = line.isSelected;
    int left = width;
    for (const Span &span : line.spans) {
        const int columns = columnsOf(span.text);
        result.spans.append({ columns > left ? clipped(span.text, left) : span.text, span.style });
        left -= columns;
        if (left <= 0) {
            break;
        }
    }
    return result;
}

/// The table: its titles and its rows as lines.
class Grid
{
public:
    /// @p hasMark: a column on the left is kept for the mark of the selected row.
    Grid(const Model &model, int width, bool hasMark)
        : m_model(model)
        , m_hasMark(hasMark)
        , m_columns(columnsFor(model))
    {
        const qint64 nowMs = model.timeMs().value_or(0);
        for (const Row &row : model.rows()) {
            QVector<Cell> cells;
            for (const Column &column : qAsConst(m_columns)) {
                cells.append(column.cell(row, nowMs));
                cells.last().text = printable(cells.last().text);
            }
            m_cells.append(cells);
        }
        for (int i = 0; i < m_columns.size(); ++i) {
            int widest = columnsOf(m_columns.at(i).title);
            for (const QVector<Cell> &cells : qAsConst(m_cells)) {
                widest = std::max(widest, columnsOf(cells.at(i).text));
            }
            m_widths.append(widest);
        }
        fit(width);
    }

    [[nodiscard]] Line titles() const
    {
        QVector<Cell> cells;
        for (const Column &column : m_columns) {
            // What it is sorted by stands out.
            const bool isKey = column.key == m_model.sortKey();
            cells.append({ column.title, isKey ? Style::Good : Style::Bold });
        }
        return lineOf(cells, false);
    }

    [[nodiscard]] Line row(int index, bool isSelected) const { return lineOf(m_cells.at(index), isSelected); }

private:
    [[nodiscard]] int total() const
    {
        int sum = m_hasMark ? 1 : 0;
        for (const int width : m_widths) {
            sum += width + gap;
        }
        return sum - gap;
    }

    void remove(int index)
    {
        m_columns.remove(index);
        m_widths.remove(index);
        for (QVector<Cell> &cells : m_cells) {
            cells.remove(index);
        }
    }

    void fit(int width)
    {
        const int wholeId = m_widths.first();
        m_widths.first() = std::min(wholeId, narrowestId);
        while (total() > width && m_columns.size() > 1) {
            const auto least =
                std::max_element(m_columns.cbegin() + 1, m_columns.cend(),
                                 [](const Column &a, const Column &b) { return a.rank < b.rank; });
            remove(int(std::distance(m_columns.cbegin(), least)));
        }
        const int room = width == unlimited ? unlimited : width - total() + m_widths.first();
        m_widths.first() = std::max(std::min(wholeId, room), 0);
    }

    [[nodiscard]] Line lineOf(const QVector<Cell> &cells, bool isSelected) const
    {
        Line line;
        line.isSelected = isSelected;
        QString blanks = m_hasMark ? QString(QLatin1Char(isSelected ? '>' : ' ')) : QString();
        for (int i = 0; i < cells.size(); ++i) {
            const QString text = shortened(cells.at(i).text, m_widths.at(i));
            const QString padding = padded(text, m_widths.at(i)).mid(text.size());
            const bool isRight = m_columns.at(i).align == Table::Align::Right;
            line.spans.append({ isRight ? blanks + padding : blanks, Style::Plain });
            line.spans.append({ text, cells.at(i).style });
            blanks = (isRight ? QString() : padding) + QString(gap, QLatin1Char(' '));
        }
        return line;
    }

    const Model &m_model;
    const bool m_hasMark;
    QVector<Column> m_columns;
    QVector<QVector<Cell>> m_cells; // of the rows
    QVector<int> m_widths;
};

Line headLine(const Model &model)
{
    Line line;
    const QString since = clockText(model.serviceSinceMs());
    switch (model.service()) {
    case Service::Waited:
        line.spans.append({ QStringLiteral("Asking the service"), Style::Notice });
        return line;
    case Service::Gone:
        line.spans.append({ QStringLiteral("The service is not running, since %1").arg(since), Style::Bad });
        return line;
    case Service::Silent:
        line.spans.append({ QStringLiteral("The service does not answer, since %1").arg(since), Style::Bad });
        break;
    case Service::Refuses:
        line.spans.append({ printable(model.refusal()), Style::Bad });
        break;
    case Service::Answers:
        break;
    }
    if (!line.spans.isEmpty()) {
        line.spans.append({ QStringLiteral("  "), Style::Plain });
    }
    line.spans.append({ QStringLiteral("%1 run, %2 frozen").arg(model.rows().size()).arg(model.frozenCount()),
                        Style::Bold });
    QString rest = QStringLiteral("  by %1").arg(sortKeyName(model.sortKey()));
    if (model.isReversed()) {
        rest += QStringLiteral(", reversed");
    }
    if (model.timeMs()) {
        rest += QStringLiteral("  ") + clockText(*model.timeMs());
    }
    line.spans.append({ rest, Style::Plain });
    return line;
}

Line memoryLine(const Model &model)
{
    if (!model.memory()) {
        return {};
    }
    const Memory &memory = *model.memory();
    return {
        { { QStringLiteral("Memory "), Style::Plain },
          { memoryLevelName(memory.level), memoryLevelStyle(memory.level) },
          { QStringLiteral(", %1 of %2 available, %3 %")
                .arg(sizeText(memory.availableKb), sizeText(memory.totalKb), percentText(memory.percent)),
            Style::Plain } },
        false
    };
}

/// The question or the outcome; empty if there is neither.
Line messageLine(const Model &model)
{
    const QString question = model.question();
    if (!question.isEmpty()) {
        return { { { printable(question), Style::Notice } }, false };
    }
    if (!model.message().isEmpty()) {
        return { { { printable(model.message()), model.isMessageBad() ? Style::Bad : Style::Plain } },
                 false };
    }
    return {};
}

Line hintLine()
{
    return { { { QStringLiteral("q quit  h help  x stop  f freezing  sort: m c s o i  r reverse"),
                 Style::Dim } },
             false };
}

QVector<Line> helpLines()
{
    static const char *const texts[] = {
        "Up Down k j   select     PgUp PgDn Home End g G   far",
        "m c s o i     sort by memory, processor, state,",
        "              OOM rank (1 is killed first), id",
        "r             reverse the order",
        "x Del         stop the selected one; asks first",
        "f             watch the freezing of all",
        "F             watch the freezing of the selected one",
        "h ?           this help",
        "q             quit",
        "",
        "CPU%          of one processor, since the last sample",
        "CPU           processor time of its control group",
        "CPU HIDDEN    processor time since it was seen hidden",
    };
    QVector<Line> lines;
    for (const char *text : texts) {
        lines.append({ { { QLatin1String(text), Style::Plain } }, false });
    }
    return lines;
}

/// How many lines each part of a screen gets.
struct Plan
{
    int head = 0; // 1 or 2 lines, in which the message takes the place of the last one
    bool hasMessage = false; // it has a line of its own
    bool hasTitles = false;
    int rows = 0;
    int events = 0; // their title not counted
    bool hasHints = false;
};

Plan planFor(const Model &model, int height)
{
    Plan plan;
    plan.head = height >= 5 ? 2 : std::min(height, 1);
    plan.hasMessage = height >= 8;
    plan.hasTitles = height >= 2;
    plan.hasHints = height >= 8;
    const int left = height - plan.head - int(plan.hasMessage) - int(plan.hasTitles) - int(plan.hasHints);
    if (model.watch() != Model::Watch::Nothing && left >= 5) {
        plan.events = std::clamp(left / 3, 1, 10);
    }
    plan.rows = std::max(left - (plan.events > 0 ? plan.events + 1 : 0), 0);
    return plan;
}

QVector<Line> eventLines(const Model &model, int count)
{
    const QString whose =
        model.watch() == Model::Watch::One ? printable(model.watchedId()) : QStringLiteral("all");
    QVector<Line> lines = {
        { { { QStringLiteral("Freezing of %1, the latest first").arg(whose), Style::Bold } }, false }
    };
    const QVector<FreezeEvent> events = model.events();
    for (int i = 0; i < count; ++i) {
        Line line;
        if (i < events.size()) {
            const FreezeEvent &event = events.at(i);
            line.spans = { { clockText(event.timeMs), Style::Dim },
                           { QStringLiteral(" %1 ").arg(printable(event.id)), Style::Plain },
                           { printable(event.text), Style::Bold } };
        } else if (i == 0) {
            line.spans = { { QStringLiteral("Nothing has changed yet"), Style::Dim } };
        }
        lines.append(line);
    }
    return lines;
}

void addRows(QVector<Line> &lines, const Model &model, const Grid &grid, int count)
{
    const int all = model.rows().size();
    // The selected one in the middle, where there is more on both sides.
    const int first = std::clamp(model.selected() - count / 2, 0, std::max(all - count, 0));
    for (int i = first; i < first + count; ++i) {
        lines.append(i < all ? grid.row(i, i == model.selected()) : Line());
    }
}

} // namespace

int pageOf(const Model &model, int height)
{
    return std::max(planFor(model, height).rows, 1);
}

QVector<Line> draw(const Model &model, const QSize &size)
{
    const Plan plan = planFor(model, size.height());
    QVector<Line> lines;
    if (plan.head > 0) {
        lines.append(headLine(model));
    }
    if (plan.head > 1) {
        lines.append(memoryLine(model));
    }
    const Line message = messageLine(model);
    if (plan.hasMessage) {
        lines.append(message);
    } else if (!lines.isEmpty() && !message.spans.isEmpty()) {
        lines.last() = message;
    }
    const int bottom = size.height() - int(plan.hasHints);
    if (model.isHelpShown()) {
        lines += helpLines();
        lines.resize(std::max(bottom, 0));
    } else {
        const Grid grid(model, size.width(), true);
        if (plan.hasTitles) {
            lines.append(grid.titles());
        }
        addRows(lines, model, grid, plan.rows);
        if (plan.events > 0) {
            lines += eventLines(model, plan.events);
        }
    }
    if (plan.hasHints) {
        lines.append(hintLine());
    }
    for (Line &line : lines) {
        line = clippedTo(line, size.width());
    }
    return lines;
}

QVector<Line> drawPlain(const Model &model, int width)
{
    const int limit = width > 0 ? width : unlimited;
    QVector<Line> lines = { headLine(model) };
    if (model.memory()) {
        lines.append(memoryLine(model));
    }
    if (!model.rows().isEmpty()) {
        const Grid grid(model, limit, false);
        lines.append(grid.titles());
        for (int i = 0; i < model.rows().size(); ++i) {
            lines.append(grid.row(i, false));
        }
    }
    for (Line &line : lines) {
        line = clippedTo(line, limit);
    }
    return lines;
}

} // namespace Ctl::Top
