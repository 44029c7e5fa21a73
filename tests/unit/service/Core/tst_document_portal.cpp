#include "Core/document_portal.h"
#include "Core/document_portal_p.h"

#include "support/bus_stand_in.h"
#include "support/log_capture.h"
#include "support/private_bus.h"

#include <QDBusArgument>
#include <QDBusError>
#include <QDBusUnixFileDescriptor>
#include <QDir>
#include <QTemporaryFile>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

#include <memory>

using namespace Core;
using namespace TestSupport;

namespace {

const QString service = QStringLiteral("org.freedesktop.portal.Documents");
const QString object = QStringLiteral("/org/freedesktop/portal/documents");
const QString application = QStringLiteral("org.example.App");
const QString failedToAdd = QStringLiteral("Failed to add file to portal.");
const QString wrongNumber = QStringLiteral("Document portal returned unexpected number of IDs");

// As the portal sends it, with the NUL.
QVariantMap mountedAt(const char *path)
{
    return { { QStringLiteral("mountpoint"), QByteArray(path, static_cast<int>(qstrlen(path)) + 1) } };
}

int openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::AllEntries | QDir::System).size();
}

} // namespace

class tst_DocumentPortal : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void callIsSentAsAgreed_data();
    void callIsSentAsAgreed();
    void descriptorsArriveAsTheFilesTheyAre();
    void pathIsComposed_data();
    void pathIsComposed();
    void mountPointIsWhateverIsThere_data();
    void mountPointIsWhateverIsThere();
    void numberOfDocumentsMustBeThatOfNames_data();
    void numberOfDocumentsMustBeThatOfNames();
    void errorIsPassedOn();
    void absentPortalIsAnError();
    void portalThatEndsWhileAskedIsAnError();
    void answerOfAnotherTypeIsAnError_data();
    void answerOfAnotherTypeIsAnError();
    void oneFileIsTheFirst();
    void oneFileFails();
    void answersFindTheirCalls();
    void noFilesAreAskedForAsWell();
    void descriptorsThatCannotBeSentFail_data();
    void descriptorsThatCannotBeSentFail();
    void answerAfterTheEndIsDropped();
    void functionMayDeleteThePortal();
    void emptyFunctionsAreAllowed();

private:
    void share(const QStringList &names, int descriptors, QIODevice::OpenMode mode = QIODevice::ReadOnly);
    FileDescriptor descriptor() const { return FileDescriptor(m_file->handle()); }

    PrivateBus m_bus;
    std::unique_ptr<QTemporaryFile> m_file;
    std::unique_ptr<DocumentPortal> m_portal;
    std::unique_ptr<BusStandIn> m_daemon;
    QStringList m_results; ///< what the functions were called with
};

void tst_DocumentPortal::initTestCase()
{
    m_bus.useAsSessionBus();
}

void tst_DocumentPortal::init()
{
    m_results.clear();
    m_file = std::make_unique<QTemporaryFile>();
    QVERIFY(m_file->open());
    m_daemon = std::make_unique<BusStandIn>(m_bus, service, object);
    m_portal = std::make_unique<DocumentPortal>();
}

void tst_DocumentPortal::cleanup()
{
    m_portal.reset();
    m_daemon.reset();
}

void tst_DocumentPortal::share(const QStringList &names, int descriptors, QIODevice::OpenMode mode)
{
    m_portal->shareFiles(
        names, QVector<FileDescriptor>(descriptors, descriptor()), application, mode,
        [this](const QStringList &paths, const Error &error) {
            m_results << (error ? QStringLiteral("error %1 %2").arg(error.code()).arg(error.message())
                                : QLatin1String("paths ") + paths.join(QLatin1Char('|')));
            QVERIFY(!error || paths.isEmpty());
        });
    QVERIFY(m_results.isEmpty() || m_results.size() < 2);
}

