#include "check/desktop_keys.h"
#include "check/json_file.h"
#include "check/kinds.h"

#include "Core/application_id.h"
#include "Core/oom_controller.h"
#include "Core/resource_configuration.h"
#include "Core/task_config.h"
#include "Core/version_overrides.h"

#include <QSet>
#include <QTest>

#include "../common/Core/catalogue_fixture.h"
#include "manual_page.h"

#include <functional>

using Ctl::Check::Finding;
using Ctl::Check::RuleInfo;
using Ctl::Check::Severity;
using Ctl::Check::DesktopKeys::GroupKind;

namespace {

constexpr const char *desktop = "procwarden.desktop.5";
constexpr const char *states = "procwarden-states.5";
constexpr const char *intents = "procwarden-intents.5";
constexpr const char *oom = "procwarden-oom.cfg.5";
constexpr const char *tasks = "procwarden-tasks.cfg.5";
constexpr const char *versions = "procwarden-os-version-support.cfg.5";

/// A rule of "procwardenctl check", and the words by which a page warns of the same.
struct Trap
{
    const char *rule;
    const char *page;
    const char *words;
};

const Trap traps[] = {
    { "no-main-group", desktop, "has no group [Desktop Entry]" },
    { "entry-type", desktop, "All other keys are for others, also Type" },
    { "invalid-id", desktop,
      "Only an id of ASCII letters, digits, dots, underscores and hyphens can be started." },
    { "incomplete-id", desktop, "Both must be there, and neither may hold a slash." },
    { "fallback-id", desktop, "the id is org.kestrix. and the name of the file without .desktop" },
    { "id-file-name", desktop, "the directories of the application bear the name of the file" },
    { "duplicate-id", desktop, "Where two files give the same id, the least local one wins" },
    { "missing-name", desktop, "Name and icon of its notifications." },
    { "not-read", desktop, "All other keys are for others" },
    { "sandboxing", desktop, "Sandboxing=disabled does nothing" },
    { "sandboxing-disabled", desktop, "it runs outside the sandbox, and nobody is asked for permissions" },
    { "permissions-unused", desktop, "With Sandboxing=Disabled they do nothing." },
    { "sandbox-groups", desktop, "The first one that has a value counts, for each key alone." },
    { "single-instance", desktop, "X-Nemo-Single-Instance=No" },
    { "single-cover", desktop, "It makes a difference only together with X-Nemo-Single-Instance=no." },
    { "mime-parents", desktop, "Neither yes nor True is understood." },
    { "mode", desktop, "So a typing error, such as Mode=normal, is such a mode." },
    { "legacy-mode", desktop, "an application from before the present sandbox" },
    { "list-separator", desktop, "Lists are separated by semicolons, and not by commas" },
    { "list-blank", desktop, "Blanks around entries are not." },
    { "unknown-permission", desktop, "One that is not installed is left out." },
    { "implied-permission", desktop, "The permission Base is always added." },
    { "data-directory", desktop, "Name of the directory below /usr/share" },
    { "intents", desktop, "Of two entries with the same name, the last one counts." },
    { "unknown-intent", desktop, "An intent that no file defines cannot be invoked" },
    { "mime-type", desktop, "The star can only stand at the end" },
    { "unknown-mime-type", desktop, "no file is of a type that the MIME database does not have" },
    { "uri-unused", desktop, "what it is to open never reaches the program" },
    { "legacy-service", desktop, "Default: none, and then the call fails." },
    { "legacy-service-file", desktop, "the line Exec of dbus-1/services/SERVICE.service" },
    { "legacy-sandbox", desktop, "It runs without the sandbox" },
    { "exec-missing", desktop, "Default: none; then it can be started only as a legacy D-Bus application." },
    { "exec-quotes", desktop, "There is no quoting" },
    { "exec-blanks", desktop, "Two blanks in a row make an empty argument. A tab does not split." },
    { "exec-shell", desktop, "No shell is run, and no variable is replaced." },
    { "exec-code-in-word", desktop, "A code must be an argument of its own" },
    { "exec-code-unknown", desktop, "%i, %c, %k and %% are not replaced either." },
    { "exec-code-twice", desktop, "Of several, the last one counts." },
    { "exec-code-stays", desktop, "A code for which there is nothing stays" },
    { "exec-relative", desktop, "A program that does not begin with a slash lies in /usr/bin" },
    { "exec-own-sandbox", desktop, "makes a sandbox of its own, and is run without one" },
    { "program-missing", desktop, "One that is not there makes every start fail." },
    { "program-not-here", desktop, "One that is not there makes every start fail." },
    { "program-refused", desktop, "the program must be executable and an ELF binary" },
    { "too-many-arguments", desktop, "A child takes at most 63 arguments" },
    { "task-name", desktop, "another name is skipped with the warning \"Invalid task name:\"" },
    { "task-twice", desktop, "Of two groups with the same name, the last one counts." },
    { "task-type", desktop, "Any other type is kept, and runs when its conditions hold." },
    { "task-exec", desktop, "Default: that of the application." },
    { "task-code", desktop, "Field codes are not replaced in it" },
    { "task-condition", desktop, "An unknown one is warned about, and the task runs without it." },
    { "task-hint", desktop, "belong into the request for the task, and are not read here" },
    { "task-limit", tasks, "How many tasks one application may have at a time." },
    { "json", versions, "an application whose package has a valid manifest.json" },
    { "json-type", desktop, "only the value true counts, not a text or a number" },
    { "certificate", desktop, "Applications without it count as signed by the same hand." },
    { "unknown-state", states, "others are read, and nothing comes of them" },
    { "state-key", states, "A key without a dot is skipped" },
    { "state-backend", states, "keys of others have no effect" },
    { "state-file", states, "A file that cannot be opened or written is warned about" },
    { "state-value", states, "from 2 to 262144" },
    { "state-empty", states,
      "what one state has written stays until another one writes the same control file" },
    { "state-freezer", states, "whose groups are never frozen" },
    { "state-delay", states, "need the same value" },
    { "state-files", states, "all states of applications should set the same control files" },
    { "overridden", states, "the least local one wins for each value" },
    { "intent-name", intents, "a file for it is not read" },
    { "required-params", intents, "A list that holds anything else makes the intent unknown" },
    { "hint", intents, "A value of another type than theirs counts as what it can be converted to" },
    { "unknown-hint", intents, "others are passed over" },
    { "json-path", intents, "A place is a path in the request data" },
    { "hidden-directory", intents, "hides every definition of the system" },
    { "thresholds", oom, "Where memory is both low and critical it is critical" },
    { "thresholds-off", oom, "wherever all four thresholds are 0, memory always counts as enough" },
    { "no-tasks", tasks, "0: none at all" },
    { "any-tasks", tasks, "A negative number: any number." },
    { "version-key", versions, "A key with * anywhere else is skipped" },
    { "version", versions, "4.2 lies below 4.2.0" },
};

/// Those before it are about the form of a file, of whatever kind; procwardenctl(1) has them.
constexpr auto firstOfMeaning = Ctl::Check::Rule::NoMainGroup;

QVector<ManualPage::Entry> entriesOf(const QString &page, const QStringList &sections)
{
    QVector<ManualPage::Entry> entries;
    for (const QString &section : sections) {
        entries += ManualPage(page).entries(section);
    }
    return entries;
}

/// What a page gives for a key after "Default:"; empty if it says something else, or nothing.
QString defaultOf(const char *page, const char *section, const QString &key)
{
    for (const ManualPage::Entry &entry : ManualPage(QLatin1String(page)).entries(QLatin1String(section))) {
        if (entry.names.contains(key)) {
            return QRegularExpression(QStringLiteral("Default: (-?\\d+)\\.")).match(entry.text).captured(1);
        }
    }
    return QString();
}

struct Interval
{
    const char *key;
    int (Core::OomController::*read)() const;
};

const Interval intervals[] = {
    { "CheckIntervalMsec", &Core::OomController::checkIntervalMsec },
    { "CheckIntervalMsecLowMem", &Core::OomController::checkIntervalMsecLowMem },
    { "CheckIntervalMsecCriticalMem", &Core::OomController::checkIntervalMsecCriticalMem },
    { "NotificationUnfreezeMsec", &Core::OomController::notificationUnfreezeMsec },
};

struct Threshold
{
    const char *key;
    Core::MemoryLevel level;
};

const Threshold thresholds[] = {
    { "LowMemoryTermPercent", Core::MemoryLevel::Low },
    { "LowMemoryTermMB", Core::MemoryLevel::Low },
    { "MinMemoryTermPercent", Core::MemoryLevel::Critical },
    { "MinMemoryTermMB", Core::MemoryLevel::Critical },
};

} // namespace

