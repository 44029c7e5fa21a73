#include "Core/client_info.h"
#include "Core/error.h"
#include "Core/runtime_tracker.h"
#include "DBus/context.h"

#include "support/log_capture.h"
#include "support/patience.h"
#include "support/private_bus.h"

#include <QDBusConnectionInterface>
#include <QDBusPendingCallWatcher>
#include <QDBusServer>
#include <QDir>
#include <QtTest>

#include <csignal>
#include <memory>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

using Core::ClientInfo;
using Core::Error;
using TestSupport::PrivateBus;

// The caller's identity is a matter of names: those of the user and of the group that own its directory in
// /proc. Instead of real users the test has name tables of its own, mounted over the system's where only this
// process and its children see them, so that its own user and group can have any name.
namespace {

const QString interface = QStringLiteral("org.example.Asked");

struct Environment
{
    PrivateBus bus;
    QTemporaryDir directory;
    bool ownNames = false; // the tables could be mounted
};

Environment *environment = nullptr; // made before any thread, see main()

bool writeFile(const QString &path, const QByteArray &contents)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size();
}

void setNames(const QByteArray &user, const QByteArray &group)
{
    const QByteArray ids = ":x:" + QByteArray::number(getuid());
    writeFile(environment->directory.filePath(QStringLiteral("passwd")),
              user + ids + ':' + QByteArray::number(getgid()) + "::/:/bin/sh\n");
    writeFile(environment->directory.filePath(QStringLiteral("group")),
              group + ":x:" + QByteArray::number(getgid()) + ":\n");
}

bool mountNames()
{
    const QByteArray uid = QByteArray::number(getuid());
    const QByteArray gid = QByteArray::number(getgid());
    if (unshare(CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            return false;
        }
        writeFile(QStringLiteral("/proc/self/setgroups"), "deny");
        writeFile(QStringLiteral("/proc/self/uid_map"), uid + ' ' + uid + " 1\n");
        writeFile(QStringLiteral("/proc/self/gid_map"), gid + ' ' + gid + " 1\n");
    }
    const auto mountOver = [](const char *name) {
        const QByteArray own = QFile::encodeName(environment->directory.filePath(QString::fromLatin1(name)));
        return mount(own.constData(), (QByteArray("/etc/") + name).constData(), nullptr, MS_BIND, nullptr)
            == 0;
    };
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 && mountOver("passwd")
        && mountOver("group");
}

} // namespace

// An exported object that keeps what it has found out about each caller.
class Asked : public DBus::Context
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.example.Asked")

public:
    QList<ClientInfo> callers;
    QList<QDBusMessage> delayed;
    QList<DBus::Caller> who;
    std::shared_ptr<const Core::Requestor> identified;
    bool wasKnown = false;

public slots:
    void Ask() { callers.append(clientInfo()); } // NOLINT: the names are those on the bus
    void AskWho() { who.append(caller()); } // NOLINT
    void AskWhoLater() // NOLINT
    {
        setDelayedReply(true);
        identified = identifyCaller([bus = connection(), call = message(), this] {
            wasKnown = true;
            bus.send(call.createReply());
        });
    }
    void Fail(int code, const QString &text)
    {
        sendError(Error(static_cast<Error::Code>(code), text));
    } // NOLINT
    void FailLater(int code, const QString &text) // NOLINT
    {
        setDelayedReply(true);
        const QDBusConnection caller = connection();
        const QDBusMessage call = message();
        QTimer::singleShot(0, this, [caller, call, code, text] {
            sendError(caller, call, Error(static_cast<Error::Code>(code), text));
        });
    }
};

