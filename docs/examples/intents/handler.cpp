// Handles the intent "X-Count": counts the lines of the files that it gets.

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusContext>
#include <QFile>
#include <QVariantMap>

class Handler : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kestrix.Procwarden.IntentHandler1")

public slots:
    // The answer is what it returns, and hints: no files go back.
    QVariantMap HandleIntent(const QString &name, const QVariantMap &data, QVariantMap & /*hints*/)
    {
        if (name != QLatin1String("X-Count")) {
            sendErrorReply(QDBusError::NotSupported, QStringLiteral("No such intent"));
            return {};
        }
        int lines = 0;
        const auto paths = qdbus_cast<QStringList>(data.value(QStringLiteral("files")));
        for (const QString &path : paths) {
            QFile file(path);
            if (!file.open(QIODevice::ReadOnly)) {
                sendErrorReply(QDBusError::Failed, file.errorString());
                return {};
            }
            lines += file.readAll().count('\n');
        }
        return { { QStringLiteral("lines"), lines } };
    }
};

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    Handler handler;
    QDBusConnection bus = QDBusConnection::sessionBus();
    // Once the name is there, the intent comes: the object has to stand before.
    if (!bus.registerObject(QStringLiteral("/org/kestrix/Procwarden/IntentHandler1"), &handler,
                            QDBusConnection::ExportAllSlots)
        || !bus.registerService(qEnvironmentVariable("SOLVANE_APP_INSTANCE_ID"))) {
        return 1;
    }
    return QCoreApplication::exec();
}

#include "handler.moc"
