// Has the lines of a file counted, by whoever does that.

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusReply>
#include <QDBusUnixFileDescriptor>
#include <QFile>
#include <QTextStream>
#include <QVariantMap>

using Descriptors = QList<QDBusUnixFileDescriptor>;

int main(int argc, char **argv)
{
    const QCoreApplication app(argc, argv);
    QTextStream out(stdout);
    qDBusRegisterMetaType<Descriptors>();

    const QString path = QCoreApplication::arguments().value(1);
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        out << file.errorString() << '\n';
        return 1;
    }
    const QVariantMap hints {
        // The file itself, and where its name stands
        { QStringLiteral("readFds"),
          QVariant::fromValue(Descriptors { QDBusUnixFileDescriptor(file.handle()) }) },
        { QStringLiteral("readFiles"), QStringList { QStringLiteral("files[0]") } },
    };
    const QVariantMap data { { QStringLiteral("files"), QStringList { path } } };

    auto call = QDBusMessage::createMethodCall(
        QStringLiteral("org.kestrix.Procwarden"), QStringLiteral("/org/kestrix/Procwarden/Intents1"),
        QStringLiteral("org.kestrix.Procwarden.Intents1"), QStringLiteral("InvokeIntent"));
    call << QStringLiteral("X-Count") << hints << data;
    // The user may have to choose, and the handler to start: there is no hurry.
    const QDBusReply<QVariantMap> reply = QDBusConnection::sessionBus().call(call, QDBus::Block, 300'000);
    if (!reply.isValid()) {
        out << reply.error().name() << ": " << reply.error().message() << '\n';
        return 1;
    }
    out << reply.value().value(QStringLiteral("lines")).toInt() << '\n';
    return 0;
}