/// The pages of files against what reads the files: each key, its default, its traps.
class ManualKeysTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void keysOfAPageAreThoseThatAreRead_data();
    void keysOfAPageAreThoseThatAreRead();
    void everyKeyHasADefault_data() { keysOfAPageAreThoseThatAreRead_data(); }
    void everyKeyHasADefault();
    void memoryDefaultsAreThoseOfTheReader();
    void thresholdsAreReadUnderTheirNames();
    void taskLimitIsThatOfTheReader();
    void delayOfAStateIsThatOfTheReader();
    void mostSpecificVersionCountsInTheOrderOfThePage();
    void everyTrapIsTold_data();
    void everyTrapIsTold();
    void everyRuleIsATrapOfAPage();
    void exampleIsWithoutFault_data();
    void exampleIsWithoutFault();

private:
    CatalogueFixture m_fixture;
};

void ManualKeysTest::initTestCase()
{
    QCoreApplication::setApplicationName(QStringLiteral("procwarden"));
}

void ManualKeysTest::init()
{
    m_fixture.clear();
}

void ManualKeysTest::keysOfAPageAreThoseThatAreRead_data()
{
    QTest::addColumn<QString>("page");
    QTest::addColumn<QStringList>("sections");
    QTest::addColumn<QStringList>("keys");
    const auto add = [](const char *row, const char *page, const QStringList &sections,
                        const QStringList &keys) {
        QTest::newRow(row) << QString::fromLatin1(page) << sections << keys;
    };
    const auto desktopKeys = [](GroupKind kind) {
        return Ctl::Check::DesktopKeys::keysOf(kind);
    };
    add("main group", desktop, { QStringLiteral("GROUP [DESKTOP ENTRY]") }, desktopKeys(GroupKind::Main));
    add("sandbox groups", desktop, { QStringLiteral("SANDBOX GROUPS") }, desktopKeys(GroupKind::Sandbox));
    add("task groups", desktop, { QStringLiteral("TASK GROUPS") }, desktopKeys(GroupKind::Task));
    add("hints", intents, { QStringLiteral("Hints") }, Ctl::Check::intentHints());
    add("intents", intents, { QStringLiteral("FORMAT") },
        { QStringLiteral("requiredParams"), QStringLiteral("hints") });
    QStringList memory;
    for (const Interval &interval : intervals) {
        memory << QLatin1String(interval.key);
    }
    for (const Threshold &threshold : thresholds) {
        memory << QLatin1String(threshold.key);
    }
    add("oom.cfg", oom, { QStringLiteral("KEYS") }, memory);
    add("tasks.cfg", tasks, { QStringLiteral("KEYS") }, { QStringLiteral("MaxTasksPerApp") });
    add("states", states, { QStringLiteral("No group, or the group [General]") },
        { QStringLiteral("ApplyWithDelay") });
}

