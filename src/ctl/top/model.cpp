#include "top/model.h"

#include <QStringList>

#include <algorithm>

namespace Ctl::Top {

namespace {

const QVector<QPair<SortKey, QString>> &sortKeyNames()
{
    static const QVector<QPair<SortKey, QString>> names = {
        { SortKey::Memory, QStringLiteral("memory") }, { SortKey::Cpu, QStringLiteral("cpu") },
        { SortKey::State, QStringLiteral("state") },   { SortKey::OomRank, QStringLiteral("oom") },
        { SortKey::Id, QStringLiteral("id") },
    };
    return names;
}

/// Negative if @p a comes first, whatever the direction: what is known comes before what is not.
template<typename Value>
int compared(const std::optional<Value> &a, const std::optional<Value> &b, bool isGreatestFirst)
{
    if (!a || !b) {
        return int(!a) - int(!b);
    }
    if (*a == *b) {
        return 0;
    }
    return (*a > *b) == isGreatestFirst ? -1 : 1;
}

int compared(const Row &a, const Row &b, SortKey key, bool isReversed)
{
    switch (key) {
    case SortKey::Memory:
        return compared(a.memoryKb, b.memoryKb, !isReversed);
    case SortKey::Cpu:
        return compared(a.cpuPercent, b.cpuPercent, !isReversed);
    case SortKey::State:
        return compared(std::optional<uint>(a.state), std::optional<uint>(b.state), isReversed);
    case SortKey::OomRank:
        return compared(a.oomRank, b.oomRank, isReversed);
    case SortKey::Id:
        return compared(std::optional<QString>(a.id), std::optional<QString>(b.id), isReversed);
    }
    return 0;
}

} // namespace

std::optional<SortKey> sortKeyOf(const QString &word)
{
    for (const auto &name : sortKeyNames()) {
        if (name.second == word) {
            return name.first;
        }
    }
    return std::nullopt;
}

QString sortKeyName(SortKey key)
{
    for (const auto &name : sortKeyNames()) {
        if (name.first == key) {
            return name.second;
        }
    }
    return QString();
}

void sortRows(QVector<Row> &rows, SortKey key, bool isReversed)
{
    std::sort(rows.begin(), rows.end(), [key, isReversed](const Row &a, const Row &b) {
        const int order = compared(a, b, key, isReversed);
        return order != 0 ? order < 0 : a.id < b.id;
    });
}

bool isWanted(const QString &id, const QStringList &wanted)
{
    return wanted.isEmpty() || std::any_of(wanted.cbegin(), wanted.cend(), [&id](const QString &word) {
               return id == word || id.startsWith(word + QLatin1String(".task_"))
                   || id.startsWith(word + QLatin1String(".instance_"));
           });
}

void Model::update(const QVector<Row> &rows, const QVector<FreezeEvent> &events,
                   const std::optional<Memory> &memory, qint64 timeMs)
{
    m_lastIndex = std::max(selected(), 0);
    m_rows = rows;
    m_events = events;
    m_memory = memory;
    m_timeMs = timeMs;
    sortRows(m_rows, m_sortKey, m_isReversed);
    if (selected() < 0) {
        select(m_lastIndex); // the one that has come into its place
    }
    if (m_toStop && std::none_of(m_rows.cbegin(), m_rows.cend(), [this](const Row &row) {
            return row.id == m_toStop->id && row.pid == m_toStop->pid;
        })) {
        m_toStop.reset();
        setMessage(QStringLiteral("It has ended"), false);
    }
    if (m_service != Service::Answers) {
        setService(Service::Answers, timeMs);
    }
}

void Model::setService(Service service, qint64 timeMs, const QString &refusal)
{
    if (m_service != service) {
        m_serviceSinceMs = timeMs;
    }
    m_service = service;
    m_refusal = refusal;
    if (service == Service::Gone) {
        m_rows.clear();
        m_memory.reset();
        m_toStop.reset();
    }
}

void Model::setMessage(const QString &text, bool isBad)
{
    m_message = text;
    m_isMessageBad = isBad;
}

void Model::setSort(SortKey key, bool isReversed)
{
    m_sortKey = key;
    m_isReversed = isReversed;
    sortRows(m_rows, m_sortKey, m_isReversed);
}

int Model::selected() const
{
    for (int i = 0; i < m_rows.size(); ++i) {
        if (m_rows.at(i).id == m_selectedId) {
            return i;
        }
    }
    return -1;
}

void Model::select(int index)
{
    if (!m_rows.isEmpty()) {
        m_selectedId = m_rows.at(std::clamp(index, 0, m_rows.size() - 1)).id;
    }
}

int Model::frozenCount() const
{
    return int(std::count_if(m_rows.cbegin(), m_rows.cend(),
                             [](const Row &row) { return row.frozen.value_or(false); }));
}

QVector<FreezeEvent> Model::events() const
{
    if (m_watch != Watch::One) {
        return m_watch == Watch::Nothing ? QVector<FreezeEvent>() : m_events;
    }
    QVector<FreezeEvent> found;
    for (const FreezeEvent &event : m_events) {
        if (event.id == m_watchedId) {
            found.append(event);
        }
    }
    return found;
}

QString Model::question() const
{
    return m_toStop ? QStringLiteral("Stop %1 (pid %2)? (y/n)").arg(m_toStop->id).arg(m_toStop->pid)
                    : QString();
}

void Model::watchOne()
{
    const int index = selected();
    if (m_watch == Watch::One && (index < 0 || m_selectedId == m_watchedId)) {
        m_watch = Watch::Nothing;
    } else if (index >= 0) {
        m_watch = Watch::One;
        m_watchedId = m_selectedId;
    }
}

Model::Action Model::answer(int key)
{
    if (key == 'y' || key == 'Y') {
        const Row row = *m_toStop;
        m_toStop.reset();
        return { Action::Stop, row };
    }
    if (key == 'n' || key == 'N' || key == 'q' || key == Key::Escape) {
        m_toStop.reset();
    }
    return { Action::Redraw, {} };
}

Model::Action Model::press(int key)
{
    if (m_toStop) {
        return answer(key);
    }
    m_message.clear();
    if (m_isHelpShown) {
        m_isHelpShown = false;
        return { Action::Redraw, {} };
    }
    if (key == 'q') {
        return { Action::Quit, {} };
    }
    if (pressSort(key) || pressMove(key)) {
        return { Action::Redraw, {} };
    }
    switch (key) {
    case 'h':
    case '?':
        m_isHelpShown = true;
        break;
    case 'f':
        m_watch = m_watch == Watch::Everything ? Watch::Nothing : Watch::Everything;
        break;
    case 'F':
        watchOne();
        break;
    case 'x':
    case Key::Delete:
        if (selected() >= 0) {
            m_toStop = m_rows.at(selected());
        }
        break;
    default:
        break;
    }
    return { Action::Redraw, {} };
}

bool Model::pressSort(int key)
{
    switch (key) {
    case 'm':
        setSort(SortKey::Memory, false);
        return true;
    case 'c':
        setSort(SortKey::Cpu, false);
        return true;
    case 's':
        setSort(SortKey::State, false);
        return true;
    case 'o':
        setSort(SortKey::OomRank, false);
        return true;
    case 'i':
        setSort(SortKey::Id, false);
        return true;
    case 'r':
        setSort(m_sortKey, !m_isReversed);
        return true;
    default:
        return false;
    }
}

bool Model::pressMove(int key)
{
    switch (key) {
    case 'k':
    case Key::Up:
        select(selected() - 1);
        return true;
    case 'j':
    case Key::Down:
        select(selected() + 1);
        return true;
    case Key::PageUp:
        select(selected() - m_page);
        return true;
    case Key::PageDown:
        select(selected() + m_page);
        return true;
    case 'g':
    case Key::Home:
        select(0);
        return true;
    case 'G':
    case Key::End:
        select(m_rows.size() - 1);
        return true;
    default:
        return false;
    }
}

} // namespace Ctl::Top
