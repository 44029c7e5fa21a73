#include "check/key_lines.h"
#include "check/kinds.h"

#include "Core/application_registry.h"
#include "Core/command_line.h"
#include "Core/condition_builder.h"
#include "Core/condition_watcher.h"

#include "support/log_capture.h"

#include <QRegularExpression>
#include <QTest>
#include <QUrl>

#include "../common/Core/catalogue_fixture.h"
#include "check_samples.h"

#include <mdesktopentry.h>

#include <algorithm>

using Ctl::Check::Finding;
using Ctl::Check::Rule;
using TestSupport::LogCapture;

namespace {

const QByteArray idGroup("[X-Sailjail]\nOrganizationName=org.example\nApplicationName=Notes\n");

} // namespace

/// What check says of a desktop file against what the service's own readers make of it.
class CheckReadersTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void desktopLinesAreThoseOfTheReader();
    void escapesAreReadAsTold_data();
    void escapesAreReadAsTold();
    void switchesAreReadAsTold_data();
    void switchesAreReadAsTold();
    void taskNamesAreReadAsTold_data();
    void taskNamesAreReadAsTold();
    void conditionsAreTakenAsTold_data();
    void conditionsAreTakenAsTold();
    void typesAreMatchedAsTold_data();
    void typesAreMatchedAsTold();
    void fieldCodesAreReplacedAsTold_data();
    void fieldCodesAreReplacedAsTold();
    void laterFileOfAnIdCounts();

private:
    QString writeNotes(const QByteArray &main, const QByteArray &more = {}) const
    {
        return m_fixture.write(QStringLiteral("one/applications/org.example.Notes.desktop"),
                               "[Desktop Entry]\nName=Notes\nExec=notes\n" + main + idGroup + more);
    }

    CatalogueFixture m_fixture;
};

void CheckReadersTest::initTestCase()
{
    QCoreApplication::setApplicationName(QStringLiteral("procwarden"));
    qputenv("LC_ALL", "C.UTF-8");
}

void CheckReadersTest::init()
{
    m_fixture.clear();
}

void CheckReadersTest::desktopLinesAreThoseOfTheReader()
{
    const QList<QByteArray> pieces {
        "[Desktop Entry]\n",
        "[Desktop Entry]\n",
        "[X-Task a]\n",
        "[X]]\n",
        "[a] \t\n",
        "[]\n",
        "  [b]\n",
        "Exec=a b\n",
        "Exec = c\n",
        "A=1\r\n",
        "A=2",
        "\n",
        "#c\n",
        " # d\n",
        ";A=1\n",
        "; e\n",
        "=x\n",
        "A[de]=x\n",
        "A[=x\n",
        "A]=x\n",
        "B b=x  \n",
        "C\xff=1\n",
        "D=\xff\n",
        "E=\n",
        "F=a=b\n",
        "\t G=1\n",
        "H\n",
        "I=[x]\n",
        "[J]=1\n",
        "[c\td]\n",
        "K[d e]=1\n",
        "L=\xc3\xa4\n",
        "\n\n",
        "M=a;b\n",
        " =1\n",
        "[x[y]\n",
    };
    QRandomGenerator random(1);
    int valid = 0;
    for (int i = 0; i < 2000; ++i) {
        // Most of them keep to the format as far as that goes.
        const QByteArray content =
            (i % 4 ? QByteArray("[Desktop Entry]\n") : QByteArray()) + composed(random, pieces);
        const QString path = m_fixture.write(QStringLiteral("one/applications/a.desktop"), content);
        const LogCapture log;
        const MDesktopEntry entry(path);
        const auto lines = Ctl::Check::KeyLines::ofDesktopFile(content);
        const bool isTaken = lines.bad.isEmpty() && lines.hasGroup(QStringLiteral("Desktop Entry"));
        QVERIFY2(entry.isValid() == isTaken, content.toPercentEncoding(" \n=[]").constData());
        if (!isTaken) {
            continue;
        }
        ++valid;
        for (const auto &line : lines.keys) {
            const bool counts = &line == lines.find(line.group, line.key);
            const bool isTranslation = line.key.contains(QLatin1Char('['));
            const bool isNamed = !line.key.contains(QChar(QChar::ReplacementCharacter));
            if (counts && !isTranslation && isNamed) {
                const QString expected = line.isUtf8 ? line.value : QString();
                QVERIFY2(entry.value(line.group, line.key) == expected,
                         content.toPercentEncoding(" \n=[]").constData());
            }
        }
        for (const auto &group : lines.groups) {
            QVERIFY(entry.groups().contains(group.name));
        }
    }
    QVERIFY(valid > 100);
}

