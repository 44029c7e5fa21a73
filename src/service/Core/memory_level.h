#pragma once

#include <QByteArray>
#include <QMetaType>
#include <QVector>

namespace Core {

/// How much memory is left, as the service judges it.
enum class MemoryLevel : qint32 {
    Unknown = 0, ///< could not be read
    Normal = 1,
    Low = 2, ///< those who can should give memory back
    Critical = 3, ///< the service kills before the kernel has to
};

/// "Unknown", "Normal", "Low" or "Critical".
const char *memoryLevelName(MemoryLevel level);

/// The number that stands for @p level on the bus: 0, 100 for low, 200 for critical.
int wireMemoryLevel(MemoryLevel level);

/// The figures of /proc/meminfo that count, in kB; -1 where the file does not say. See proc(5).
struct MemoryInfo
{
    qint64 memFree = -1;
    qint64 memAvailable = -1;
    qint64 memTotal = -1;
    qint64 swapTotal = -1;
    qint64 swapFree = -1;
    qint64 inactiveFile = -1;

    /// Takes what it can from the content of the file; a wanted line without a unit is warned about. Figures
    /// beyond all sense are cut to what can be reckoned with.
    static MemoryInfo parse(const QByteArray &content);
};

/// Below either of its figures the level holds. They are alternatives, and both are strict.
struct MemoryThreshold
{
    int percent = 0; ///< of what there is, swap included; 0 or less: not used
    qint64 kilobytes = 0;
    MemoryLevel level = MemoryLevel::Normal;
};

/// A judgement, and the figures that it was made from.
struct MemoryReading
{
    MemoryLevel level = MemoryLevel::Unknown;
    qint64 availableKb = 0; ///< memory and swap
    qint64 totalKb = 0; ///< memory and swap
    qint64 swapFreeKb = 0; ///< as far as it counts
    qint64 swapTotalKb = 0;
    float percent = 0; ///< available of total

    /// Judges @p info; the level of a later one of @p thresholds wins over that of an earlier one.
    ///
    /// Free swap counts as available. With @p swapOnZram it does so only as far as free and easily freed
    /// memory could take the compressed pages.
    /// @returns level `Unknown` without figures for what is available and what there is.
    static MemoryReading judge(const MemoryInfo &info, bool swapOnZram,
                               const QVector<MemoryThreshold> &thresholds);
};

} // namespace Core

Q_DECLARE_METATYPE(Core::MemoryLevel)
