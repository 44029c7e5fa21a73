// The document portal itself, as Debian has it: it needs a /dev/fuse that the user of the test can open.

#include "Core/document_portal.h"
#include "Core/file_descriptor.h"
#include "Core/intent_files.h"

#include "support/log_capture.h"
#include "support/private_bus.h"

#include <QDBusConnectionInterface>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

using namespace Core;
using namespace TestSupport;

namespace {

const QString target = QStringLiteral("org.example.App");

class OpenFile
{
public:
    explicit OpenFile(int descriptor)
        : m_descriptor(descriptor)
    {
    }
    OpenFile(const QString &path, int flags)
        : OpenFile(open(QFile::encodeName(path).constData(), flags | O_CLOEXEC, 0600))
    {
    }
    ~OpenFile() { close(m_descriptor); }
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;

    FileDescriptor shared() const { return FileDescriptor(m_descriptor); }

private:
    const int m_descriptor;
};

QByteArray contentsOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("cannot be read");
}

bool append(const QString &path, const QByteArray &text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::ExistingOnly)
        && file.write(text) == text.size();
}

// Ends with the test, however that ends.
class Program : public QProcess
{
protected:
    void setupChildProcess() override { prctl(PR_SET_PDEATHSIG, SIGKILL); }
};

int openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::AllEntries | QDir::System).size();
}

} // namespace

class tst_DocumentPortalReal : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();

    void sharedFileIsReadUnderItsPath();
    void writingThroughThePathChangesTheFile();
    void pathEndsInTheGivenName();
    void filesOfAnIntentAreShared();
    void sameFileIsTheSameDocument();
    void whatIsNoFileIsRefused_data();
    void whatIsNoFileIsRefused();
    void applicationThatReachesTheFileKeepsItsName();
    void noDescriptorIsLeftOpen();

private:
    struct Outcome
    {
        QString path;
        Error error;
    };

    Outcome share(const QString &name, const FileDescriptor &fd, QIODevice::OpenMode mode);
    void startProgram(Program &process, const QString &program, const QString &service);
    QString file(const char *name, const QByteArray &contents);

    QTemporaryDir m_directory;
    PrivateBus m_bus;
    Program m_permissionStore;
    Program m_portal;
};