void tst_DocumentPortal::callIsSentAsAgreed_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QStringList>("permissions");
    QTest::newRow("read") << int(QIODevice::ReadOnly) << QStringList { QStringLiteral("read") };
    QTest::newRow("read and write") << int(QIODevice::ReadWrite)
                                    << QStringList { QStringLiteral("read"), QStringLiteral("write") };
    QTest::newRow("write") << int(QIODevice::WriteOnly) << QStringList { QStringLiteral("write") };
    QTest::newRow("neither") << int(QIODevice::NotOpen) << QStringList();
    QTest::newRow("others do not count") << int(QIODevice::ReadOnly | QIODevice::Text | QIODevice::Append)
                                         << QStringList { QStringLiteral("read") };
}

void tst_DocumentPortal::callIsSentAsAgreed()
{
    QFETCH(int, mode);
    QFETCH(QStringList, permissions);

    share({ QStringLiteral("a"), QStringLiteral("b") }, 2, QIODevice::OpenMode(mode));
    QVERIFY(m_results.isEmpty());
    QTRY_COMPARE(m_daemon->calls().size(), 1);
    const QDBusMessage call = m_daemon->calls().first();
    QCOMPARE(call.interface(), service);
    QCOMPARE(call.path(), object);
    QCOMPARE(call.member(), QStringLiteral("AddFull"));
    QCOMPARE(call.signature(), QStringLiteral("ahusas"));
    QCOMPARE(call.arguments().at(1), QVariant(5U));
    QCOMPARE(call.arguments().at(2), QVariant(application));
    QCOMPARE(call.arguments().at(3), QVariant(permissions));
}

void tst_DocumentPortal::descriptorsArriveAsTheFilesTheyAre()
{
    QTemporaryFile other;
    QVERIFY(other.open());
    m_portal->shareFiles({ QStringLiteral("a"), QStringLiteral("b") },
                         { FileDescriptor(other.handle()), descriptor() }, application, QIODevice::ReadOnly,
                         {});
    QTRY_COMPARE(m_daemon->calls().size(), 1);
    const auto received =
        qdbus_cast<QList<QDBusUnixFileDescriptor>>(m_daemon->calls().first().arguments().at(0));
    QCOMPARE(received.size(), 2);
    const auto inode = [](int number) {
        struct stat status
        {
        };
        return fstat(number, &status) == 0 ? status.st_ino : 0;
    };
    QCOMPARE(inode(received.at(0).fileDescriptor()), inode(other.handle()));
    QCOMPARE(inode(received.at(1).fileDescriptor()), inode(m_file->handle()));
    QVERIFY(inode(m_file->handle()) != inode(other.handle()));
}

void tst_DocumentPortal::pathIsComposed_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("path");

    const auto row = [](const char *title, const char *name, const char *path) {
        QTest::newRow(title) << QString::fromUtf8(name) << QStringLiteral("abc")
                             << QStringLiteral("/run/doc/by-app/org.example.App/abc/")
                + QString::fromUtf8(path);
    };
    row("absolute", "/home/user/b.txt", "b.txt");
    row("relative", "user/b.txt", "b.txt");
    row("name alone", "b.txt", "b.txt");
    row("separator at the end", "/home/user/", "");
    row("empty", "", "");
    row("place markers", "/a/%1 %2 %99", "%1 %2 %99");
    row("other letters", "/ä/ö b.txt", "ö b.txt");
    QTest::newRow("place marker in the id") << QStringLiteral("a") << QStringLiteral("%1%2")
                                            << QStringLiteral("/run/doc/by-app/org.example.App/%1%2/a");
    QTest::newRow("no document is needed")
        << QStringLiteral("/home/user/b.txt") << QString() << QStringLiteral("/home/user/b.txt");
}

void tst_DocumentPortal::pathIsComposed()
{
    QFETCH(QString, name);
    QFETCH(QString, id);
    QFETCH(QString, path);

    m_daemon->answerWith({ QStringList { id }, mountedAt("/run/doc") });
    share({ name }, 1);
    QTRY_COMPARE(m_results, QStringList { QLatin1String("paths ") + path });
}

