#include "words.h"

#include "Core/application_state.h"

#include <QDateTime>
#include <QStringList>

#include <cstring>

#include <sys/wait.h>

using Core::ApplicationState;
using Core::StopReason;

namespace Ctl {

namespace {

constexpr qint64 second = 1000;
constexpr qint64 minute = 60 * second;
constexpr qint64 hour = 60 * minute;
constexpr qint64 day = 24 * hour;

constexpr quint64 kilobytesOfMegabyte = 1024;

QString signalText(int number)
{
    const char *name = sigabbrev_np(number);
    return name ? QStringLiteral("signal %1 (SIG%2)").arg(number).arg(QLatin1String(name))
                : QStringLiteral("signal %1").arg(number);
}

/// "5 s", or "5 s 3 ms" if there is a rest in the smaller unit.
QString twoUnits(qint64 value, qint64 unit, const char *name, qint64 smallerUnit, const char *smallerName)
{
    QString text = QStringLiteral("%1 %2").arg(value / unit).arg(QLatin1String(name));
    const qint64 rest = value % unit / smallerUnit;
    if (rest > 0) {
        text += QStringLiteral(" %1 %2").arg(rest).arg(QLatin1String(smallerName));
    }
    return text;
}

} // namespace

QString waitStatusText(int status)
{
    if (WIFEXITED(status)) {
        return QStringLiteral("exit status %1").arg(WEXITSTATUS(status));
    }
    if (WIFSIGNALED(status)) {
        const QString text = signalText(WTERMSIG(status));
        return WCOREDUMP(status) ? text + QStringLiteral(", core dumped") : text;
    }
    return QStringLiteral("status %1").arg(status);
}

QString stateName(uint state)
{
    switch (ApplicationState(state)) {
    case ApplicationState::Launched:
        return QStringLiteral("launched");
    case ApplicationState::Active:
        return QStringLiteral("active");
    case ApplicationState::Inactive:
        return QStringLiteral("inactive");
    case ApplicationState::Hidden:
        return QStringLiteral("hidden");
    case ApplicationState::Terminating:
        return QStringLiteral("terminating");
    case ApplicationState::NotRunning:
        return QStringLiteral("not running");
    }
    return QString::number(state);
}

Style stateStyle(uint state)
{
    switch (ApplicationState(state)) {
    case ApplicationState::Active:
        return Style::Good;
    case ApplicationState::Hidden:
    case ApplicationState::NotRunning:
        return Style::Dim;
    case ApplicationState::Terminating:
        return Style::Notice;
    case ApplicationState::Launched:
    case ApplicationState::Inactive:
        break;
    }
    return Style::Plain;
}

QString startReasonName(uint reason)
{
    switch (reason) {
    case 0:
        return QStringLiteral("unknown");
    case 1:
        return QStringLiteral("intent Start");
    case 2:
        return QStringLiteral("autostart");
    case 3:
        return QStringLiteral("delivery of an intent");
    case 4:
        return QStringLiteral("direct start");
    case 6:
        return QStringLiteral("D-Bus activation");
    default:
        return QString::number(reason);
    }
}

QString stopReasonName(uint reason)
{
    switch (StopReason(reason)) {
    case StopReason::None:
        return QStringLiteral("by itself");
    case StopReason::Requested:
        return QStringLiteral("requested");
    case StopReason::OomKilled:
        return QStringLiteral("out of memory");
    }
    return QString::number(reason);
}

QString memoryLevelName(int level)
{
    switch (level) {
    case 0:
        return QStringLiteral("normal");
    case 100:
        return QStringLiteral("low");
    case 200:
        return QStringLiteral("critical");
    default:
        return QString::number(level);
    }
}

Style memoryLevelStyle(int level)
{
    return level >= 200 ? Style::Bad : level >= 100 ? Style::Notice : Style::Good;
}

QString durationText(qint64 milliseconds)
{
    if (milliseconds < second) {
        return QStringLiteral("%1 ms").arg(milliseconds);
    }
    if (milliseconds < minute) {
        return QStringLiteral("%1 s").arg(milliseconds / second);
    }
    if (milliseconds < hour) {
        return twoUnits(milliseconds, minute, "min", second, "s");
    }
    if (milliseconds < day) {
        return twoUnits(milliseconds, hour, "h", minute, "min");
    }
    return twoUnits(milliseconds, day, "d", hour, "h");
}

QString sizeText(quint64 kilobytes)
{
    if (kilobytes < kilobytesOfMegabyte) {
        return QStringLiteral("%1 kB").arg(kilobytes);
    }
    const double megabytes = double(kilobytes) / kilobytesOfMegabyte;
    if (megabytes < kilobytesOfMegabyte) {
        return QStringLiteral("%1 MB").arg(megabytes, 0, 'f', 1);
    }
    return QStringLiteral("%1 GB").arg(megabytes / kilobytesOfMegabyte, 0, 'f', 1);
}

QString timeText(qint64 milliseconds)
{
    return QDateTime::fromMSecsSinceEpoch(milliseconds).toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
}

QString yesOrNo(bool value)
{
    return value ? QStringLiteral("yes") : QStringLiteral("no");
}

QString commonGroup(const QVariantMap &directories)
{
    if (directories.isEmpty()) {
        return QString();
    }
    QStringList common = directories.first().toString().split(QLatin1Char('/'), Qt::SkipEmptyParts);
    for (const QVariant &directory : directories) {
        const QStringList parts = directory.toString().split(QLatin1Char('/'), Qt::SkipEmptyParts);
        int same = 0;
        while (same < common.size() && same < parts.size()
               && common.at(common.size() - 1 - same) == parts.at(parts.size() - 1 - same)) {
            ++same;
        }
        common = common.mid(common.size() - same);
    }
    return common.join(QLatin1Char('/'));
}

} // namespace Ctl
