#pragma once

#include "bus.h"
#include "top/model.h"

#include <QDBusServiceWatcher>
#include <QElapsedTimer>
#include <QObject>
#include <QTimer>
#include <QVariantMap>

namespace Ctl::Top {

/// One answer of the service, or why there is none.
struct Sample
{
    Service service = Service::Waited;
    Reply failure; ///< if service is not Answers
    QVariantList processes; ///< plain maps, as ListRunning gives them
    QVariantMap memory; ///< as GetMemory gives it; empty for who may not ask
    qint64 steadyMs = 0; ///< a clock that is never set
    qint64 timeMs = 0; ///< since 1970
};

/// Asks the service at intervals, without ever waiting for it: one question at a time, each with a time-out.
class Source : public QObject
{
    Q_OBJECT

public:
    explicit Source(QObject *parent = nullptr);

    /// Asks now and every @p intervalMs. @p mustFollow: also when applications start, end or change their
    /// state, and when the service comes or goes.
    void start(int intervalMs, bool mustFollow);

    /// Has an instance or the process of a task end; stopAnswered() tells what became of it.
    void stop(const Row &row);

signals:
    void sampled(const Ctl::Top::Sample &sample);
    /// A question has been waited for too long. It is still waited for.
    void silent();
    void stopAnswered(const Ctl::Top::Row &row, const Ctl::Reply &reply);
    void busGone();

private slots:
    void onChanged();
    void onBusGone();

private:
    void follow();
    void ask();
    void onAnswered();

    QTimer m_timer;
    QTimer m_soon; // runs from a change to the question about it
    QTimer m_patience; // runs while there is no answer
    QElapsedTimer m_clock;
    QElapsedTimer m_sinceAnswer;
    QDBusServiceWatcher m_watcher;
    int m_openCalls = 0;
    bool m_mustAskAgain = false; // something has changed since the open question was asked
    Reply m_running;
    Reply m_memory;
};

} // namespace Ctl::Top
