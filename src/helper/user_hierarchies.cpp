#include "user_hierarchies.h"

#include <QByteArray>
#include <QFile>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

// The user can write below the own subtree, and on a file system other than the kernel's could put links
// there. So every step goes from an open directory to a single name in it, which is opened without following
// a link, and what is looked at, and then given away, is what that descriptor refers to.

namespace Helper {

namespace {

constexpr int openDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr mode_t directoryMode = 0755; // only the user may write; others may look
constexpr auto topDirectory = "procwarden";
constexpr uid_t noUser = static_cast<uid_t>(-1); // chown(2) takes it as "leave the owner"

const std::array<QLatin1String, 3> requiredControllers = {
    QLatin1String("cpu"),
    QLatin1String("freezer"),
    QLatin1String("memory"),
};
const QLatin1String accountingController("cpuacct");

class Descriptor
{
public:
    explicit Descriptor(int descriptor = -1)
        : m_descriptor(descriptor)
    {
    }
    Descriptor(Descriptor &&other) noexcept
        : m_descriptor(std::exchange(other.m_descriptor, -1))
    {
    }
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor()
    {
        if (isValid()) {
            ::close(m_descriptor);
        }
    }

    bool isValid() const { return m_descriptor >= 0; }
    int get() const { return m_descriptor; }

private:
    int m_descriptor;
};

struct Hierarchy
{
    QString path;
    Descriptor directory;
    dev_t device = 0;
    ino_t inode = 0;
};

struct Problem
{
    Core::Error error;
    int cause = 0; ///< errno, where a system call failed

