#include "check/key_lines.h"
#include "check/kinds.h"
#include "check/reader_log.h"
#include "check/spelling.h"

#include "Core/application_registry.h"
#include "Core/command_line.h"
#include "Core/condition_builder.h"
#include "Core/condition_watcher.h"
#include "Core/intent_configuration.h"
#include "Core/manifest.h"
#include "Core/oom_controller.h"
#include "Core/resource_configuration.h"
#include "Core/task_config.h"
#include "Core/version_overrides.h"

#include "support/log_capture.h"

#include <QRandomGenerator>
#include <QSettings>
#include <QTest>
#include <QUrl>

#include "../common/Core/catalogue_fixture.h"

#include <mdesktopentry.h>

#include <algorithm>

using Ctl::Check::Finding;
using Ctl::Check::Kind;
using Ctl::Check::Rule;
using TestSupport::LogCapture;

namespace {

const QByteArray idGroup("[X-Sailjail]\nOrganizationName=org.example\nApplicationName=Notes\n");

bool has(const QVector<Finding> &findings, Rule rule, const QString &key = {})
{
    return std::any_of(findings.cbegin(), findings.cend(), [&](const Finding &finding) {
        return finding.rule == rule && (key.isEmpty() || finding.place.key == key);
    });
}

/// A file made of pieces that mean something, in any order; the same ones at each run.
QByteArray composed(QRandomGenerator &random, const QList<QByteArray> &pieces)
{
    QByteArray content;
    const int count = random.bounded(14);
    for (int i = 0; i < count; ++i) {
        content += pieces.at(random.bounded(pieces.size()));
    }
    return content;
}

} // namespace

/// What check says of a file against what the service's own readers make of it.
class CheckReadersTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void desktopLinesAreThoseOfTheReader();
    void settingsLinesAreThoseOfTheReader();
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
    void memoryConfigurationIsReadAsTold_data();
    void memoryConfigurationIsReadAsTold();
    void taskLimitIsReadAsTold_data();
    void taskLimitIsReadAsTold();
    void overridesAreReadAsTold_data();
    void overridesAreReadAsTold();
    void stateFileIsReadAsTold_data();
    void stateFileIsReadAsTold();
    void intentDefinitionIsReadAsTold_data();
    void intentDefinitionIsReadAsTold();
    void manifestIsReadAsTold_data();
    void manifestIsReadAsTold();

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

void CheckReadersTest::settingsLinesAreThoseOfTheReader()
{
    const QList<QByteArray> pieces {
        "[Backend settings]\n",
        "[Backend%20settings]\n",
        "[General]\n",
        "[general]\n",
        "[a\n",
        "[b] x\n",
        "A=1\n",
        "A = 2 \n",
        "B=a;b\n",
        "C=a ; b\n",
        "; d\n",
        "  ;e\n",
        "#F=1\n",
        "# f\n",
        "g\n",
        "H=\"a;b\"\n",
        "I=\"a\nb\"\n",
        "J=a\\\nb\n",
        "K=\n",
        "a.b.c=5\n",
        "L=1\r\n",
        "\n",
        "M=a=b\n",
        "N%20n=1\n",
        "=5\n",
        "O=1",
        "P=1,2\n",
        "Q=\"1,2\"\n",
        "\t R=1\n",
        "S\\s=1\n",
        "\xef\xbb\xbfT=1\n",
        "[c]\n",
        "U=\"x",
        "[%General]\n",
    };
    QRandomGenerator random(2);
    for (int i = 0; i < 1500; ++i) {
        const QByteArray content = composed(random, pieces);
        const QString path = m_fixture.write(QStringLiteral("root/a.config"), content);
        const QSettings settings(path, QSettings::IniFormat);
        const auto lines = Ctl::Check::KeyLines::ofSettings(content);
        QStringList expected = settings.allKeys();
        QStringList found;
        for (const auto &line : lines.keys) {
            const QString key = line.group.isEmpty() ? line.key : line.group + QLatin1Char('/') + line.key;
            if (&line == lines.find(line.group, line.key)) {
                found.append(key);
            }
        }
        found.removeDuplicates();
        std::sort(expected.begin(), expected.end());
        std::sort(found.begin(), found.end());
        QVERIFY2(found == expected,
                 content.toPercentEncoding(" \n=[]") + '\n' + found.join(QLatin1Char('|')).toUtf8() + '\n'
                     + expected.join(QLatin1Char('|')).toUtf8());
    }
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
    const QString local = m_fixture.write(QStringLiteral("home/data/applications/a.desktop"), content);
    const QString system = m_fixture.write(QStringLiteral("two/applications/b.desktop"), content);
    const Core::ApplicationRegistry registry;
    QCOMPARE(registry.desktopFile(Core::ApplicationId(QStringLiteral("org.example.Notes"))), system);
}

