#pragma once

#include <QObject>

#include <memory>

namespace Core {

class WakeupTimerPrivate;

/// A timer for seconds to months that counts the time which the device spends suspended, and ends the
/// suspend.
///
/// While the device sleeps an ordinary timer stands still; a wake-up of the platform does not, but may come
/// late. Both run, and the first one decides. Main thread only.
class WakeupTimer : public QObject
{
    Q_OBJECT

public:
    explicit WakeupTimer(QObject *parent = nullptr);
    /// Nothing is delivered afterward, and the device may suspend.
    ~WakeupTimer() override;

    /// One timeout() after @p seconds; a start before it begins anew.
    void start(int seconds);

signals:
    /// If the device was woken for it, it stays awake until the next start() or the end of this object.
    void timeout();

private:
    const std::unique_ptr<WakeupTimerPrivate> d;
};

} // namespace Core
