#include "top/sampler.h"

#include "words.h"

#include "Core/application_state.h"

#include <QVariantMap>

#include <algorithm>

namespace Ctl::Top {

namespace {

// Of samples that follow each other closely, because something has happened: counters are too coarse for
// less.
constexpr qint64 shortestSpanMs = 250;

template<typename Value>
std::optional<Value> valueOf(const QVariantMap &map, const char *key)
{
    const auto found = map.constFind(QLatin1String(key));
    return found != map.cend() && found->canConvert<Value>() ? std::optional<Value>(found->value<Value>())
                                                             : std::nullopt;
}

Row rowOf(const QVariantMap &process)
{
    Row row;
    row.id = process.value(QStringLiteral("Id")).toString();
    row.isTask = process.value(QStringLiteral("Kind")).toString() == QLatin1String("task");
    row.pid = process.value(QStringLiteral("Pid")).toInt();
    row.state = process.value(QStringLiteral("State")).toUInt();
    row.frozen = valueOf<bool>(process, "Frozen");
    row.memoryKb = valueOf<quint64>(process, "MemoryKb");
    row.cpuMs = valueOf<quint64>(process, "CpuMs");
    row.oomRank = valueOf<uint>(process, "OomRank");
    row.startedMs = valueOf<qint64>(process, "Since");
    return row;
}

bool isHidden(const Row &row)
{
    return row.state == uint(Core::ApplicationState::Hidden);
}

quint64 used(const std::optional<quint64> &now, quint64 before)
{
    return now && *now > before ? *now - before : 0;
}

QString spanText(qint64 fromMs, qint64 toMs)
{
    return durationText(std::max<qint64>(toMs - fromMs, 0));
}

} // namespace

QVector<Row> Sampler::take(const QVariantList &processes, qint64 steadyMs, qint64 timeMs)
{
    QVector<Row> rows;
    QHash<QString, Known> seen;
    for (const QVariant &process : processes) {
        Known known;
        known.row = rowOf(process.toMap());
        if (known.row.id.isEmpty() || seen.contains(known.row.id)) {
            continue;
        }
        std::optional<Known> before;
        const auto found = m_known.constFind(known.row.id);
        if (found != m_known.cend() && found->row.pid == known.row.pid) {
            before = *found;
        }
        measure(known, before, steadyMs);
        follow(known, before, timeMs);
        rows.append(known.row);
        seen.insert(known.row.id, known);
    }
    QStringList gone;
    for (const Known &known : qAsConst(m_known)) {
        const auto found = seen.constFind(known.row.id);
        if (found == seen.cend() || found->row.pid != known.row.pid) {
            gone.append(known.row.id);
        }
    }
    gone.sort();
    for (const QString &id : qAsConst(gone)) {
        add(timeMs, id, QStringLiteral("gone"));
    }
    m_known = seen;
    return rows;
}

void Sampler::measure(Known &known, const std::optional<Known> &before, qint64 steadyMs) const
{
    Row &row = known.row;
    if (!row.cpuMs) {
        return;
    }
    known.hasBase = true;
    known.baseCpuMs = *row.cpuMs;
    known.baseSteadyMs = steadyMs;
    if (!before || !before->hasBase || *row.cpuMs < before->baseCpuMs) {
        return;
    }
    const qint64 span = steadyMs - before->baseSteadyMs;
    if (span < shortestSpanMs) {
        known.baseCpuMs = before->baseCpuMs;
        known.baseSteadyMs = before->baseSteadyMs;
        row.cpuPercent = before->row.cpuPercent;
        return;
    }
    row.cpuPercent = 100.0 * double(*row.cpuMs - before->baseCpuMs) / double(span);
}

void Sampler::follow(Known &known, const std::optional<Known> &before, qint64 timeMs)
{
    Row &row = known.row;
    if (before) {
        row.frozenChangedMs = before->row.frozenChangedMs;
        known.cpuAtFreezingMs = before->cpuAtFreezingMs;
    }
    if (isHidden(row)) {
        const bool wasHidden = before && before->row.hiddenMs;
        row.hiddenMs = wasHidden ? before->row.hiddenMs : timeMs;
        known.cpuAtHidingMs = wasHidden ? before->cpuAtHidingMs : row.cpuMs.value_or(0);
        if (row.cpuMs) {
            row.cpuHiddenMs = used(row.cpuMs, known.cpuAtHidingMs);
        }
    }
    if (!before) {
        return;
    }
    if (before->row.state != row.state) {
        add(timeMs, row.id, stateName(row.state));
    }
    if (!row.frozen || !before->row.frozen || *row.frozen == *before->row.frozen) {
        return;
    }
    const std::optional<qint64> lastChangeMs = row.frozenChangedMs;
    row.frozenChangedMs = timeMs;
    QString text = *row.frozen ? QStringLiteral("frozen") : QStringLiteral("thawed");
    if (*row.frozen) {
        known.cpuAtFreezingMs = row.cpuMs.value_or(0);
        if (row.hiddenMs) {
            text += QStringLiteral(", %1 after it was hidden").arg(spanText(*row.hiddenMs, timeMs));
        }
    } else if (lastChangeMs) {
        text += QStringLiteral(" after %1").arg(spanText(*lastChangeMs, timeMs));
        if (row.cpuMs) {
            text += QStringLiteral(", in which it used %1 of processor time")
                        .arg(durationText(qint64(used(row.cpuMs, known.cpuAtFreezingMs))));
        }
    }
    add(timeMs, row.id, text);
}

void Sampler::add(qint64 timeMs, const QString &id, const QString &text)
{
    m_events.prepend({ timeMs, id, text });
    if (m_events.size() > mostEvents) {
        m_events.resize(mostEvents);
    }
}

} // namespace Ctl::Top
