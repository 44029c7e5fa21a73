#include "support/cgroup_tree.h"
#include "support/private_bus.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>
#include <QXmlStreamReader>

#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>

#include <grp.h>
#include <unistd.h>

using TestSupport::CGroupTree;
using TestSupport::PrivateBus;

namespace {

const QString helperName = QStringLiteral("org.kestrix.Procwarden.Helper");
const QString helperPath = QStringLiteral("/org/kestrix/Procwarden/Helper");
const QString callArgument = QStringLiteral("--call");
const QString asArgument = QStringLiteral("--as");
const QString accessDenied = QStringLiteral("org.freedesktop.DBus.Error.AccessDenied");
const QString failed = QStringLiteral("org.freedesktop.DBus.Error.Failed");
const QString invalidArgs = QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs");

constexpr uint nobody = 65534; // users that every system has
constexpr uint daemonUser = 1;

QDBusMessage callFor(const QVariant &userId)
{
    QDBusMessage call = QDBusMessage::createMethodCall(helperName, helperPath, helperName,
                                                       QStringLiteral("CreateUserHierarchies"));
    call << userId;
    return call;
}

/// What a reply says in one line.
QString described(const QDBusMessage &reply)
{
    if (reply.type() == QDBusMessage::ErrorMessage) {
        return reply.errorName() + QStringLiteral(": ") + reply.errorMessage();
    }
    return reply.signature() + QStringLiteral(" ") + reply.arguments().value(0).toString();
}

bool becomeUser(uint user)
{
    return ::setgroups(0, nullptr) == 0 && ::setresgid(user, user, user) == 0
        && ::setresuid(user, user, user) == 0;
}

/// In a process of its own: calls as another user and prints what comes back.
int runCall(const QStringList &arguments)
{
    if (!becomeUser(arguments.value(2).toUInt())) {
        std::perror("cannot become the user");
        return 2;
    }
    const QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected()) {
        std::fputs("no bus\n", stderr);
        return 2;
    }
    std::puts(qUtf8Printable(described(bus.call(callFor(arguments.value(3).toUInt())))));
    return 0;
}

/// In a process of its own: becomes another user and then another program.
int runAs(const QStringList &arguments)
{
    if (becomeUser(arguments.value(2).toUInt())) {
        const QByteArray program = QFile::encodeName(arguments.value(3));
        ::execl(program.constData(), program.constData(), nullptr);
    }
    std::perror("cannot run as the user");
    return 2;
}

/// Methods of an introspection document: "interface.method in:type ... out:type ...".
QStringList methodsOf(QXmlStreamReader &&xml)
{
    QStringList methods;
    QString interfaceName;
    while (!xml.atEnd()) {
        if (xml.readNext() != QXmlStreamReader::StartElement) {
            continue;
        }
        const QXmlStreamAttributes attributes = xml.attributes();
        const QString name = attributes.value(QLatin1String("name")).toString();
        if (xml.name() == QLatin1String("interface")) {
            interfaceName = name;
        } else if (xml.name() == QLatin1String("method")) {
            methods << interfaceName + QLatin1Char('.') + name;
        } else if (xml.name() == QLatin1String("arg") && !methods.isEmpty()) {
            const QString direction = attributes.value(QLatin1String("direction")).toString();
            const QString type = attributes.value(QLatin1String("type")).toString();
            QString &method = methods.last();
            const int outputs = method.indexOf(QLatin1String(" out:"));
            method.insert(direction == QLatin1String("in") && outputs >= 0 ? outputs : method.size(),
                          QStringLiteral(" %1:%2").arg(direction, type));
        }
    }
    return xml.hasError() ? QStringList(xml.errorString()) : methods;
}

} // namespace

/// Runs the built program on a bus of the test's own. Needs root, as the program does.
class HelperProgramTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void userGetsTheOwnHierarchies();
    void userIsDeniedThoseOfOthers_data();
    void userIsDeniedThoseOfOthers();
    void rootMayAskForOthers();
    void idThatNoUserHasIsRefused();
    void otherArgumentsAreRefused_data();
    void otherArgumentsAreRefused();
    void callsOfTwoUsersAtOnce();
    void manyCallsAreAllAnswered();
    void callerThatIsGoneDoesNoHarm();
    void callBeforeTheMountCanBeRepeated();
    void withoutRootNothingIsMade();
    void offersWhatIsDocumented();

    void stopSignalEndsItCleanly_data();
    void stopSignalEndsItCleanly();
    void nameThatIsTakenEndsIt();
    void absentBusEndsIt();
    void busThatGoesAwayEndsIt();