void CheckReadersTest::memoryConfigurationIsReadAsTold_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<int>("read"); // of CheckIntervalMsec
    QTest::addColumn<bool>("isTold");
    QTest::newRow("number") << QByteArray("3000") << 3000 << false;
    QTest::newRow("default") << QByteArray("5000") << 5000 << false;
    QTest::newRow("comment") << QByteArray("3000 ; ms") << 3000 << false;
    QTest::newRow("quotes") << QByteArray("\"3000\"") << 3000 << false;
    QTest::newRow("unit") << QByteArray("3 s") << 5000 << true;
    QTest::newRow("fraction") << QByteArray("3000.5") << 5000 << true;
    QTest::newRow("comma") << QByteArray("3,000") << 5000 << true;
    QTest::newRow("zero") << QByteArray("0") << 5000 << true;
    QTest::newRow("negative") << QByteArray("-3000") << 5000 << true;
    QTest::newRow("too large") << QByteArray("30000000000") << 5000 << true;
    QTest::newRow("empty") << QByteArray("") << 5000 << true;
    QTest::newRow("hexadecimal") << QByteArray("0x10") << 5000 << true;
}

void CheckReadersTest::memoryConfigurationIsReadAsTold()
{
    QFETCH(QByteArray, value);
    QFETCH(int, read);
    QFETCH(bool, isTold);
    const QString path =
        m_fixture.write(QStringLiteral("root/etc/procwarden/oom.cfg"),
                        "CheckIntervalMsec=" + value + "\nLowMemoryTermMB=2\nMinMemoryTermMB=1\n");
    QCOMPARE(Core::OomController().checkIntervalMsec(), read);
    QCOMPARE(has(Ctl::Check::checkFile(path), Rule::Number, QStringLiteral("CheckIntervalMsec")), isTold);
}

void CheckReadersTest::taskLimitIsReadAsTold_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("limit");
    QTest::addColumn<bool>("isTold");
    QTest::newRow("number") << QByteArray("MaxTasksPerApp=3\n") << 3 << false;
    QTest::newRow("general") << QByteArray("[General]\nMaxTasksPerApp=3\n") << 3 << false;
    QTest::newRow("other group") << QByteArray("[Tasks]\nMaxTasksPerApp=3\n") << 5 << true;
    QTest::newRow("lower case") << QByteArray("maxtasksperapp=3\n") << 5 << true;
    QTest::newRow("text") << QByteArray("MaxTasksPerApp=three\n") << 5 << true;
    QTest::newRow("none") << QByteArray("MaxTasksPerApp=0\n") << 0 << true;
    QTest::newRow("two") << QByteArray("MaxTasksPerApp=3\nMaxTasksPerApp=4\n") << 4 << true;
    QTest::newRow("any") << QByteArray("MaxTasksPerApp=-1\n") << -1 << true;
    QTest::newRow("open quote") << QByteArray("MaxTasksPerApp=\"3\nX=1\n") << 5 << true;
}

void CheckReadersTest::taskLimitIsReadAsTold()
{
    QFETCH(QByteArray, content);
    QFETCH(int, limit);
    QFETCH(bool, isTold);
    const QString path = m_fixture.write(QStringLiteral("root/etc/procwarden/tasks.cfg"), content);
    QCOMPARE(Core::TaskConfig().maxTasksPerApp(), limit);
    QCOMPARE(!Ctl::Check::checkFile(path).isEmpty(), isTold);
}

