#include "user_hierarchies.h"

#include "support/cgroup_tree.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

using Core::Error;
using Helper::UserHierarchies;
using TestSupport::CGroupTree;

namespace {

constexpr uid_t user = 54321;
constexpr uid_t otherUser = 54322;
const QString subtree = QStringLiteral("/procwarden/user-54321");

/// Path and type, mode, owner of everything in the tree: what a call must not have changed.
QStringList picture(const QString &path)
{
    QStringList lines;
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) == 0) {
        lines << QStringLiteral("%1 %2 %3")
                     .arg(path, QString::number(status.st_mode, 8), QString::number(status.st_uid));
    }
    if (S_ISDIR(status.st_mode)) {
        const QStringList names = QDir(path).entryList(
            QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
        for (const QString &name : names) {
            lines << picture(path + QLatin1Char('/') + name);
        }
    }
    return lines;
}

} // namespace

/// Drives the helper's work on trees of plain directories. Needs root, as the helper itself does.
class UserHierarchiesTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void directoriesAreMadeAndHandedOver();
    void filesOfTheGroupAreHandedOver();
    void umaskDoesNotMatter();
    void secondCallChangesNothing();
    void callsAtTheSameTimeAgree();
    void removalAtTheSameTimeDoesNoHarm();
    void usersGetDirectoriesOfTheirOwn();
    void callForRootKeepsRootAsOwner();
    void sharedHierarchyIsHandledOnce();
    void separateAccountingIsHandledToo();
    void otherHierarchiesAreLeftAlone();
    void unfinishedDirectoryIsFinished();

    void idThatNoUserHasIsRefused();
    void missingHierarchyIsNamed_data();
    void missingHierarchyIsNamed();
    void missingGroupFileFails();

    void linkAsTheTopIsNotFollowed_data();
    void linkAsTheTopIsNotFollowed();
    void linkAsTheUsersDirectoryIsNotFollowed_data();
    void linkAsTheUsersDirectoryIsNotFollowed();
    void linkAsAFileOfTheGroupIsNotFollowed();
    void linkOfTheUserAsAFileOfTheGroupIsLeftAlone();
    void secondNameOfAFileIsNotHandedOver();
    void otherThingsInPlaceOfADirectoryAreRefused();
    void directoryOfSomebodyElseIsRefused_data();
    void directoryOfSomebodyElseIsRefused();
    void linkOfAHierarchyLeadsNowhereElse_data();
    void linkOfAHierarchyLeadsNowhereElse();

private:
    UserHierarchies::Result create(uid_t uid = user) const
    {
        return UserHierarchies(m_tree->root()).create(uid);
    }
    uid_t owner(const QString &relative) const { return QFileInfo(m_tree->group(relative)).ownerId(); }
    void chown(const QString &relative, uid_t uid) const
    {
        QCOMPARE(::lchown(QFile::encodeName(m_tree->group(relative)).constData(), uid, uid), 0);
    }
    void makeUsual() const
    {
        m_tree->setOwnGroups("4:pids:/\n3:cpu:/\n2:freezer:/\n1:memory:/a\n0::/\n");
        m_tree->addHierarchies({ QStringLiteral("cpu"), QStringLiteral("freezer"), QStringLiteral("memory"),
                                 QStringLiteral("pids") });
    }

    std::unique_ptr<CGroupTree> m_tree;
};

void UserHierarchiesTest::initTestCase()
{
    if (::geteuid() != 0) {
        QSKIP("only root can hand directories over");
    }
}

void UserHierarchiesTest::init()
{
    m_tree = std::make_unique<CGroupTree>();
}