private:
    void start(const QString &busAddress, const QString &program = QString(),
               const QStringList &arguments = {});
    void startAndWait();
    QString finish();
    QString call(uint asUser, uint userId);
    QStringList log() const { return QString::fromUtf8(m_log).split(QLatin1Char('\n'), Qt::SkipEmptyParts); }
    uint owner(const QString &directory) const { return QFileInfo(m_tree->group(directory)).ownerId(); }
    QDBusMessage introspect() const
    {
        return m_connection->call(QDBusMessage::createMethodCall(
            helperName, helperPath, QStringLiteral("org.freedesktop.DBus.Introspectable"),
            QStringLiteral("Introspect")));
    }

    std::unique_ptr<PrivateBus> m_bus;
    std::optional<QDBusConnection> m_connection;
    std::unique_ptr<CGroupTree> m_tree;
    std::unique_ptr<QProcess> m_helper;
    QByteArray m_log;
};

void HelperProgramTest::initTestCase()
{
    if (::geteuid() != 0) {
        QSKIP("only root can hand directories over, and call as other users");
    }
    m_bus = std::make_unique<PrivateBus>();
    m_bus->useAsSystemBus();
    m_connection = m_bus->connect();
}

void HelperProgramTest::init()
{
    m_tree = std::make_unique<CGroupTree>();
    m_tree->setOwnGroups("3:cpu:/\n2:freezer:/\n1:memory:/\n");
    m_tree->addHierarchies({ QStringLiteral("cpu"), QStringLiteral("freezer"), QStringLiteral("memory") });
}

void HelperProgramTest::cleanup()
{
    if (m_helper && m_helper->state() != QProcess::NotRunning) {
        m_helper->kill();
        m_helper->waitForFinished();
    }
    m_helper.reset();
    m_tree.reset();
}

void HelperProgramTest::start(const QString &busAddress, const QString &program, const QStringList &arguments)
{
    m_helper = std::make_unique<QProcess>();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PROCWARDEN_ROOTFS"), m_tree->root());
    environment.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), busAddress);
    environment.insert(QStringLiteral("QT_FORCE_STDERR_LOGGING"), QStringLiteral("1"));
    environment.insert(QStringLiteral("QT_MESSAGE_PATTERN"), QStringLiteral("%{type}: %{message}"));
    m_helper->setProcessEnvironment(environment);
    m_helper->start(program.isEmpty() ? QStringLiteral(PROCWARDEN_BIN_DIR "/procwarden-helper") : program,
                    arguments);
    QVERIFY(m_helper->waitForStarted());
}

void HelperProgramTest::startAndWait()
{
    start(m_bus->address());
    QTRY_VERIFY(m_connection->interface()->isServiceRegistered(helperName));
}

/// Waits for the program's end. Returns its status as text, "crash" if it crashed.
QString HelperProgramTest::finish()
{
    if (m_helper->state() != QProcess::NotRunning && !m_helper->waitForFinished(30000)) {
        return QStringLiteral("running");
    }
    m_log = m_helper->readAllStandardError();
    return m_helper->exitStatus() == QProcess::NormalExit ? QString::number(m_helper->exitCode())
                                                          : QStringLiteral("crash");
}

QString HelperProgramTest::call(uint asUser, uint userId)
{
    QProcess caller;
    caller.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    caller.start(QCoreApplication::applicationFilePath(),
                 { callArgument, QString::number(asUser), QString::number(userId) });
    caller.waitForFinished();
    return QString::fromUtf8(caller.readAllStandardOutput()).trimmed();
}

void HelperProgramTest::userGetsTheOwnHierarchies()
{
    startAndWait();
    QCOMPARE(call(nobody, nobody), QStringLiteral("s /procwarden/user-65534"));
    QCOMPARE(owner(QStringLiteral("cpu/procwarden/user-65534")), nobody);
    QCOMPARE(owner(QStringLiteral("freezer/procwarden/user-65534")), nobody);
    QCOMPARE(owner(QStringLiteral("memory/procwarden/user-65534")), nobody);
    // Once more is harmless.
    QCOMPARE(call(nobody, nobody), QStringLiteral("s /procwarden/user-65534"));
    m_helper->terminate();
    QCOMPARE(finish(), QStringLiteral("0"));
    QCOMPARE(log(),
             QStringList({ QStringLiteral("debug: Created hierarchies of user 65534"),
                           QStringLiteral("debug: Created hierarchies of user 65534") }));
}

void HelperProgramTest::userIsDeniedThoseOfOthers_data()
{
    QTest::addColumn<uint>("userId");
    QTest::newRow("another user's") << daemonUser;
    QTest::newRow("root's") << 0U;
    QTest::newRow("nobody's") << 4294967294U;
}

