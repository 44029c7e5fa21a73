#include "intents.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusUnixFileDescriptor>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>

#include <limits>

#include <fcntl.h>
#include <unistd.h>

namespace {

using Descriptors = QList<QDBusUnixFileDescriptor>;

QVariant plain(const QVariant &value);

QVariantMap plainMap(const QDBusArgument &argument)
{
    QVariantMap map;
    argument.beginMap();
    while (!argument.atEnd()) {
        QString key;
        QDBusVariant value;
        argument.beginMapEntry();
        argument >> key >> value;
        argument.endMapEntry();
        map.insert(key, plain(value.variant()));
    }
    argument.endMap();
    return map;
}

QVariantList plainList(const QDBusArgument &argument)
{
    QVariantList list;
    argument.beginArray();
    while (!argument.atEnd()) {
        list.append(plain(argument.asVariant()));
    }
    argument.endArray();
    return list;
}

QVariant plain(const QVariant &value)
{
    if (value.userType() == qMetaTypeId<QDBusVariant>()) {
        return plain(value.value<QDBusVariant>().variant());
    }
    if (value.userType() != qMetaTypeId<QDBusArgument>()) {
        return value;
    }
    const auto argument = value.value<QDBusArgument>();
    if (argument.currentType() == QDBusArgument::MapType) {
        return plainMap(argument);
    }
    return argument.currentType() == QDBusArgument::ArrayType ? QVariant(plainList(argument)) : QVariant();
}

QString json(const QVariantMap &map)
{
    QVariantMap values;
    for (auto entry = map.begin(); entry != map.end(); ++entry) {
        values.insert(entry.key(), plain(entry.value()));
    }
    return QString::fromUtf8(
        QJsonDocument(QJsonObject::fromVariantMap(values)).toJson(QJsonDocument::Compact));
}

Descriptors open(const QStringList &paths, int flags)
{
    Descriptors descriptors;
    for (const QString &path : paths) {
        QDBusUnixFileDescriptor descriptor;
        descriptor.giveFileDescriptor(::open(QFile::encodeName(path).constData(), flags | O_CLOEXEC));
        descriptors.append(descriptor);
    }
    return descriptors;
}

} // namespace

SampleIntents::SampleIntents(const QString &behaviour, const QString &directory,
                             const std::function<void(const QString &)> &note, QObject *parent)
    : QObject(parent)
    , m_behaviour(behaviour)
    , m_directory(directory)
    , m_note(note)
{
    qDBusRegisterMetaType<Descriptors>();
}

bool SampleIntents::start(const QString &name)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    const bool started = bus.registerObject(QStringLiteral("/org/kestrix/Procwarden/IntentHandler1"), this,
                                            QDBusConnection::ExportAllSlots)
        && (name.isEmpty() || bus.registerService(name));
    if (m_behaviour == QLatin1String("vanish")) {
        _exit(7);
    }
    return started;
}

QVariantMap SampleIntents::HandleIntent(const QString &intentName, const QVariantMap &data,
                                        QVariantMap &replyHints)
{
    m_note(QStringLiteral("intent %1 %2").arg(intentName, json(data)));
    look(data);
    if (m_behaviour == QLatin1String("error")) {
        sendErrorReply(QStringLiteral("org.example.Error.Refused"), QStringLiteral("I would rather not"));
    } else if (m_behaviour == QLatin1String("silent")) {
        setDelayedReply(true);
    } else if (m_behaviour == QLatin1String("quit")) {
        _exit(7);
    } else if (m_behaviour == QLatin1String("text")) {
        setDelayedReply(true);
        connection().send(message().createReply(QStringLiteral("just a text")));
    } else if (m_behaviour == QLatin1String("nested")) {
        replyHints.insert(QStringLiteral("unknown"), QVariantMap { { QStringLiteral("a"), 1 } });
    } else if (m_behaviour == QLatin1String("files")) {
        const QString path = m_directory + QStringLiteral("/answer.txt");
        QFile file(path);
        if (file.open(QIODevice::WriteOnly)) {
            file.write("from the handler\n");
        }
        file.close();
        replyHints.insert(QStringLiteral("readFds"), QVariant::fromValue(open({ path }, O_RDONLY)));
        replyHints.insert(QStringLiteral("readFiles"), QStringList { QStringLiteral("file") });
        QVariantMap answer = data;
        answer.insert(QStringLiteral("file"), path);
        return answer;
    }
    return data;
}

void SampleIntents::look(const QVariantMap &data)
{
    lookAt(data.value(QStringLiteral("uri")).toString());
    const QStringList files = plain(data.value(QStringLiteral("files"))).toStringList();
    for (const QString &file : files) {
        lookAt(file);
    }
}

void SampleIntents::lookAt(const QString &text)
{
    const QUrl url(text);
    const QString path = url.isLocalFile() ? url.toLocalFile() : text;
    if (!path.startsWith(QLatin1Char('/'))) {
        return;
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        m_note(QStringLiteral("cannot read %1: %2").arg(path, file.errorString()));
        return;
    }
    m_note(QStringLiteral("read %1: %2").arg(path, QString::fromUtf8(file.readLine()).trimmed()));
    if (m_behaviour == QLatin1String("write")) {
        file.close();
        const bool written =
            file.open(QIODevice::ReadWrite | QIODevice::Append) && file.write("written by the handler\n") > 0;
        m_note(written ? QStringLiteral("wrote ") + path
                       : QStringLiteral("cannot write %1: %2").arg(path, file.errorString()));
    }
}

QString SampleInvoker::Invoke(const QString &intentName, const QVariantMap &hints, const QVariantMap &data,
                              const QStringList &readFiles, const QStringList &writeFiles)
{
    setDelayedReply(true);
    QVariantMap all = hints;
    if (!readFiles.isEmpty()) {
        all.insert(QStringLiteral("readFds"), QVariant::fromValue(open(readFiles, O_RDONLY)));
    }
    if (!writeFiles.isEmpty()) {
        all.insert(QStringLiteral("writeFds"), QVariant::fromValue(open(writeFiles, O_RDWR)));
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.kestrix.Procwarden"), QStringLiteral("/org/kestrix/Procwarden/Intents1"),
        QStringLiteral("org.kestrix.Procwarden.Intents1"), QStringLiteral("InvokeIntent"));
    call.setArguments({ intentName, all, data });
    auto *watcher = new QDBusPendingCallWatcher(
        QDBusConnection::sessionBus().asyncCall(call, std::numeric_limits<int>::max()), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [bus = connection(), request = message()](QDBusPendingCallWatcher *finished) {
                finished->deleteLater();
                const QDBusPendingReply<QVariantMap> reply = *finished;
                bus.send(request.createReply(
                    reply.isError()
                        ? QStringLiteral("error %1: %2").arg(reply.error().name(), reply.error().message())
                        : json(reply.value())));
            });
    return QString();
}