    explicit operator bool() const { return bool(error); }
};

Problem failed(const QString &message, int cause = 0)
{
    return { { Core::Error::Failed, message }, cause };
}

Problem cannot(const char *what, const QString &path, int error)
{
    return failed(QStringLiteral("Cannot %1 %2: %3").arg(QLatin1String(what), path, qt_error_string(error)),
                  error);
}

Problem noUserId(uid_t uid)
{
    return { { Core::Error::InvalidArgs, QStringLiteral("Not a user id: %1").arg(uid) } };
}

/// The controllers of all version 1 hierarchies that the kernel has, whether mounted or not.
Problem readControllers(const QString &rootFs, QStringList *controllers)
{
    QFile file(rootFs + QLatin1String("/proc/self/cgroup"));
    if (!file.open(QIODevice::ReadOnly)) {
        return failed(QStringLiteral("Cannot open %1: %2").arg(file.fileName(), file.errorString()));
    }
    // "4:cpu,cpuacct:/some/group"; version 2 has nothing in the second field. See cgroups(7).
    for (QByteArray line = file.readLine(); !line.isEmpty(); line = file.readLine()) {
        const QList<QByteArray> fields = line.split(':');
        if (fields.size() > 2) {
            *controllers += QString::fromUtf8(fields.at(1)).split(QLatin1Char(','), Qt::SkipEmptyParts);
        }
    }
    return {};
}

/// Where controllers share a hierarchy, "cpu" is a link of root's to "cpu,cpuacct" beside it. Such a link,
/// and no other one, is followed.
Descriptor openHierarchy(int root, const QByteArray &name)
{
    Descriptor directory(::openat(root, name.constData(), openDirectoryFlags));
    if (directory.isValid() || (errno != ENOTDIR && errno != ELOOP)) {
        return directory;
    }
    struct stat status = {};
    if (::fstatat(root, name.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISLNK(status.st_mode)
        || (status.st_uid != 0 && status.st_uid != ::geteuid())) {
        return directory;
    }
    std::array<char, NAME_MAX + 1> target = {};
    const ssize_t length = ::readlinkat(root, name.constData(), target.data(), target.size() - 1);
    const QByteArray sibling(target.data(), length > 0 ? static_cast<int>(length) : 0);
    if (sibling.isEmpty() || sibling.contains('/') || sibling == "." || sibling == "..") {
        return directory;
    }
    return Descriptor(::openat(root, sibling.constData(), openDirectoryFlags));
}

/// In a directory that nothing is mounted on yet, the groups would be nothing but directories.
bool isKernelHierarchy(int directory)
{
    struct statfs status = {};
    return ::fstatfs(directory, &status) == 0 && status.f_type == CGROUP_SUPER_MAGIC;
}

Problem findHierarchies(const QString &rootFs, std::vector<Hierarchy> *hierarchies)
{
    QStringList controllers;
    if (Problem problem = readControllers(rootFs, &controllers)) {
        return problem;
    }
    QStringList missing;
    QStringList wanted;
    for (const QLatin1String required : requiredControllers) {
        (controllers.contains(required) ? wanted : missing) << required;
    }
    if (!missing.isEmpty()) {
        return failed(QStringLiteral("The kernel has no version 1 control group hierarchy with: %1")
                          .arg(missing.join(QLatin1String(", "))));
    }
    wanted << accountingController;

    const QString rootPath = rootFs + QLatin1String("/sys/fs/cgroup");
    const Descriptor root(
        ::open(QFile::encodeName(rootPath).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root.isValid()) {
        return cannot("open", rootPath, errno);
    }
    for (const QString &controller : qAsConst(wanted)) {
        Hierarchy found;
        found.path = rootPath + QLatin1Char('/') + controller;
        found.directory = openHierarchy(root.get(), QFile::encodeName(controller));
        struct stat status = {};
        if (!found.directory.isValid() || ::fstat(found.directory.get(), &status) != 0
            || (rootFs.isEmpty() && !isKernelHierarchy(found.directory.get()))) {
            missing << found.path;
            continue;
        }
        found.device = status.st_dev;
        found.inode = status.st_ino;
        const bool known =
            std::any_of(hierarchies->cbegin(), hierarchies->cend(), [&](const Hierarchy &other) {
                return other.device == found.device && other.inode == found.inode;
            });
        if (!known) {
            hierarchies->push_back(std::move(found));
        }
    }
    // Accounting is welcome where it is there; the service does not need it.
    missing.removeAll(rootPath + QLatin1Char('/') + accountingController);
    if (!missing.isEmpty()) {
        return failed(QStringLiteral("No version 1 control group hierarchy is mounted on: %1")
                          .arg(missing.join(QLatin1String(", "))));
    }
    return {};
}

/// Opens the directory @p name, made if need be, unless it belongs to somebody else than us or @p uid.
Problem openOwnDirectory(int parent, const QByteArray &name, const QString &path, uid_t uid,
                         Descriptor *directory)
{
    const bool made = ::mkdirat(parent, name.constData(), directoryMode) == 0;
    if (!made && errno != EEXIST) {
        return cannot("make", path, errno);
    }
    *directory = Descriptor(::openat(parent, name.constData(), openDirectoryFlags));
    if (!directory->isValid()) {
        return cannot("open", path, errno);
    }
    struct stat status = {};
    if (::fstat(directory->get(), &status) != 0) {
        return cannot("look at", path, errno);
    }
    if (status.st_uid != ::geteuid() && status.st_uid != uid) {
        return failed(QStringLiteral("%1 belongs to user %2").arg(path, QString::number(status.st_uid)));
    }
    if (made && ::fchmod(directory->get(), directoryMode) != 0) { // whatever the umask is
        return cannot("set the mode of", path, errno);
    }
    return {};
}

Problem giveAway(int descriptor, const QString &path, uid_t uid)
{
    if (::fchownat(descriptor, "", uid, static_cast<gid_t>(-1), AT_EMPTY_PATH) == 0) {
        return {};
    }
    if (errno == EINVAL) { // no such user in our user namespace
        return noUserId(uid);
    }
    return cannot("hand over", path, errno);
}

/// A file that is not there is left out: only the kernel makes them.
Problem giveAwayFile(int directory, const char *name, const QString &path, uid_t uid)
{
    const Descriptor file(::openat(directory, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!file.isValid()) {
        return errno == ENOENT ? Problem() : cannot("open", path, errno);
    }
    struct stat status = {};
    if (::fstat(file.get(), &status) != 0) {
        return cannot("look at", path, errno);
    }
    if (status.st_uid == uid) {
        return {};
    }
    // A second name of the file may be one that the user has no right to.
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1 || status.st_uid != ::geteuid()) {
        return failed(QStringLiteral("%1 is not a control file").arg(path));
    }
    return giveAway(file.get(), path, uid);
}

Problem tryMakeSubtree(const Hierarchy &hierarchy, uid_t uid)
{
    const QString topPath = hierarchy.path + QLatin1Char('/') + QLatin1String(topDirectory);
    Descriptor top;
    if (Problem problem =
            openOwnDirectory(hierarchy.directory.get(), topDirectory, topPath, ::geteuid(), &top)) {
        return problem;
    }
    const QByteArray name = "user-" + QByteArray::number(uid);
    const QString path = topPath + QLatin1Char('/') + QString::fromLatin1(name);
    Descriptor directory;
    if (Problem problem = openOwnDirectory(top.get(), name, path, uid, &directory)) {
        return problem;
    }
    for (const char *file : { "cgroup.procs", "tasks" }) {
        const QString filePath = path + QLatin1Char('/') + QLatin1String(file);
        if (Problem problem = giveAwayFile(directory.get(), file, filePath, uid)) {
            return problem;
        }
    }
    return giveAway(directory.get(), path, uid);
}

/// Somebody who tidies up may remove an empty group between two of the steps.
Problem makeSubtree(const Hierarchy &hierarchy, uid_t uid)
{
    constexpr int maxAttempts = 100; // each clash needs two processes in the same few microseconds
    for (int attempt = 1;; ++attempt) {
        const Problem problem = tryMakeSubtree(hierarchy, uid);
        const bool vanished = problem.cause == ENOENT || problem.cause == ENODEV;
        if (!vanished || attempt == maxAttempts) {
            return problem;
        }
    }
}

} // namespace

UserHierarchies::UserHierarchies(const QString &rootFs)
    : m_rootFs(rootFs)
{
}

UserHierarchies::Result UserHierarchies::create(uid_t uid) const
{
    std::vector<Hierarchy> hierarchies;
    Problem problem = uid == noUser ? noUserId(uid) : findHierarchies(m_rootFs, &hierarchies);
    for (auto hierarchy = hierarchies.cbegin(); !problem && hierarchy != hierarchies.cend(); ++hierarchy) {
        problem = makeSubtree(*hierarchy, uid);
    }
    if (problem) {
        return { QString(), problem.error };
    }
    return { QStringLiteral("/%1/user-%2").arg(QLatin1String(topDirectory)).arg(uid), Core::Error() };
}

} // namespace Helper
