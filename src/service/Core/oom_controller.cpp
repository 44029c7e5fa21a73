#include "Core/oom_controller.h"

#include "Core/candidate.h"
#include "Core/cgroup_controller.h"
#include "Core/kernel_file.h"
#include "Core/regular_file.h"
#include "Core/types.h"

#include <QDebug>
#include <QFile>
#include <QSettings>
#include <QStringBuilder>

#include <algorithm>
#include <limits>
#include <optional>
#include <utility>

#include <unistd.h>

namespace Core {

namespace {

constexpr int protection = -100;

// Several times what the kernel writes into such a file; this much is allocated for each reading.
constexpr qint64 maximumTableSize = 64 * 1024; // meminfo

QByteArray encodedRoot()
{
    return QFile::encodeName(Types::rootFs());
}

bool hasSwapOnZram()
{
    KernelFile swaps(encodedRoot() + QByteArrayLiteral("/proc/swaps"));
    constexpr std::string_view device = "/dev/zram";
    std::string_view line;
    while (swaps.readLine(&line)) {
        if (line.substr(0, device.size()) == device) {
            return true;
        }
    }
    return false;
}

QString processFile(pid_t pid, const char *name)
{
    return QStringLiteral("/proc/%1/%2").arg(pid).arg(QLatin1String(name));
}

/// The process of the control group of @p leader that has offered itself most clearly; the leader if all have
/// the same to say. Only a value above 0 is an offer. A group that the leader is no longer in is not its own:
/// it is about to end. What the leader says is left in @p leaderSays, if it was read on the way.
pid_t volunteer(pid_t leader, std::optional<int> *leaderSays)
{
    const QSet<int> members = CGroupController::processesInSameGroup(leader);
    if (!members.contains(leader)) {
        return leader;
    }
    // The leader first, then in ascending order: of several with the same value it is always the same one.
    QVector<int> pids(members.cbegin(), members.cend());
    std::sort(pids.begin(), pids.end(), [leader](int a, int b) {
        return std::make_pair(a != leader, a) < std::make_pair(b != leader, b);
    });

    const QByteArray root = encodedRoot();
    int smallest = std::numeric_limits<int>::max();
    int largest = 0;
    pid_t chosen = leader;
    for (const int pid : qAsConst(pids)) {
        // Whatever a file says: these two end the system and the service.
        if (pid <= 1 || pid == ::getpid()) {
            continue;
        }
        const std::optional<int> value =
            KernelFile(root % "/proc/" % QByteArray::number(pid) % "/oom_score_adj").number();
        if (!value) {
            continue; // it has ended meanwhile
        }
        if (pid == leader) {
            *leaderSays = value;
        }
        smallest = std::min(smallest, *value);
        if (*value > largest) {
            largest = *value;
            chosen = pid;
        }
    }
    return smallest < largest ? chosen : leader;
}

} // namespace

class OomControllerPrivate
{
public:
    OomControllerPrivate();

