#pragma once

#include <QObject>

#include <memory>

class BackgroundActivityPrivate;

/// Keeps the device from suspending while it runs, and wakes it from suspend to run.
///
/// It stands still, waits or runs. What keeps the device awake is the sleep inhibitor of systemd-logind.
/// Where logind does not answer, or refuses, the device may suspend all the same; this is said once, in a
/// warning, and logind is asked again at the next run. Main thread only; no operation blocks.
class BackgroundActivity : public QObject
{
    Q_OBJECT

public:
    explicit BackgroundActivity(QObject *parent = nullptr);

    /// Stops.
    ~BackgroundActivity() override;

    /// The device must stay awake from now on. Does nothing if it runs already.
    void run();

    /// Ends what was, lets the device suspend, and runs once at least @p minimum and at most @p maximum
    /// seconds have passed, of which those in suspend count. A process without the capability CAP_WAKE_ALARM
    /// cannot wake the device, and runs as soon as it is awake after that time.
    void wait(int minimum, int maximum);

    /// The device may suspend again, and no wake-up comes. Does nothing if it neither runs nor waits.
    void stop();

    [[nodiscard]] bool isRunning() const;

signals:
    /// What was waited for has come; the device stays awake until stop() or the next wait().
    void running();

private:
    const std::unique_ptr<BackgroundActivityPrivate> d;
};