class tst_Context : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void directCallIsPrivileged();
    void processThatIsNotOursIsPrivileged();
    void callerThatHasLeftIsPrivileged();
    void callerOnAPeerConnectionIsPrivileged();

    void ownProcessIsPrivilegedByName_data();
    void ownProcessIsPrivilegedByName();
    void processIsLookedUpInTheRootDirectory();
    void processWithoutADirectoryIsNotPrivileged();

    void groupOfAChildBelongsToItsApplication();
    void newGroupBelowAChildBelongsToItsApplication();
    void orphanWithItsOwnGroupIsPrivileged();
    void endedChildIsForgotten();

    void callerIsKnownForTheHistory();
    void callerOfOursIsKnownByItsId();
    void callerIsIdentifiedWithoutWaiting();
    void callerThatHasLeftIsIdentifiedByItsBusOnly();

    void errorReply_data();
    void errorReply();
    void delayedErrorReply_data();
    void delayedErrorReply();

private:
    ClientInfo askAs(const QString &shellCommand, const QString &id);
    void spawn(const QString &shellCommand, const QString &id);
    QDBusMessage call(const QString &method, const QVariantList &arguments = {});
    QString dbusSend() const;

    std::unique_ptr<QDBusConnection> m_service;
    std::unique_ptr<QDBusConnection> m_client;
    std::unique_ptr<Asked> m_asked;
    QList<pid_t> m_children; // leaders of their groups
};

void tst_Context::init()
{
    setNames("someone", "users");
    qunsetenv("PROCWARDEN_ROOTFS");
    m_service = std::make_unique<QDBusConnection>(environment->bus.connect());
    m_client = std::make_unique<QDBusConnection>(environment->bus.connect());
    m_asked = std::make_unique<Asked>();
    QVERIFY(m_service->registerObject(QStringLiteral("/"), m_asked.get(), QDBusConnection::ExportAllSlots));
}

void tst_Context::cleanup()
{
    const auto isFollowed = [](pid_t child) {
        return std::get<Error>(Core::RuntimeTracker::instance()->applicationForPid(child)).code()
            != Error::ProcessNotHandled;
    };
    for (const pid_t child : qAsConst(m_children)) {
        kill(-child, SIGKILL);
        QTRY_VERIFY(!isFollowed(child)); // the next function may get to see its end otherwise
    }
    m_children.clear();
    environment->bus.disconnect(*m_service);
    environment->bus.disconnect(*m_client);
    m_service.reset();
    m_client.reset();
    m_asked.reset();
}

QString tst_Context::dbusSend() const
{
    return QStringLiteral("dbus-send --bus=%1 --print-reply --dest=%2 / %3.Ask >/dev/null")
        .arg(environment->bus.address(), m_service->baseService(), interface);
}

// Starts a shell as the service starts its children: as the leader of a group, known to the tracker.
void tst_Context::spawn(const QString &shellCommand, const QString &id)
{
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    QByteArray command = shellCommand.toUtf8();
    char shell[] = "sh";
    char option[] = "-c";
    char *arguments[] = { shell, option, command.data(), nullptr };
    pid_t child = 0;
    const int error = posix_spawn(&child, "/bin/sh", nullptr, &attributes, arguments, environ);
    posix_spawnattr_destroy(&attributes);
    QCOMPARE(error, 0);
    m_children.append(child);
    Core::RuntimeTracker::instance()->addProcess(child, id);
}

ClientInfo tst_Context::askAs(const QString &shellCommand, const QString &id)
{
    spawn(shellCommand, id);
    [this] {
        QTRY_COMPARE(m_asked->callers.size(), 1);
    }();
    return m_asked->callers.value(0, ClientInfo { false, QStringLiteral("never asked") });
}

QDBusMessage tst_Context::call(const QString &method, const QVariantList &arguments)
{
    QDBusMessage message =
        QDBusMessage::createMethodCall(m_service->baseService(), QStringLiteral("/"), interface, method);
    message.setArguments(arguments);
    return m_client->call(message, QDBus::BlockWithGui);
}

void tst_Context::directCallIsPrivileged()
{
    m_asked->Ask();
    QCOMPARE(m_asked->callers.first(), (ClientInfo { true, QString() }));
}