void tst_DocumentPortal::mountPointIsWhateverIsThere_data()
{
    QTest::addColumn<QVariantMap>("extra");
    QTest::addColumn<QString>("path");

    const QString bare = QStringLiteral("/by-app/org.example.App/abc/a");
    const auto row = [](const char *title, const QVariant &mountPoint, const QString &path) {
        QTest::newRow(title) << QVariantMap { { QStringLiteral("mountpoint"), mountPoint } } << path;
    };
    QTest::newRow("none") << QVariantMap() << bare;
    QTest::newRow("others") << QVariantMap { { QStringLiteral("version"), 4 } } << bare;
    row("with a NUL", QByteArray("/doc\0", 5), QStringLiteral("/doc") + bare);
    row("without", QByteArray("/doc"), QStringLiteral("/doc") + bare);
    row("more behind the NUL", QByteArray("/doc\0/other", 11), QStringLiteral("/doc") + bare);
    row("empty", QByteArray("", 0), bare);
    row("only a NUL", QByteArray("\0", 1), bare);
    row("other letters", QByteArray("/d\xc3\xb6"), QString::fromUtf8("/dö") + bare);
    row("text", QStringLiteral("/doc"), QStringLiteral("/doc") + bare);
    row("list", QStringList { QStringLiteral("/doc") }, bare);
}

void tst_DocumentPortal::mountPointIsWhateverIsThere()
{
    QFETCH(QVariantMap, extra);
    QFETCH(QString, path);

    m_daemon->answerWith({ QStringList { QStringLiteral("abc") }, extra });
    share({ QStringLiteral("/x/a") }, 1);
    QTRY_COMPARE(m_results, QStringList { QLatin1String("paths ") + path });
}

void tst_DocumentPortal::numberOfDocumentsMustBeThatOfNames_data()
{
    QTest::addColumn<int>("names");
    QTest::addColumn<int>("documents");
    QTest::newRow("fewer") << 3 << 2;
    QTest::newRow("more") << 1 << 2;
    QTest::newRow("none") << 1 << 0;
    QTest::newRow("for no name") << 0 << 1;
}

void tst_DocumentPortal::numberOfDocumentsMustBeThatOfNames()
{
    QFETCH(int, names);
    QFETCH(int, documents);

    m_daemon->answerWith(
        { QStringList(QVector<QString>(documents, QStringLiteral("abc")).toList()), mountedAt("/doc") });
    QTest::ignoreMessage(QtWarningMsg, qPrintable(wrongNumber));
    share(QStringList(QVector<QString>(names, QStringLiteral("a")).toList()), 2);
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("error 1 ") });
}

void tst_DocumentPortal::errorIsPassedOn()
{
    m_daemon->setHandler([](const QDBusMessage &call, const QDBusConnection &connection) {
        connection.send(
            call.createErrorReply(QStringLiteral("org.example.Portal.Full"), QStringLiteral("No more room")));
    });
    QTest::ignoreMessage(
        QtWarningMsg,
        qPrintable(failedToAdd + QLatin1String(R"( "org.example.Portal.Full" "No more room")")));
    share({ QStringLiteral("a") }, 1);
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("error 1 No more room") });
}

void tst_DocumentPortal::absentPortalIsAnError()
{
    m_daemon->leave();
    LogCapture log;
    share({ QStringLiteral("a") }, 1);
    QVERIFY(m_results.isEmpty());
    QTRY_COMPARE(m_results.size(), 1);
    QVERIFY2(
        m_results.first().startsWith(QStringLiteral("error 1 The name %1 was not provided").arg(service)),
        qUtf8Printable(m_results.first()));
    QCOMPARE(log.warnings().size(), 1);
    QVERIFY(log.warnings().first().startsWith(
        failedToAdd + QLatin1String(" \"org.freedesktop.DBus.Error.ServiceUnknown\" ")));
}

