#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <cstdio>
#include <memory>

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString userName = QStringLiteral("org.kestrix.Procwarden.User");
const QString helperName = QStringLiteral("org.kestrix.Procwarden.Helper");
const QString sessionName = QStringLiteral("org.kestrix.Procwarden");
const QString allowed = QStringLiteral("allowed");
const QString denied = QStringLiteral("org.freedesktop.DBus.Error.AccessDenied");
const QString controlInterface = QStringLiteral("org.kestrix.Procwarden.Control1");
const QString propertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
const QString markerInterface = QStringLiteral("org.example.Marker");
const QStringList signalInterfaces = { controlInterface, propertiesInterface, markerInterface };

const QString serveArgument = QStringLiteral("--serve");
const QString ownArgument = QStringLiteral("--own");
const QString callArgument = QStringLiteral("--call");
const QString listenArgument = QStringLiteral("--listen");

// Accounts that every Debian system has, in the parts that the policies speak of.
constexpr uint root = 0;
constexpr uint sessionUser = 5; // games, in the group games
constexpr uint packageManager = 13; // proxy
constexpr uint somebody = 65534; // nobody

void say(const QString &line)
{
    std::puts(qUtf8Printable(line));
    std::fflush(stdout);
}

/// Prints the interfaces of the signals that it hears, until the marker has come.
class Listener : public QObject
{
    Q_OBJECT

public slots:
    void onSignal(const QDBusMessage &message)
    {
        say(message.interface());
        if (message.interface() == markerInterface) {
            QCoreApplication::quit();
        }
    }
};

// The rules that the system's own configuration has before it reads the files of services.
const char configuration[] =
    "<busconfig>\n"
    "  <type>system</type>\n"
    "  <listen>unix:path=%1/bus</listen>\n"
    "  <auth>EXTERNAL</auth>\n"
    "  <policy context='default'>\n"
    "    <allow user='*'/>\n"
    "    <deny own='*'/>\n"
    "    <deny send_type='method_call'/>\n"
    "    <allow send_type='signal'/>\n"
    "    <allow send_requested_reply='true' send_type='method_return'/>\n"
    "    <allow send_requested_reply='true' send_type='error'/>\n"
    "    <allow receive_type='method_call'/>\n"
    "    <allow receive_type='method_return'/>\n"
    "    <allow receive_type='error'/>\n"
    "    <allow receive_type='signal'/>\n"
    "    <allow send_destination='org.freedesktop.DBus' send_interface='org.freedesktop.DBus'/>\n"
    "  </policy>\n"
    "  <includedir>%1/system.d</includedir>\n"
    "</busconfig>\n";

bool becomeUser(uint user)
{
    const passwd *account = ::getpwuid(user);
    return account != nullptr && ::initgroups(account->pw_name, account->pw_gid) == 0
        && ::setresgid(account->pw_gid, account->pw_gid, account->pw_gid) == 0
        && ::setresuid(user, user, user) == 0;
}

/// Answers every call on every path. A call of "Reload" also makes it send signals.
class AnyObject : public QDBusVirtualObject
{
public:
    QString introspect(const QString &) const override { return QString(); }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        if (message.member() == QLatin1String("Reload")) {
            for (const QString &interface : signalInterfaces) {
                connection.send(
                    QDBusMessage::createSignal(QStringLiteral("/x"), interface, QStringLiteral("Started")));
            }
        }
        connection.send(message.createReply());
        return true;
    }
};

// Each of these runs in a process of its own, as another user.

int own(const QString &name, bool stay)
{
    QDBusConnection bus = QDBusConnection::systemBus();
    AnyObject object;
    bus.registerVirtualObject(QStringLiteral("/"), &object, QDBusConnection::SubPath);
    const bool owned = bus.registerService(name);
    say(owned ? allowed : bus.lastError().name());
    return owned && stay ? QCoreApplication::exec() : 0;
}

int call(const QString &destination, const QString &interface, const QString &member)
{
    const QDBusMessage reply = QDBusConnection::systemBus().call(
        QDBusMessage::createMethodCall(destination, QStringLiteral("/x"), interface, member));
    say(reply.type() == QDBusMessage::ErrorMessage ? reply.errorName() : allowed);
    return 0;
}

int listen()
{
    Listener listener;
    QDBusConnection bus = QDBusConnection::systemBus();
    for (const QString &interface : signalInterfaces) {
        bus.connect(QString(), QStringLiteral("/x"), interface, QStringLiteral("Started"), &listener,
                    SLOT(onSignal(QDBusMessage)));
    }
    // Answered after the subscriptions have been.
    bus.interface()->isServiceRegistered(userName);
    say(QStringLiteral("listening"));
    return QCoreApplication::exec();
}

int runRole(const QStringList &arguments)
{
    if (!becomeUser(arguments.value(2).toUInt())) {
        std::perror("cannot become the user");
        return 2;
    }
    const QString &role = arguments.at(1);
    if (role == ownArgument || role == serveArgument) {
        return own(arguments.value(3), role == serveArgument);
    }
    return role == listenArgument ? listen()
                                  : call(arguments.value(3), arguments.value(4), arguments.value(5));
}

} // namespace