void tst_Context::processThatIsNotOursIsPrivileged()
{
    // As is any script started by hand: neither its user nor its group says so.
    QCOMPARE(call(QStringLiteral("Ask")).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(m_asked->callers.first(), (ClientInfo { true, QString() }));
}

void tst_Context::callerThatHasLeftIsPrivileged()
{
    QString left;
    {
        const QDBusConnection client = environment->bus.connect();
        left = client.baseService();
        client.send(QDBusMessage::createMethodCall(m_service->baseService(), QStringLiteral("/"), interface,
                                                   QStringLiteral("Ask")));
        environment->bus.disconnect(client);
    }
    // The call is looked at in the event loop only, so its sender is gone by then.
    QElapsedTimer timer;
    timer.start();
    while (m_client->interface()->registeredServiceNames().value().contains(left)
           && timer.elapsed() < patienceMs) { }
    QVERIFY(timer.elapsed() < patienceMs);
    QCOMPARE(m_asked->callers.size(), 0);
    QTRY_COMPARE(m_asked->callers.size(), 1);
    QCOMPARE(m_asked->callers.first(), (ClientInfo { true, QString() }));
}

void tst_Context::callerOnAPeerConnectionIsPrivileged()
{
    // There is no bus to ask for the process.
    QDBusServer server(QStringLiteral("unix:dir=%1").arg(environment->directory.path()));
    QVERIFY(server.isConnected());
    connect(&server, &QDBusServer::newConnection, this, [this](QDBusConnection peer) {
        peer.registerObject(QStringLiteral("/"), m_asked.get(), QDBusConnection::ExportAllSlots);
    });
    const QString name = QStringLiteral("peer");
    {
        const QDBusConnection peer = QDBusConnection::connectToPeer(server.address(), name);
        QVERIFY(peer.isConnected());
        QTRY_VERIFY(peer.call(QDBusMessage::createMethodCall(QString(), QStringLiteral("/"), interface,
                                                             QStringLiteral("Ask")),
                              QDBus::BlockWithGui, 1000)
                        .type()
                    == QDBusMessage::ReplyMessage);
    }
    QDBusConnection::disconnectFromPeer(name);
    QCOMPARE(m_asked->callers.last(), (ClientInfo { true, QString() }));
}

void tst_Context::ownProcessIsPrivilegedByName_data()
{
    QTest::addColumn<QByteArray>("user");
    QTest::addColumn<QByteArray>("group");
    QTest::addColumn<bool>("privileged");

    QTest::newRow("neither") << QByteArray("someone") << QByteArray("users") << false;
    QTest::newRow("group") << QByteArray("someone") << QByteArray("privileged") << true;
    QTest::newRow("user") << QByteArray("root") << QByteArray("users") << true;
    QTest::newRow("both") << QByteArray("root") << QByteArray("privileged") << true;
    QTest::newRow("group of root") << QByteArray("someone") << QByteArray("root") << false;
    QTest::newRow("user of that name") << QByteArray("privileged") << QByteArray("users") << false;
    QTest::newRow("other case") << QByteArray("Root") << QByteArray("Privileged") << false;
    QTest::newRow("longer") << QByteArray("root1") << QByteArray("privileged1") << false;
}

void tst_Context::ownProcessIsPrivilegedByName()
{
    QFETCH(QByteArray, user);
    QFETCH(QByteArray, group);
    QFETCH(bool, privileged);

    if (!environment->ownNames) {
        QSKIP("no mount namespace of one's own is allowed here");
    }
    setNames(user, group);
    const QString id = QStringLiteral("org.example.App.instance_3");
    QCOMPARE(askAs(QStringLiteral("exec ") + dbusSend(), id), (ClientInfo { privileged, id }));
}

void tst_Context::processIsLookedUpInTheRootDirectory()
{
    if (!environment->ownNames) {
        QSKIP("no mount namespace of one's own is allowed here");
    }
    // The real directory would say no.
    setNames("someone", "privileged");
    const QTemporaryDir root;
    qputenv("PROCWARDEN_ROOTFS", root.path().toUtf8());
    const QString id = QStringLiteral("org.example.App.task_sync");
    spawn(QStringLiteral("while ! [ -e %1/go ]; do sleep 0.01; done; exec ").arg(root.path()) + dbusSend(),
          id);
    QVERIFY(QDir(root.path()).mkpath(QStringLiteral("proc/%1").arg(m_children.last())));
    QVERIFY(writeFile(root.filePath(QStringLiteral("go")), QByteArray()));
    QTRY_COMPARE(m_asked->callers.size(), 1);
    QCOMPARE(m_asked->callers.first(), (ClientInfo { true, id }));
}

void tst_Context::processWithoutADirectoryIsNotPrivileged()
{
    // As one that has ended in the meantime, although the name of its user is root's in any real directory
    // here.
    setNames("root", "privileged");
    const QTemporaryDir root;
    qputenv("PROCWARDEN_ROOTFS", root.path().toUtf8());
    const QString id = QStringLiteral("org.example.App");
    QCOMPARE(askAs(QStringLiteral("exec ") + dbusSend(), id), (ClientInfo { false, id }));
}

void tst_Context::groupOfAChildBelongsToItsApplication()
{
    const QString id = QStringLiteral("org.example.App.instance_1");
    const ClientInfo caller = askAs(dbusSend() + QStringLiteral("; exec sleep 60"), id);
    QCOMPARE(caller.appId, id);
}

void tst_Context::newGroupBelowAChildBelongsToItsApplication()
{
    const QString id = QStringLiteral("org.example.App.instance_1");
    const ClientInfo caller = askAs(QStringLiteral("setsid -w %1; exec sleep 60").arg(dbusSend()), id);
    QCOMPARE(caller.appId, id);
}

void tst_Context::orphanWithItsOwnGroupIsPrivileged()
{
    // The shell in the middle ends at once; the one below waits until it has another parent.
    const QString orphan =
        QStringLiteral("while [ \"$(cut -d \" \" -f 4 /proc/$$/stat)\" = $1 ]; do sleep 0.01; "
                       "done; exec %1")
            .arg(dbusSend());
    const QString command = QStringLiteral("( middle=$(exec sh -c 'echo $PPID')\n"
                                           "setsid sh -c '%1' orphan $middle & )\n"
                                           "exec sleep 60")
                                .arg(orphan);
    const ClientInfo caller = askAs(command, QStringLiteral("org.example.App.instance_1"));
    QCOMPARE(caller, (ClientInfo { true, QString() }));
}

void tst_Context::endedChildIsForgotten()
{
    QSignalSpy ended(Core::RuntimeTracker::instance(), &Core::RuntimeTracker::applicationTerminated);
    const QString id = QStringLiteral("org.example.App.instance_1");
    spawn(QStringLiteral("exec true"), id);
    QTRY_COMPARE(ended.size(), 1);
    m_children.clear();
    QCOMPARE(call(QStringLiteral("Ask")).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(m_asked->callers.first(), (ClientInfo { true, QString() }));
}

void tst_Context::callerIsKnownForTheHistory()
{
    m_asked->AskWho();
    QCOMPARE(m_asked->who.last().info, (ClientInfo { true, QString() }));
    QCOMPARE(m_asked->who.last().requestor.bus, QString());

    QCOMPARE(call(QStringLiteral("AskWho")).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(m_asked->who.last().info, (ClientInfo { true, QString() }));
    const Core::Requestor &requestor = m_asked->who.last().requestor;
    QCOMPARE(requestor.id, QString());
    QCOMPARE(requestor.bus, QStringLiteral("session"));
    QCOMPARE(requestor.pid, getpid());
    QCOMPARE(*requestor.uid, geteuid());
    QCOMPARE(requestor.program, QStringLiteral("tst_context"));
}

void tst_Context::callerOfOursIsKnownByItsId()
{
    const QString id = QStringLiteral("org.example.App.instance_1");
    spawn(dbusSend().replace(QLatin1String(".Ask "), QLatin1String(".AskWho "))
              + QStringLiteral("; exec sleep 60"),
          id);
    QTRY_COMPARE(m_asked->who.size(), 1);
    QCOMPARE(m_asked->who.first().info.appId, id);
    QCOMPARE(m_asked->who.first().requestor.id, id);
    QCOMPARE(m_asked->who.first().requestor.pid, -1);
    QCOMPARE(m_asked->who.first().requestor.bus, QString());
}

void tst_Context::callerIsIdentifiedWithoutWaiting()
{
    QDBusMessage message = QDBusMessage::createMethodCall(m_service->baseService(), QStringLiteral("/"),
                                                          interface, QStringLiteral("AskWhoLater"));
    const QDBusPendingCallWatcher pending(m_client->asyncCall(message));
    QTRY_VERIFY(m_asked->identified);
    QCOMPARE(m_asked->identified->bus, QStringLiteral("session"));
    QVERIFY(m_asked->wasKnown || m_asked->identified->pid == -1);
    QTRY_VERIFY(m_asked->wasKnown);
    QCOMPARE(m_asked->identified->pid, getpid());
    QCOMPARE(*m_asked->identified->uid, geteuid());
    QCOMPARE(m_asked->identified->program, QStringLiteral("tst_context"));
    QTRY_VERIFY(pending.isFinished());
    QVERIFY(!pending.isError());
}

void tst_Context::callerThatHasLeftIsIdentifiedByItsBusOnly()
{
    {
        const QDBusConnection client = environment->bus.connect();
        client.send(QDBusMessage::createMethodCall(m_service->baseService(), QStringLiteral("/"), interface,
                                                   QStringLiteral("AskWhoLater")));
        environment->bus.disconnect(client);
    }
    QTRY_VERIFY(m_asked->wasKnown);
    QCOMPARE(m_asked->identified->bus, QStringLiteral("session"));
    if (m_asked->identified->pid > 0) {
        QCOMPARE(m_asked->identified->pid, getpid()); // the bus was slower to notice than to answer
    }
}

void tst_Context::errorReply_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("name");

    QTest::newRow("with a name of its own") << int(Error::TaskNotFound) << QStringLiteral("No such task: a")
                                            << QStringLiteral("org.kestrix.Procwarden.Error.TaskNotFound");
    QTest::newRow("of the bus") << int(Error::AccessDenied) << QStringLiteral("no")
                                << QStringLiteral("org.freedesktop.DBus.Error.AccessDenied");
    QTest::newRow("without a name") << int(Error::NotRunning) << QStringLiteral("Application not running: a")
                                    << QStringLiteral("org.freedesktop.DBus.Error.Failed");
    QTest::newRow("empty message") << int(Error::ProcessNotHandled) << QString()
                                   << QStringLiteral("org.kestrix.Procwarden.Error.ProcessNotHandled");
    QTest::newRow("unknown code") << 99 << QStringLiteral("odd")
                                  << QStringLiteral("org.freedesktop.DBus.Error.Failed");
}

void tst_Context::errorReply()
{
    QFETCH(int, code);
    QFETCH(QString, text);
    QFETCH(QString, name);

    const QDBusMessage reply = call(QStringLiteral("Fail"), { code, text });
    QCOMPARE(reply.type(), QDBusMessage::ErrorMessage);
    QCOMPARE(reply.errorName(), name);
    QCOMPARE(reply.errorMessage(), text);
}

void tst_Context::delayedErrorReply_data()
{
    errorReply_data();
}

void tst_Context::delayedErrorReply()
{
    QFETCH(int, code);
    QFETCH(QString, text);
    QFETCH(QString, name);

    const QDBusMessage reply = call(QStringLiteral("FailLater"), { code, text });
    QCOMPARE(reply.type(), QDBusMessage::ErrorMessage);
    QCOMPARE(reply.errorName(), name);
    QCOMPARE(reply.errorMessage(), text);
}

int main(int argc, char **argv)
{
    // The bus comes first: it has the system's names. A namespace can be had only while there is one thread.
    Environment own;
    environment = &own;
    own.bus.useAsSystemBus(); // lest the machine's be asked for its name
    setNames("someone", "users");
    own.ownNames = mountNames();

    QCoreApplication application(argc, argv);
    tst_Context test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_context.moc"