void tst_DocumentPortal::portalThatEndsWhileAskedIsAnError()
{
    LogCapture log;
    share({ QStringLiteral("a") }, 1);
    QTRY_COMPARE(m_daemon->calls().size(), 1);
    m_daemon->leave();
    QTRY_COMPARE(m_results.size(), 1);
    QVERIFY(m_results.first().startsWith(QLatin1String("error 1 ")));
    QCOMPARE(log.warnings().size(), 1);
}

void tst_DocumentPortal::answerOfAnotherTypeIsAnError_data()
{
    QTest::addColumn<QVariantList>("answer");
    const QVariant ids = QStringList { QStringLiteral("abc") };
    QTest::newRow("nothing") << QVariantList {};
    QTest::newRow("ids alone") << QVariantList { ids };
    QTest::newRow("one id") << QVariantList { QStringLiteral("abc"), mountedAt("/doc") };
    QTest::newRow("the other way round") << QVariantList { mountedAt("/doc"), ids };
    QTest::newRow("text for the map") << QVariantList { ids, QStringLiteral("/doc") };
}

void tst_DocumentPortal::answerOfAnotherTypeIsAnError()
{
    QFETCH(QVariantList, answer);

    m_daemon->answerWith(answer);
    LogCapture log;
    share({ QStringLiteral("a") }, 1);
    QTRY_COMPARE(m_results.size(), 1);
    QVERIFY2(m_results.first().startsWith(QLatin1String("error 1 Unexpected reply signature")),
             qUtf8Printable(m_results.first()));
    QCOMPARE(log.warnings().size(), 1);
}

void tst_DocumentPortal::oneFileIsTheFirst()
{
    m_daemon->answerWith({ QStringList { QStringLiteral("abc") }, mountedAt("/doc") });
    m_portal->shareFile(QStringLiteral("/x/a"), descriptor(), application, QIODevice::ReadWrite,
                        [this](const QString &path, const Error &error) {
                            QVERIFY(!error);
                            m_results << path;
                        });
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("/doc/by-app/org.example.App/abc/a") });
    QCOMPARE(m_daemon->calls().first().arguments().at(3),
             QVariant(QStringList { QStringLiteral("read"), QStringLiteral("write") }));
}

void tst_DocumentPortal::oneFileFails()
{
    m_daemon->answerWith({ QStringList(), mountedAt("/doc") });
    QTest::ignoreMessage(QtWarningMsg, qPrintable(wrongNumber));
    m_portal->shareFile(QStringLiteral("/x/a"), descriptor(), application, QIODevice::ReadOnly,
                        [this](const QString &path, const Error &error) {
                            QVERIFY(path.isEmpty());
                            QCOMPARE(error.code(), Error::Failed);
                            QCOMPARE(error.message(), QString());
                            m_results << QStringLiteral("failed");
                        });
    QTRY_COMPARE(m_results.size(), 1);
}

void tst_DocumentPortal::answersFindTheirCalls()
{
    m_daemon->setHandler([](const QDBusMessage &, const QDBusConnection &) {});
    share({ QStringLiteral("a") }, 1);
    share({ QStringLiteral("b") }, 1);
    QTRY_COMPARE(m_daemon->calls().size(), 2);
    for (int i : { 1, 0 }) {
        m_daemon->send(m_daemon->calls().at(i).createReply(
            { QStringList { QStringLiteral("id%1").arg(i) }, mountedAt("") }));
        QTRY_COMPARE(m_results.size(), 2 - i);
    }
    QCOMPARE(m_results,
             QStringList({ QStringLiteral("paths /by-app/org.example.App/id1/b"),
                           QStringLiteral("paths /by-app/org.example.App/id0/a") }));
}

void tst_DocumentPortal::noFilesAreAskedForAsWell()
{
    m_daemon->answerWith({ QStringList(), mountedAt("/doc") });
    share({}, 0);
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("paths ") });
    QCOMPARE(m_daemon->calls().first().signature(), QStringLiteral("ahusas"));
}

