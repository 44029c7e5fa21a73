#include "backgroundactivity.h"

#include "sleepinhibitor.h"
#include "wakeupclock.h"

#include <QtGlobal>

namespace {

/// When to wake up within a range: late, since whoever is awake anyway by then has had time to notice by an
/// ordinary timer and to stop the wait, and the device is woken only where it really sleeps.
WakeupClock::Time delayWithin(int minimum, int maximum)
{
    const std::chrono::nanoseconds earliest = std::chrono::seconds(qMax(minimum, 0));
    const std::chrono::nanoseconds latest = qMax(earliest, WakeupClock::Time(std::chrono::seconds(maximum)));
    return earliest + (latest - earliest) / 4 * 3;
}

} // namespace

class BackgroundActivityPrivate
{
public:
    void run();
    void stop();

    bool running = false;
    const std::shared_ptr<SleepInhibitor> inhibitor = SleepInhibitor::shared();
    const std::shared_ptr<WakeupClock> clock = WakeupClock::shared();
};

void BackgroundActivityPrivate::run()
{
    clock->cancel(this);
    if (!running) {
        running = true;
        inhibitor->hold();
    }
}

void BackgroundActivityPrivate::stop()
{
    clock->cancel(this);
    if (running) {
        running = false;
        inhibitor->release();
    }
}

BackgroundActivity::BackgroundActivity(QObject *parent)
    : QObject(parent)
    , d(new BackgroundActivityPrivate)
{
}

BackgroundActivity::~BackgroundActivity()
{
    d->stop();
}

void BackgroundActivity::run()
{
    d->run();
}

void BackgroundActivity::wait(int minimum, int maximum)
{
    d->stop();
    d->clock->callAfter(delayWithin(minimum, maximum), d.get(), [this] {
        d->run();
        emit running();
    });
}

void BackgroundActivity::stop()
{
    d->stop();
}

bool BackgroundActivity::isRunning() const
{
    return d->running;
}
