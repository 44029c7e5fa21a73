#include "Core/firejail.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

#include <functional>

#include <sys/stat.h>
#include <unistd.h>

// tests/data/firejail/<case>/in.json says what the sandbox is told, which files there are ("files": path to
// content below the root, programs are executable) and which warnings are due; argv.txt holds the vector, an
// element a line with @ROOT@ for the root, and error.txt the message of the error if one is due.
// UPDATE_GOLDEN=1 in the environment rewrites the two.

using Core::Error;
using Core::Firejail;

namespace {

const QByteArray elf("\x7f"
                     "ELF and more");

QStringList strings(const QJsonValue &value)
{
    return value.toVariant().toStringList();
}

QByteArrayList utf8(const QStringList &list)
{
    QByteArrayList result;
    for (const QString &string : list) {
        result << string.toUtf8();
    }
    return result;
}

/// Fills the sandbox by the keys of the object, which are named as the setters' parameters are.
void fill(Firejail &firejail, const QJsonObject &in)
{
    firejail.setProfiles(strings(in[QLatin1String("profiles")]));
    firejail.setOrganizationName(in[QLatin1String("organizationName")].toString());
    firejail.setApplicationName(in[QLatin1String("applicationName")].toString());
    firejail.setCertificateId(in[QLatin1String("certificateId")].toString());
    firejail.setBinaryPath(in[QLatin1String("binaryPath")].toString().toUtf8());
    firejail.setDesktopFile(in[QLatin1String("desktopFile")].toString());
    firejail.setFirejailParams(strings(in[QLatin1String("firejailParams")]));
    QList<int> keepFds;
    const QJsonArray numbers = in[QLatin1String("keepFds")].toArray();
    for (const QJsonValue &number : numbers) {
        keepFds << number.toInt();
    }
    firejail.setKeepFds(keepFds);
    firejail.setDataDirectory(in[QLatin1String("dataDirectory")].toString());
    firejail.setMaemoService(in[QLatin1String("maemoService")].toString());
    firejail.setNoUserBus(in[QLatin1String("noUserBus")].toBool());
    firejail.setLegacy(in[QLatin1String("legacy")].toBool());
    firejail.setDebug(in[QLatin1String("debug")].toBool());
    firejail.setNoHomeDirectories(in[QLatin1String("noHomeDirectories")].toBool());
}

/// @returns a null string if there is no such file.
QString contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

} // namespace

class TestFirejail : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void vectorIsComposedWhole_data();
    void vectorIsComposedWhole();
    void everyCaseHasItsVector();
    void withoutRootPrefixPathsAreTheSystemsOwn();
    void rootPrefixIsThatOfTheConstruction();
    void emptyArgumentListIsRefused();
    void programIsChecked_data();
    void programIsChecked();
    void programThatNobodyReadsIsRefused();
    void fileThatIsNoRegularOneIsRefusedWithoutWaiting();
    void componentTestsSkipTheCheckOfTheFile();
    void defaultProfileBearsTheNameOfTheDesktopFile_data();
    void defaultProfileBearsTheNameOfTheDesktopFile();
    void sandboxMayBeAskedAgain();

private:
    void makeFile(const QString &path, const QByteArray &content, bool executable = false);
    std::unique_ptr<QTemporaryDir> m_root;
};

void TestFirejail::initTestCase()
{
    qunsetenv("PROCWARDEN_COMPONENT_TESTS");
}

void TestFirejail::init()
{
    m_root = std::make_unique<QTemporaryDir>();
    QVERIFY(m_root->isValid());
    qputenv("PROCWARDEN_ROOTFS", QFile::encodeName(m_root->path()));
}

void TestFirejail::makeFile(const QString &path, const QByteArray &content, bool executable)
{
    const QString whole = m_root->path() + path;
    QVERIFY(QDir().mkpath(QFileInfo(whole).path()));
    QFile file(whole);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), qint64(content.size()));
    file.close();
    QVERIFY(file.setPermissions(executable ? QFile::Permissions(0x7755) : QFile::Permissions(0x6644)));
}

void TestFirejail::vectorIsComposedWhole_data()
{
    QTest::addColumn<QString>("directory");
    const QDir cases(QStringLiteral(PROCWARDEN_TEST_DATA "/firejail"));
    const QStringList names = cases.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString &name : names) {
        QTest::newRow(qPrintable(name)) << cases.filePath(name);
    }
}