void tst_DocumentPortal::descriptorsThatCannotBeSentFail_data()
{
    QTest::addColumn<int>("valid");
    QTest::addColumn<int>("invalid");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("message");
    const QString limits = QStringLiteral("org.freedesktop.DBus.Error.LimitsExceeded");
    const QString args = QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs");
    QTest::newRow("one more than a message may have")
        << 17 << 0 << limits << QStringLiteral("Too many file descriptors");
    QTest::newRow("thousands") << 5000 << 0 << limits << QStringLiteral("Too many file descriptors");
    QTest::newRow("none") << 0 << 1 << args << QStringLiteral("Invalid file descriptor");
    QTest::newRow("none among others") << 2 << 1 << args << QStringLiteral("Invalid file descriptor");
}

void tst_DocumentPortal::descriptorsThatCannotBeSentFail()
{
    QFETCH(int, valid);
    QFETCH(int, invalid);
    QFETCH(QString, name);
    QFETCH(QString, message);

    QVector<FileDescriptor> descriptors(valid, descriptor());
    descriptors += QVector<FileDescriptor>(invalid, FileDescriptor());
    QTest::ignoreMessage(QtWarningMsg,
                         qPrintable(QStringLiteral("%1 \"%2\" \"%3\"").arg(failedToAdd, name, message)));
    bool inside = true;
    m_portal->shareFiles({}, descriptors, application, QIODevice::ReadOnly,
                         [&](const QStringList &, const Error &error) {
                             QVERIFY(!inside);
                             m_results << error.message();
                         });
    inside = false;
    QTRY_COMPARE(m_results, QStringList { message });
    QVERIFY(m_daemon->calls().isEmpty());

    // The connection is as good as before, also for as many as there may be.
    m_results.clear();
    m_daemon->answerWith({ QStringList(), mountedAt("/doc") });
    share({}, FileDescriptor::maximumPerMessage);
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("paths ") });
    QCOMPARE(qdbus_cast<QList<QDBusUnixFileDescriptor>>(m_daemon->calls().first().arguments().at(0)).size(),
             FileDescriptor::maximumPerMessage);
}

void tst_DocumentPortal::answerAfterTheEndIsDropped()
{
    m_daemon->setHandler([](const QDBusMessage &, const QDBusConnection &) {});
    share({ QStringLiteral("a") }, 1);
    QTRY_COMPARE(m_daemon->calls().size(), 1);
    m_portal.reset();
    m_daemon->send(m_daemon->calls().first().createReply({ QStringList(), mountedAt("/doc") }));

    // A later call's answer comes behind it.
    m_portal = std::make_unique<DocumentPortal>();
    m_daemon->answerWith({ QStringList { QStringLiteral("abc") }, mountedAt("/doc") });
    share({ QStringLiteral("b") }, 1);
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("paths /doc/by-app/org.example.App/abc/b") });
}

void tst_DocumentPortal::functionMayDeleteThePortal()
{
    m_daemon->answerWith({ QStringList { QStringLiteral("abc") }, mountedAt("/doc") });
    m_portal->shareFile(QStringLiteral("a"), descriptor(), application, QIODevice::ReadOnly,
                        [this](const QString &, const Error &) {
                            m_portal.reset();
                            m_results << QStringLiteral("called");
                        });
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("called") });
}

void tst_DocumentPortal::emptyFunctionsAreAllowed()
{
    const int before = openDescriptors();
    m_daemon->answerWith({ QStringList { QStringLiteral("abc") }, mountedAt("/doc") });
    m_portal->shareFiles({ QStringLiteral("a") }, { descriptor() }, application, QIODevice::ReadOnly, {});
    m_portal->shareFile(QStringLiteral("a"), descriptor(), application, QIODevice::ReadOnly, {});
    share({ QStringLiteral("a") }, 1);
    QTRY_COMPARE(m_results.size(), 1);
    QCOMPARE(m_daemon->calls().size(), 3);
    m_daemon->clearCalls(); // which hold what they got
    QTRY_VERIFY(openDescriptors() <= before);
}

QTEST_GUILESS_MAIN(tst_DocumentPortal)
#include "tst_document_portal.moc"
