#include "check/key_lines.h"
#include "check/kinds.h"

#include "Core/application_id.h"
#include "Core/intent_configuration.h"
#include "Core/manifest.h"
#include "Core/oom_controller.h"
#include "Core/resource_configuration.h"
#include "Core/task_config.h"
#include "Core/version_overrides.h"

#include "support/log_capture.h"

#include <QSettings>
#include <QTest>

#include "../common/Core/catalogue_fixture.h"
#include "check_samples.h"

#include <algorithm>

using Ctl::Check::Finding;
using Ctl::Check::Rule;
using TestSupport::LogCapture;

/// What check says of state files, intents and configuration against what the service's own readers make of
/// them.
class CheckConfigurationTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void settingsLinesAreThoseOfTheReader();
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
    CatalogueFixture m_fixture;
};

void CheckConfigurationTest::initTestCase()
{
    QCoreApplication::setApplicationName(QStringLiteral("procwarden"));
    qputenv("LC_ALL", "C.UTF-8");
}

void CheckConfigurationTest::init()
{
    m_fixture.clear();
}

void CheckConfigurationTest::settingsLinesAreThoseOfTheReader()
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

void CheckConfigurationTest::memoryConfigurationIsReadAsTold_data()
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

void CheckConfigurationTest::memoryConfigurationIsReadAsTold()
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

void CheckConfigurationTest::taskLimitIsReadAsTold_data()
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

void CheckConfigurationTest::taskLimitIsReadAsTold()
{
    QFETCH(QByteArray, content);
    QFETCH(int, limit);
    QFETCH(bool, isTold);
    const QString path = m_fixture.write(QStringLiteral("root/etc/procwarden/tasks.cfg"), content);
    QCOMPARE(Core::TaskConfig().maxTasksPerApp(), limit);
    QCOMPARE(!Ctl::Check::checkFile(path).isEmpty(), isTold);
}

void CheckConfigurationTest::overridesAreReadAsTold_data()
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

void CheckConfigurationTest::overridesAreReadAsTold()
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

void CheckConfigurationTest::stateFileIsReadAsTold_data()
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

void CheckConfigurationTest::stateFileIsReadAsTold()
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

void CheckConfigurationTest::intentDefinitionIsReadAsTold_data()
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

void CheckConfigurationTest::intentDefinitionIsReadAsTold()
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

void CheckConfigurationTest::manifestIsReadAsTold_data()
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

void CheckConfigurationTest::manifestIsReadAsTold()
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

QTEST_GUILESS_MAIN(CheckConfigurationTest)

#include "tst_check_configuration.moc"
