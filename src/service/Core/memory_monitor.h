#pragma once

#include "Core/memory_level.h"

#include <QObject>

#include <memory>

namespace Core {

class MemoryMonitorPrivate;

/// Looks at the memory again and again, the more often the less there is of it, and tells of each change of
/// level.
///
/// Main thread only. It does not run by itself: who has something to lose starts and stops it. The first look
/// after the first start reports a change.
class MemoryMonitor : public QObject
{
    Q_OBJECT

public:
    using MemoryLevel = Core::MemoryLevel;

    /// The one of the process, made on first use and never destroyed.
    static MemoryMonitor *instance();

    explicit MemoryMonitor(QObject *parent = nullptr);
    ~MemoryMonitor() override;

    /// The first look comes after one interval.
    void start();
    void stop();
    bool isActive() const;
    /// Time between two looks, in ms, by the level.
    int intervalMs() const;

    /// As of the last look; `Unknown` before the first one.
    MemoryLevel level() const;
    /// The figures behind it.
    const MemoryReading &reading() const;

    /// Looks at once.
    void checkOomState();

signals:
    void levelChanged(Core::MemoryLevel level);

private:
    const std::unique_ptr<MemoryMonitorPrivate> d;
};

} // namespace Core