void UserHierarchiesTest::directoriesAreMadeAndHandedOver()
{
    makeUsual();
    const UserHierarchies::Result result = create();
    QVERIFY2(!result.error, qUtf8Printable(result.error.message()));
    QCOMPARE(result.path, subtree);
    for (const char *name : { "cpu", "freezer", "memory" }) {
        const QString hierarchy = QLatin1String(name);
        struct stat status = {};
        QCOMPARE(::lstat(QFile::encodeName(m_tree->group(hierarchy + subtree)).constData(), &status), 0);
        QCOMPARE(status.st_mode, mode_t(S_IFDIR | 0755));
        QCOMPARE(status.st_uid, user);
        // The one above stays root's: the user cannot put something else in the directory's place.
        QCOMPARE(
            ::lstat(QFile::encodeName(m_tree->group(hierarchy + QStringLiteral("/procwarden"))).constData(),
                    &status),
            0);
        QCOMPARE(status.st_mode, mode_t(S_IFDIR | 0755));
        QCOMPARE(status.st_uid, uid_t(0));
        QCOMPARE(owner(hierarchy), uid_t(0));
    }
}

void UserHierarchiesTest::filesOfTheGroupAreHandedOver()
{
    makeUsual();
    // As the kernel makes them together with the directory.
    for (const char *file : { "cgroup.procs", "tasks", "memory.limit_in_bytes", "notify_on_release" }) {
        m_tree->write(
            QStringLiteral("sys/fs/cgroup/memory") + subtree + QLatin1Char('/') + QLatin1String(file), "");
    }
    QCOMPARE(create().path, subtree);
    QCOMPARE(owner(QStringLiteral("memory") + subtree + QStringLiteral("/cgroup.procs")), user);
    QCOMPARE(owner(QStringLiteral("memory") + subtree + QStringLiteral("/tasks")), user);
    // The limits that hold for the user as a whole are not the user's to set.
    QCOMPARE(owner(QStringLiteral("memory") + subtree + QStringLiteral("/memory.limit_in_bytes")), uid_t(0));
    QCOMPARE(owner(QStringLiteral("memory") + subtree + QStringLiteral("/notify_on_release")), uid_t(0));
}

void UserHierarchiesTest::umaskDoesNotMatter()
{
    makeUsual();
    const mode_t before = ::umask(0777);
    const UserHierarchies::Result result = create();
    ::umask(before);
    QCOMPARE(result.path, subtree);
    for (const QString &directory : { QStringLiteral("cpu/procwarden"), QStringLiteral("cpu") + subtree }) {
        struct stat status = {};
        QCOMPARE(::lstat(QFile::encodeName(m_tree->group(directory)).constData(), &status), 0);
        QCOMPARE(status.st_mode, mode_t(S_IFDIR | 0755));
    }
}

void UserHierarchiesTest::secondCallChangesNothing()
{
    makeUsual();
    QCOMPARE(create().path, subtree);
    // What the user has made there meanwhile, and what the user has changed.
    m_tree->write(QStringLiteral("sys/fs/cgroup/cpu") + subtree
                      + QStringLiteral("/org.example.App/app/cgroup.procs"),
                  "1");
    chown(QStringLiteral("cpu") + subtree + QStringLiteral("/org.example.App"), user);
    QCOMPARE(::chmod(QFile::encodeName(m_tree->group(QStringLiteral("cpu") + subtree)).constData(), 0700), 0);
    const QStringList before = picture(m_tree->hierarchies());
    const UserHierarchies::Result result = create();
    QVERIFY2(!result.error, qUtf8Printable(result.error.message()));
    QCOMPARE(result.path, subtree);
    QCOMPARE(picture(m_tree->hierarchies()), before);
}

