#include "Core/group_report.h"

#include "Core/kernel_file.h"

#include "Core/types.h"

#include <QFile>

#include <cstdlib>

namespace Core {

namespace {

constexpr quint64 bytesPerKb = 1024;
constexpr quint64 nanosecondsPerMs = 1'000'000;

QByteArray rooted(const QString &path)
{
    return QFile::encodeName(Types::rootFs() + path);
}

/// The number in the first line of a control file; larger than what KernelFile::number() is for.
std::optional<quint64> readNumber(const QString &directory, const char *name)
{
    KernelFile file(QFile::encodeName(directory + QLatin1Char('/') + QLatin1String(name)));
    std::string_view line;
    if (!file.isOpen() || !file.readLine(&line) || line.empty()) {
        return std::nullopt;
    }
    const std::string text(line);
    char *end = nullptr;
    const quint64 number = std::strtoull(text.c_str(), &end, 10);
    return end && *end == '\0' ? std::optional<quint64>(number) : std::nullopt;
}

std::optional<int> countLines(const QString &directory, const char *name)
{
    KernelFile file(QFile::encodeName(directory + QLatin1Char('/') + QLatin1String(name)));
    if (!file.isOpen()) {
        return std::nullopt;
    }
    int count = 0;
    std::string_view line;
    while (file.readLine(&line)) {
        ++count;
    }
    return count;
}

/// From the lines `ID:CONTROLLER,CONTROLLER:PATH` of proc(5).
QMap<QString, QString> directoriesOf(pid_t pid)
{
    QMap<QString, QString> directories;
    KernelFile file(rooted(QStringLiteral("/proc/%1/cgroup").arg(pid)));
    std::string_view line;
    while (file.readLine(&line)) {
        const QString text = QString::fromUtf8(line.data(), static_cast<int>(line.size()));
        const QString controllers = text.section(QLatin1Char(':'), 1, 1);
        const QString path = text.section(QLatin1Char(':'), 2);
        for (const char *wanted : { "cpu", "cpuacct", "freezer", "memory" }) {
            if (controllers.split(QLatin1Char(',')).contains(QLatin1String(wanted))) {
                directories.insert(
                    QLatin1String(wanted),
                    QString::fromUtf8(
                        rooted(QStringLiteral("/sys/fs/cgroup/%1%2").arg(QLatin1String(wanted), path))));
            }
        }
    }
    return directories;
}

} // namespace

GroupReport GroupReport::read(pid_t pid)
{
    GroupReport report;
    report.directories = directoriesOf(pid);

    const QString memory = report.directories.value(QStringLiteral("memory"));
    if (const auto bytes = readNumber(memory, "memory.usage_in_bytes")) {
        report.memoryKb = *bytes / bytesPerKb;
    }
    report.processes = countLines(memory, "cgroup.procs");
    if (const auto time = readNumber(report.directories.value(QStringLiteral("cpuacct")), "cpuacct.usage")) {
        report.cpuMs = *time / nanosecondsPerMs;
    }
    KernelFile state(QFile::encodeName(report.directories.value(QStringLiteral("freezer"))
                                       + QStringLiteral("/freezer.state")));
    std::string_view line;
    if (state.isOpen() && state.readLine(&line)) {
        report.frozen = line == "FROZEN";
    }
    return report;
}

} // namespace Core
