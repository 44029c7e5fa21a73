#include "Core/memory_level.h"

#include <QDebug>
#include <QHash>

#include <algorithm>

namespace Core {

namespace {

// Many times what any machine has, and little enough that sums of it stay exact, in a double as well.
constexpr qint64 maximumKb = qint64(1) << 48;

} // namespace

int wireMemoryLevel(MemoryLevel level)
{
    switch (level) {
    case MemoryLevel::Unknown:
    case MemoryLevel::Normal:
        return 0;
    case MemoryLevel::Low:
        return 100;
    case MemoryLevel::Critical:
        return 200;
    }
    return 0;
}

const char *memoryLevelName(MemoryLevel level)
{
    switch (level) {
    case MemoryLevel::Unknown:
        return "Unknown";
    case MemoryLevel::Normal:
        return "Normal";
    case MemoryLevel::Low:
        return "Low";
    case MemoryLevel::Critical:
        return "Critical";
    }
    return "";
}

MemoryInfo MemoryInfo::parse(const QByteArray &content)
{
    MemoryInfo info;
    const QHash<QByteArray, qint64 *> wanted = {
        { "MemFree", &info.memFree },   { "MemAvailable", &info.memAvailable },
        { "MemTotal", &info.memTotal }, { "SwapTotal", &info.swapTotal },
        { "SwapFree", &info.swapFree }, { "Inactive(file)", &info.inactiveFile },
    };
    const QList<QByteArray> lines = content.split('\n');
    for (const QByteArray &line : lines) {
        const int colon = line.indexOf(':');
        qint64 *const field = colon < 0 ? nullptr : wanted.value(line.left(colon));
        if (!field) {
            continue;
        }
        const int unit = line.indexOf(" kB", colon);
        if (unit < 0) {
            qWarning() << "Missing kB in line";
            continue;
        }
        bool ok = false;
        const qint64 value = line.mid(colon + 1, unit - colon - 1).trimmed().toLongLong(&ok);
        if (ok) {
            *field = qBound(-maximumKb, value, maximumKb);
        }
    }
    return info;
}

MemoryReading MemoryReading::judge(const MemoryInfo &info, bool swapOnZram,
                                   const QVector<MemoryThreshold> &thresholds)
{
    MemoryReading reading;
    if (info.memAvailable < 0 || info.memTotal < 0) {
        return reading;
    }
    reading.availableKb = info.memAvailable;
    reading.totalKb = info.memTotal;
    reading.swapFreeKb = info.swapFree;
    reading.swapTotalKb = info.swapTotal;
    if (info.swapTotal > 0) {
        reading.totalKb += info.swapTotal;
        if (swapOnZram) {
            // Compressed swap needs real pages.
            reading.swapFreeKb = std::min(info.swapFree, info.memFree + info.inactiveFile);
        }
        if (reading.swapFreeKb > 0) {
            reading.availableKb += reading.swapFreeKb;
        }
    }
    reading.percent = float(double(reading.availableKb) * 100.0 / double(reading.totalKb));

    reading.level = MemoryLevel::Normal;
    for (const MemoryThreshold &threshold : thresholds) {
        const bool tooFew = threshold.kilobytes > reading.availableKb;
        const bool tooSmallAPart = threshold.percent > 0 && float(threshold.percent) > reading.percent;
        if (tooFew || tooSmallAPart) {
            reading.level = threshold.level;
        }
    }
    return reading;
}

} // namespace Core
