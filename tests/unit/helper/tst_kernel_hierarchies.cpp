#include "user_hierarchies.h"

#include "support/kernel_groups.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTest>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using Helper::UserHierarchies;
using TestSupport::KernelGroups;

namespace {

const QString useArgument = QStringLiteral("--use");
const QString withoutFreezerArgument = QStringLiteral("--without-freezer");
const QString privateArgument = QStringLiteral("--private");

int complain(const char *what)
{
    std::printf("%s: %s\n", what, std::strerror(errno));
    return 1;
}

void print(const UserHierarchies::Result &result)
{
    std::puts(qUtf8Printable(result.error ? result.error.message() : result.path));
}

bool writeFile(const QString &path, const char *text)
{
    const int file = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CLOEXEC);
    const bool written = file >= 0 && ::write(file, text, std::strlen(text)) == ssize_t(std::strlen(text));
    const int error = errno;
    if (file >= 0) {
        ::close(file);
    }
    errno = error;
    return written;
}

/// In a process of its own: does as an ordinary user what the service has to do.
int useAsUser(uid_t user)
{
    if (::setgroups(0, nullptr) != 0 || ::setresgid(user, user, user) != 0
        || ::setresuid(user, user, user) != 0) {
        return complain("cannot become the user");
    }
    const QByteArray pid = QByteArray::number(::getpid());
    const QStringList hierarchies = KernelGroups::hierarchies();
    for (const QString &hierarchy : hierarchies) {
        const QString own = QStringLiteral("/sys/fs/cgroup/%1/procwarden/user-%2").arg(hierarchy).arg(user);
        const QString group = own + QStringLiteral("/org.example.App/app");
        if (::mkdir(QFile::encodeName(own + QStringLiteral("/org.example.App")).constData(), 0755) != 0
            || ::mkdir(QFile::encodeName(group).constData(), 0755) != 0) {
            return complain("cannot make a group");
        }
        if (!writeFile(group + QStringLiteral("/cgroup.procs"), pid.constData())
            || !writeFile(own + QStringLiteral("/tasks"), pid.constData())
            || !writeFile(own + QStringLiteral("/cgroup.procs"), pid.constData())) {
            return complain("cannot move");
        }
        if (writeFile(own + QStringLiteral("/../cgroup.procs"), pid.constData()) || errno != EACCES) {
            return complain("can leave");
        }
        if (::rmdir(QFile::encodeName(group).constData()) != 0) {
            return complain("cannot remove a group");
        }
    }
    const QString memory = QStringLiteral("/sys/fs/cgroup/memory/procwarden/user-%1").arg(user);
    if (writeFile(memory + QStringLiteral("/memory.limit_in_bytes"), "-1") || errno != EACCES) {
        return complain("can lift root's limit");
    }
    std::puts("ok");
    return 0;
}

bool enterNamespace()
{
    return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

/// In a process of its own, whose mounts nobody else sees.
int runWithoutFreezer(uid_t user)
{
    if (!enterNamespace() || ::umount2("/sys/fs/cgroup/freezer", MNT_DETACH) != 0) {
        return complain("cannot unmount");
    }
    print(UserHierarchies(QString()).create(user));
    // Mounted, the same call works: nothing was left in its way.
    if (::mount("cgroup", "/sys/fs/cgroup/freezer", "cgroup", 0, "freezer") != 0) {
        return complain("cannot mount");
    }
    print(UserHierarchies(QString()).create(user));
    return 0;
}

/// In a process of its own: hierarchies that only it has mounted.
int runWithPrivateMounts(uid_t user)
{
    if (!enterNamespace() || ::mount("none", "/sys/fs/cgroup", "tmpfs", 0, nullptr) != 0) {
        return complain("cannot cover the machine's mounts");
    }
    for (const char *controller : { "cpu", "freezer", "memory" }) {
        const QByteArray path = QByteArray("/sys/fs/cgroup/") + controller;
        if (::mkdir(path.constData(), 0755) != 0
            || ::mount("cgroup", path.constData(), "cgroup", 0, controller) != 0) {
            return complain("cannot mount");
        }
    }
    print(UserHierarchies(QString()).create(user));
    return 0;
}

} // namespace

