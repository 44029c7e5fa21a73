#include "sample.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDir>
#include <QProcess>
#include <QProcessEnvironment>

#include <cstdio>

#include <unistd.h>

namespace {

const QString service = QStringLiteral("org.kestrix.Procwarden");
const QString lifecyclePath = QStringLiteral("/org/kestrix/Procwarden/Lifecycle1");
const QString memoryPath = QStringLiteral("/org/kestrix/Procwarden/MemoryPressure1");
const QString memoryInterface = QStringLiteral("org.kestrix.Procwarden.MemoryPressure1");
const QString lifecycleInterface = QStringLiteral("org.kestrix.Procwarden.Lifecycle1");

QString errorText(const QString &name, const QString &message)
{
    return QStringLiteral("error %1: %2").arg(name, message);
}

} // namespace

Sample::Sample(const SampleOptions &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
{
    connect(&m_timer, &QTimer::timeout, this, &Sample::tick);
}

bool Sample::start()
{
    if (!QDir().mkpath(m_options.directory)) {
        return false;
    }
    const QString base = m_options.directory + QLatin1Char('/') + m_options.instanceId;
    m_diary.setFileName(base + QStringLiteral(".diary"));
    m_tickFile.setFileName(base + QStringLiteral(".ticks"));
    if (!m_diary.open(QIODevice::WriteOnly | QIODevice::Append)
        || !m_tickFile.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        return false;
    }

    note(QStringLiteral("started"));
    tick();
    m_timer.start(m_options.tickMs);

    if (m_options.busName.isEmpty()) {
        return true;
    }
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerObject(QStringLiteral("/"), this, QDBusConnection::ExportAllSlots)
        || !bus.registerService(m_options.busName)) {
        const QDBusError error = bus.lastError();
        note(QStringLiteral("no name, ") + errorText(error.name(), error.message()));
        return false;
    }
    note(QStringLiteral("name ") + m_options.busName);
    if (m_options.lifecycle) {
        askForState();
    }
    if (m_options.memoryPressure) {
        subscribeToMemoryLevel();
    }
    if (m_options.notifications) {
        listenToNotifications();
    }
    return true;
}

void Sample::note(const QString &line)
{
    const QByteArray text = line.toUtf8() + '\n';
    m_diary.write(text);
    m_diary.flush();
    std::fwrite(text.constData(), 1, static_cast<size_t>(text.size()), stdout);
    std::fflush(stdout);
}

int Sample::Pid() const
{
    return getpid();
}

QStringList Sample::Environment() const
{
    return QProcessEnvironment::systemEnvironment().toStringList();
}

QStringList Sample::OpenFiles() const
{
    QStringList result;
    const QDir directory(QStringLiteral("/proc/self/fd"));
    const QStringList numbers = directory.entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System);
    for (const QString &number : numbers) {
        const QString target = QFile::symLinkTarget(directory.filePath(number));
        result.append(number + QLatin1Char(' ') + target);
    }
    return result;
}

QStringList Sample::Call(const QString &target, const QStringList &arguments)
{
    QVariantList values;
    for (const QString &argument : arguments) {
        values.append(argument);
    }
    return CallWith(target, values);
}

QStringList Sample::CallWith(const QString &target, const QVariantList &arguments)
{
    const QStringList parts = target.split(QLatin1Char(' '));
    if (parts.size() != 4) {
        return { errorText(QStringLiteral("target"), target) };
    }
    QDBusMessage call = QDBusMessage::createMethodCall(parts.at(0), parts.at(1), parts.at(2), parts.at(3));
    call.setArguments(arguments);
    const QDBusMessage reply = QDBusConnection::sessionBus().call(call);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        return { errorText(reply.errorName(), reply.errorMessage()) };
    }
    QStringList result;
    const QVariantList values = reply.arguments();
    for (const QVariant &value : values) {
        result.append(value.toString());
    }
    return result;
}

int Sample::SpawnChild(bool ownGroup)
{
    const pid_t child = fork();
    if (child == 0) {
        if (ownGroup) {
            setpgid(0, 0);
        }
        for (;;) {
            pause();
        }
    }
    return child;
}

