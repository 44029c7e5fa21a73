#include "check/finding.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

#include "../common/Core/catalogue_fixture.h"

namespace {

const QDir cases(QStringLiteral(PROCWARDEN_TEST_DATA "/ctl/check"));
const QString expectedName = QStringLiteral("expected.txt");

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

struct Result
{
    QByteArray out;
    QByteArray error;
    int status = -1;
};

/// @param directory where relative names of files begin
Result run(const QStringList &arguments, const QString &directory,
           const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setWorkingDirectory(directory);
    process.start(QStringLiteral(PROCWARDEN_BIN_DIR "/procwardenctl"),
                  QStringList(QStringLiteral("check")) + arguments);
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit) {
        return { {}, "it does not end by itself", -1 };
    }
    return { process.readAllStandardOutput(), process.readAllStandardError(), process.exitCode() };
}

QStringList inputsOf(const QDir &directory)
{
    QStringList inputs = directory.entryList(QDir::Files | QDir::Hidden, QDir::Name);
    inputs.removeAll(expectedName);
    return inputs;
}

} // namespace

/// What "procwardenctl check" prints of files, letter by letter: tests/data/ctl/check/<case>/ has the files
/// and what is expected of them. UPDATE_GOLDEN=1 rewrites that.
class CheckTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void findingsAreThoseExpected_data();
    void findingsAreThoseExpected();
    void everyRuleIsInSomeCase();
    void everyRuleIsInTheManual();
    void statusTellsWhatWasFound_data();
    void statusTellsWhatWasFound();
    void jsonHasTheSameFindings();
    void rulesAreListed();
    void shippedFilesAreClean();
    void samplesHaveNoErrors();
    void whatIsNoFileIsToldOfAtOnce();
    void veryManyLinesAreToldOfSoon();
    void installedFilesAreFoundAndComparedWithEachOther();

private:
    void installSystem();

    CatalogueFixture m_fixture;
};

/// What the cases refer to: programs, permissions, intents.
void CheckTest::installSystem()
{
    const auto program = [this](const char *name, const QByteArray &content, bool isExecutable) {
        const QString path = m_fixture.write(QStringLiteral("root/usr/bin/") + QLatin1String(name), content);
        QFile::setPermissions(path,
                              isExecutable ? QFile::ReadOwner | QFile::ExeOwner | QFile::ExeUser
                                           : QFile::Permissions(QFile::ReadOwner));
    };
    program("notes",
            "\x7f"
            "ELF",
            true);
    program("notes-sync",
            "\x7f"
            "ELF",
            true);
    program("script", "#!/bin/sh\n", true);
    program("plain",
            "\x7f"
            "ELF",
            false);
    for (const char *permission : { "Base", "BaseTask", "Internet", "Audio" }) {
        m_fixture.write(
            QStringLiteral("root/etc/sailjail/permissions/%1.permission").arg(QLatin1String(permission)), "");
    }
    for (const char *intent : { "OpenURI", "Share" }) {
        m_fixture.write(QStringLiteral("two/procwarden/intents/%1.intent").arg(QLatin1String(intent)), "{}");
    }
    m_fixture.write(QStringLiteral("two/dbus-1/services/org.example.Legacy.service"),
                    "[D-BUS Service]\nName=org.example.Legacy\nExec=/usr/bin/notes\n");
    m_fixture.write(QStringLiteral("two/dbus-1/services/org.example.Empty.service"), "[D-BUS Service]\n");
}

void CheckTest::initTestCase()
{
    qputenv("LC_ALL", "C.UTF-8");
    installSystem();
    QVERIFY(QFile::exists(QStringLiteral(PROCWARDEN_BIN_DIR "/procwardenctl")));
}

void CheckTest::findingsAreThoseExpected_data()
{
    QTest::addColumn<QString>("name");
    const QStringList names = cases.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    QVERIFY(!names.isEmpty());
    for (const QString &name : names) {
        QTest::newRow(qUtf8Printable(name)) << name;
    }
}

