#pragma once

#include <QHash>
#include <QString>
#include <QVariantList>
#include <QVector>

#include <optional>

namespace Ctl::Top {

/// One application or task that runs, as of the last sample. What is not known has no value.
struct Row
{
    QString id;
    bool isTask = false;
    int pid = 0;
    uint state = 0; ///< Core::ApplicationState
    std::optional<bool> frozen;
    std::optional<quint64> memoryKb;
    std::optional<quint64> cpuMs; ///< processor time since its group was made
    std::optional<double> cpuPercent; ///< of one processor, since an earlier sample
    std::optional<uint> oomRank; ///< 1: killed first
    std::optional<qint64> startedMs; ///< milliseconds since 1970, as all times here

    std::optional<qint64> frozenChangedMs; ///< when it was seen to be frozen or thawed
    std::optional<qint64> hiddenMs; ///< since when it was seen hidden, and so should be frozen
    std::optional<quint64> cpuHiddenMs; ///< processor time that it has used since
};

/// What befell a process on the road into the freezer and out of it.
struct FreezeEvent
{
    qint64 timeMs = 0;
    QString id;
    QString text; ///< "frozen, 2 s after it was hidden"
};

/// Makes rows of what ListRunning of org.kestrix.Procwarden.Introspect1 answers, and of what it answered
/// before.
///
/// A process is the same as before if id and pid are. The first sample of one has no share of the processor;
/// nor has one whose counter went back, since its group was made anew.
class Sampler
{
public:
    static constexpr int mostEvents = 200; ///< that are kept

    /// @p processes: plain maps. @p steadyMs: a clock that is never set, for the shares; @p timeMs: that of
    /// the wall.
    /// @returns a row for each of them, in their order.
    [[nodiscard]] QVector<Row> take(const QVariantList &processes, qint64 steadyMs, qint64 timeMs);

    /// The latest first.
    [[nodiscard]] const QVector<FreezeEvent> &events() const { return m_events; }

private:
    struct Known
    {
        Row row;
        quint64 baseCpuMs = 0; // what the next share is measured from
        qint64 baseSteadyMs = 0;
        bool hasBase = false;
        quint64 cpuAtHidingMs = 0;
        quint64 cpuAtFreezingMs = 0;
    };

    void measure(Known &known, const std::optional<Known> &before, qint64 steadyMs) const;
    void follow(Known &known, const std::optional<Known> &before, qint64 timeMs);
    void add(qint64 timeMs, const QString &id, const QString &text);

    QHash<QString, Known> m_known; // id -> of the last sample
    QVector<FreezeEvent> m_events;
};

} // namespace Ctl::Top