void TestFirejail::vectorIsComposedWhole()
{
    QFETCH(QString, directory);
    const QJsonDocument document =
        QJsonDocument::fromJson(contentOf(directory + QStringLiteral("/in.json")).toUtf8());
    QVERIFY(document.isObject());
    const QJsonObject in = document.object();
    const QJsonObject files = in[QLatin1String("files")].toObject();
    for (auto file = files.begin(); file != files.end(); ++file) {
        const bool isProgram =
            file.key().contains(QLatin1String("/bin/")) || file.key().contains(QLatin1String("/libexec/"));
        makeFile(file.key(), isProgram ? elf : file.value().toString().toUtf8(), isProgram);
    }
    const QStringList warnings = strings(in[QLatin1String("warnings")]);
    for (const QString &warning : warnings) {
        QTest::ignoreMessage(QtWarningMsg, qPrintable(warning));
    }

    Firejail firejail;
    fill(firejail, in);
    const auto [argv, error] = firejail.computeArgv(utf8(strings(in[QLatin1String("argv")])),
                                                    strings(in[QLatin1String("permissions")]));
    QString actual = QString::fromUtf8(argv.join('\n')) + QLatin1Char('\n');
    actual.replace(m_root->path(), QStringLiteral("@ROOT@"));

    const QString argvFile = directory + QStringLiteral("/argv.txt");
    const QString errorFile = directory + QStringLiteral("/error.txt");
    if (qEnvironmentVariableIsSet("UPDATE_GOLDEN")) {
        QFile golden(argvFile);
        QVERIFY(golden.open(QIODevice::WriteOnly));
        golden.write(actual.toUtf8());
        QFile goldenError(errorFile);
        if (error) {
            QVERIFY(goldenError.open(QIODevice::WriteOnly));
            goldenError.write(error.message().toUtf8() + '\n');
        } else {
            goldenError.remove();
        }
    }
    QCOMPARE(actual.split(QLatin1Char('\n')), contentOf(argvFile).split(QLatin1Char('\n')));
    const QString expectedError = contentOf(errorFile);
    QCOMPARE(error.code(), expectedError.isNull() ? Error::NoError : Error::InvalidArgs);
    QCOMPARE(error.message(), expectedError.chopped(expectedError.endsWith(QLatin1Char('\n')) ? 1 : 0));
}

void TestFirejail::everyCaseHasItsVector()
{
    const QDir cases(QStringLiteral(PROCWARDEN_TEST_DATA "/firejail"));
    const QStringList names = cases.entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    QVERIFY(names.size() >= 20);
    for (const QString &name : names) {
        QVERIFY2(cases.exists(name + QStringLiteral("/argv.txt")), qPrintable(name));
    }
}

void TestFirejail::withoutRootPrefixPathsAreTheSystemsOwn()
{
    qunsetenv("PROCWARDEN_ROOTFS");
    const auto [argv, error] = Firejail().computeArgv({ "/bin/true" }, {});
    QVERIFY(!error);
    QCOMPARE(argv.first(), QByteArray("/usr/bin/firejail"));
}

void TestFirejail::rootPrefixIsThatOfTheConstruction()
{
    const Firejail firejail;
    qunsetenv("PROCWARDEN_ROOTFS");
    makeFile(QStringLiteral("/usr/bin/here-only"), elf, true);
    const auto [argv, error] = firejail.computeArgv({ "/usr/bin/here-only" }, {});
    QVERIFY(!error);
    QCOMPARE(argv.first(), QFile::encodeName(m_root->path()) + "/usr/bin/firejail");
}

void TestFirejail::emptyArgumentListIsRefused()
{
    makeFile(QStringLiteral("/usr/bin/app"), elf, true);
    Firejail firejail;
    firejail.setBinaryPath("/usr/bin/app");
    const auto [argv, error] = firejail.computeArgv({}, { QStringLiteral("Unknown") });
    QCOMPARE(argv, QByteArrayList());
    QCOMPARE(error.code(), Error::InvalidArgs);
    QCOMPARE(error.message(), QStringLiteral("Empty argument list"));
}