void CheckReadersTest::escapesAreReadAsTold_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QString>("read");
    QTest::addColumn<bool>("isFault");
    QTest::newRow("the ones that there are")
        << QByteArray("a\\sb\\tc\\\\d") << QStringLiteral("a b\tc\\d") << false;
    QTest::newRow("another one") << QByteArray("a\\qb") << QStringLiteral("a\\qb") << true;
    QTest::newRow("at the end") << QByteArray("ab\\") << QStringLiteral("ab") << true;
    QTest::newRow("of a list, outside one") << QByteArray("a\\;b") << QStringLiteral("a\\;b") << true;
}

void CheckReadersTest::escapesAreReadAsTold()
{
    QFETCH(QByteArray, value);
    QFETCH(QString, read);
    QFETCH(bool, isFault);
    const QString path = writeNotes("X-Maemo-Fixed-Args=" + value + '\n');
    QCOMPARE(MDesktopEntry(path).value(QStringLiteral("X-Maemo-Fixed-Args")), read);
    QCOMPARE(has(Ctl::Check::checkFile(path), Rule::Escape), isFault);
}

void CheckReadersTest::switchesAreReadAsTold_data()
{
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<bool>("isDefault"); // the reader's value is that of a file without the key
    QTest::addColumn<bool>("isTold");
    const auto add = [](const char *key, const char *value, bool isDefault, bool isTold) {
        QTest::newRow(QByteArray(key).append('=').append(value).constData())
            << QByteArray(key) << QByteArray(value) << isDefault << isTold;
    };
    add("Sandboxing", "Disabled", false, false);
    add("Sandboxing", "disabled", true, true);
    add("Sandboxing", "false", true, true);
    add("Sandboxing", "Disabled ", true, true);
    add("Sandboxing", "Enabled", true, false);
    add("X-Nemo-Single-Instance", "no", false, false);
    add("X-Nemo-Single-Instance", "No", true, true);
    add("X-Nemo-Single-Instance", "yes", true, false);
    add("X-Solvane-Single-Cover", "yes", false, false);
    add("X-Solvane-Single-Cover", "true", true, true);
    add("X-Solvane-Support-Mime-Parents", "true", false, false);
    add("X-Solvane-Support-Mime-Parents", "1", false, false);
    add("X-Solvane-Support-Mime-Parents", "True", true, true);
    add("X-Solvane-Support-Mime-Parents", "yes", true, true);
    add("X-Solvane-Support-Mime-Parents", "false", true, false);
    add("Mode", "Normal", true, false);
    add("Mode", "normal", false, true);
    add("Mode", "Normal ", false, true);
}

void CheckReadersTest::switchesAreReadAsTold()
{
    QFETCH(QByteArray, key);
    QFETCH(QByteArray, value);
    QFETCH(bool, isDefault);
    QFETCH(bool, isTold);
    const QByteArray line = key + '=' + value + '\n';
    // What the others among them need to make a difference.
    const QByteArray about = key.contains("Cover") ? "X-Nemo-Single-Instance=no\n"
        : key.contains("Mime")                     ? "MimeType=text/plain\n"
                                                   : "";
    const bool isSandbox = key == "Sandboxing";
    const QString path = isSandbox ? writeNotes("", line) : writeNotes(about + line);
    const Core::ApplicationInfo info(path);
    const Core::ApplicationLaunchData &data = info.launchData();
    const bool values = isSandbox ? data.sandboxed
        : key == "Mode"           ? !data.compatibilityMode
        : key.contains("Cover")   ? !data.singleCover
        : key.contains("Mime")    ? !info.supportMimeParents()
                                  : data.singleInstance;
    QCOMPARE(values, isDefault);
    const auto findings = Ctl::Check::checkFile(path);
    const bool told = std::any_of(findings.cbegin(), findings.cend(), [&key](const Finding &finding) {
        return finding.place.key == QLatin1String(key) && finding.severity() != Ctl::Check::Severity::Note;
    });
    QCOMPARE(told, isTold);
}

