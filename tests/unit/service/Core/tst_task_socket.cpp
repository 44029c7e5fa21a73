// The socket that a task may be given: made before the fork, inherited, and not kept.

#include "Core/launching_task.h"

#include "task_launch_fixture.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

using namespace Core;
using namespace TestSupport;

namespace {

const QString failedSocket = QStringLiteral("Failed to create client IPC socket");
constexpr int longestPath = 107; // bytes, see unix(7)

/// The call that the system refuses while a task's socket is made.
struct RefusedCall
{
    inline static const char *name = "";
    inline static int backlog = -1; ///< of the last call of listen()
    inline static int reuse = -1; ///< of the last call of setsockopt()
    inline static int length = -1; ///< of the last call of bind()

    static bool is(const char *call)
    {
        if (::strcmp(name, call) != 0) {
            return false;
        }
        errno = ENOBUFS;
        return true;
    }
};

} // namespace

// In the place of the C library's. The bus connection's own sockets are not in the test's way: they are made
// while nothing is refused.
extern "C" int socket(int domain, int type, int protocol) noexcept
{
    return RefusedCall::is("socket") ? -1 : static_cast<int>(::syscall(SYS_socket, domain, type, protocol));
}

extern "C" int setsockopt(int fd, int level, int option, const void *value, socklen_t size) noexcept
{
    if (level == SOL_SOCKET && option == SO_REUSEADDR) {
        RefusedCall::reuse = *static_cast<const int *>(value);
    }
    return RefusedCall::is("setsockopt")
        ? -1
        : static_cast<int>(::syscall(SYS_setsockopt, fd, level, option, value, size));
}

extern "C" int bind(int fd, const sockaddr *address, socklen_t size) noexcept
{
    RefusedCall::length = static_cast<int>(size);
    return RefusedCall::is("bind") ? -1 : static_cast<int>(::syscall(SYS_bind, fd, address, size));
}

extern "C" int listen(int fd, int backlog) noexcept
{
    RefusedCall::backlog = backlog;
    return RefusedCall::is("listen") ? -1 : static_cast<int>(::syscall(SYS_listen, fd, backlog));
}

class TestTaskSocket : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void taskInheritsAListeningSocket();
    void withoutTheWishThereIsNone();
    void serviceKeepsNoDescriptor();
    void staleFileIsReplaced_data();
    void staleFileIsReplaced();
    void fileStaysUntilTheNextStart();
    void longPathIsCut_data();
    void longPathIsCut();
    void refusedOptionIsNoFailure();
    void failureEndsTheLaunchBeforeTheFork_data();
    void failureEndsTheLaunchBeforeTheFork();
    void refusedDirectoryEndsTheLaunchBeforeTheFork();
    void socketComesBeforeTheCommandLine();
    void descriptorOfAFailedLaunchIsClosed();

private:
    QString socketPath() const;
    void start();
    bool connects(const QString &path) const;

    std::unique_ptr<TaskWorld> m_world;
    std::unique_ptr<LogCapture> m_log;
    TaskRequest m_request;
    pid_t m_pid = -1;
};

void TestTaskSocket::initTestCase()
{
    ::signal(SIGPIPE, SIG_IGN); // as the service does
    m_world = std::make_unique<TaskWorld>();
}

void TestTaskSocket::init()
{
    m_world->clear();
    m_log = std::make_unique<LogCapture>();
    m_request = {};
    m_request.createIpcSocket = true;
    m_pid = -1;
}

void TestTaskSocket::cleanup()
{
    RefusedCall::name = "";
    m_log.reset();
    killChild(m_pid);
    waitForChild(m_pid);
    QVERIFY(noChildIsLeft());
}

QString TestTaskSocket::socketPath() const
{
    return m_world->path(QStringLiteral("runtime/applications/%1/%2.socket")
                             .arg(m_request.id.toString(), m_request.id.taskName()));
}

/// A start that succeeds; the launch is over and the sandbox has told everything when it returns.
void TestTaskSocket::start()
{
    const auto task = m_request.make(m_world->cgroups());
    const Error error = task->start();
    m_pid = task->pid();
    QVERIFY2(!error, qPrintable(error.message()));
    QTRY_VERIFY(m_world->sandboxIsReady());
}