void ManualKeysTest::keysOfAPageAreThoseThatAreRead()
{
    QFETCH(QString, page);
    QFETCH(QStringList, sections);
    QFETCH(QStringList, keys);
    QStringList told;
    for (const ManualPage::Entry &entry : entriesOf(page, sections)) {
        told += entry.names;
    }
    told.sort();
    keys.sort();
    QCOMPARE(told, keys);
}

void ManualKeysTest::everyKeyHasADefault()
{
    QFETCH(QString, page);
    QFETCH(QStringList, sections);
    const QRegularExpression word(QStringLiteral("Default: |Absent\\b"));
    for (const ManualPage::Entry &entry : entriesOf(page, sections)) {
        QVERIFY2(word.match(entry.text).hasMatch(), qUtf8Printable(entry.names.join(QLatin1Char(' '))));
    }
}

void ManualKeysTest::memoryDefaultsAreThoseOfTheReader()
{
    const Core::OomController without;
    for (const Interval &interval : intervals) {
        const QString key = QLatin1String(interval.key);
        QCOMPARE(defaultOf(oom, "KEYS", key), QString::number((without.*interval.read)()));
        m_fixture.write(QStringLiteral("root/etc/procwarden/oom.cfg"), key.toLatin1() + "=4321\n");
        const Core::OomController with;
        for (const Interval &other : intervals) {
            const bool isMeant = other.key == interval.key;
            QCOMPARE((with.*other.read)(), isMeant ? 4321 : (without.*other.read)());
        }
    }
}

