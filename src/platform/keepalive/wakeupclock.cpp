#include "wakeupclock.h"

#include <QDebug>
#include <QSocketNotifier>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/timerfd.h>
#include <unistd.h>

namespace {

WakeupClock::Time now()
{
    timespec time {};
    clock_gettime(CLOCK_BOOTTIME, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

int openTimer()
{
    constexpr int flags = TFD_CLOEXEC | TFD_NONBLOCK;
    const int alarm = timerfd_create(CLOCK_BOOTTIME_ALARM, flags);
    // Not permitted, or no clock that is able to wake the device.
    return alarm != -1 ? alarm : timerfd_create(CLOCK_BOOTTIME, flags);
}

} // namespace

std::shared_ptr<WakeupClock> WakeupClock::shared()
{
    static std::weak_ptr<WakeupClock> existing;
    std::shared_ptr<WakeupClock> clock = existing.lock();
    if (!clock) {
        clock = std::make_shared<WakeupClock>();
        existing = clock;
    }
    return clock;
}

WakeupClock::WakeupClock()
    : m_timer(openTimer())
{
    if (m_timer == -1) {
        qWarning() << "Cannot make a timer for wake-ups:" << std::strerror(errno);
        return;
    }
    m_notifier = std::make_unique<QSocketNotifier>(m_timer, QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, [this] { onExpired(); });
}

WakeupClock::~WakeupClock()
{
    m_notifier.reset();
    if (m_timer != -1) {
        close(m_timer);
    }
}

void WakeupClock::callAfter(Time delay, const void *owner, const std::function<void()> &function)
{
    cancel(owner);
    m_waitOf[owner] = m_waits.emplace(now() + delay, Wait { owner, function });
    arm();
}

void WakeupClock::cancel(const void *owner)
{
    const auto wait = m_waitOf.find(owner);
    if (wait == m_waitOf.end()) {
        return;
    }
    const bool first = wait->second == m_waits.begin();
    m_waits.erase(wait->second);
    m_waitOf.erase(wait);
    if (first) {
        arm();
    }
}

void WakeupClock::arm()
{
    itimerspec setting {}; // all 0 stops the timer
    if (!m_waits.empty()) {
        const Time moment = m_waits.begin()->first;
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(moment);
        setting.it_value.tv_sec = seconds.count();
        setting.it_value.tv_nsec = (moment - seconds).count();
    }
    if (m_timer != -1) {
        timerfd_settime(m_timer, TFD_TIMER_ABSTIME, &setting, nullptr);
    }
}

void WakeupClock::onExpired()
{
    quint64 expirations = 0;
    if (read(m_timer, &expirations, sizeof expirations) == -1 && errno == EAGAIN) {
        return; // set anew since
    }
    // Whoever is called may cancel others, wait again, or end the last use of this clock. One who waits again
    // has to wait for the next time, also if that is now.
    const std::shared_ptr<WakeupClock> keep = shared_from_this();
    const Time moment = now();
    while (!m_waits.empty() && m_waits.begin()->first <= moment) {
        const Wait wait = m_waits.begin()->second;
        m_waits.erase(m_waits.begin());
        m_waitOf.erase(wait.owner);
        wait.function();
    }
    arm();
}