void TestFirejail::programIsChecked_data()
{
    QTest::addColumn<QByteArray>("program"); // that of the arguments
    QTest::addColumn<QByteArray>("binary"); // the one set, if any
    QTest::addColumn<bool>("legacy");
    QTest::addColumn<QString>("message"); // empty: it passes
    const QString legacyMessage = QStringLiteral("Legacy apps must be in: /usr/bin");
    const QByteArray none;

    QTest::newRow("program") << QByteArray("/usr/bin/app") << none << false << QString();
    QTest::newRow("program in a place of its own")
        << QByteArray("/usr/libexec/app") << none << false << QString();
    QTest::newRow("relative path") << QByteArray("app") << none << false
                                   << QStringLiteral("app is not an absolute path");
    QTest::newRow("empty path") << none << none << false << QStringLiteral(" is not an absolute path");
    QTest::newRow("relative path of the binary") << QByteArray("/usr/bin/app") << QByteArray("app") << false
                                                 << QStringLiteral("app is not an absolute path");
    QTest::newRow("only the binary is checked")
        << QByteArray("wrapper") << QByteArray("/usr/bin/app") << false << QString();

    QTest::newRow("legacy program") << QByteArray("/usr/bin/app") << none << true << QString();
    QTest::newRow("legacy program in a subdirectory")
        << QByteArray("/usr/bin/sub/app") << none << true << legacyMessage;
    QTest::newRow("legacy program elsewhere")
        << QByteArray("/usr/libexec/app") << none << true << legacyMessage;
    QTest::newRow("legacy program beside the directory")
        << QByteArray("/usr/binapp") << none << true << legacyMessage;
    QTest::newRow("legacy relative path")
        << QByteArray("app") << none << true << QStringLiteral("app is not an absolute path");
    QTest::newRow("legacy binary behind a wrapper")
        << QByteArray("/usr/bin/app") << QByteArray("/usr/bin/sub/app") << true << legacyMessage;
    QTest::newRow("legacy program that is missing") << QByteArray("/usr/bin/missing") << none << true
                                                    << QStringLiteral("/usr/bin/missing is not executable");

    QTest::newRow("missing file") << QByteArray("/usr/bin/missing") << none << false
                                  << QStringLiteral("/usr/bin/missing is not executable");
    QTest::newRow("missing binary") << QByteArray("/usr/bin/app") << QByteArray("/usr/bin/missing") << false
                                    << QStringLiteral("/usr/bin/missing is not executable");
    QTest::newRow("not executable") << QByteArray("/usr/bin/data") << none << false
                                    << QStringLiteral("/usr/bin/data is not executable");
    QTest::newRow("script") << QByteArray("/usr/bin/script") << none << false
                            << QStringLiteral("/usr/bin/script is not an ELF binary");
    QTest::newRow("empty file") << QByteArray("/usr/bin/empty") << none << false
                                << QStringLiteral("/usr/bin/empty is not an ELF binary");
    QTest::newRow("three bytes") << QByteArray("/usr/bin/short") << none << false
                                 << QStringLiteral("/usr/bin/short is not an ELF binary");
    QTest::newRow("four bytes") << QByteArray("/usr/bin/four") << none << false << QString();
    QTest::newRow("lower case letters") << QByteArray("/usr/bin/lower") << none << false
                                        << QStringLiteral("/usr/bin/lower is not an ELF binary");
    QTest::newRow("directory") << QByteArray("/usr/bin") << none << false
                               << QStringLiteral("/usr/bin is not an ELF binary");
    QTest::newRow("link to a program") << QByteArray("/usr/bin/link") << none << false << QString();
    QTest::newRow("broken link") << QByteArray("/usr/bin/broken") << none << false
                                 << QStringLiteral("/usr/bin/broken is not executable");
}

void TestFirejail::programIsChecked()
{
    QFETCH(QByteArray, program);
    QFETCH(QByteArray, binary);
    QFETCH(bool, legacy);
    QFETCH(QString, message);
    for (const char *path : { "/usr/bin/app", "/usr/bin/sub/app", "/usr/libexec/app", "/usr/binapp" }) {
        makeFile(QLatin1String(path), elf, true);
    }
    makeFile(QStringLiteral("/usr/bin/data"), elf);
    makeFile(QStringLiteral("/usr/bin/script"), "#!/bin/sh\n", true);
    makeFile(QStringLiteral("/usr/bin/empty"), "", true);
    makeFile(QStringLiteral("/usr/bin/short"), elf.left(3), true);
    makeFile(QStringLiteral("/usr/bin/four"), elf.left(4), true);
    makeFile(QStringLiteral("/usr/bin/lower"),
             "\x7f"
             "elf",
             true);
    QVERIFY(QFile::link(QStringLiteral("app"), m_root->filePath(QStringLiteral("usr/bin/link"))));
    QVERIFY(QFile::link(QStringLiteral("nowhere"), m_root->filePath(QStringLiteral("usr/bin/broken"))));

    Firejail firejail;
    firejail.setBinaryPath(binary);
    firejail.setLegacy(legacy);
    const auto [argv, error] = firejail.computeArgv({ program }, {});
    QCOMPARE(error.message(), message);
    QCOMPARE(error.code(), message.isEmpty() ? Error::NoError : Error::InvalidArgs);
    QCOMPARE(argv.isEmpty(), !message.isEmpty());
}

