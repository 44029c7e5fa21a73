#include "check/finding.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

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
Result run(const QStringList &arguments, const QString &directory)
{
    QProcess process;
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
    const QStringList names = cases.entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        const QString text = QString::fromUtf8(contentOf(QDir(cases.filePath(name)).filePath(expectedName)));
        static const QRegularExpression rule(QStringLiteral(" \\[([a-z-]+)\\]$"),
                                             QRegularExpression::MultilineOption);
        for (auto matches = rule.globalMatch(text); matches.hasNext();) {
            missing.remove(matches.next().captured(1));
        }
    }
    const QSet<QString> elsewhere { QStringLiteral("unreadable"),   QStringLiteral("not-regular"),
                                    QStringLiteral("too-large"),    QStringLiteral("program-missing"),
                                    QStringLiteral("duplicate-id"), QStringLiteral("overridden"),
                                    QStringLiteral("state-files"),  QStringLiteral("hidden-directory") };
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

QTEST_GUILESS_MAIN(CheckTest)

#include "tst_check.moc"
