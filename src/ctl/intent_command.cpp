#include "key_value.h"
#include "session.h"

#include "DBus/json.h"

#include <QDBusMetaType>
#include <QDBusUnixFileDescriptor>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QUrl>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Ctl {

namespace {

using Descriptors = QList<QDBusUnixFileDescriptor>;

/// The hints that are no texts.
QHash<QString, ValueKind> hintKinds()
{
    return {
        { QStringLiteral("mimeContent"), ValueKind::Texts },
        { QStringLiteral("ignoreHosts"), ValueKind::Texts },
        { QStringLiteral("ignoreSchemes"), ValueKind::Texts },
        { QStringLiteral("showDialog"), ValueKind::Boolean },
        { QStringLiteral("suppressErrorDialog"), ValueKind::Boolean },
        { QStringLiteral("refocusOnReturn"), ValueKind::Boolean },
        { QStringLiteral("startDBus"), ValueKind::Boolean },
    };
}

struct Opened
{
    int descriptor = -1;
    QString fault; ///< why there is none
};

/// Only files can be shared, which have a place in a directory. Never waits, as opening a FIFO does.
Opened openFile(const QString &path, int flags)
{
    const QByteArray name = path.toLocal8Bit();
    const auto failure = [&path] {
        return Opened {
            -1, QStringLiteral("Cannot open %1: %2").arg(path, QString::fromLocal8Bit(std::strerror(errno)))
        };
    };
    const Opened refusal = { -1, QStringLiteral("Not a regular file: %1").arg(path) };
    struct stat status = {};
    if (stat(name.constData(), &status) != 0) {
        return failure();
    }
    if (!S_ISREG(status.st_mode)) {
        return refusal; // before it is opened, which does something to some devices
    }
    const int descriptor = open(name.constData(), flags | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) {
        return failure();
    }
    if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
        close(descriptor); // it has been replaced meanwhile
        return refusal;
    }
    (void)fcntl(descriptor, F_SETFL, flags); // as whoever gets it expects it
    return { descriptor, QString() };
}

/// Files that travel with the intent, for one purpose.
struct Files
{
    const char *fdsHint;
    const char *placesHint;
    int flags; ///< of open(2)
    Descriptors descriptors;
    QStringList places;

    /// Opens what @p argument, "KEY=PATH", names, and puts its name into @p data.
    /// @returns what went wrong, or an empty text.
    QString add(const QString &argument, KeyValues &data)
    {
        const auto pair = KeyValue::parse(argument);
        if (!pair || pair->isJson) {
            return QStringLiteral("Not KEY=PATH: %1").arg(argument);
        }
        const QUrl url(pair->text);
        const bool isUrl = url.isLocalFile();
        const QString path = QDir().absoluteFilePath(isUrl ? url.toLocalFile() : pair->text);
        const Opened opened = openFile(path, flags);
        if (opened.descriptor < 0) {
            return opened.fault;
        }
        descriptors.append(QDBusUnixFileDescriptor(opened.descriptor));
        close(opened.descriptor); // what is sent is a copy
        const QString fault = data.add(QStringLiteral("%1=%2").arg(pair->key, isUrl ? pair->text : path));
        places.append(data.lastPlace());
        return fault;
    }

    void insertInto(QVariantMap &hints) const
    {
        if (!descriptors.isEmpty()) {
            hints.insert(QLatin1String(fdsHint), QVariant::fromValue(descriptors));
            hints.insert(QLatin1String(placesHint), places);
        }
    }
};

/// The hints as the service takes them: lists of texts as such.
QVariantMap hintsOf(const QJsonObject &object)
{
    QVariantMap hints;
    for (auto hint = object.begin(); hint != object.end(); ++hint) {
        const QJsonValue value = hint.value();
        if (value.isArray()) {
            hints.insert(hint.key(), value.toVariant().toStringList());
        } else if (!value.isNull() && !value.isObject()) {
            hints.insert(hint.key(), value.toVariant());
        }
    }
    return hints;
}

QString answerText(const QVariantMap &answer)
{
    Sheet sheet;
    for (auto entry = answer.cbegin(); entry != answer.cend(); ++entry) {
        const QJsonValue value = QJsonValue::fromVariant(*entry);
        QString text = entry->toString();
        if (value.isArray()) {
            text = QString::fromUtf8(QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact));
        } else if (value.isObject()) {
            text = QString::fromUtf8(QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact));
        }
        sheet.add(printable(entry.key()), printable(text));
    }
    return sheet.text();
}

} // namespace

int intentCommand(Session &session)
{
    Arguments &arguments = session.arguments;
    arguments.addOption({ QStringLiteral("H"), QStringLiteral("hint") },
                        QStringLiteral("Give a hint, as KEY=VALUE or KEY:=JSON; may be repeated"),
                        QStringLiteral("KEY=VALUE"));
    arguments.addOption(
        { QStringLiteral("f"), QStringLiteral("file") },
        QStringLiteral("Take the file PATH along, to be read; its name becomes KEY of the data"),
        QStringLiteral("KEY=PATH"));
    arguments.addOption({ QStringLiteral("F"), QStringLiteral("write-file") },
                        QStringLiteral("The same for a file to be read and written"),
                        QStringLiteral("KEY=PATH"));
    if (const auto end = session.begin(1, -1)) {
        return *end;
    }
    KeyValues data;
    KeyValues hintValues(hintKinds());
    QString fault = data.add(arguments.words().mid(1));
    if (fault.isEmpty()) {
        fault = hintValues.add(arguments.values(QStringLiteral("hint")));
    }
    if (!fault.isEmpty()) {
        return arguments.wrong(fault);
    }
    qDBusRegisterMetaType<Descriptors>();
    QVariantMap hints = hintsOf(hintValues.object());
    Files kinds[] = { { "readFds", "readFiles", O_RDONLY, {}, {} },
                      { "writeFds", "writeFiles", O_RDWR, {}, {} } };
    const char *const options[] = { "file", "write-file" };
    for (int i = 0; i < 2; ++i) {
        const QStringList files = arguments.values(QLatin1String(options[i]));
        for (const QString &file : files) {
            fault = kinds[i].add(file, data);
            if (!fault.isEmpty()) {
                return arguments.wrong(fault);
            }
        }
        kinds[i].insertInto(hints);
    }
    const std::optional<QVariantMap> requestData = DBus::toBusMap(data.object());
    if (!requestData) {
        return arguments.wrong(QStringLiteral("The data are too large, or nested too deeply"));
    }
    const Reply reply = session.bus.act(QStringLiteral("Intents1"), QStringLiteral("InvokeIntent"),
                                        { arguments.word(0), hints, *requestData });
    if (reply.failed()) {
        return session.fail(reply);
    }
    const QVariantMap answer = reply.value().toMap();
    session.output.record(answer, answerText(answer));
    return Done;
}

} // namespace Ctl