void CheckTest::findingsAreThoseExpected()
{
    QFETCH(QString, name);
    const QDir directory(cases.filePath(name));
    Result result = run(inputsOf(directory), directory.path());
    result.out.replace(m_fixture.path(QString()).toUtf8(), "SYSTEM/");
    QCOMPARE(QString::fromUtf8(result.error), QString());
    const QString path = directory.filePath(expectedName);
    if (qEnvironmentVariableIsSet("UPDATE_GOLDEN")) {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(result.out), qint64(result.out.size()));
    }
    QCOMPARE(QString::fromUtf8(result.out), QString::fromUtf8(contentOf(path)));
    const bool isFaulty = result.out.contains(": error: ") || result.out.contains(": warning: ");
    QCOMPARE(result.status, isFaulty ? 1 : 0);
}

/// But for those that no file in a repository can have.
void CheckTest::everyRuleIsInSomeCase()
{
    QSet<QString> missing;
    for (const Ctl::Check::RuleInfo &rule : Ctl::Check::rules()) {
        missing.insert(QLatin1String(rule.name));
    }
    QByteArray text = contentOf(QStringLiteral(PROCWARDEN_TEST_DATA "/ctl/check_installed.txt"));
    const QStringList names = cases.entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        text += contentOf(QDir(cases.filePath(name)).filePath(expectedName));
    }
    static const QRegularExpression rule(QStringLiteral(" \\[([a-z-]+)\\]$"),
                                         QRegularExpression::MultilineOption);
    for (auto matches = rule.globalMatch(QString::fromUtf8(text)); matches.hasNext();) {
        missing.remove(matches.next().captured(1));
    }
    const QSet<QString> elsewhere { QStringLiteral("unreadable"), QStringLiteral("not-regular"),
                                    QStringLiteral("too-large") };
    QCOMPARE(missing, elsewhere);
}

void CheckTest::everyRuleIsInTheManual()
{
    const QString page =
        QString::fromUtf8(contentOf(QStringLiteral(PROCWARDEN_MANUAL_DIR "/procwardenctl.1")))
            .replace(QLatin1String("\\-"), QLatin1String("-"));
    for (const Ctl::Check::RuleInfo &rule : Ctl::Check::rules()) {
        const QString entry = QStringLiteral(".TP\n.BR %1 \" (%2)\"\n%3.\n")
                                  .arg(QLatin1String(rule.name), Ctl::Check::severityName(rule.severity),
                                       QLatin1String(rule.summary));
        QVERIFY2(page.contains(entry), qUtf8Printable(entry));
    }
}

void CheckTest::statusTellsWhatWasFound_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("last");
    const auto args = [](const char *text) {
        return QString::fromLatin1(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
    };
    QTest::newRow("nothing") << args("clean.desktop") << 0 << QByteArray("1 file: nothing found\n");
    QTest::newRow("notes only") << args("note.desktop") << 0 << QByteArray("1 file: 1 note\n");
    QTest::newRow("notes count") << args("--strict note.desktop") << 1 << QByteArray("1 file: 1 note\n");
    QTest::newRow("notes are left out")
        << args("--quiet note.desktop") << 0 << QByteArray("1 file: nothing found\n");
    QTest::newRow("notes are left out and do not count")
        << args("-q --strict note.desktop") << 0 << QByteArray("1 file: nothing found\n");
    QTest::newRow("a warning") << args("warning.desktop note.desktop") << 1
                               << QByteArray("2 files: 1 warning, 1 note\n");
    QTest::newRow("a file that is not there") << args("gone.desktop") << 1 << QByteArray("1 file: 1 error\n");
    QTest::newRow("kind of a file without a name")
        << args("--type desktop clean") << 1 << QByteArray("1 file: 1 error, 1 warning\n");
    QTest::newRow("kind by the contents") << args("clean") << 1 << QByteArray("1 file: 1 error, 1 warning\n");
    QTest::newRow("no kind") << args("--type frob clean.desktop") << 2 << QByteArray();
    QTest::newRow("no option") << args("--frob clean.desktop") << 2 << QByteArray();
}

