#include "Core/application.h"

#include <algorithm>
#include <iterator>

namespace Core {

namespace {

QList<QUrl> shortOnes(const QList<QUrl> &uris)
{
    QList<QUrl> found;
    std::copy_if(uris.cbegin(), uris.cend(), std::back_inserter(found),
                 [](const QUrl &uri) { return uri.toString().size() <= Application::maximumUriLength; });
    return found;
}

} // namespace

Application::Application(const QString &id, pid_t pid, const InvocationContext &context,
                         const QList<QUrl> &uris, QObject *parent)
    : Process(id, pid, parent)
    , m_context(context)
    , m_uris(shortOnes(uris))
{
}

void Application::setState(ApplicationState newState)
{
    const bool wasActive = state() == ApplicationState::Active;
    Process::setState(newState);
    if (wasActive && newState != ApplicationState::Active) {
        m_lastActive = QDateTime::currentDateTime();
    }
}

void Application::setWindowCounts(int active, int inactive, int hidden)
{
    m_activeWindowCount = active;
    m_inactiveWindowCount = inactive;
    m_hiddenWindowCount = hidden;
}

qint64 Application::windowCount() const
{
    // The counts are a client's: any two of them may exceed an int together.
    return qint64(m_activeWindowCount) + m_inactiveWindowCount + m_hiddenWindowCount;
}

QDateTime Application::lastActive() const
{
    return state() == ApplicationState::Active ? QDateTime::currentDateTime() : m_lastActive;
}

ApplicationRecord Application::record() const
{
    ApplicationRecord record;
    record.id = id();
    record.pid = pid();
    record.context = m_context;
    record.activeWindowCount = m_activeWindowCount;
    record.inactiveWindowCount = m_inactiveWindowCount;
    record.hiddenWindowCount = m_hiddenWindowCount;
    record.state = state();
    record.uris = m_uris;
    return record;
}

} // namespace Core
