#include "Core/application_id.h"
#include "Core/application_registry.h"
#include "DBus/pkd_hooks.h"

#include "support/log_capture.h"
#include "support/private_bus.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QUrl>

using Core::ApplicationId;
using Core::ApplicationRegistry;

namespace {

const QString path = QStringLiteral("/org/kestrix/PKD/Hooks");
const QString interface = QStringLiteral("org.kestrix.PKD.Hooks");
const QString reader = QStringLiteral("org.example.Reader");
const QString viewer = QStringLiteral("org.example.Viewer");

} // namespace

class tst_PkdHooks : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void removedApplicationIsNoDefaultHandler();
    void otherApplicationsStayDefaultHandlers_data();
    void otherApplicationsStayDefaultHandlers();
    void anotherArgumentIsRefused();

private:
    void install(const QString &id, const char *mimeType);
    QDBusMessage call(const QVariantList &arguments);
    QString handlerOf(const QUrl &uri) const
    {
        return ApplicationRegistry::instance()->defaultHandlerForUrl(uri);
    }

    QTemporaryDir m_root;
    TestSupport::PrivateBus m_bus;
    QDBusConnection m_client { QString() };
    DBus::PkdHooks m_hooks;
    QUrl m_text;
    QUrl m_image;
};

void tst_PkdHooks::install(const QString &id, const char *mimeType)
{
    const QString directory = m_root.filePath(QStringLiteral("usr/share/applications"));
    QVERIFY(QDir().mkpath(directory));
    QFile file(QStringLiteral("%1/%2.desktop").arg(directory, id));
    QVERIFY(file.open(QFile::WriteOnly));
    const ApplicationId appId(id);
    file.write("[Desktop Entry]\nType=Application\nName=App\nExec=/bin/true\nMimeType=" + QByteArray(mimeType)
               + ";\n[X-Application]\nOrganizationName=" + appId.organisation().toUtf8()
               + "\nApplicationName=" + appId.name().toUtf8() + '\n');
}

void tst_PkdHooks::initTestCase()
{
    qputenv("PROCWARDEN_ROOTFS", QFile::encodeName(m_root.path()));
    qputenv("XDG_DATA_HOME", QFile::encodeName(m_root.filePath(QStringLiteral("home/data"))));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_root.filePath(QStringLiteral("home/config"))));
    // The MIME types are the machine's.
    qputenv("XDG_DATA_DIRS", QFile::encodeName(m_root.filePath(QStringLiteral("usr/share"))) + ":/usr/share");
    install(reader, "text/plain");
    install(viewer, "image/png");
    m_text = QUrl::fromLocalFile(m_root.filePath(QStringLiteral("letter.txt")));
    m_image = QUrl::fromLocalFile(m_root.filePath(QStringLiteral("photo.png")));

    m_bus.useAsSessionBus();
    QVERIFY(QDBusConnection::sessionBus().registerObject(path, &m_hooks, QDBusConnection::ExportAllSlots));
    m_client = m_bus.connect();
}

void tst_PkdHooks::init()
{
    ApplicationRegistry::instance()->setDefaultHandlerForUri(m_text, ApplicationId(reader));
    ApplicationRegistry::instance()->setDefaultHandlerForUri(m_image, ApplicationId(viewer));
    QCOMPARE(handlerOf(m_text), reader);
    QCOMPARE(handlerOf(m_image), viewer);
}

QDBusMessage tst_PkdHooks::call(const QVariantList &arguments)
{
    auto message = QDBusMessage::createMethodCall(QDBusConnection::sessionBus().baseService(), path,
                                                  interface, QStringLiteral("OnRemove"));
    message.setArguments(arguments);
    QDBusPendingCallWatcher watcher(m_client.asyncCall(message));
    QSignalSpy finished(&watcher, &QDBusPendingCallWatcher::finished);
    return watcher.isFinished() || finished.wait(20000) ? watcher.reply() : QDBusMessage();
}

void tst_PkdHooks::removedApplicationIsNoDefaultHandler()
{
    const QDBusMessage reply = call({ reader });
    QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
    QCOMPARE(reply.signature(), QString());
    QCOMPARE(handlerOf(m_text), QString());
    QCOMPARE(handlerOf(m_image), viewer);
    // A second call finds nothing left to do.
    QCOMPARE(call({ reader }).type(), QDBusMessage::ReplyMessage);
}

void tst_PkdHooks::otherApplicationsStayDefaultHandlers_data()
{
    QTest::addColumn<QString>("id");

    QTest::newRow("empty") << QString();
    QTest::newRow("not installed") << QStringLiteral("org.example.Missing");
    QTest::newRow("beginning of one") << QStringLiteral("org.example.Read");
    QTest::newRow("organisation") << QStringLiteral("org.example");
    QTest::newRow("more than one") << reader + QLatin1Char(';') + viewer;
    QTest::newRow("no id") << QStringLiteral("../../etc/passwd");
    QTest::newRow("huge") << QString(1000000, QLatin1Char('x'));
}

void tst_PkdHooks::otherApplicationsStayDefaultHandlers()
{
    QFETCH(QString, id);
    QCOMPARE(call({ id }).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(handlerOf(m_text), reader);
    QCOMPARE(handlerOf(m_image), viewer);
}

void tst_PkdHooks::anotherArgumentIsRefused()
{
    for (const QVariantList &arguments :
         { QVariantList(), QVariantList { 1 }, QVariantList { QStringList(reader) } }) {
        QCOMPARE(call(arguments).type(), QDBusMessage::ErrorMessage);
    }
    QCOMPARE(handlerOf(m_text), reader);
}

QTEST_GUILESS_MAIN(tst_PkdHooks)
#include "tst_pkd_hooks.moc"