void CheckTest::statusTellsWhatWasFound()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, status);
    QFETCH(QByteArray, last);
    const QByteArray clean("[Desktop Entry]\nName=Notes\nExec=notes\n"
                           "[X-Sailjail]\nOrganizationName=org.example\nApplicationName=Notes\n");
    m_fixture.write(QStringLiteral("files/clean.desktop"), clean);
    m_fixture.write(QStringLiteral("files/clean"), "[Desktop Entry]\nName=Notes\nExec=notes\n");
    m_fixture.write(QStringLiteral("files/note.desktop"), clean + "Permissions=Base\n");
    m_fixture.write(QStringLiteral("files/warning.desktop"), clean + "Sandboxing=disabled\n");
    const Result result = run(arguments, m_fixture.path(QStringLiteral("files")));
    QVERIFY2(result.out.endsWith(last), result.out.constData());
    QCOMPARE(result.status, status);
    QCOMPARE(result.error.isEmpty(), status != 2);
}

void CheckTest::jsonHasTheSameFindings()
{
    m_fixture.write(QStringLiteral("files/a.desktop"),
                    "[Desktop Entry]\nName=A\nExec=notes\n[X-Sailjail]\nOrganizationName=org.example\n"
                    "ApplicationName=A\nSandboxing=disabled\n");
    const Result result = run({ QStringLiteral("--json"), QStringLiteral("a.desktop") },
                              m_fixture.path(QStringLiteral("files")));
    QCOMPARE(result.status, 1);
    const QJsonObject report = QJsonDocument::fromJson(result.out).object();
    QCOMPARE(report.value(QLatin1String("Files")).toInt(), 1);
    QCOMPARE(report.value(QLatin1String("Errors")).toInt(-1), 0);
    QCOMPARE(report.value(QLatin1String("Warnings")).toInt(), 1);
    QCOMPARE(report.value(QLatin1String("Notes")).toInt(-1), 0);
    const QJsonObject expected {
        { QStringLiteral("File"), QStringLiteral("a.desktop") },
        { QStringLiteral("Line"), 7 },
        { QStringLiteral("Severity"), QStringLiteral("warning") },
        { QStringLiteral("Group"), QStringLiteral("X-Sailjail") },
        { QStringLiteral("Key"), QStringLiteral("Sandboxing") },
        { QStringLiteral("Text"),
          QStringLiteral("Sandboxing=disabled does nothing: only \"Disabled\" counts, and the application is "
                         "sandboxed") },
        { QStringLiteral("Rule"), QStringLiteral("sandboxing") },
    };
    QCOMPARE(report.value(QLatin1String("Findings")).toArray(), QJsonArray { expected });
}

void CheckTest::rulesAreListed()
{
    const Result result = run({ QStringLiteral("--rules"), QStringLiteral("--json") }, QDir::rootPath());
    QCOMPARE(result.status, 0);
    const QJsonArray listed = QJsonDocument::fromJson(result.out).array();
    QCOMPARE(listed.size(), Ctl::Check::rules().size());
    for (int i = 0; i < listed.size(); ++i) {
        QCOMPARE(listed.at(i).toObject().value(QLatin1String("Rule")).toString(),
                 QLatin1String(Ctl::Check::rules().at(i).name));
    }
    QVERIFY(run({ QStringLiteral("--rules") }, QDir::rootPath()).out.startsWith("RULE "));
}