void ManualKeysTest::thresholdsAreReadUnderTheirNames()
{
    m_fixture.write(QStringLiteral("root/proc/meminfo"),
                    "MemTotal: 1024000 kB\nMemFree: 51200 kB\nMemAvailable: 102400 kB\nInactive(file): 0 kB\n"
                    "SwapTotal: 0 kB\nSwapFree: 0 kB\n");
    QCOMPARE(Core::OomController().readMemoryLevel(), Core::MemoryLevel::Normal);
    for (const Threshold &threshold : thresholds) {
        const QString key = QLatin1String(threshold.key);
        QCOMPARE(defaultOf(oom, "KEYS", key), QStringLiteral("0"));
        // 10 percent are there, 100 MiB; "strict" is for the second one.
        const bool isPercent = key.endsWith(QLatin1String("Percent"));
        const auto level = [&](int value) {
            m_fixture.write(QStringLiteral("root/etc/procwarden/oom.cfg"),
                            key.toLatin1() + '=' + QByteArray::number(value) + '\n');
            return Core::OomController().readMemoryLevel();
        };
        QCOMPARE(level(isPercent ? 11 : 101), threshold.level);
        QCOMPARE(level(isPercent ? 10 : 100), Core::MemoryLevel::Normal);
        QCOMPARE(level(-1), Core::MemoryLevel::Normal);
    }
}

void ManualKeysTest::taskLimitIsThatOfTheReader()
{
    QCOMPARE(defaultOf(tasks, "KEYS", QStringLiteral("MaxTasksPerApp")),
             QString::number(Core::TaskConfig().maxTasksPerApp()));
}

void ManualKeysTest::delayOfAStateIsThatOfTheReader()
{
    m_fixture.write(QStringLiteral("one/procwarden/states/active.config"), "[Backend settings]\n");
    m_fixture.write(QStringLiteral("one/procwarden/states/hidden.config"), "ApplyWithDelay=70\n");
    const Core::ResourceConfiguration configuration;
    QCOMPARE(defaultOf(states, "No group, or the group [General]", QStringLiteral("ApplyWithDelay")),
             QString::number(configuration.applyDelay(QStringLiteral("active"))));
    QCOMPARE(configuration.applyDelay(QStringLiteral("hidden")), 70);
}