void CheckReadersTest::taskNamesAreReadAsTold_data()
{
    QTest::addColumn<QByteArray>("group");
    QTest::addColumn<bool>("isTask");
    QTest::addColumn<bool>("isTold");
    QTest::newRow("task") << QByteArray("X-Task sync") << true << false;
    QTest::newRow("service") << QByteArray("X-Service sync") << true << false;
    QTest::newRow("digit") << QByteArray("X-Task 1sync") << false << true;
    QTest::newRow("empty") << QByteArray("X-Task ") << false << true;
    QTest::newRow("no name") << QByteArray("X-Task") << false << true;
    QTest::newRow("two words") << QByteArray("X-Task a b") << false << true;
    QTest::newRow("lower case") << QByteArray("x-task sync") << false << true;
    QTest::newRow("64 letters") << "X-Task " + QByteArray(64, 'a') << true << false;
    QTest::newRow("65 letters") << "X-Task " + QByteArray(65, 'a') << false << true;
    QTest::newRow("another group") << QByteArray("X-Vendor sync") << false << false;
}

void CheckReadersTest::taskNamesAreReadAsTold()
{
    QFETCH(QByteArray, group);
    QFETCH(bool, isTask);
    QFETCH(bool, isTold);
    const QString path = writeNotes("", '[' + group + "]\nType=worker\nExec=sync\n");
    const LogCapture log;
    QCOMPARE(!Core::ApplicationInfo(path).tasks().isEmpty(), isTask);
    const auto findings = Ctl::Check::checkFile(path);
    QCOMPARE(has(findings, Rule::TaskName) || has(findings, Rule::MisspeltGroup), isTold);
}

void CheckReadersTest::conditionsAreTakenAsTold_data()
{
    QTest::addColumn<QByteArray>("conditions");
    for (const char *conditions :
         { "idle", "charging", "battery-not-low", "internet", "internet:wifi", "internet:ethernet",
           "internet:wifi-or-ethernet", "internet:cellular", "internet:", "Idle", " idle", "charge",
           "internet:wlan", "internet:Wifi", "battery-low", "network", "internet wifi" }) {
        QTest::newRow(conditions) << QByteArray(conditions);
    }
}

/// Whatever the builder warns of is told, and nothing else.
void CheckReadersTest::conditionsAreTakenAsTold()
{
    QFETCH(QByteArray, conditions);
    const QString path =
        writeNotes("", "[X-Task sync]\nType=worker\nExec=sync\nConditions=" + conditions + "\n");
    Core::ApplicationInfo::TaskInfo task = Core::ApplicationInfo(path).tasks().value(QStringLiteral("sync"));
    QStringList warnings;
    {
        const LogCapture log;
        Core::ConditionWatcher watcher;
        QVERIFY(!Core::ConditionBuilder::build(&watcher, task, QVariantMap()));
        warnings = log.warnings().filter(
            QRegularExpression(QStringLiteral("^(Unsupported condition|Unknown connection)")));
    }
    QCOMPARE(has(Ctl::Check::checkFile(path), Rule::TaskCondition), !warnings.isEmpty());
}

