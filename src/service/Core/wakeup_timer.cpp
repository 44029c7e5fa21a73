#include "Core/wakeup_timer.h"

#include <QTimer>

#include <backgroundactivity.h>

namespace Core {

class WakeupTimerPrivate : public QObject
{
public:
    explicit WakeupTimerPrivate(WakeupTimer *timer);

    void start(int seconds);

private:
    /// The most seconds that QTimer counts at a time.
    static constexpr int longestSeconds = 2000000;

    void startTimer();
    void onTimer();
    void onRunning();

    QTimer m_timer { this };
    int m_remaining = 0; ///< seconds to count after those that the timer counts now
    bool m_fired = false; ///< the timer came first: a wake-up that is still on its way means nothing
    BackgroundActivity m_activity { this };
    WakeupTimer *const q;
};

WakeupTimerPrivate::WakeupTimerPrivate(WakeupTimer *timer)
    : QObject(timer)
    , q(timer)
{
    m_timer.setSingleShot(true);
    m_timer.setTimerType(Qt::VeryCoarseTimer);
    connect(&m_timer, &QTimer::timeout, this, &WakeupTimerPrivate::onTimer);
    connect(&m_activity, &BackgroundActivity::running, this, &WakeupTimerPrivate::onRunning);
}

void WakeupTimerPrivate::start(int seconds)
{
    m_fired = false;
    m_remaining = seconds;
    startTimer();
    if (m_activity.isRunning()) {
        m_activity.stop();
    }
    m_activity.wait(seconds, seconds == INT_MAX ? seconds : seconds + 1);
}

void WakeupTimerPrivate::startTimer()
{
    const int seconds = qMin(m_remaining, longestSeconds);
    m_remaining -= seconds;
    m_timer.start(seconds * 1000);
}

void WakeupTimerPrivate::onTimer()
{
    if (m_remaining > 0) {
        startTimer();
        return;
    }
    // The signal comes last: it may lead to the next start(), whose wake-up is not to be dropped.
    m_fired = true;
    m_activity.stop();
    emit q->timeout();
}

void WakeupTimerPrivate::onRunning()
{
    if (m_fired) {
        m_activity.stop();
        return;
    }
    // The device stays awake for what the timeout sets in motion.
    m_timer.stop();
    emit q->timeout();
}

WakeupTimer::WakeupTimer(QObject *parent)
    : QObject(parent)
    , d(new WakeupTimerPrivate(this))
{
}

WakeupTimer::~WakeupTimer() = default;

void WakeupTimer::start(int seconds)
{
    d->start(seconds);
}

} // namespace Core
