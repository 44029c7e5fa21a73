#pragma once

#include "top/sampler.h"

#include <QString>
#include <QVector>

#include <optional>

namespace Ctl::Top {

enum class SortKey { Memory, Cpu, State, OomRank, Id };

/// Of the words that the option takes: "memory", "cpu", "state", "oom", "id".
[[nodiscard]] std::optional<SortKey> sortKeyOf(const QString &word);
[[nodiscard]] QString sortKeyName(SortKey key);

/// What uses most comes first, who would be killed first, states and ids in their order; @p isReversed turns
/// that round. What is not known comes last either way, and equal ones in the order of their ids.
void sortRows(QVector<Row> &rows, SortKey key, bool isReversed);

/// Whether the words of the command line mean @p id: they are ids of applications, instances or tasks.
[[nodiscard]] bool isWanted(const QString &id, const QStringList &wanted);

/// Keys that are no characters; these are their own code points.
enum Key : int {
    Up = 0x110000, // behind the last code point
    Down,
    PageUp,
    PageDown,
    Home,
    End,
    Delete,
    Escape,
};

/// How it stands with the service.
enum class Service {
    Waited, ///< it has not answered yet
    Answers,
    Silent, ///< it is there, and does not answer
    Gone,
    Refuses,
};

struct Memory
{
    int level = 0;
    quint64 totalKb = 0;
    quint64 availableKb = 0;
    double percent = 0;
};

/// What the screen shows, and what keys do to it. Knows neither bus nor terminal.
class Model
{
public:
    enum class Watch { Nothing, Everything, One };

    /// What a key asks of others.
    struct Action
    {
        enum Kind { None, Quit, Stop, Redraw };
        Kind kind = None;
        Row row; ///< that is to be stopped
    };

    /// A sample: @p memory is not told to everybody.
    void update(const QVector<Row> &rows, const QVector<FreezeEvent> &events,
                const std::optional<Memory> &memory, qint64 timeMs);
    /// What the head says if it is not Answers. What was known of a service that has gone is forgotten.
    void setService(Service service, qint64 timeMs, const QString &refusal = {});
    /// The outcome of something that was asked for.
    void setMessage(const QString &text, bool isBad);

    void setSort(SortKey key, bool isReversed);
    void setWatch(Watch watch) { m_watch = watch; }

    [[nodiscard]] Action press(int key);
    void setPage(int rows) { m_page = rows; } ///< how many rows the screen holds

    [[nodiscard]] const QVector<Row> &rows() const { return m_rows; } ///< sorted
    [[nodiscard]] int selected() const; ///< index into rows(), -1 if there are none
    [[nodiscard]] int frozenCount() const;
    [[nodiscard]] const std::optional<Memory> &memory() const { return m_memory; }
    [[nodiscard]] std::optional<qint64> timeMs() const { return m_timeMs; } ///< of the last sample
    [[nodiscard]] Service service() const { return m_service; }
    [[nodiscard]] qint64 serviceSinceMs() const { return m_serviceSinceMs; }
    [[nodiscard]] const QString &refusal() const { return m_refusal; }
    [[nodiscard]] SortKey sortKey() const { return m_sortKey; }
    [[nodiscard]] bool isReversed() const { return m_isReversed; }
    [[nodiscard]] Watch watch() const { return m_watch; }
    [[nodiscard]] const QString &watchedId() const { return m_watchedId; }
    /// Of those that are watched, the latest first.
    [[nodiscard]] QVector<FreezeEvent> events() const;
    [[nodiscard]] bool isHelpShown() const { return m_isHelpShown; }
    [[nodiscard]] const QString &message() const { return m_message; }
    [[nodiscard]] bool isMessageBad() const { return m_isMessageBad; }
    /// The question that waits for y or n; empty if there is none.
    [[nodiscard]] QString question() const;

private:
    Action answer(int key);
    void select(int index);
    bool pressSort(int key);
    bool pressMove(int key);
    void watchOne();

    QVector<Row> m_rows;
    QVector<FreezeEvent> m_events;
    std::optional<Memory> m_memory;
    std::optional<qint64> m_timeMs;
    QString m_selectedId;
    int m_lastIndex = 0; // where the selected one was, for when it has gone
    int m_page = 1;
    SortKey m_sortKey = SortKey::Memory;
    bool m_isReversed = false;
    Watch m_watch = Watch::Nothing;
    QString m_watchedId;
    bool m_isHelpShown = false;
    QString m_message;
    bool m_isMessageBad = false;
    std::optional<Row> m_toStop; // while the question is asked
    Service m_service = Service::Waited;
    qint64 m_serviceSinceMs = 0;
    QString m_refusal;
};

} // namespace Ctl::Top