bool TestTaskSocket::connects(const QString &path) const
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const QByteArray bytes = QFile::encodeName(path);
    ::memcpy(address.sun_path, bytes.constData(), qMin<size_t>(bytes.size(), sizeof(address.sun_path) - 1));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool connected = ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
    ::close(fd);
    return connected;
}

void TestTaskSocket::taskInheritsAListeningSocket()
{
    start();
    QCOMPARE(m_log->warnings(), QStringList());
    QVERIFY(connects(socketPath()));
    QCOMPARE(RefusedCall::length, 110);
    QCOMPARE(RefusedCall::backlog, 8);
    QCOMPARE(RefusedCall::reuse, 1);

    // The number in the environment is the one that the sandbox keeps open, and it is the socket.
    const QByteArrayList numbers = m_world->environmentOf("SOLVANE_TASK_FD");
    QCOMPARE(numbers.size(), 1);
    const QByteArray number = numbers.first();
    QVERIFY(m_world->toldLines(QStringLiteral("args")).contains("--keep-fd=" + number));
    QVERIFY2(m_world->told(QStringLiteral("fds")).contains(' ' + number + " -> socket:"),
             m_world->told(QStringLiteral("fds")).constData());
    QCOMPARE(m_world->toldLines(QStringLiteral("env")).last(), "SOLVANE_TASK_FD=" + number);
}

void TestTaskSocket::withoutTheWishThereIsNone()
{
    m_request.createIpcSocket = false;
    start();
    QVERIFY(!QFileInfo::exists(m_world->path(QStringLiteral("runtime/applications"))));
    QCOMPARE(m_world->environmentOf("SOLVANE_TASK_FD"), QByteArrayList());
    QVERIFY(!m_world->told(QStringLiteral("args")).contains("--keep-fd"));
}

void TestTaskSocket::serviceKeepsNoDescriptor()
{
    const int before = TaskWorld::openDescriptors();
    start();
    QCOMPARE(TaskWorld::openDescriptors(), before);
    // The task has the only copy: nobody listens once it has gone.
    QVERIFY(connects(socketPath()));
    QCOMPARE(killChild(m_pid), 0);
    waitForChild(m_pid);
    m_pid = -1;
    QVERIFY(!connects(socketPath()));
}

void TestTaskSocket::staleFileIsReplaced_data()
{
    QTest::addColumn<QString>("kind");

    QTest::newRow("socket of an earlier run") << QStringLiteral("socket");
    QTest::newRow("file") << QStringLiteral("file");
    QTest::newRow("link to nowhere") << QStringLiteral("link");
}

void TestTaskSocket::staleFileIsReplaced()
{
    QFETCH(QString, kind);
    QDir().mkpath(QFileInfo(socketPath()).path());
    if (kind == QLatin1String("socket")) {
        start();
        QCOMPARE(killChild(m_pid), 0);
        waitForChild(m_pid);
    } else if (kind == QLatin1String("file")) {
        m_world->write(QDir(m_world->root()).relativeFilePath(socketPath()), "stale");
    } else {
        QVERIFY(QFile::link(m_world->path(QStringLiteral("nowhere")), socketPath()));
    }
    QVERIFY(!connects(socketPath()));
    start();
    QVERIFY(connects(socketPath()));
}

void TestTaskSocket::fileStaysUntilTheNextStart()
{
    start();
    QCOMPARE(killChild(m_pid), 0);
    waitForChild(m_pid);
    m_pid = -1;
    struct stat info = {};
    QCOMPARE(::lstat(QFile::encodeName(socketPath()).constData(), &info), 0);
    QVERIFY(S_ISSOCK(info.st_mode));
}

void TestTaskSocket::longPathIsCut_data()
{
    QTest::addColumn<int>("excess");

    QTest::newRow("longest that fits") << 0;
    QTest::newRow("one byte too long") << 1;
    QTest::newRow("much too long") << 6;
}