/// The installed policies, in force on a real bus daemon. Needs root, to be several users.
class BusPolicyTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void othersOwnNoName_data();
    void othersOwnNoName();
    void callersOfTheService_data();
    void callersOfTheService();
    void callersByTheUniqueNameAreNoExceptions();
    void callersOfTheHelper_data();
    void callersOfTheHelper();
    void signalsAreRootsOnly_data();
    void signalsAreRootsOnly();

private:
    void installPolicy(const QString &file) const;
    static std::unique_ptr<QProcess> startAs(const QString &role, uint user, const QStringList &arguments);
    static QString runAs(const QString &role, uint user, const QStringList &arguments);
    static QString line(QProcess &process);

    QTemporaryDir m_directory;
    QProcess m_daemon;
    std::unique_ptr<QProcess> m_service;
    std::unique_ptr<QProcess> m_helper;
};

void BusPolicyTest::installPolicy(const QString &file) const
{
    QFile source(QStringLiteral(PROCWARDEN_POLICY_DIR "/") + file + QStringLiteral(".in"));
    QVERIFY(source.open(QIODevice::ReadOnly));
    QString content = QString::fromUtf8(source.readAll());
    // What a distribution sets at build time, for the accounts of this test.
    content.replace(QStringLiteral("@PROCWARDEN_SESSION_GROUP@"), QStringLiteral("games"));
    content.replace(QStringLiteral("@PROCWARDEN_PACKAGE_MANAGER_USER@"), QStringLiteral("proxy"));
    QFile target(m_directory.filePath(QStringLiteral("system.d/") + file));
    QVERIFY(target.open(QIODevice::WriteOnly));
    target.write(content.toUtf8());
}