void HelperProgramTest::userIsDeniedThoseOfOthers()
{
    QFETCH(uint, userId);
    startAndWait();
    const QString reason = QStringLiteral("User 65534 may not ask for user %1").arg(userId);
    QCOMPARE(call(nobody, userId), accessDenied + QStringLiteral(": ") + reason);
    QVERIFY(QDir(m_tree->group(QStringLiteral("cpu"))).isEmpty());
    m_helper->terminate();
    QCOMPARE(finish(), QStringLiteral("0"));
    QCOMPARE(log(),
             QStringList(QStringLiteral("warning: Cannot create hierarchies of user %1 - \"%2\"")
                             .arg(userId)
                             .arg(reason)));
}

void HelperProgramTest::rootMayAskForOthers()
{
    startAndWait();
    QCOMPARE(call(0, nobody), QStringLiteral("s /procwarden/user-65534"));
    QCOMPARE(owner(QStringLiteral("cpu/procwarden/user-65534")), nobody);
    QCOMPARE(call(0, 0), QStringLiteral("s /procwarden/user-0"));
}

void HelperProgramTest::idThatNoUserHasIsRefused()
{
    startAndWait();
    QCOMPARE(call(0, 4294967295U), invalidArgs + QStringLiteral(": Not a user id: 4294967295"));
    QVERIFY(QDir(m_tree->group(QStringLiteral("cpu"))).isEmpty());
}

void HelperProgramTest::otherArgumentsAreRefused_data()
{
    QTest::addColumn<QVariant>("argument");
    QTest::newRow("signed number") << QVariant(0);
    QTest::newRow("text") << QVariant(QStringLiteral("0"));
    QTest::newRow("long number") << QVariant(qulonglong(1) << 32);
}