    int checkIntervalMsec = 5000;
    int checkIntervalMsecLowMem = 2000;
    int checkIntervalMsecCriticalMem = 1000;
    int notificationUnfreezeMsec = 5000;
    QVector<MemoryThreshold> thresholds; // in ascending order of severity
    std::unique_ptr<QFile> memInfo; // made at the first reading, open only within one
    bool swapOnZram = false;
    bool debug = false;
    MemoryReading reading;

private:
    void load();
};

OomControllerPrivate::OomControllerPrivate()
    : swapOnZram(hasSwapOnZram())
    , debug(qEnvironmentVariableIsSet("PROCWARDEN_OOM_DEBUG"))
{
    load();
}

void OomControllerPrivate::load()
{
    const QString path = Types::rootFs() + QStringLiteral("/etc/procwarden/oom.cfg");
    if (!isRegularFile(path)) {
        thresholds = { { 0, 0, MemoryLevel::Low }, { 0, 0, MemoryLevel::Critical } };
        return;
    }
    const QSettings settings(path, QSettings::IniFormat);
    const auto number = [&settings](const char *key, int otherwise) {
        bool ok = false;
        // As a text, since a variant cuts a number that is too large for an int.
        const int value = settings.value(QLatin1String(key)).toString().toInt(&ok);
        return ok ? value : otherwise;
    };
    // A timer with nothing between its ticks would take the whole processor.
    const auto interval = [&number](const char *key, int otherwise) {
        const int value = number(key, otherwise);
        return value > 0 ? value : otherwise;
    };
    checkIntervalMsec = interval("CheckIntervalMsec", checkIntervalMsec);
    checkIntervalMsecLowMem = interval("CheckIntervalMsecLowMem", checkIntervalMsecLowMem);
    checkIntervalMsecCriticalMem = interval("CheckIntervalMsecCriticalMem", checkIntervalMsecCriticalMem);
    notificationUnfreezeMsec = number("NotificationUnfreezeMsec", notificationUnfreezeMsec);
    constexpr qint64 kilobytesPerMegabyte = 1 << 10;
    thresholds = {
        { number("LowMemoryTermPercent", 0), number("LowMemoryTermMB", 0) * kilobytesPerMegabyte,
          MemoryLevel::Low },
        { number("MinMemoryTermPercent", 0), number("MinMemoryTermMB", 0) * kilobytesPerMegabyte,
          MemoryLevel::Critical },
    };
}

OomController::OomController()
    : d(std::make_unique<OomControllerPrivate>())
{
}

OomController::~OomController() = default;

MemoryLevel OomController::readMemoryLevel() const
{
    d->reading = MemoryReading();
    if (!d->memInfo) {
        d->memInfo = std::make_unique<QFile>(Types::rootFs() + QStringLiteral("/proc/meminfo"));
    }
    if (!d->memInfo->open(QFile::ReadOnly)) {
        qWarning() << "Could not open /proc/meminfo";
        return MemoryLevel::Unknown;
    }
    const QByteArray content = d->memInfo->read(maximumTableSize);
    d->memInfo->close();

    d->reading = MemoryReading::judge(MemoryInfo::parse(content), d->swapOnZram, d->thresholds);
    const MemoryReading &reading = d->reading;
    if (reading.level == MemoryLevel::Unknown) {
        qWarning() << "Missing required fields in /proc/meminfo";
        return reading.level;
    }
    if (d->debug) {
        qDebug().nospace() << "Available " << reading.availableKb << " (swap: " << reading.swapFreeKb
                           << ") out of " << reading.totalKb << " (swap: " << reading.swapTotalKb << "), "
                           << reading.percent << "% -> level " << memoryLevelName(reading.level);
    }
    return reading.level;
}

const MemoryReading &OomController::lastReading() const
{
    return d->reading;
}

int OomController::checkIntervalMsec() const
{
    return d->checkIntervalMsec;
}

int OomController::checkIntervalMsecLowMem() const
{
    return d->checkIntervalMsecLowMem;
}

int OomController::checkIntervalMsecCriticalMem() const
{
    return d->checkIntervalMsecCriticalMem;
}

int OomController::notificationUnfreezeMsec() const
{
    return d->notificationUnfreezeMsec;
}

bool OomController::readProcessScore(pid_t pid, Candidate *candidate) const
{
    std::optional<int> adjustment;
    candidate->killPid = volunteer(pid, &adjustment);
    if (!readIntFromFile(processFile(pid, "oom_score"), &candidate->oomScore)) {
        return false;
    }
    if (adjustment) {
        candidate->oomScoreAdj = *adjustment;
        return true;
    }
    return readIntFromFile(processFile(pid, "oom_score_adj"), &candidate->oomScoreAdj);
}

int OomController::oomScoreForStart(int flags)
{
    int score = 0;
    if (flags & DirectRequest) {
        score += protection;
    }
    if (flags & ExtraProtection) {
        score += protection;
    }
    return score;
}

bool OomController::readIntFromFile(const QString &path, int *value)
{
    const KernelFile file(encodedRoot() + QFile::encodeName(path));
    if (!file.isOpen()) {
        qWarning() << "Failed to open" << path;
        return false;
    }
    const std::optional<int> number = file.number();
    if (number) {
        *value = *number;
    }
    return number.has_value();
}

} // namespace Core