void TestTaskSocket::longPathIsCut()
{
    QFETCH(int, excess);
    // The name of the task fills the path up.
    m_request.id = ApplicationTaskId(ApplicationId(testAppId), QStringLiteral("a"));
    const int filling = longestPath - QFile::encodeName(socketPath()).size() + excess;
    QVERIFY(filling > 0);
    m_request.id = ApplicationTaskId(ApplicationId(testAppId), QString(filling + 1, QLatin1Char('a')));
    const QByteArray path = QFile::encodeName(socketPath());
    QCOMPARE(path.size(), longestPath + excess);

    start();
    QCOMPARE(m_log->warnings(), QStringList());
    struct stat info = {};
    QCOMPARE(::lstat(path.left(longestPath).constData(), &info), 0);
    QVERIFY(S_ISSOCK(info.st_mode));
    QVERIFY(connects(QFile::decodeName(path)));
    QVERIFY(excess == 0 || !QFileInfo::exists(QFile::decodeName(path)));
}

void TestTaskSocket::refusedOptionIsNoFailure()
{
    RefusedCall::name = "setsockopt";
    start();
    QCOMPARE(m_log->warnings(),
             QStringList { QStringLiteral("Failed to set socket reuse option, errno = %1").arg(ENOBUFS) });
    QVERIFY(connects(socketPath()));
}

void TestTaskSocket::failureEndsTheLaunchBeforeTheFork_data()
{
    QTest::addColumn<QByteArray>("call");
    QTest::addColumn<QString>("warning");

    QTest::newRow("socket") << QByteArray("socket")
                            << QStringLiteral("Socket connection failed, errno = %1").arg(ENOBUFS);
    QTest::newRow("bind") << QByteArray("bind")
                          << QStringLiteral("Socket bind failed, errno = %1").arg(ENOBUFS);
    QTest::newRow("listen") << QByteArray("listen")
                            << QStringLiteral("Socket listen failed, errno = %1").arg(ENOBUFS);
}

void TestTaskSocket::failureEndsTheLaunchBeforeTheFork()
{
    QFETCH(QByteArray, call);
    QFETCH(QString, warning);
    const int before = TaskWorld::openDescriptors();
    RefusedCall::name = call.constData();
    const auto [error, pid, socket] = LaunchingTask::launch(m_world->cgroups(), m_request.id,
                                                            m_request.command, {}, {}, {}, 0, 0, -1, true);
    RefusedCall::name = "";
    QCOMPARE(error.code(), Error::SpawnFailed);
    QCOMPARE(error.message(), failedSocket);
    QCOMPARE(pid, -1);
    QCOMPARE(socket, -1);
    QCOMPARE(m_log->warnings(), QStringList { warning });
    QCOMPARE(::waitpid(-1, nullptr, WNOHANG), -1); // there never was a child
    QCOMPARE(TaskWorld::openDescriptors(), before);
}

// Nothing that is made up: the name is taken by what cannot be removed.
void TestTaskSocket::refusedDirectoryEndsTheLaunchBeforeTheFork()
{
    QDir().mkpath(socketPath());
    const auto task = m_request.make(m_world->cgroups());
    const Error error = task->start();
    QCOMPARE(error.message(), failedSocket);
    QCOMPARE(task->pid(), -1);
    QCOMPARE(m_log->warnings(),
             QStringList { QStringLiteral("Socket bind failed, errno = %1").arg(EADDRINUSE) });

    QDir(m_world->path(QStringLiteral("runtime/applications"))).removeRecursively();
    m_world->write(QStringLiteral("runtime/applications"), "in the place of the directory");
    m_log->clear();
    QCOMPARE(m_request.make(m_world->cgroups())->start().message(), failedSocket);
    QCOMPARE(m_log->warnings(),
             QStringList { QStringLiteral("Socket bind failed, errno = %1").arg(ENOTDIR) });
    QFile::remove(m_world->path(QStringLiteral("runtime/applications")));
}

void TestTaskSocket::socketComesBeforeTheCommandLine()
{
    m_request.command = QStringList { QStringLiteral("missing") };
    QDir().mkpath(socketPath());
    const auto task = m_request.make(m_world->cgroups());
    const Error error = task->start();
    QCOMPARE(error.code(), Error::SpawnFailed);
    QCOMPARE(error.message(), failedSocket);
}

void TestTaskSocket::descriptorOfAFailedLaunchIsClosed()
{
    const int before = TaskWorld::openDescriptors();
    m_request.command = QStringList { QStringLiteral("missing") };
    QCOMPARE(m_request.make(m_world->cgroups())->start().code(), Error::InvalidArgs);
    QCOMPARE(TaskWorld::openDescriptors(), before);
}

QTEST_GUILESS_MAIN(TestTaskSocket)

#include "tst_task_socket.moc"