void CheckReadersTest::typesAreMatchedAsTold_data()
{
    QTest::addColumn<QByteArray>("type");
    QTest::addColumn<QUrl>("uri");
    QTest::addColumn<bool>("matches");
    const auto add = [](const char *type, const char *uri, bool matches) {
        QTest::newRow(type) << QByteArray(type) << QUrl(QString::fromLatin1(uri)) << matches;
    };
    add("text/plain", "file:///a.txt", true);
    add("text/*", "file:///a.txt", true);
    add("*", "file:///a.txt", true);
    add("te*", "file:///a.txt", true);
    add("text/*n", "file:///a.txt", false);
    add("*/plain", "file:///a.txt", false);
    add("plain", "file:///a.txt", false);
    add("Text/Plain", "file:///a.txt", false);
    add("a/b; text/plain", "file:///a.txt", false);
    add("te*;x*", "file:///a.png", false);
    add(" text/plain", "file:///a.txt", true); // the line's own blank
    add("x-scheme-handler/note", "note:1", true);
    add("x-scheme-handler/Note", "Note:1", false);
    add("x-scheme-handler/n*", "note:1", false);
    add("x-url-handler/example.org", "https://example.org", true);
    add("x-url-handler/Example.org", "https://Example.org", false);
    add("x-url-handler/example.org/*", "https://example.org/a/b", true);
    add("x-url-handler/example.org/a*", "https://example.org/ab", false);
    add("x-url-handler/*", "https://example.org/a", false);
}

void CheckReadersTest::typesAreMatchedAsTold()
{
    QFETCH(QByteArray, type);
    QFETCH(QUrl, uri);
    QFETCH(bool, matches);
    const QString path = writeNotes("MimeType=" + type + ";\n");
    const LogCapture log;
    const Core::ApplicationRegistry registry;
    QCOMPARE(!registry.handlersForUri(uri, Core::HandlerFilters()).isEmpty(), matches);
    const auto findings = Ctl::Check::checkFile(path);
    QCOMPARE(has(findings, Rule::MimeType) || has(findings, Rule::UnknownMimeType)
                 || has(findings, Rule::ListBlank),
             !matches);
}

void CheckReadersTest::fieldCodesAreReplacedAsTold_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<bool>("isReplaced"); // and nothing that looks like a code is left
    for (const char *line : { "notes %U", "notes %u", "notes %f", "notes %F", "notes -- %u x" }) {
        QTest::newRow(line) << QByteArray(line) << true;
    }
    for (const char *line : { "notes --open=%U", "notes %U,", "notes \"%U\"", "notes %u %U", "notes %f %u",
                              "notes %i", "notes %c %U", "notes %%", "notes %k", "notes %d" }) {
        QTest::newRow(line) << QByteArray(line) << false;
    }
}

void CheckReadersTest::fieldCodesAreReplacedAsTold()
{
    QFETCH(QByteArray, line);
    QFETCH(bool, isReplaced);
    const QByteArrayList argv = Core::expandFieldCodes(Core::splitCommandLine(QString::fromUtf8(line)),
                                                       { QUrl(QStringLiteral("file:///tmp/a")) });
    QCOMPARE(argv.contains("/tmp/a") && !argv.join(' ').contains('%'), isReplaced);
    const QString path =
        m_fixture.write(QStringLiteral("one/applications/org.example.Notes.desktop"),
                        "[Desktop Entry]\nName=Notes\nExec=" + line + "\nMimeType=text/plain\n" + idGroup);
    const auto findings = Ctl::Check::checkFile(path);
    QCOMPARE(!(has(findings, Rule::ExecCodeInWord) || has(findings, Rule::ExecCodeUnknown)
               || has(findings, Rule::ExecCodeTwice)),
             isReplaced);
}

void CheckReadersTest::laterFileOfAnIdCounts()
{
    const QByteArray content = "[Desktop Entry]\nName=Notes\nExec=notes\n" + idGroup;
    m_fixture.write(QStringLiteral("home/data/applications/a.desktop"), content);
    const QString system = m_fixture.write(QStringLiteral("two/applications/b.desktop"), content);
    const Core::ApplicationRegistry registry;
    QCOMPARE(registry.desktopFile(Core::ApplicationId(QStringLiteral("org.example.Notes"))), system);
}

QTEST_GUILESS_MAIN(CheckReadersTest)

#include "tst_check_readers.moc"
