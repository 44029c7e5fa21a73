#pragma once

#include <QObject>

#include <chrono>
#include <functional>
#include <map>
#include <memory>

class QSocketNotifier;

/// Calls back at moments of the boot clock, which also counts the time that the device is suspended, and
/// wakes the device for them.
///
/// One kernel timer serves all who wait, so that a thousand waits cost one descriptor. A process without the
/// capability CAP_WAKE_ALARM may not wake the device: the call then comes as soon as something else has.
/// Lives as long as somebody keeps what shared() returned. Main thread only.
class WakeupClock : public QObject, public std::enable_shared_from_this<WakeupClock>
{
    Q_OBJECT

public:
    using Time = std::chrono::nanoseconds; ///< since the device was booted

    static std::shared_ptr<WakeupClock> shared();

    WakeupClock();
    ~WakeupClock() override;

    /// Calls @p function from the event loop once @p delay has passed. @p owner is the key for cancel(), and
    /// waits for one moment at a time.
    void callAfter(Time delay, const void *owner, const std::function<void()> &function);
    /// Nothing is called. Harmless for one who does not wait.
    void cancel(const void *owner);

private:
    struct Wait
    {
        const void *owner;
        std::function<void()> function;
    };

    void arm();
    void onExpired();

    int m_timer = -1; ///< the kernel's; -1 if it gave none
    std::unique_ptr<QSocketNotifier> m_notifier;
    std::multimap<Time, Wait> m_waits; ///< the moment -> who; removed by the call or by cancel()
    std::map<const void *, std::multimap<Time, Wait>::iterator> m_waitOf; ///< owner -> its wait
};