void BusPolicyTest::initTestCase()
{
    if (::geteuid() != 0) {
        QSKIP("only root can act as several users");
    }
    ::chmod(QFile::encodeName(m_directory.path()).constData(), 0755);
    QVERIFY(QDir(m_directory.path()).mkdir(QStringLiteral("system.d")));
    installPolicy(QStringLiteral("org.kestrix.Procwarden.Helper.conf"));
    installPolicy(QStringLiteral("org.kestrix.Procwarden.User.conf"));
    QFile file(m_directory.filePath(QStringLiteral("bus.conf")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(QString::fromLatin1(configuration).arg(m_directory.path()).toUtf8());
    file.close();

    m_daemon.setStandardErrorFile(QProcess::nullDevice()); // it tells of every refusal
    m_daemon.start(QStringLiteral("dbus-daemon"),
                   { QStringLiteral("--nofork"), QStringLiteral("--nopidfile"),
                     QStringLiteral("--print-address=1"),
                     QStringLiteral("--config-file=") + file.fileName() });
    const QString address = line(m_daemon);
    QVERIFY(!address.isEmpty());
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", address.toUtf8());

    // Those who may own the names.
    m_service = startAs(serveArgument, sessionUser, { userName });
    QCOMPARE(line(*m_service), allowed);
    m_helper = startAs(serveArgument, root, { helperName });
    QCOMPARE(line(*m_helper), allowed);
}

void BusPolicyTest::cleanupTestCase()
{
    for (QProcess *process : { m_service.get(), m_helper.get(), &m_daemon }) {
        if (process != nullptr) {
            process->kill();
            process->waitForFinished();
        }
    }
}

std::unique_ptr<QProcess> BusPolicyTest::startAs(const QString &role, uint user, const QStringList &arguments)
{
    auto process = std::make_unique<QProcess>();
    process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process->start(QCoreApplication::applicationFilePath(),
                   QStringList({ role, QString::number(user) }) + arguments);
    return process;
}

QString BusPolicyTest::runAs(const QString &role, uint user, const QStringList &arguments)
{
    const std::unique_ptr<QProcess> process = startAs(role, user, arguments);
    process->waitForFinished();
    return QString::fromUtf8(process->readAllStandardOutput()).trimmed();
}

QString BusPolicyTest::line(QProcess &process)
{
    while (!process.canReadLine() && process.waitForReadyRead()) { }
    return QString::fromUtf8(process.readLine()).trimmed();
}

void BusPolicyTest::othersOwnNoName_data()
{
    QTest::addColumn<uint>("user");
    QTest::addColumn<QString>("name");
    QTest::newRow("service by root") << root << userName;
    QTest::newRow("service by the package manager") << packageManager << userName;
    QTest::newRow("service by somebody") << somebody << userName;
    QTest::newRow("helper by the user") << sessionUser << helperName;
    QTest::newRow("helper by the package manager") << packageManager << helperName;
    QTest::newRow("helper by somebody") << somebody << helperName;
    QTest::newRow("name of the session bus by the user") << sessionUser << sessionName;
    QTest::newRow("name below the service's by the user")
        << sessionUser << userName + QStringLiteral(".Other");
}

void BusPolicyTest::othersOwnNoName()
{
    QFETCH(uint, user);
    QFETCH(QString, name);
    QCOMPARE(runAs(ownArgument, user, { name }), denied);
}

void BusPolicyTest::callersOfTheService_data()
{
    QTest::addColumn<uint>("user");
    QTest::addColumn<QString>("interface");
    QTest::addColumn<bool>("mayCall");

    struct Rule
    {
        const char *interface;
        bool root;
        bool packageManager;
        bool others;
    };
    const Rule rules[] = {
        { "org.kestrix.Procwarden.SystemControl1", true, true, false },
        { "org.kestrix.Procwarden.Control1", true, false, false },
        { "org.kestrix.Procwarden.TaskInvoker1", true, false, false },
        { "org.kestrix.Procwarden.TaskInvokerSession1", true, false, false },
        { "org.kestrix.Procwarden.Tasks1", false, false, false },
        { "org.freedesktop.DBus.Properties", true, false, false },
        { "org.freedesktop.DBus.Introspectable", true, true, true },
        { "org.freedesktop.DBus.Peer", true, true, true },
        { "", false, false, false },
    };
    for (const Rule &rule : rules) {
        const QString interface = QLatin1String(rule.interface);
        QTest::addRow("%s by root", rule.interface) << root << interface << rule.root;
        QTest::addRow("%s by the package manager", rule.interface)
            << packageManager << interface << rule.packageManager;
        QTest::addRow("%s by the user", rule.interface) << sessionUser << interface << rule.others;
        QTest::addRow("%s by somebody", rule.interface) << somebody << interface << rule.others;
    }
}

void BusPolicyTest::callersOfTheService()
{
    QFETCH(uint, user);
    QFETCH(QString, interface);
    QFETCH(bool, mayCall);
    // The bus library answers Ping of the interface Peer by itself, and refuses its other methods.
    const QString member =
        interface.endsWith(QLatin1String(".Peer")) ? QStringLiteral("Ping") : QStringLiteral("Terminate");
    QCOMPARE(runAs(callArgument, user, { userName, interface, member }), mayCall ? allowed : denied);
}

void BusPolicyTest::callersByTheUniqueNameAreNoExceptions()
{
    const QString name = QDBusConnection::systemBus().interface()->serviceOwner(userName).value();
    QVERIFY(name.startsWith(QLatin1Char(':')));
    const QStringList start = { name, controlInterface, QStringLiteral("Start") };
    QCOMPARE(runAs(callArgument, somebody, start), denied);
    QCOMPARE(runAs(callArgument, root, start), allowed);
}

void BusPolicyTest::callersOfTheHelper_data()
{
    QTest::addColumn<uint>("user");
    QTest::addColumn<QString>("interface");
    QTest::addColumn<QString>("member");
    QTest::addColumn<bool>("mayCall");
    const QString create = QStringLiteral("CreateUserHierarchies");
    // For whom they ask is looked at by the helper itself.
    QTest::newRow("root") << root << helperName << create << true;
    QTest::newRow("the user") << sessionUser << helperName << create << true;
    QTest::newRow("the package manager") << packageManager << helperName << create << false;
    QTest::newRow("somebody") << somebody << helperName << create << false;
    QTest::newRow("without the interface") << sessionUser << QString() << create << false;
    QTest::newRow("another method") << sessionUser << helperName << "Reload" << false;
    QTest::newRow("properties") << somebody << "org.freedesktop.DBus.Properties"
                                << "GetAll" << false;
    QTest::newRow("introspection") << somebody << "org.freedesktop.DBus.Introspectable"
                                   << "Introspect" << true;
}

void BusPolicyTest::callersOfTheHelper()
{
    QFETCH(uint, user);
    QFETCH(QString, interface);
    QFETCH(QString, member);
    QFETCH(bool, mayCall);
    QCOMPARE(runAs(callArgument, user, { helperName, interface, member }), mayCall ? allowed : denied);
}

void BusPolicyTest::signalsAreRootsOnly_data()
{
    QTest::addColumn<uint>("user");
    QTest::addColumn<bool>("hears");
    QTest::newRow("root") << root << true;
    QTest::newRow("the user") << sessionUser << false;
    QTest::newRow("somebody") << somebody << false;
}

void BusPolicyTest::signalsAreRootsOnly()
{
    QFETCH(uint, user);
    QFETCH(bool, hears);
    const std::unique_ptr<QProcess> listener = startAs(listenArgument, user, {});
    QCOMPARE(line(*listener), QStringLiteral("listening"));
    QCOMPARE(runAs(callArgument, root, { userName, controlInterface, QStringLiteral("Reload") }), allowed);
    // The last signal is everybody's: when it has come, the others would have come too.
    if (hears) {
        QCOMPARE(line(*listener), controlInterface);
        QCOMPARE(line(*listener), propertiesInterface);
    }
    QCOMPARE(line(*listener), markerInterface);
    QVERIFY(listener->waitForFinished());
}

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    const QStringList roles = { serveArgument, ownArgument, callArgument, listenArgument };
    if (roles.contains(arguments.value(1))) {
        return runRole(arguments);
    }
    BusPolicyTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_bus_policy.moc"
