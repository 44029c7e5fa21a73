#include "support/private_bus.h"

#include <QByteArray>
#include <QFile>
#include <QUuid>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace TestSupport {

namespace {

// Everything is allowed to everybody, so that a test may let other users take part.
const char configuration[] =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path=%1/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow receive_sender="*" eavesdrop="true"/>
  </policy>
</busconfig>
)";

// Keeps the daemon: the end of standard input, that is the test's end, is the daemon's end. A test that could
// not say a word before left its directory behind.
const char keeper[] =
    R"(dbus-daemon --nofork --nopidfile --print-address=1 --config-file="$1/bus.conf" </dev/null 2>"$1/log" &
exec >/dev/null
read -r word
kill $!
wait
[ -n "$word" ] || rm -rf -- "$1")";

// Runs the keeper as a grandchild, which nobody here has to wait for.
void spawnKeeper(const QByteArray &directory, int input, int output)
{
    const QByteArray script(keeper);
    const pid_t child = fork();
    if (child < 0) {
        qFatal("fork: %d", errno);
    }
    if (child == 0) {
        setsid();
        if (fork() != 0) {
            _exit(0);
        }
        dup2(input, STDIN_FILENO);
        dup2(output, STDOUT_FILENO);
        execl("/bin/sh", "sh", "-c", script.constData(), "keeper", directory.constData(), nullptr);
        _exit(127);
    }
    // Somebody who waits for any child may have taken it already.
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) { }
}

void makePipe(int (&ends)[2])
{
    if (pipe2(ends, O_CLOEXEC) != 0) {
        qFatal("pipe2: %d", errno);
    }
}

QByteArray readLine(int descriptor)
{
    QByteArray line;
    char character = 0;
    ssize_t got = 0;
    while ((got = read(descriptor, &character, 1)) == 1 || (got < 0 && errno == EINTR)) {
        if (got == 1 && character == '\n') {
            break;
        }
        if (got == 1) {
            line += character;
        }
    }
    return line;
}

} // namespace

PrivateBus::PrivateBus()
{
    // Another user must be able to reach the socket.
    chmod(QFile::encodeName(m_directory.path()).constData(), 0755);

    QFile file(m_directory.filePath(QStringLiteral("bus.conf")));
    if (!file.open(QIODevice::WriteOnly)) {
        qFatal("%s: cannot write", qUtf8Printable(file.fileName()));
    }
    file.write(QString::fromLatin1(configuration).arg(m_directory.path()).toUtf8());
    file.close();

    int input[2];
    int output[2];
    makePipe(input);
    makePipe(output);
    spawnKeeper(QFile::encodeName(m_directory.path()), input[0], output[1]);
    close(input[0]);
    close(output[1]);
    m_lifeline = input[1];
    m_output = output[0];

    m_address = QString::fromUtf8(readLine(m_output));
    if (m_address.isEmpty()) {
        QFile log(m_directory.filePath(QStringLiteral("log")));
        const QByteArray reason = log.open(QIODevice::ReadOnly) ? log.readAll() : QByteArray();
        qFatal("dbus-daemon does not start: %s", reason.constData());
    }
}

PrivateBus::~PrivateBus()
{
    for (const QString &name : qAsConst(m_connectionNames)) {
        QDBusConnection::disconnectFromBus(name);
    }
    stop();
}

void PrivateBus::useAsSessionBus() const
{
    qputenv("DBUS_SESSION_BUS_ADDRESS", m_address.toUtf8());
}

void PrivateBus::useAsSystemBus() const
{
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.toUtf8());
}

QDBusConnection PrivateBus::connect()
{
    const QString name = QUuid::createUuid().toString();
    m_connectionNames.append(name);
    QDBusConnection connection = QDBusConnection::connectToBus(m_address, name);
    if (!connection.isConnected()) {
        qFatal("%s: cannot connect", qUtf8Printable(m_address));
    }
    return connection;
}

void PrivateBus::disconnect(const QDBusConnection &connection)
{
    m_connectionNames.removeAll(connection.name());
    QDBusConnection::disconnectFromBus(connection.name());
}

void PrivateBus::stop()
{
    if (m_lifeline < 0) {
        return;
    }
    const char word[] = "end\n";
    while (write(m_lifeline, word, sizeof word - 1) < 0 && errno == EINTR) { }
    close(m_lifeline);
    m_lifeline = -1;
    readLine(m_output);
    close(m_output);
    m_output = -1;
}

} // namespace TestSupport
