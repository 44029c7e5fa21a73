// The input is a desktop file.

#include "fuzz.h"

#include "Core/application_info.h"

#include <QTemporaryDir>

#include <fcntl.h>
#include <mdesktopentry.h>
#include <unistd.h>

using namespace Core;
using Fuzz::check;

namespace {

// A directory that nothing else is in, also not what packages have installed.
const QString &directory()
{
    static const QTemporaryDir temporary;
    static const QString path = [] {
        qputenv("PROCWARDEN_ROOTFS", QFile::encodeName(temporary.path()));
        return temporary.path();
    }();
    return path;
}

void write(const QString &path, const std::uint8_t *data, std::size_t size)
{
    const int fd =
        ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    check(fd >= 0 && ::write(fd, data, size) == static_cast<ssize_t>(size), "the file is written");
    ::close(fd);
}

void lookAt(const MDesktopEntry &entry)
{
    const QStringList groups = entry.groups();
    check(entry.isValid() == groups.contains(QStringLiteral("Desktop Entry")),
          "a valid entry has a main group");
    for (const QString &group : groups) {
        (void)entry.value(group, QStringLiteral("Type"));
        const QStringList list = entry.stringListValue(group, QStringLiteral("Permissions"));
        check(!list.contains(QString()), "no element of a list is empty");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QString path = directory() + QLatin1String("/fuzzed.desktop");
    write(path, data, size);
    const MDesktopEntry entry(path);
    lookAt(entry);

    const ApplicationInfo info(path);
    check(info.isValid() == entry.isValid(), "an entry of this name has an id");
    check(info.desktopFile() == path, "the path is kept");
    if (!info.isValid()) {
        return 0;
    }
    check(info.id().isValid(), "the id is valid");
    check(!info.id().text().contains(QLatin1Char('/')), "the id is no path");
    const QMap<QString, ApplicationInfo::TaskInfo> tasks = info.tasks();
    for (auto it = tasks.cbegin(); it != tasks.cend(); ++it) {
        check(ApplicationTaskId::isValidTaskName(it.key()), "the task's name is one");
        check(it->id.isValid() || info.id().text().size() > 30000, "the task's id is valid");
    }
    return 0;
}
