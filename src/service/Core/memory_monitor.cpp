#include "Core/memory_monitor.h"

#include "Core/oom_controller.h"

#include <QDebug>
#include <QTimer>

namespace Core {

namespace {

const char *changeText(MemoryLevel level)
{
    switch (level) {
    case MemoryLevel::Critical:
        return "Memory level: critical";
    case MemoryLevel::Low:
        return "Memory level: low";
    case MemoryLevel::Normal:
    case MemoryLevel::Unknown:
        break;
    }
    return "Memory level: normal";
}

} // namespace

class MemoryMonitorPrivate
{
public:
    int intervalOf(MemoryLevel level) const;

    OomController oomController; // its own: who scores processes does not read the level
    MemoryLevel lastLevel = MemoryLevel::Unknown;
    QTimer timer;
};

int MemoryMonitorPrivate::intervalOf(MemoryLevel level) const
{
    switch (level) {
    case MemoryLevel::Critical:
        return oomController.checkIntervalMsecCriticalMem();
    case MemoryLevel::Low:
        return oomController.checkIntervalMsecLowMem();
    case MemoryLevel::Normal:
    case MemoryLevel::Unknown:
        break;
    }
    return oomController.checkIntervalMsec();
}

MemoryMonitor *MemoryMonitor::instance()
{
    static auto *monitor = new MemoryMonitor;
    return monitor;
}

MemoryMonitor::MemoryMonitor(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<MemoryMonitorPrivate>())
{
    d->timer.setInterval(d->intervalOf(d->lastLevel));
    connect(&d->timer, &QTimer::timeout, this, &MemoryMonitor::checkOomState);
}

MemoryMonitor::~MemoryMonitor() = default;

void MemoryMonitor::start()
{
    d->timer.start();
}

void MemoryMonitor::stop()
{
    d->timer.stop();
}

bool MemoryMonitor::isActive() const
{
    return d->timer.isActive();
}

int MemoryMonitor::intervalMs() const
{
    return d->timer.interval();
}

MemoryLevel MemoryMonitor::level() const
{
    return d->lastLevel;
}

const MemoryReading &MemoryMonitor::reading() const
{
    return d->oomController.lastReading();
}

void MemoryMonitor::checkOomState()
{
    const MemoryLevel level = d->oomController.readMemoryLevel();
    if (level == d->lastLevel) {
        return;
    }
    d->lastLevel = level;
    emit levelChanged(level);
    qDebug() << changeText(level);
    d->timer.setInterval(d->intervalOf(level));
}

} // namespace Core