void HelperProgramTest::otherArgumentsAreRefused()
{
    QFETCH(QVariant, argument);
    startAndWait();
    const QDBusMessage reply = m_connection->call(callFor(argument));
    QCOMPARE(reply.errorName(), QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod"));
    QVERIFY(QDir(m_tree->group(QStringLiteral("cpu"))).isEmpty());
    QCOMPARE(described(m_connection->call(callFor(7U))), QStringLiteral("s /procwarden/user-7"));
}

void HelperProgramTest::callsOfTwoUsersAtOnce()
{
    startAndWait();
    std::vector<std::unique_ptr<QProcess>> callers;
    for (int round = 0; round < 3; ++round) {
        for (const uint user : { nobody, daemonUser }) {
            callers.push_back(std::make_unique<QProcess>());
            callers.back()->start(QCoreApplication::applicationFilePath(),
                                  { callArgument, QString::number(user), QString::number(user) });
        }
    }
    for (size_t index = 0; index < callers.size(); ++index) {
        QVERIFY(callers[index]->waitForFinished());
        QCOMPARE(callers[index]->readAllStandardOutput(),
                 QByteArray(index % 2 == 0 ? "s /procwarden/user-65534\n" : "s /procwarden/user-1\n"));
    }
    QCOMPARE(owner(QStringLiteral("cpu/procwarden/user-65534")), nobody);
    QCOMPARE(owner(QStringLiteral("cpu/procwarden/user-1")), daemonUser);
}

void HelperProgramTest::manyCallsAreAllAnswered()
{
    startAndWait();
    QList<QDBusPendingCall> pending; // fewer than a bus lets one connection wait for
    for (uint userId = 100; userId < 200; ++userId) {
        pending << m_connection->asyncCall(callFor(userId));
    }
    for (int index = 0; index < pending.size(); ++index) {
        pending[index].waitForFinished();
        QCOMPARE(described(pending.at(index).reply()),
                 QStringLiteral("s /procwarden/user-%1").arg(100 + index));
    }
}

void HelperProgramTest::callerThatIsGoneDoesNoHarm()
{
    startAndWait();
    QDBusConnection caller = m_bus->connect();
    for (uint userId = 100; userId < 120; ++userId) {
        caller.send(callFor(userId));
    }
    m_bus->disconnect(caller);
    caller = QDBusConnection(QString());
    QCOMPARE(described(m_connection->call(callFor(7U))), QStringLiteral("s /procwarden/user-7"));
    m_helper->terminate();
    QCOMPARE(finish(), QStringLiteral("0"));
    // What it had asked for may be made or not; it is root who asked.
    const QRegularExpression known(QStringLiteral(
        "^(debug: Created hierarchies of user \\d+|warning: Cannot create hierarchies of user \\d+ "
        "- \"Cannot find out who calls: .*\")$"));
    for (const QString &line : log()) {
        QVERIFY2(known.match(line).hasMatch(), qUtf8Printable(line));
    }
}

void HelperProgramTest::callBeforeTheMountCanBeRepeated()
{
    QVERIFY(QDir(m_tree->hierarchies()).rmdir(QStringLiteral("freezer")));
    startAndWait();
    QCOMPARE(call(nobody, nobody),
             QStringLiteral("%1: No version 1 control group hierarchy is mounted on: %2/freezer")
                 .arg(failed, m_tree->hierarchies()));
    QVERIFY(QDir(m_tree->group(QStringLiteral("cpu"))).isEmpty());
    m_tree->addHierarchies({ QStringLiteral("freezer") });
    QCOMPARE(call(nobody, nobody), QStringLiteral("s /procwarden/user-65534"));
}

void HelperProgramTest::withoutRootNothingIsMade()
{
    // A copy, since the other user may not be able to reach the one that was built.
    const QString program = m_tree->path(QStringLiteral("helper"));
    QVERIFY(QFile::copy(QStringLiteral(PROCWARDEN_BIN_DIR "/procwarden-helper"), program));
    QVERIFY(QFile::setPermissions(program, QFile::permissions(program) | QFile::ReadOther | QFile::ExeOther));
    start(m_bus->address(), QCoreApplication::applicationFilePath(),
          { asArgument, QString::number(nobody), program });
    QTRY_VERIFY(m_connection->interface()->isServiceRegistered(helperName));
    QCOMPARE(call(nobody, nobody),
             QStringLiteral("%1: Cannot make %2/cpu/procwarden: Permission denied")
                 .arg(failed, m_tree->hierarchies()));
    // Nor can it be used to be given what root has made.
    m_tree->makeDirectory(QStringLiteral("sys/fs/cgroup/cpu/procwarden/user-65534"));
    QCOMPARE(call(nobody, nobody),
             QStringLiteral("%1: %2/cpu/procwarden belongs to user 0").arg(failed, m_tree->hierarchies()));
}

void HelperProgramTest::offersWhatIsDocumented()
{
    startAndWait();
    const QDBusMessage reply = introspect();
    QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
    QFile file(QStringLiteral(PROCWARDEN_DATA_DIR "/interfaces/org.kestrix.Procwarden.Helper.xml"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QStringList documented = methodsOf(QXmlStreamReader(&file));
    QCOMPARE(documented,
             QStringList(QStringLiteral("org.kestrix.Procwarden.Helper.CreateUserHierarchies in:u out:s")));
    const QStringList offered = methodsOf(QXmlStreamReader(reply.arguments().value(0).toString()));
    QCOMPARE(offered.filter(QStringLiteral("org.kestrix.")), documented);
}

void HelperProgramTest::stopSignalEndsItCleanly_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("SIGTERM") << SIGTERM;
    QTest::newRow("SIGINT") << SIGINT;
}

void HelperProgramTest::stopSignalEndsItCleanly()
{
    QFETCH(int, signal);
    startAndWait();
    QCOMPARE(::kill(static_cast<pid_t>(m_helper->processId()), signal), 0);
    QCOMPARE(finish(), QStringLiteral("0"));
    QCOMPARE(log(), QStringList());
    QTRY_VERIFY(!m_connection->interface()->isServiceRegistered(helperName));
}

void HelperProgramTest::nameThatIsTakenEndsIt()
{
    QDBusConnection owner = m_bus->connect();
    QVERIFY(owner.registerService(helperName));
    start(m_bus->address());
    QCOMPARE(finish(), QStringLiteral("1"));
    QCOMPARE(log().size(), 1);
    QVERIFY2(log().first().startsWith(QStringLiteral("critical: Cannot own the helper's bus name")),
             m_log.constData());
    // It does not wait for the name either.
    m_bus->disconnect(owner);
    owner = QDBusConnection(QString());
    QTRY_VERIFY(!m_connection->interface()->isServiceRegistered(helperName));
}

void HelperProgramTest::absentBusEndsIt()
{
    start(QStringLiteral("unix:path=") + m_tree->path(QStringLiteral("no-bus")));
    QCOMPARE(finish(), QStringLiteral("1"));
    QCOMPARE(log().size(), 1);
    QVERIFY2(log().first().startsWith(QStringLiteral("critical: Cannot connect to the system bus: \"")),
             m_log.constData());
}

void HelperProgramTest::busThatGoesAwayEndsIt()
{
    PrivateBus bus;
    const QDBusConnection connection = bus.connect();
    start(bus.address());
    QTRY_VERIFY(connection.interface()->isServiceRegistered(helperName));
    bus.stop();
    QCOMPARE(finish(), QStringLiteral("1"));
    QCOMPARE(log(), QStringList(QStringLiteral("critical: Lost the system bus")));
}

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.value(1) == callArgument) {
        return runCall(arguments);
    }
    if (arguments.value(1) == asArgument) {
        return runAs(arguments);
    }
    HelperProgramTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_helper_program.moc"
