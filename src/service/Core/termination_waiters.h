#pragma once

#include <QMap>
#include <QString>
#include <QVector>

#include <functional>

namespace Core {

/// Who waits until nothing of an application runs any more.
class TerminationWaiters
{
public:
    using Callback = std::function<void()>;

    void add(const QString &applicationId, const Callback &callback);

    /// Calls those that wait for exactly this text, in the order in which they came, and forgets them.
    /// A waiter may add further ones; those are not called any more.
    void release(const QString &applicationId);

private:
    QMap<QString, QVector<Callback>> m_waiters; // application id -> waiters, removed by release()
};

} // namespace Core
