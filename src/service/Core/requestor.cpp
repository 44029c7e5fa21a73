#include "Core/requestor.h"

#include "Core/kernel_file.h"

#include "Core/types.h"

#include <QByteArray>
#include <QFile>
#include <QStringBuilder>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <string>
#include <string_view>

#include <unistd.h>

namespace Core {

namespace {

QByteArray fileOf(pid_t process, const char *name)
{
    return QFile::encodeName(Types::rootFs()) % "/proc/" % QByteArray::number(process) % '/' % name;
}

/// The effective one: by it the process is allowed what it does.
std::optional<uint> userOf(pid_t process)
{
    constexpr std::string_view key = "Uid:";
    KernelFile file(fileOf(process, "status"));
    std::string_view line;
    while (file.readLine(&line)) {
        if (line.substr(0, key.size()) != key) {
            continue;
        }
        const std::string ids(line.substr(key.size())); // real, effective, saved, file system
        char *next = nullptr;
        (void)std::strtoul(ids.c_str(), &next, 10);
        char *end = nullptr;
        const unsigned long effective = std::strtoul(next, &end, 10);
        return end != next ? std::optional<uint>(static_cast<uint>(effective)) : std::nullopt;
    }
    return std::nullopt;
}

/// Only a process of the service's own user shows its file.
QString programFileOf(pid_t process)
{
    std::array<char, PATH_MAX> target {};
    const ssize_t length = ::readlink(fileOf(process, "exe").constData(), target.data(), target.size() - 1);
    if (length <= 0) {
        return QString();
    }
    QString path = QFile::decodeName(QByteArray(target.data(), static_cast<int>(length)));
    const QLatin1String replaced(" (deleted)"); // the file has been since, by an update for one
    if (path.endsWith(replaced)) {
        path.chop(replaced.size());
    }
    return path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
}

QString programOf(pid_t process)
{
    const QString name = programFileOf(process);
    if (!name.isEmpty()) {
        return name;
    }
    KernelFile file(fileOf(process, "comm"));
    std::string_view line;
    constexpr size_t longest = 64; // the kernel's own names have up to 63 bytes, programs' 15
    return file.readLine(&line)
        ? QString::fromUtf8(line.data(), static_cast<int>(std::min(line.size(), longest)))
        : QString();
}

} // namespace

void Requestor::setProcess(pid_t process)
{
    if (process <= 0) {
        return;
    }
    pid = process;
    program = programOf(process);
    if (!uid) {
        uid = userOf(process);
    }
}

} // namespace Core