int Sample::Run(const QStringList &command, QString & /*output*/)
{
    setDelayedReply(true);
    const auto reply = [bus = connection(), call = message()](int code, const QString &text) {
        bus.send(call.createReply({ code, text }));
    };
    auto *process = new QProcess(this);
    process->setProcessChannelMode(QProcess::MergedChannels);
    connect(process, &QProcess::errorOccurred, process, [process, reply](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart) {
            process->deleteLater();
            reply(-1, process->errorString());
        }
    });
    connect(process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), process,
            [process, reply](int code, QProcess::ExitStatus status) {
                process->deleteLater();
                reply(status == QProcess::NormalExit ? code : -1,
                      QString::fromUtf8(process->readAllStandardOutput()));
            });
    process->start(command.value(0), command.mid(1));
    process->closeWriteChannel();
    return 0;
}

void Sample::Quit(int code)
{
    note(QStringLiteral("quit %1").arg(code));
    QCoreApplication::exit(code);
}

void Sample::onStateChanged(const QString &appId, uint state)
{
    m_state = static_cast<int>(state);
    note(QStringLiteral("state %1 %2").arg(state).arg(appId));
}

void Sample::onPropertiesChanged(const QString &interface, const QVariantMap &changed, const QStringList &)
{
    const QVariant level = changed.value(QStringLiteral("Level"));
    note(QStringLiteral("memory %1 %2").arg(level.toString(), interface));
}

void Sample::tick()
{
    ++m_ticks;
    // A fixed width, written in one call at the start: a reader never sees half a number.
    m_tickFile.seek(0);
    m_tickFile.write(QByteArray::number(m_ticks).rightJustified(10, '0') + '\n');
    m_tickFile.flush();
}

void Sample::askForState()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    bus.connect(service, lifecyclePath, lifecycleInterface, QStringLiteral("StateChanged"), this,
                SLOT(onStateChanged(QString, uint)));
    const QDBusReply<QVariantMap> reply = bus.call(QDBusMessage::createMethodCall(
        service, lifecyclePath, lifecycleInterface, QStringLiteral("GetProperties")));
    if (!reply.isValid()) {
        note(QStringLiteral("properties ") + errorText(reply.error().name(), reply.error().message()));
        return;
    }
    m_state = reply.value().value(QStringLiteral("State"), -1).toInt();
    note(QStringLiteral("properties State=%1").arg(m_state));
}

void Sample::subscribeToMemoryLevel()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    bus.connect(service, memoryPath, QStringLiteral("org.freedesktop.DBus.Properties"),
                QStringLiteral("PropertiesChanged"), this,
                SLOT(onPropertiesChanged(QString, QVariantMap, QStringList)));
    const QDBusReply<void> reply = bus.call(
        QDBusMessage::createMethodCall(service, memoryPath, memoryInterface, QStringLiteral("Subscribe")));
    note(reply.isValid()
             ? QStringLiteral("subscribed")
             : QStringLiteral("subscribe ") + errorText(reply.error().name(), reply.error().message()));
}

void Sample::listenToNotifications()
{
    const QString name = QStringLiteral("org.freedesktop.Notifications");
    const QString path = QStringLiteral("/org/freedesktop/Notifications");
    QDBusConnection bus = QDBusConnection::sessionBus();
    bus.connect(name, path, name, QStringLiteral("ActionInvoked"), this,
                SLOT(onActionInvoked(uint, QString)));
    bus.connect(name, path, name, QStringLiteral("InputTextSet"), this, SLOT(onInputTextSet(uint, QString)));
    bus.connect(name, path, name, QStringLiteral("NotificationClosed"), this,
                SLOT(onNotificationClosed(uint, uint)));
    note(QStringLiteral("listening"));
}

void Sample::onActionInvoked(uint id, const QString &actionKey)
{
    note(QStringLiteral("action %1 %2").arg(id).arg(actionKey));
}

void Sample::onInputTextSet(uint id, const QString &input)
{
    note(QStringLiteral("input %1 %2").arg(id).arg(input));
}

void Sample::onNotificationClosed(uint id, uint reason)
{
    note(QStringLiteral("closed %1 %2").arg(id).arg(reason));
}