void CheckTest::shippedFilesAreClean()
{
    QStringList files { QStringLiteral("oom.cfg"), QStringLiteral("tasks.cfg"),
                        QStringLiteral("os-version-support.cfg") };
    const QDir data(QStringLiteral(PROCWARDEN_DATA_DIR));
    for (const char *directory : { "states", "intents" }) {
        const QString name = QLatin1String(directory);
        const QStringList names = QDir(data.filePath(name)).entryList(QDir::Files);
        QVERIFY(!names.isEmpty());
        for (const QString &file : names) {
            files.append(name + QLatin1Char('/') + file);
        }
    }
    const Result result = run(QStringList(QStringLiteral("--strict")) + files, data.path());
    QCOMPARE(result.out, QStringLiteral("%1 files: nothing found\n").arg(files.size()).toUtf8());
    QCOMPARE(result.status, 0);
}

/// Those of other tests, which are installed nowhere.
void CheckTest::samplesHaveNoErrors()
{
    const QDir samples(QStringLiteral(PROCWARDEN_TEST_DATA "/regular_application"));
    QStringList files { QStringLiteral(PROCWARDEN_TEST_DATA "/../../docs/examples/intents/example.desktop") };
    const QStringList names = samples.entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        files.append(samples.filePath(name + QStringLiteral("/in.desktop")));
    }
    QVERIFY(files.size() > 5);
    const Result result = run(files, samples.path());
    QVERIFY2(!result.out.contains(": error: "), result.out.constData());
}

void CheckTest::whatIsNoFileIsToldOfAtOnce()
{
    const QString directory = m_fixture.path(QStringLiteral("odd"));
    m_fixture.write(QStringLiteral("odd/big.desktop"), QByteArray(10 * 1024 * 1024, '\n'));
    QVERIFY(QDir(directory).mkdir(QStringLiteral("directory.desktop")));
    for (const char *name : { "fifo.desktop", "fifo.intent", "fifo.config", "oom.cfg", "fifo" }) {
        QCOMPARE(
            ::mkfifo(QFile::encodeName(directory + QLatin1Char('/') + QLatin1String(name)).constData(), 0600),
            0);
    }
    QVERIFY(QFile::link(QStringLiteral("loop.desktop"), directory + QStringLiteral("/loop.desktop")));
    const Result result =
        run({ QStringLiteral("big.desktop"), QStringLiteral("directory.desktop"),
              QStringLiteral("fifo.desktop"), QStringLiteral("fifo.intent"), QStringLiteral("fifo.config"),
              QStringLiteral("oom.cfg"), QStringLiteral("fifo"), QStringLiteral("loop.desktop") },
            directory);
    QCOMPARE(
        QString::fromUtf8(result.out),
        QStringLiteral("big.desktop: error: has 10485760 bytes; no more than 1048576 are read [too-large]\n"
                       "directory.desktop: error: is a directory, and is not read [not-regular]\n"
                       "fifo.desktop: error: is no regular file, and is not read [not-regular]\n"
                       "fifo.intent: error: is no regular file, and is not read [not-regular]\n"
                       "fifo.config: error: is no regular file, and is not read [not-regular]\n"
                       "oom.cfg: error: is no regular file, and is not read [not-regular]\n"
                       "fifo: error: cannot be read: No such device or address [unreadable]\n"
                       "loop.desktop: error: cannot be read: Too many levels of symbolic links [unreadable]\n"
                       "8 files: 8 errors\n"));
    QCOMPARE(result.status, 1);
    if (::geteuid() != 0) {
        const QString secret = m_fixture.write(QStringLiteral("odd/secret.desktop"), "[Desktop Entry]\n");
        QFile::setPermissions(secret, QFile::Permissions());
        QVERIFY(run({ secret }, directory).out.contains("cannot be read: Permission denied [unreadable]"));
    }
}