/// The helper's work on the kernel's own groups.
class KernelHierarchiesTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void userCanUseWhatIsHandedOver();
    void repeatedCallKeepsGroupsOfTheUser();
    void hierarchyThatIsNotMountedIsNamed();
    void privateMountsAreUsed();

private:
    static QByteArray run(const QString &what, uid_t user);
};

void KernelHierarchiesTest::initTestCase()
{
    if (!KernelGroups::areUsable()) {
        QSKIP("needs root and version 1 hierarchies");
    }
}

QByteArray KernelHierarchiesTest::run(const QString &what, uid_t user)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(QCoreApplication::applicationFilePath(), { what, QString::number(user) });
    process.waitForFinished();
    return process.readAllStandardOutput();
}

void KernelHierarchiesTest::userCanUseWhatIsHandedOver()
{
    const KernelGroups groups;
    const UserHierarchies::Result result = UserHierarchies(QString()).create(groups.user());
    QVERIFY2(!result.error, qUtf8Printable(result.error.message()));
    QCOMPARE(result.path, groups.subtree());
    for (const QString &hierarchy : KernelGroups::hierarchies()) {
        const QString directory = groups.directory(hierarchy);
        QCOMPARE(QFileInfo(directory).ownerId(), groups.user());
        QCOMPARE(QFileInfo(directory + QStringLiteral("/cgroup.procs")).ownerId(), groups.user());
        QCOMPARE(QFileInfo(directory + QStringLiteral("/tasks")).ownerId(), groups.user());
        QCOMPARE(QFileInfo(directory + QStringLiteral("/notify_on_release")).ownerId(), 0U);
        QCOMPARE(QFileInfo(directory + QStringLiteral("/..")).ownerId(), 0U);
    }
    QCOMPARE(run(useArgument, groups.user()), QByteArray("ok\n"));
}

void KernelHierarchiesTest::repeatedCallKeepsGroupsOfTheUser()
{
    const KernelGroups groups;
    QCOMPARE(UserHierarchies(QString()).create(groups.user()).path, groups.subtree());
    QCOMPARE(run(useArgument, groups.user()), QByteArray("ok\n"));
    QCOMPARE(UserHierarchies(QString()).create(groups.user()).path, groups.subtree());
    const QFileInfo group(groups.directory(QStringLiteral("cpu")) + QStringLiteral("/org.example.App"));
    QVERIFY(group.isDir());
    QCOMPARE(group.ownerId(), groups.user());
}

void KernelHierarchiesTest::hierarchyThatIsNotMountedIsNamed()
{
    const KernelGroups groups;
    QCOMPARE(run(withoutFreezerArgument, groups.user()),
             "No version 1 control group hierarchy is mounted on: /sys/fs/cgroup/freezer\n"
                 + groups.subtree().toUtf8() + "\n");
}

void KernelHierarchiesTest::privateMountsAreUsed()
{
    const KernelGroups groups;
    QCOMPARE(run(privateArgument, groups.user()), groups.subtree().toUtf8() + "\n");
    // It is the same hierarchy under another name.
    QCOMPARE(QFileInfo(groups.directory(QStringLiteral("freezer"))).ownerId(), groups.user());
}

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    const uid_t user = arguments.value(2).toUInt();
    if (arguments.value(1) == useArgument) {
        return useAsUser(user);
    }
    if (arguments.value(1) == withoutFreezerArgument) {
        return runWithoutFreezer(user);
    }
    if (arguments.value(1) == privateArgument) {
        return runWithPrivateMounts(user);
    }
    KernelHierarchiesTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_kernel_hierarchies.moc"