void UserHierarchiesTest::callsAtTheSameTimeAgree()
{
    makeUsual();
    constexpr int count = 8;
    std::vector<UserHierarchies::Result> results(count);
    std::vector<std::thread> threads;
    threads.reserve(count);
    for (int index = 0; index < count; ++index) {
        threads.emplace_back([this, index, &results] {
            results[index] = UserHierarchies(m_tree->root()).create(index % 2 == 0 ? user : otherUser);
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    for (int index = 0; index < count; ++index) {
        QVERIFY2(!results[index].error, qUtf8Printable(results[index].error.message()));
    }
    QCOMPARE(owner(QStringLiteral("cpu/procwarden/user-54321")), user);
    QCOMPARE(owner(QStringLiteral("cpu/procwarden/user-54322")), otherUser);
}

void UserHierarchiesTest::removalAtTheSameTimeDoesNoHarm()
{
    makeUsual();
    std::atomic<bool> ended = false;
    // More than anybody removes in such a short time, and fewer than would make the helper give up.
    constexpr int removalsPerRound = 20;
    std::atomic<int> removals = 0;
    std::thread tidier([this, &ended, &removals] {
        const QByteArray top = QFile::encodeName(m_tree->group(QStringLiteral("cpu/procwarden")));
        const QByteArray directory = QFile::encodeName(m_tree->group(QStringLiteral("cpu") + subtree));
        while (!ended) {
            if (removals > 0) {
                removals -= ::rmdir(directory.constData()) == 0 ? 1 : 0;
                removals -= ::rmdir(top.constData()) == 0 ? 1 : 0;
            }
        }
    });
    QStringList errors;
    for (int round = 0; round < 300; ++round) {
        removals = removalsPerRound;
        const UserHierarchies::Result result = create();
        if (result.error) {
            errors << result.error.message();
        }
    }
    ended = true;
    tidier.join();
    QCOMPARE(errors, QStringList());
}

void UserHierarchiesTest::usersGetDirectoriesOfTheirOwn()
{
    makeUsual();
    QCOMPARE(create(user).path, QStringLiteral("/procwarden/user-54321"));
    QCOMPARE(create(otherUser).path, QStringLiteral("/procwarden/user-54322"));
    QCOMPARE(create(4294967294U).path, QStringLiteral("/procwarden/user-4294967294"));
    QCOMPARE(owner(QStringLiteral("cpu/procwarden/user-54321")), user);
    QCOMPARE(owner(QStringLiteral("cpu/procwarden/user-54322")), otherUser);
    QCOMPARE(owner(QStringLiteral("cpu/procwarden/user-4294967294")), 4294967294U);
}

void UserHierarchiesTest::callForRootKeepsRootAsOwner()
{
    makeUsual();
    QCOMPARE(create(0).path, QStringLiteral("/procwarden/user-0"));
    QCOMPARE(owner(QStringLiteral("cpu/procwarden/user-0")), uid_t(0));
}

void UserHierarchiesTest::sharedHierarchyIsHandledOnce()
{
    m_tree->setOwnGroups("3:cpu,cpuacct:/\n2:freezer:/\n1:memory:/\n");
    m_tree->addHierarchies(
        { QStringLiteral("cpu,cpuacct"), QStringLiteral("freezer"), QStringLiteral("memory") });
    m_tree->link(QStringLiteral("sys/fs/cgroup/cpu"), QStringLiteral("cpu,cpuacct"));
    m_tree->link(QStringLiteral("sys/fs/cgroup/cpuacct"), QStringLiteral("cpu,cpuacct"));
    const UserHierarchies::Result result = create();
    QVERIFY2(!result.error, qUtf8Printable(result.error.message()));
    QCOMPARE(owner(QStringLiteral("cpu,cpuacct") + subtree), user);
    // The links are still links.
    QCOMPARE(QFile::symLinkTarget(m_tree->group(QStringLiteral("cpu"))),
             m_tree->group(QStringLiteral("cpu,cpuacct")));
    QCOMPARE(create().path, subtree);
}

void UserHierarchiesTest::separateAccountingIsHandledToo()
{
    m_tree->setOwnGroups("4:cpuacct:/\n3:cpu:/\n2:freezer:/\n1:memory:/\n");
    m_tree->addHierarchies({ QStringLiteral("cpu"), QStringLiteral("cpuacct"), QStringLiteral("freezer"),
                             QStringLiteral("memory") });
    QCOMPARE(create().path, subtree);
    QCOMPARE(owner(QStringLiteral("cpuacct") + subtree), user);
}

void UserHierarchiesTest::otherHierarchiesAreLeftAlone()
{
    makeUsual();
    m_tree->addHierarchies(
        { QStringLiteral("cpuset"), QStringLiteral("devices"), QStringLiteral("unified") });
    QCOMPARE(create().path, subtree);
    for (const char *name : { "pids", "cpuset", "devices", "unified" }) {
        QVERIFY(QDir(m_tree->group(QLatin1String(name))).isEmpty());
    }
}

void UserHierarchiesTest::unfinishedDirectoryIsFinished()
{
    makeUsual();
    // An earlier call that was cut off has made it, but not handed it over.
    m_tree->addHierarchies({ QStringLiteral("cpu") }, subtree);
    QCOMPARE(create().path, subtree);
    QCOMPARE(owner(QStringLiteral("cpu") + subtree), user);
    QCOMPARE(owner(QStringLiteral("memory") + subtree), user);
}

void UserHierarchiesTest::idThatNoUserHasIsRefused()
{
    makeUsual();
    const UserHierarchies::Result result = create(uid_t(-1));
    QCOMPARE(result.error.code(), Error::InvalidArgs);
    QCOMPARE(result.error.message(), QStringLiteral("Not a user id: 4294967295"));
    QCOMPARE(result.path, QString());
    QVERIFY(QDir(m_tree->group(QStringLiteral("cpu"))).isEmpty());
}

void UserHierarchiesTest::missingHierarchyIsNamed_data()
{
    QTest::addColumn<QByteArray>("ownGroups");
    QTest::addColumn<QStringList>("hierarchies");
    QTest::addColumn<QString>("message");
    const QByteArray all = "3:cpu:/\n2:freezer:/\n1:memory:/\n";
    QTest::newRow("only version 2")
        << QByteArray("0::/init.scope\n") << QStringList()
        << "The kernel has no version 1 control group hierarchy with: cpu, freezer, memory";
    QTest::newRow("no freezer in the kernel")
        << QByteArray("3:cpu,cpuacct:/\n1:memory:/\n0::/\n")
        << QStringList({ QStringLiteral("cpu"), QStringLiteral("memory") })
        << "The kernel has no version 1 control group hierarchy with: freezer";
    QTest::newRow("nothing mounted")
        << all << QStringList()
        << "No version 1 control group hierarchy is mounted on: %1/cpu, %1/freezer, %1/memory";
    QTest::newRow("no freezer mounted")
        << all << QStringList({ QStringLiteral("cpu"), QStringLiteral("memory"), QStringLiteral("cpuacct") })
        << "No version 1 control group hierarchy is mounted on: %1/freezer";
    QTest::newRow("malformed lines") << QByteArray("\n:\n3:cpu\n2:freezer:\n1:memory:/\n")
                                     << QStringList({ QStringLiteral("cpu"), QStringLiteral("freezer"),
                                                      QStringLiteral("memory") })
                                     << "The kernel has no version 1 control group hierarchy with: cpu";
}

void UserHierarchiesTest::missingHierarchyIsNamed()
{
    QFETCH(QByteArray, ownGroups);
    QFETCH(QStringList, hierarchies);
    QFETCH(QString, message);
    m_tree->setOwnGroups(ownGroups);
    m_tree->addHierarchies(hierarchies);
    const QStringList before = picture(m_tree->hierarchies());
    const UserHierarchies::Result result = create();
    QCOMPARE(result.error.code(), Error::Failed);
    QCOMPARE(result.error.message(), message.replace(QStringLiteral("%1"), m_tree->hierarchies()));
    QCOMPARE(result.path, QString());
    QCOMPARE(picture(m_tree->hierarchies()), before);
}

void UserHierarchiesTest::missingGroupFileFails()
{
    const UserHierarchies::Result result = create();
    QCOMPARE(result.error.code(), Error::Failed);
    QCOMPARE(result.error.message(),
             QStringLiteral("Cannot open %1: No such file or directory")
                 .arg(m_tree->path(QStringLiteral("proc/self/cgroup"))));
}

void UserHierarchiesTest::linkAsTheTopIsNotFollowed_data()
{
    QTest::addColumn<QString>("target");
    QTest::newRow("to a directory") << "elsewhere";
    QTest::newRow("to nothing") << "nothing";
}

void UserHierarchiesTest::linkAsTheTopIsNotFollowed()
{
    QFETCH(QString, target);
    makeUsual();
    m_tree->makeDirectory(QStringLiteral("elsewhere"));
    m_tree->link(QStringLiteral("sys/fs/cgroup/cpu/procwarden"), m_tree->path(target));
    const QStringList before = picture(m_tree->root());
    const UserHierarchies::Result result = create();
    QCOMPARE(result.error.code(), Error::Failed);
    QCOMPARE(result.error.message(),
             QStringLiteral("Cannot open %1/cpu/procwarden: Not a directory").arg(m_tree->hierarchies()));
    QCOMPARE(picture(m_tree->root()), before);
}

void UserHierarchiesTest::linkAsTheUsersDirectoryIsNotFollowed_data()
{
    linkAsTheTopIsNotFollowed_data();
}

void UserHierarchiesTest::linkAsTheUsersDirectoryIsNotFollowed()
{
    QFETCH(QString, target);
    makeUsual();
    m_tree->makeDirectory(QStringLiteral("elsewhere"));
    m_tree->link(QStringLiteral("sys/fs/cgroup/cpu") + subtree, m_tree->path(target));
    const QStringList before = picture(m_tree->root());
    const UserHierarchies::Result result = create();
    QCOMPARE(result.error.code(), Error::Failed);
    QCOMPARE(result.error.message(),
             QStringLiteral("Cannot open %1/cpu%2: Not a directory").arg(m_tree->hierarchies(), subtree));
    QCOMPARE(picture(m_tree->root()), before);
}

void UserHierarchiesTest::linkAsAFileOfTheGroupIsNotFollowed()
{
    makeUsual();
    m_tree->write(QStringLiteral("secret"), "root's");
    m_tree->link(QStringLiteral("sys/fs/cgroup/cpu") + subtree + QStringLiteral("/tasks"),
                 m_tree->path(QStringLiteral("secret")));
    const UserHierarchies::Result result = create();
    QCOMPARE(result.error.code(), Error::Failed);
    QCOMPARE(result.error.message(),
             QStringLiteral("%1/cpu%2/tasks is not a control file").arg(m_tree->hierarchies(), subtree));
    QCOMPARE(QFileInfo(m_tree->path(QStringLiteral("secret"))).ownerId(), 0U);
    QCOMPARE(owner(QStringLiteral("cpu") + subtree), uid_t(0));
}

void UserHierarchiesTest::linkOfTheUserAsAFileOfTheGroupIsLeftAlone()
{
    makeUsual();
    QCOMPARE(create().path, subtree);
    m_tree->write(QStringLiteral("secret"), "root's");
    for (const char *file : { "tasks", "cgroup.procs" }) {
        const QString name = subtree + QLatin1Char('/') + QLatin1String(file);
        m_tree->link(QStringLiteral("sys/fs/cgroup/cpu") + name, m_tree->path(QStringLiteral("secret")));
        chown(QStringLiteral("cpu") + name, user);
    }
    const QStringList before = picture(m_tree->root());
    QCOMPARE(create().path, subtree);
    QCOMPARE(picture(m_tree->root()), before);
}

void UserHierarchiesTest::secondNameOfAFileIsNotHandedOver()
{
    makeUsual();
    QCOMPARE(create().path, subtree);
    m_tree->write(QStringLiteral("secret"), "root's");
    QCOMPARE(
        ::link(QFile::encodeName(m_tree->path(QStringLiteral("secret"))).constData(),
               QFile::encodeName(m_tree->group(QStringLiteral("cpu") + subtree + QStringLiteral("/tasks")))
                   .constData()),
        0);
    const UserHierarchies::Result result = create();
    QCOMPARE(result.error.code(), Error::Failed);
    QCOMPARE(result.error.message(),
             QStringLiteral("%1/cpu%2/tasks is not a control file").arg(m_tree->hierarchies(), subtree));
    QCOMPARE(QFileInfo(m_tree->path(QStringLiteral("secret"))).ownerId(), 0U);
}

void UserHierarchiesTest::otherThingsInPlaceOfADirectoryAreRefused()
{
    makeUsual();
    m_tree->write(QStringLiteral("sys/fs/cgroup/freezer/procwarden"), "a file");
    QCOMPARE(create().error.message(),
             QStringLiteral("Cannot open %1/freezer/procwarden: Not a directory").arg(m_tree->hierarchies()));
    QVERIFY(QFile::remove(m_tree->group(QStringLiteral("freezer/procwarden"))));
    // Opening this one must not wait for a writer.
    QCOMPARE(
        ::mkfifo(QFile::encodeName(m_tree->group(QStringLiteral("freezer/procwarden"))).constData(), 0600),
        0);
    QCOMPARE(create().error.code(), Error::Failed);
}

void UserHierarchiesTest::directoryOfSomebodyElseIsRefused_data()
{
    QTest::addColumn<QString>("directory");
    QTest::addColumn<uint>("owner");
    QTest::newRow("the top, of the user") << "cpu/procwarden" << uint(user);
    QTest::newRow("the top, of another user") << "cpu/procwarden" << uint(otherUser);
    QTest::newRow("the user's, of another user") << QStringLiteral("cpu") + subtree << uint(otherUser);
}

void UserHierarchiesTest::directoryOfSomebodyElseIsRefused()
{
    QFETCH(QString, directory);
    QFETCH(uint, owner);
    makeUsual();
    m_tree->makeDirectory(QStringLiteral("sys/fs/cgroup/") + directory);
    chown(directory, owner);
    const QStringList before = picture(m_tree->hierarchies());
    const UserHierarchies::Result result = create();
    QCOMPARE(result.error.code(), Error::Failed);
    QCOMPARE(result.error.message(),
             QStringLiteral("%1/%2 belongs to user %3").arg(m_tree->hierarchies(), directory).arg(owner));
    QCOMPARE(picture(m_tree->hierarchies()), before);
}

void UserHierarchiesTest::linkOfAHierarchyLeadsNowhereElse_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<uint>("owner");
    QTest::newRow("absolute") << "%1/elsewhere" << 0U;
    QTest::newRow("upwards") << "../../../elsewhere" << 0U;
    QTest::newRow("downwards") << "memory/inner" << 0U;
    QTest::newRow("the directory above") << ".." << 0U;
    QTest::newRow("the directory itself") << "." << 0U;
    QTest::newRow("a second link") << "second" << 0U;
    QTest::newRow("a link of somebody else") << "cpu,cpuacct" << uint(user);
}

void UserHierarchiesTest::linkOfAHierarchyLeadsNowhereElse()
{
    QFETCH(QString, target);
    QFETCH(uint, owner);
    m_tree->setOwnGroups("3:cpu,cpuacct:/\n2:freezer:/\n1:memory:/\n");
    m_tree->addHierarchies(
        { QStringLiteral("cpu,cpuacct"), QStringLiteral("freezer"), QStringLiteral("memory/inner") });
    m_tree->makeDirectory(QStringLiteral("elsewhere"));
    m_tree->link(QStringLiteral("sys/fs/cgroup/second"), QStringLiteral("cpu,cpuacct"));
    // A relative target has to stay as it is.
    QCOMPARE(::symlink(QFile::encodeName(target.replace(QStringLiteral("%1"), m_tree->root())).constData(),
                       QFile::encodeName(m_tree->group(QStringLiteral("cpu"))).constData()),
             0);
    chown(QStringLiteral("cpu"), owner);
    const QStringList before = picture(m_tree->root());
    const UserHierarchies::Result result = create();
    QCOMPARE(result.error.code(), Error::Failed);
    QCOMPARE(result.error.message(),
             QStringLiteral("No version 1 control group hierarchy is mounted on: %1/cpu")
                 .arg(m_tree->hierarchies()));
    QCOMPARE(picture(m_tree->root()), before);
}

QTEST_GUILESS_MAIN(UserHierarchiesTest)

#include "tst_user_hierarchies.moc"