void tst_DocumentPortalReal::initTestCase()
{
    const OpenFile fuse(QStringLiteral("/dev/fuse"), O_RDWR);
    if (!fuse.shared().isValid()) {
        QSKIP("/dev/fuse cannot be opened");
    }
    if (!QFile::exists(QStringLiteral("/usr/libexec/xdg-document-portal"))) {
        QSKIP("there is no document portal");
    }
    // What is mounted goes with this process, however it ends. Only root can do that.
    if (unshare(CLONE_NEWNS) == 0) {
        QCOMPARE(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    }
    for (const char *name : { "run", "data", "bin" }) {
        QVERIFY(QDir(m_directory.path()).mkdir(QLatin1String(name)));
    }
    m_bus.useAsSessionBus();
    qputenv("XDG_RUNTIME_DIR", m_directory.filePath(QStringLiteral("run")).toUtf8());
    qputenv("XDG_DATA_HOME", m_directory.filePath(QStringLiteral("data")).toUtf8());
    qputenv("HOME", m_directory.path().toUtf8());
    qputenv("PATH", m_directory.filePath(QStringLiteral("bin")).toUtf8() + ':' + qgetenv("PATH"));

    startProgram(m_permissionStore, QStringLiteral("/usr/libexec/xdg-permission-store"),
                 QStringLiteral("org.freedesktop.impl.portal.PermissionStore"));
    startProgram(m_portal, QStringLiteral("/usr/libexec/xdg-document-portal"),
                 QStringLiteral("org.freedesktop.portal.Documents"));
}

void tst_DocumentPortalReal::cleanupTestCase()
{
    for (Program *process : { &m_portal, &m_permissionStore }) {
        if (process->state() != QProcess::NotRunning) {
            process->terminate(); // at which the portal unmounts
            QVERIFY(process->waitForFinished());
        }
    }
}

void tst_DocumentPortalReal::init()
{
    if (m_portal.state() != QProcess::Running) {
        QFAIL("the portal has ended");
    }
}

void tst_DocumentPortalReal::startProgram(Program &process, const QString &program, const QString &service)
{
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start(program, QStringList());
    QVERIFY(process.waitForStarted());
    QTRY_VERIFY_WITH_TIMEOUT(QDBusConnection::sessionBus().interface()->isServiceRegistered(service), 20000);
}

QString tst_DocumentPortalReal::file(const char *name, const QByteArray &contents)
{
    const QString path = m_directory.filePath(QLatin1String(name));
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size() ? path : QString();
}

tst_DocumentPortalReal::Outcome tst_DocumentPortalReal::share(const QString &name, const FileDescriptor &fd,
                                                              QIODevice::OpenMode mode)
{
    DocumentPortal portal;
    std::unique_ptr<Outcome> outcome;
    portal.shareFile(name, fd, target, mode, [&](const QString &path, const Error &error) {
        outcome = std::make_unique<Outcome>(Outcome { path, error });
    });
    if (!QTest::qWaitFor([&] { return outcome != nullptr; }, 20000)) {
        return { QString(), Error(Error::Failed, QStringLiteral("no answer")) };
    }
    return *outcome;
}

void tst_DocumentPortalReal::sharedFileIsReadUnderItsPath()
{
    const QString path = file("read.txt", "read me");
    const OpenFile open(path, O_RDONLY);
    const Outcome outcome = share(path, open.shared(), QIODevice::ReadOnly);
    QVERIFY2(!outcome.error, qUtf8Printable(outcome.error.message()));
    const QString start = m_directory.filePath(QStringLiteral("run/doc/by-app/org.example.App/"));
    QVERIFY2(outcome.path.startsWith(start) && outcome.path.endsWith(QLatin1String("/read.txt")),
             qUtf8Printable(outcome.path));
    QCOMPARE(contentsOf(outcome.path), QByteArray("read me"));
    QVERIFY(!append(outcome.path, "more"));
    QCOMPARE(contentsOf(path), QByteArray("read me"));
}

void tst_DocumentPortalReal::writingThroughThePathChangesTheFile()
{
    const QString path = file("write.txt", "before");
    const OpenFile open(path, O_RDWR);
    const Outcome outcome = share(path, open.shared(), QIODevice::ReadWrite);
    QVERIFY2(!outcome.error, qUtf8Printable(outcome.error.message()));
    QCOMPARE(contentsOf(outcome.path), QByteArray("before"));
    QVERIFY(append(outcome.path, " and after"));
    QCOMPARE(contentsOf(path), QByteArray("before and after"));
}

void tst_DocumentPortalReal::pathEndsInTheGivenName()
{
    // The name that the caller gives decides nothing but the end of the path: with another one than the
    // file's, nothing is there.
    const QString path = file("named.txt", "contents");
    const OpenFile open(path, O_RDONLY);
    const Outcome outcome = share(QStringLiteral("/elsewhere/other.txt"), open.shared(), QIODevice::ReadOnly);
    QVERIFY(!outcome.error);
    QVERIFY(outcome.path.endsWith(QLatin1String("/other.txt")));
    QVERIFY(!QFile::exists(outcome.path));
    QCOMPARE(
        contentsOf(QString(outcome.path).replace(QLatin1String("/other.txt"), QLatin1String("/named.txt"))),
        QByteArray("contents"));
}

void tst_DocumentPortalReal::filesOfAnIntentAreShared()
{
    const QString one = file("one.txt", "1");
    const QString two = file("two ä.txt", "2");
    const QString three = file("three.txt", "3");
    const OpenFile openOne(one, O_RDONLY);
    const OpenFile openTwo(two, O_RDONLY);
    const OpenFile openThree(three, O_RDWR);
    const QJsonObject data { { QStringLiteral("in"),
                               QJsonArray { one, QUrl::fromLocalFile(two).toString() } },
                             { QStringLiteral("out"), three } };
    const QVariantMap hints {
        { QStringLiteral("readFds"),
          QVariant::fromValue(QVector<FileDescriptor> { openOne.shared(), openTwo.shared() }) },
        { QStringLiteral("readFiles"), QStringList { QStringLiteral("in[*]") } },
        { QStringLiteral("writeFds"), QVariant::fromValue(QVector<FileDescriptor> { openThree.shared() }) },
        { QStringLiteral("writeFiles"), QStringList { QStringLiteral("out") } }
    };
    QJsonObject shared;
    IntentUtils::shareFiles(data, hints, target,
                            [&](const QJsonObject &newData, const QStringList &paths, const Error &error) {
                                QVERIFY2(!error, qUtf8Printable(error.message()));
                                QCOMPARE(paths.size(), 3);
                                shared = newData;
                            });
    QTRY_VERIFY_WITH_TIMEOUT(!shared.isEmpty(), 20000);
    const QJsonArray in = shared.value(QLatin1String("in")).toArray();
    QCOMPARE(contentsOf(in.at(0).toString()), QByteArray("1"));
    QCOMPARE(contentsOf(in.at(1).toString()), QByteArray("2"));
    const QString out = shared.value(QLatin1String("out")).toString();
    QVERIFY(append(out, "+"));
    QCOMPARE(contentsOf(three), QByteArray("3+"));
}

void tst_DocumentPortalReal::sameFileIsTheSameDocument()
{
    const QString path = file("same.txt", "same");
    const OpenFile first(path, O_RDONLY);
    const OpenFile second(path, O_RDONLY);
    const Outcome one = share(path, first.shared(), QIODevice::ReadOnly);
    const Outcome other = share(path, second.shared(), QIODevice::ReadOnly);
    QVERIFY(!one.error);
    QCOMPARE(other.path, one.path);
}

void tst_DocumentPortalReal::whatIsNoFileIsRefused_data()
{
    QTest::addColumn<QString>("kind");
    for (const char *kind : { "directory", "pipe", "socket", "device", "deleted", "none" }) {
        QTest::newRow(kind) << QString::fromLatin1(kind);
    }
}

void tst_DocumentPortalReal::whatIsNoFileIsRefused()
{
    QFETCH(QString, kind);

    int descriptor = -1;
    int other = -1;
    if (kind == QLatin1String("directory")) {
        descriptor = open("/tmp", O_RDONLY | O_CLOEXEC);
    } else if (kind == QLatin1String("pipe")) {
        int ends[2];
        QCOMPARE(pipe(ends), 0);
        descriptor = ends[0];
        other = ends[1];
    } else if (kind == QLatin1String("socket")) {
        descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    } else if (kind == QLatin1String("device")) {
        descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    } else if (kind == QLatin1String("deleted")) {
        const QString path = file("deleted.txt", "gone");
        descriptor = open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
        QVERIFY(QFile::remove(path));
    }
    const OpenFile first(descriptor);
    const OpenFile second(other);
    const LogCapture log;
    const Outcome outcome = share(QStringLiteral("/a"), first.shared(), QIODevice::ReadOnly);
    QCOMPARE(outcome.error.code(), Error::Failed);
    QVERIFY(!outcome.error.message().isEmpty());
    QVERIFY(outcome.error.message() != QLatin1String("no answer"));
    QVERIFY(outcome.path.isEmpty());
    QCOMPARE(log.warnings().size(), 1);
}

void tst_DocumentPortalReal::applicationThatReachesTheFileKeepsItsName()
{
    // The portal asks this program which files an application can reach by itself. Only here: while it waits
    // for the answer, a second call would make it wait for itself.
    QFile flatpak(m_directory.filePath(QStringLiteral("bin/flatpak")));
    QVERIFY(flatpak.open(QIODevice::WriteOnly));
    flatpak.write("#!/bin/sh\ncase $* in *reachable*) echo read-write ;; *) echo hidden ;; esac\n");
    flatpak.close();
    QVERIFY(flatpak.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));

    const QString path = file("reachable.txt", "reached");
    const OpenFile open(path, O_RDONLY);
    const Outcome outcome = share(path, open.shared(), QIODevice::ReadOnly);
    QVERIFY(flatpak.remove());
    QVERIFY(!outcome.error);
    QCOMPARE(outcome.path, path);
}

void tst_DocumentPortalReal::noDescriptorIsLeftOpen()
{
    const QString path = file("counted.txt", "counted");
    const int before = openDescriptors();
    for (int i = 0; i < 50; ++i) {
        const OpenFile open(path, O_RDONLY);
        const Outcome outcome = share(path, open.shared(), QIODevice::ReadOnly);
        QVERIFY(!outcome.error);
    }
    QTRY_VERIFY(openDescriptors() <= before);
}

QTEST_GUILESS_MAIN(tst_DocumentPortalReal)
#include "tst_document_portal_real.moc"
