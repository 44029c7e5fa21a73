#include "support/dbus_mock.h"

#include "support/private_bus.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <QEventLoop>
#include <QFile>
#include <QProcessEnvironment>
#include <QTimer>

#include <csignal>

namespace TestSupport {

namespace {

const QString python = QStringLiteral("/usr/bin/python3"); // Debian's, which sees Debian's packages

constexpr int startTimeoutMs = 30000; // on a machine that does much else

} // namespace

DbusMock::DbusMock(PrivateBus &bus, const QString &service, const QStringList &arguments)
    : m_connection(bus.connect())
    , m_service(service)
{
    QEventLoop loop;
    QDBusServiceWatcher watcher(service, m_connection, QDBusServiceWatcher::WatchForRegistration);
    QObject::connect(&watcher, &QDBusServiceWatcher::serviceRegistered, &loop, &QEventLoop::quit);
    QTimer::singleShot(startTimeoutMs, &loop, &QEventLoop::quit);

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), bus.address());
    environment.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), bus.address());
    m_process.setProcessEnvironment(environment);
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.setStandardOutputFile(QProcess::nullDevice());
    m_process.start(python, QStringList { QStringLiteral("-m"), QStringLiteral("dbusmock") } + arguments);
    loop.exec();
    if (!m_connection.interface()->isServiceRegistered(service)) {
        qFatal("dbusmock does not own %s", qUtf8Printable(service));
    }
}

DbusMock::~DbusMock()
{
    m_process.kill(); // also while suspended
    m_process.waitForFinished();
}

bool DbusMock::isInstalled()
{
    return QFile::exists(QStringLiteral("/usr/lib/python3/dist-packages/dbusmock/__main__.py"));
}

QVariantList DbusMock::call(const QString &path, const QString &method, const QVariantList &arguments,
                            const QString &interface)
{
    QDBusMessage message = QDBusMessage::createMethodCall(m_service, path, interface, method);
    message.setArguments(arguments);
    const QDBusMessage reply = m_connection.call(message);
    if (reply.type() != QDBusMessage::ReplyMessage) {
        qFatal("%s: %s", qUtf8Printable(method), qUtf8Printable(reply.errorMessage()));
    }
    return reply.arguments();
}

void DbusMock::suspend()
{
    if (m_process.processId() > 1) {
        ::kill(static_cast<pid_t>(m_process.processId()), SIGSTOP);
    }
}

void DbusMock::resume()
{
    if (m_process.processId() > 1) {
        ::kill(static_cast<pid_t>(m_process.processId()), SIGCONT);
    }
}

} // namespace TestSupport