void ManualKeysTest::mostSpecificVersionCountsInTheOrderOfThePage()
{
    const QRegularExpression order(
        QStringLiteral("for (\\S+) these are, in this order, (\\S+), (\\S+), (\\S+) and (\\S+)\\."));
    const QRegularExpressionMatch match = order.match(ManualPage(QLatin1String(versions)).text());
    QVERIFY(match.hasMatch());
    const Core::ApplicationId id(match.captured(1));
    QStringList keys = match.capturedTexts().mid(2);
    QByteArray content = "[Applications]\n";
    for (int i = 0; i < keys.size(); ++i) {
        content += keys.at(i).toLatin1() + '=' + QByteArray::number(i + 1) + ".0.0\n";
    }
    for (int i = 0; i < keys.size(); ++i) {
        m_fixture.write(QStringLiteral("root/etc/procwarden/os-version-support.cfg"), content);
        QCOMPARE(Core::VersionOverrides().version(id), QStringLiteral("%1.0.0").arg(i + 1));
        // An empty value hides the more general ones.
        content.replace('\n' + keys.at(i).toLatin1() + '=' + QByteArray::number(i + 1) + ".0.0\n",
                        '\n' + keys.at(i).toLatin1() + "=\n");
        m_fixture.write(QStringLiteral("root/etc/procwarden/os-version-support.cfg"), content);
        QCOMPARE(Core::VersionOverrides().version(id), QString());
        content.replace('\n' + keys.at(i).toLatin1() + "=\n", "\n");
    }
}

void ManualKeysTest::everyTrapIsTold_data()
{
    QTest::addColumn<QString>("page");
    QTest::addColumn<QString>("words");
    for (const Trap &trap : traps) {
        QTest::newRow(trap.rule) << QString::fromLatin1(trap.page) << QString::fromLatin1(trap.words);
    }
}

void ManualKeysTest::everyTrapIsTold()
{
    QFETCH(QString, page);
    QFETCH(QString, words);
    QVERIFY2(ManualPage(page).text().contains(words), qUtf8Printable(words));
}

/// Whoever adds a rule tells of it in the page.
void ManualKeysTest::everyRuleIsATrapOfAPage()
{
    QStringList rules, told;
    for (const RuleInfo &info : Ctl::Check::rules()) {
        if (info.rule >= firstOfMeaning) {
            rules << QLatin1String(info.name);
        }
    }
    for (const Trap &trap : traps) {
        told << QLatin1String(trap.rule);
    }
    QCOMPARE(told, rules);
}

void ManualKeysTest::exampleIsWithoutFault_data()
{
    QTest::addColumn<QString>("page");
    QTest::addColumn<QString>("file");
    const auto add = [](const char *page, const char *file) {
        QTest::newRow(page) << QString::fromLatin1(page) << QString::fromLatin1(file);
    };
    add(desktop, "one/applications/org.example.Notes.desktop");
    add(states, "one/procwarden/states/hidden.config");
    add(intents, "one/procwarden/intents/Edit.intent");
    add(oom, "root/etc/procwarden/oom.cfg");
    add(tasks, "root/etc/procwarden/tasks.cfg");
    add(versions, "root/etc/procwarden/os-version-support.cfg");
}

void ManualKeysTest::exampleIsWithoutFault()
{
    QFETCH(QString, page);
    QFETCH(QString, file);
    const QByteArray example = ManualPage(page).example();
    QVERIFY(example.contains('\n') && example.size() > 10);
    if (page == QLatin1String(desktop)) {
        m_fixture.write(QStringLiteral("root/usr/bin/org.example.Notes"), "\177ELF");
        m_fixture.write(QStringLiteral("root/usr/bin/notes-sync"), "\177ELF");
        for (const char *program : { "root/usr/bin/org.example.Notes", "root/usr/bin/notes-sync" }) {
            QFile::setPermissions(m_fixture.path(QLatin1String(program)),
                                  QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ExeOther);
        }
    }
    const QString path = m_fixture.write(file, example);
    for (const Finding &finding : Ctl::Check::checkFile(path)) {
        QVERIFY2(finding.severity() == Severity::Note, qUtf8Printable(finding.text));
    }
}

QTEST_GUILESS_MAIN(ManualKeysTest)

#include "tst_manual_keys.moc"