void CheckReadersTest::overridesAreReadAsTold_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QString>("version"); // of org.example.Notes
    QTest::addColumn<bool>("isTold");
    const auto add = [](const char *line, const char *version, bool isTold) {
        QTest::newRow(line) << QByteArray(line) << QString::fromLatin1(version) << isTold;
    };
    add("org.example.Notes=4.2.0", "4.2.0", false);
    add("org.example.*=4.2.0", "4.2.0", false);
    add("org.*=4.2.0", "4.2.0", false);
    add("*=4.2.0", "4.2.0", false);
    add("org*=4.2.0", "", true);
    add("org.*.Notes=4.2.0", "", true);
    add("**=4.2.0", "", true);
    add("org.example.*.*=4.2.0", "", true);
    add("Org.Example.Notes=4.2.0", "", true);
    add("Notes=4.2.0", "", true);
    add("org.example.Notes=4,2,0", "", true);
    add("org.example.Notes=", "", true);
    add("org.example.Notes=4.2", "4.2", true);
    add("org.example.Notes=4.2.0;1", "4.2.0", true);
}

void CheckReadersTest::overridesAreReadAsTold()
{
    QFETCH(QByteArray, line);
    QFETCH(QString, version);
    QFETCH(bool, isTold);
    const QString path = m_fixture.write(QStringLiteral("root/etc/procwarden/os-version-support.cfg"),
                                         "[Applications]\n" + line + '\n');
    const LogCapture log;
    const Core::VersionOverrides overrides;
    QCOMPARE(overrides.version(Core::ApplicationId(QStringLiteral("org.example.Notes"))), version);
    QCOMPARE(!Ctl::Check::checkFile(path).isEmpty(), isTold);
    QVERIFY(log.warnings().isEmpty() || isTold);
}

void CheckReadersTest::stateFileIsReadAsTold_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("delay");
    QTest::addColumn<QString>("shares"); // of "cpu.shares"
    QTest::addColumn<bool>("isTold");
    const QByteArray group("[Backend settings]\n");
    QTest::newRow("in order") << "ApplyWithDelay=200\n" + group + "cgroup1.cpu.shares=5\n"
                              << 200 << "5" << false;
    QTest::newRow("quotes") << group + "cgroup1.cpu.shares=\"5\"\n" << 0 << "5" << false;
    QTest::newRow("escaped group") << QByteArray("[Backend%20settings]\ncgroup1.cpu.shares=5\n") << 0 << "5"
                                   << false;
    QTest::newRow("group in capitals")
        << QByteArray("[Backend Settings]\ncgroup1.cpu.shares=5\n") << 0 << "" << true;
    QTest::newRow("no backend") << group + "cpushares=5\n" << 0 << "" << true;
    QTest::newRow("other backend") << group + "cgroup2.cpu.shares=5\n" << 0 << "" << true;
    QTest::newRow("delay in the group") << group + "ApplyWithDelay=200\ncgroup1.cpu.shares=5\n"
                                        << 0 << "5" << true;
    QTest::newRow("delay with a unit") << "ApplyWithDelay=200ms\n" + group + "cgroup1.cpu.shares=5\n"
                                       << 0 << "5" << true;
    QTest::newRow("delay too large") << "ApplyWithDelay=4294967496\n" + group + "cgroup1.cpu.shares=5\n"
                                     << 200 << "5" << true;
    QTest::newRow("comma") << group + "cgroup1.cpu.shares=5,6\n" << 0 << "" << true;
    QTest::newRow("semicolon") << group + "cgroup1.cpu.shares=5;6\n" << 0 << "5" << true;
    QTest::newRow("twice") << group + "cgroup1.cpu.shares=5\ncgroup1.cpu.shares=6\n" << 0 << "6" << true;
    QTest::newRow("hash") << group + "#cgroup1.cpu.shares=5\ncgroup1.cpu.shares=6\n" << 0 << "6" << true;
    QTest::newRow("byte order mark") << "\xef\xbb\xbf" + group + "cgroup1.cpu.shares=5\n"
                                     << 0 << "5" << false;
}

void CheckReadersTest::stateFileIsReadAsTold()
{
    QFETCH(QByteArray, content);
    QFETCH(int, delay);
    QFETCH(QString, shares);
    QFETCH(bool, isTold);
    const QString path = m_fixture.write(QStringLiteral("one/procwarden/states/hidden.config"), content);
    const LogCapture log;
    const Core::ResourceConfiguration configuration;
    const QString state = QStringLiteral("hidden");
    QCOMPARE(configuration.applyDelay(state), delay);
    QCOMPARE(configuration.settingsFor(state, QStringLiteral("cgroup1"))
                 .value(QStringLiteral("cpu.shares"))
                 .toString(),
             shares);
    const auto findings = Ctl::Check::checkFile(path);
    QVERIFY2(findings.isEmpty() != isTold,
             qUtf8Printable(findings.isEmpty() ? QString() : findings.first().text));
}

