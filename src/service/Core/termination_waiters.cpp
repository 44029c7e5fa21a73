#include "Core/termination_waiters.h"

namespace Core {

void TerminationWaiters::add(const QString &applicationId, const Callback &callback)
{
    m_waiters[applicationId].append(callback);
}

void TerminationWaiters::release(const QString &applicationId)
{
    const QVector<Callback> released = m_waiters.take(applicationId);
    for (const Callback &callback : released) {
        callback();
    }
}

} // namespace Core