/// It must not take time in proportion to their square: that would be an hour, and not some seconds.
void CheckTest::veryManyLinesAreToldOfSoon()
{
    QByteArray desktop("[Desktop Entry]\n");
    QByteArray state("[Backend settings]\n");
    QByteArray intent("{\"hints\": {");
    for (int i = 0; i < 20000; ++i) {
        const QByteArray number = QByteArray::number(i);
        desktop += "[X-Task a" + number + "]\nX-Key" + number + "=1\n";
        state += "cgroup1.a.b" + number + "=1\n";
        intent += "\"k" + number + "\": 1,";
    }
    m_fixture.write(QStringLiteral("many/a.desktop"), desktop);
    m_fixture.write(QStringLiteral("many/hidden.config"), state);
    m_fixture.write(QStringLiteral("many/A.intent"), intent + "\"k\": 1}}");
    const Result result =
        run({ QStringLiteral("a.desktop"), QStringLiteral("hidden.config"), QStringLiteral("A.intent") },
            m_fixture.path(QStringLiteral("many")));
    QVERIFY2(result.out.endsWith("notes\n"), result.error.constData());
    QCOMPARE(result.status, 1);
}

void CheckTest::installedFilesAreFoundAndComparedWithEachOther()
{
    const QByteArray notes(
        "[Desktop Entry]\nName=Notes\nExec=gone\n[X-Sailjail]\nOrganizationName=org.example\n"
        "ApplicationName=Notes\n");
    const auto write = [this](const char *path, const QByteArray &content) {
        m_fixture.write(QStringLiteral("system/") + QLatin1String(path), content);
    };
    write("home/applications/notes.desktop", notes);
    write("home/applications/kde/other.desktop", "x");
    write("home/applications/readme.txt", "x");
    write("share/applications/org.example.Notes.desktop", notes);
    write("share/applications/same.desktop", notes);
    write("home/procwarden/states/hidden.config",
          "ApplyWithDelay=100\n[Backend settings]\ncgroup1.cpu.shares=5\n");
    write("share/procwarden/states/hidden.config", "[Backend settings]\ncgroup1.cpu.shares=6\n");
    write("share/procwarden/states/active.config",
          "ApplyWithDelay=200\n[Backend settings]\ncgroup1.cpu.shares=7\ncgroup1.freezer.state=THAWED\n");
    write("home/procwarden/intents/OpenURI.intent", "{}");
    write("share/procwarden/intents/Share.intent", "{}");
    write("root/etc/procwarden/oom.cfg", "LowMemoryTermMB=x\n");
    write("root/etc/procwarden/tasks.cfg", "MaxTasksPerApp=0\n");
    write("root/etc/procwarden/os-version-support.cfg", "[Applications]\norg*=4.2.0\n");
    write("root/opt/app/org.example.Notes/current/manifest.json", "[]");
    write("root/opt/app/org.example.Notes/current/solvane.pkg", "");
    const QString system = m_fixture.path(QStringLiteral("system"));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_DATA_HOME"), system + QStringLiteral("/home"));
    environment.insert(QStringLiteral("XDG_DATA_DIRS"), system + QStringLiteral("/share"));
    environment.insert(QStringLiteral("PROCWARDEN_ROOTFS"), system + QStringLiteral("/root"));
    Result result = run({}, QDir::rootPath(), environment);
    QCOMPARE(QString::fromUtf8(result.error), QString());
    result.out.replace(system.toUtf8(), "SYSTEM");
    const QString path = QStringLiteral(PROCWARDEN_TEST_DATA "/ctl/check_installed.txt");
    if (qEnvironmentVariableIsSet("UPDATE_GOLDEN")) {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(result.out), qint64(result.out.size()));
    }
    QCOMPARE(QString::fromUtf8(result.out), QString::fromUtf8(contentOf(path)));
    QCOMPARE(result.status, 1);
    const Result states =
        run({ QStringLiteral("--type"), QStringLiteral("state") }, QDir::rootPath(), environment);
    QVERIFY(states.out.contains("\n3 files: "));
    QVERIFY(!states.out.contains(".desktop"));
}

QTEST_GUILESS_MAIN(CheckTest)

#include "tst_check.moc"