void CheckReadersTest::intentDefinitionIsReadAsTold_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("isDefined");
    QTest::addColumn<bool>("isTold");
    QTest::newRow("empty object") << QByteArray("{}") << true << false;
    QTest::newRow("parameters") << QByteArray("{\"requiredParams\": [\"uri\"]}") << true << false;
    QTest::newRow("no parameters") << QByteArray("{\"requiredParams\": []}") << true << false;
    QTest::newRow("parameters that are no list")
        << QByteArray("{\"requiredParams\": \"uri\"}") << true << true;
    QTest::newRow("parameters that are no texts") << QByteArray("{\"requiredParams\": [5]}") << false << true;
    QTest::newRow("mixed parameters") << QByteArray("{\"requiredParams\": [\"a\", 5]}") << false << true;
    QTest::newRow("a list in a list") << QByteArray("{\"requiredParams\": [[\"a\"]]}") << false << true;
    QTest::newRow("hints that are no object") << QByteArray("{\"hints\": []}") << true << true;
    QTest::newRow("an array") << QByteArray("[]") << true << true;
    QTest::newRow("a comma too many") << QByteArray("{\"hints\": {},}") << false << true;
    QTest::newRow("a number") << QByteArray("5") << false << true;
    QTest::newRow("nothing") << QByteArray("") << false << true;
    QTest::newRow("byte order mark") << QByteArray("\xef\xbb\xbf{}") << true << false;
}

void CheckReadersTest::intentDefinitionIsReadAsTold()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, isDefined);
    QFETCH(bool, isTold);
    const QString path = m_fixture.write(QStringLiteral("one/procwarden/intents/Frob.intent"), content);
    const LogCapture log;
    Core::IntentConfiguration::Configuration configuration;
    QCOMPARE(Core::IntentConfiguration().loadForIntent(QStringLiteral("Frob"), configuration), isDefined);
    const auto findings = Ctl::Check::checkFile(path);
    QCOMPARE(!findings.isEmpty(), isTold);
    const bool isError = std::any_of(findings.cbegin(), findings.cend(), [](const Finding &finding) {
        return finding.severity() == Ctl::Check::Severity::Error;
    });
    QCOMPARE(isError, !isDefined);
}

void CheckReadersTest::manifestIsReadAsTold_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("isValid");
    QTest::addColumn<bool>("keeps");
    QTest::addColumn<bool>("isTold");
    QTest::newRow("empty") << QByteArray("{}") << true << false << false;
    QTest::newRow("true") << QByteArray("{\"keepMediaActiveInBackground\": true}") << true << true << false;
    QTest::newRow("text") << QByteArray("{\"keepMediaActiveInBackground\": \"true\"}") << true << false
                          << true;
    QTest::newRow("number") << QByteArray("{\"keepMediaActiveInBackground\": 1}") << true << false << true;
    QTest::newRow("twice") << QByteArray("{\"keepMediaActiveInBackground\": false, "
                                         "\"keepMediaActiveInBackground\": true}")
                           << true << true << true;
    QTest::newRow("array") << QByteArray("[]") << false << false << true;
    QTest::newRow("broken") << QByteArray("{") << false << false << true;
}

void CheckReadersTest::manifestIsReadAsTold()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, isValid);
    QFETCH(bool, keeps);
    QFETCH(bool, isTold);
    const QString path =
        m_fixture.write(QStringLiteral("root/opt/app/org.example.Notes/current/manifest.json"), content);
    const LogCapture log;
    const Core::Manifest manifest(Core::ApplicationId(QStringLiteral("org.example.Notes")));
    QCOMPARE(manifest.isValid(), isValid);
    QCOMPARE(manifest.keepMediaActiveInBackground(), keeps);
    QCOMPARE(!Ctl::Check::checkFile(path).isEmpty(), isTold);
}

QTEST_GUILESS_MAIN(CheckReadersTest)

#include "tst_check_readers.moc"