void TestFirejail::programThatNobodyReadsIsRefused()
{
    makeFile(QStringLiteral("/usr/bin/app"), elf, true);
    QVERIFY(QFile(m_root->path()).setPermissions(QFile::Permissions(0x7755)));
    QVERIFY(
        QFile(m_root->filePath(QStringLiteral("usr/bin/app"))).setPermissions(QFile::Permissions(0x1111)));
    const uid_t user = ::geteuid();
    if (user == 0) {
        QCOMPARE(::seteuid(65534), 0); // the superuser reads every file
    }
    const auto [argv, error] = Firejail().computeArgv({ "/usr/bin/app" }, {});
    QCOMPARE(::seteuid(user), 0);
    QCOMPARE(argv, QByteArrayList());
    QCOMPARE(error.message(), QStringLiteral("/usr/bin/app is not an ELF binary"));
}

void TestFirejail::fileThatIsNoRegularOneIsRefusedWithoutWaiting()
{
    QVERIFY(QDir(m_root->path()).mkpath(QStringLiteral("usr/bin")));
    const QByteArray fifo = QFile::encodeName(m_root->filePath(QStringLiteral("usr/bin/fifo")));
    QCOMPARE(::mkfifo(fifo.constData(), 0777), 0);
    QCOMPARE(::chmod(fifo.constData(), 0777), 0);
    const auto [argv, error] = Firejail().computeArgv({ "/usr/bin/fifo" }, {});
    QCOMPARE(argv, QByteArrayList());
    QCOMPARE(error.code(), Error::InvalidArgs);
    QCOMPARE(error.message(), QStringLiteral("/usr/bin/fifo is not an ELF binary"));
}

void TestFirejail::componentTestsSkipTheCheckOfTheFile()
{
    qputenv("PROCWARDEN_COMPONENT_TESTS", "");
    QVERIFY(qEnvironmentVariableIsSet("PROCWARDEN_COMPONENT_TESTS"));
    Firejail firejail;
    firejail.setLegacy(true);
    const auto [argv, error] = firejail.computeArgv({ "/nowhere/missing" }, {});
    const auto [relativeArgv, relativeError] = firejail.computeArgv({ "missing" }, {});
    qunsetenv("PROCWARDEN_COMPONENT_TESTS");
    QVERIFY(!error);
    QCOMPARE(argv.last(), QByteArray("/nowhere/missing"));
    QCOMPARE(relativeError.message(), QStringLiteral("missing is not an absolute path"));
    QCOMPARE(relativeArgv, QByteArrayList());
}

void TestFirejail::defaultProfileBearsTheNameOfTheDesktopFile_data()
{
    QTest::addColumn<QString>("desktopFile");
    QTest::addColumn<QString>("profile"); // below the root; empty: none
    QTest::newRow("exists") << QStringLiteral("/usr/share/applications/org.example.Notes.desktop")
                            << QStringLiteral("/etc/sailjail/permissions/org.example.Notes.profile");
    QTest::newRow("elsewhere") << QStringLiteral("/etc/other/org.example.Notes.desktop")
                               << QStringLiteral("/etc/sailjail/permissions/org.example.Notes.profile");
    QTest::newRow("missing") << QStringLiteral("/usr/share/applications/org.example.Other.desktop")
                             << QString();
    QTest::newRow("only as a permission")
        << QStringLiteral("/usr/share/applications/Base.desktop") << QString();
    QTest::newRow("only in the other directory")
        << QStringLiteral("/usr/share/applications/late.desktop") << QString();
    QTest::newRow("no desktop file") << QString() << QString();
}

void TestFirejail::defaultProfileBearsTheNameOfTheDesktopFile()
{
    QFETCH(QString, desktopFile);
    QFETCH(QString, profile);
    makeFile(QStringLiteral("/etc/sailjail/permissions/org.example.Notes.profile"), "");
    makeFile(QStringLiteral("/etc/sailjail/permissions/Base.permission"), "");
    makeFile(QStringLiteral("/var/lib/sailjail/permissions/late.profile"), "");
    Firejail firejail;
    firejail.setDesktopFile(desktopFile);
    QCOMPARE(firejail.defaultProfile(), profile.isEmpty() ? QString() : m_root->path() + profile);
}

void TestFirejail::sandboxMayBeAskedAgain()
{
    makeFile(QStringLiteral("/usr/bin/app"), elf, true);
    makeFile(QStringLiteral("/etc/sailjail/permissions/Base.permission"), "");
    const Firejail firejail;
    const auto [first, firstError] =
        firejail.computeArgv({ "/usr/bin/app", "a" }, { QStringLiteral("Base") });
    const auto [second, secondError] = firejail.computeArgv({ "/usr/bin/app" }, {});
    const auto [third, thirdError] =
        firejail.computeArgv({ "/usr/bin/app", "a" }, { QStringLiteral("Base") });
    QVERIFY(!firstError && !secondError && !thirdError);
    QCOMPARE(third, first);
    QCOMPARE(second.size(), first.size() - 2);
}

QTEST_GUILESS_MAIN(TestFirejail)

#include "tst_firejail.moc"
