#include "Core/user_settings.h"

#include "Core/task_hints.h"
#include "settings_fixture.h"
#include "support/log_capture.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include <memory>

// tests/data/user_settings/<case>/user-settings.json: what a store holds, letter by letter.
// UPDATE_GOLDEN=1 in the environment rewrites it.

using Core::AutostartEntry;
using Core::TaskCGroups;
using Core::UserSettings;
using TestSupport::LogCapture;

namespace {

const QString syncTask = QStringLiteral("org.example.Notes.task_sync");
const QString otherTask = QStringLiteral("org.example.Notes.task_clean");

/// A task with hints of all kinds.
AutostartEntry wholeEntry()
{
    const TaskCGroups cgroups { { QStringLiteral("memory.limit_in_bytes"), QByteArray("1000000") },
                                { QStringLiteral("cpu.shares"), QByteArray() } };
    const QVariantMap schedule { { QStringLiteral("Hours"), QVariantList { 3 } },
                                 { QStringLiteral("Minutes"), QVariantList { 0, 30 } } };
    AutostartEntry entry;
    entry.params = QStringList { QStringLiteral("--full"), QString(), QStringLiteral("a b") };
    entry.environment = QStringList { QStringLiteral("LANG=de_DE"), QStringLiteral("TEXT=\"ä\"") };
    entry.hints = QVariantMap {
        { QStringLiteral("CGroups"), QVariant::fromValue(cgroups) },
        { QStringLiteral("Conditions"),
          QStringList { QStringLiteral("charging"), QStringLiteral("internet:wifi") } },
        { QStringLiteral("CreateIPCSocket"), true },
        { QStringLiteral("RunningTime"), 30 },
        { QStringLiteral("Schedule"), schedule },
        { QStringLiteral("StartTime"), QStringLiteral("2026-11-21T03:00:00") },
    };
    entry.conditionData = QVariantMap {
        { QStringLiteral("Schedule"), QVariantMap { { QStringLiteral("cookieId"), 17U } } },
        { QStringLiteral("internet"), QVariant() },
    };
    return entry;
}

/// With parameters only.
AutostartEntry entryWith(const QString &param)
{
    AutostartEntry entry;
    entry.params = QStringList(param);
    return entry;
}

QJsonObject rootOf(const QByteArray &content)
{
    return QJsonDocument::fromJson(content).object();
}

} // namespace

class tst_UserSettings : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void contentIsAsItShouldBe_data();
    void contentIsAsItShouldBe();
    void entryComesBackAsItWas();
    void controlGroupHintKeepsItsType();
    void controlGroupHintIsCutAtTheFirstNul();
    void controlGroupHintOfAnotherTypeIsEmpty();
    void hintsOfOddTypesAreStored_data();
    void hintsOfOddTypesAreStored();
    void entriesComeInKeyOrder();
    void entryReplacesAnEarlierOne();
    void otherMembersAreKept();

    void missingFileIsWarnedAboutOnce();
    void badContentGivesNoEntriesAndNoWarning_data();
    void badContentGivesNoEntriesAndNoWarning();
    void oddMembersAreReadAsFarAsPossible_data();
    void oddMembersAreReadAsFarAsPossible();

    void changesOfOnePassMakeOneWrite();
    void changesOfTwoPassesMakeTwoWrites();
    void nothingIsWrittenWithoutAChange();
    void removingAnUnknownIdDoesNotWrite();
    void removalIsWritten();
    void endOfTheProcessWritesWhatIsLeft();
    void endOfTheEventLoopWritesWhatIsLeft();
    void thousandChangesMakeOneWrite();

private:
    /// Lets queued writes happen.
    static void runEventLoop() { QCoreApplication::processEvents(); }

    std::unique_ptr<SettingsFixture> m_fixture;
};

void tst_UserSettings::init()
{
    m_fixture = std::make_unique<SettingsFixture>();
}

void tst_UserSettings::cleanup()
{
    m_fixture.reset();
}

void tst_UserSettings::contentIsAsItShouldBe_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<bool>("remove");
    QTest::newRow("stored-task") << QByteArray("{}") << false;
    QTest::newRow("removed-task") << QByteArray("{}") << true;
    QTest::newRow("foreign-members") << QByteArray(
        R"({"zoom":1.5,"autostartedTasks":{"org.example.Mail.task_fetch":{"odd":[1,null]}},)"
        R"("Another":[{"a":true}]})") << false;
}

void tst_UserSettings::contentIsAsItShouldBe()
{
    QFETCH(QByteArray, before);
    QFETCH(bool, remove);
    m_fixture->write(before);
    UserSettings settings;
    settings.setAutostartEntry(syncTask, wholeEntry());
    if (remove) {
        settings.removeAutostartEntry(syncTask);
    }
    runEventLoop();

    QFile golden(QStringLiteral(PROCWARDEN_TEST_DATA "/user_settings/%1/user-settings.json")
                     .arg(QLatin1String(QTest::currentDataTag())));
    if (qEnvironmentVariableIsSet("UPDATE_GOLDEN")) {
        QVERIFY(QDir().mkpath(QFileInfo(golden).path()));
        QVERIFY(golden.open(QIODevice::WriteOnly));
        golden.write(m_fixture->read());
        golden.close();
    }
    QVERIFY(golden.open(QIODevice::ReadOnly));
    QCOMPARE(QString::fromUtf8(m_fixture->read()).split(QLatin1Char('\n')),
             QString::fromUtf8(golden.readAll()).split(QLatin1Char('\n')));
    QCOMPARE(m_fixture->files(), QStringList(QStringLiteral("user-settings.json")));
}

void tst_UserSettings::entryComesBackAsItWas()
{
    m_fixture->write("{}");
    {
        UserSettings settings;
        settings.setAutostartEntry(syncTask, wholeEntry());
        QCOMPARE(settings.autostartEntries().keys(), QStringList(syncTask));
    }
    const UserSettings settings;
    const QMap<QString, AutostartEntry> entries = settings.autostartEntries();
    QCOMPARE(entries.keys(), QStringList(syncTask));
    const AutostartEntry entry = entries.value(syncTask);
    const AutostartEntry whole = wholeEntry();
    QCOMPARE(entry.params, whole.params);
    QCOMPARE(entry.environment, whole.environment);
    QCOMPARE(entry.hints.keys(), whole.hints.keys());
    QCOMPARE(entry.hints.value(Core::TaskHints::runningTime).toInt(), 30);
    QCOMPARE(entry.hints.value(Core::TaskHints::createIpcSocket), QVariant(true));
    QCOMPARE(entry.hints.value(Core::TaskHints::conditions).toStringList(),
             whole.hints.value(Core::TaskHints::conditions).toStringList());
    QCOMPARE(entry.hints.value(Core::TaskHints::schedule).toMap().value(Core::TaskHints::minutes).toList(),
             (QVariantList { 0, 30 }));
    QCOMPARE(entry.conditionData.keys(), whole.conditionData.keys());
    QCOMPARE(entry.conditionData.value(QStringLiteral("Schedule"))
                 .toMap()
                 .value(QStringLiteral("cookieId"))
                 .toUInt(),
             17U);
    QVERIFY(entry.conditionData.value(QStringLiteral("internet")).toMap().isEmpty());
}

void tst_UserSettings::controlGroupHintKeepsItsType()
{
    m_fixture->write("{}");
    UserSettings().setAutostartEntry(syncTask, wholeEntry());
    const QVariant hint =
        UserSettings().autostartEntries().value(syncTask).hints.value(Core::TaskHints::cgroups);
    QCOMPARE(hint.userType(), qMetaTypeId<TaskCGroups>());
    QCOMPARE(hint.value<TaskCGroups>(),
             (TaskCGroups { { QStringLiteral("memory.limit_in_bytes"), QByteArray("1000000") },
                            { QStringLiteral("cpu.shares"), QByteArray("") } }));
}

void tst_UserSettings::controlGroupHintIsCutAtTheFirstNul()
{
    m_fixture->write("{}");
    const TaskCGroups cgroups { { QStringLiteral("a.nul"),
                                  QByteArray("12\0"
                                             "34",
                                             5) },
                                { QStringLiteral("b.utf8"), QByteArray("\xc3\xa4") },
                                { QStringLiteral("c.bad"), QByteArray("\xff") } };
    AutostartEntry entry;
    entry.hints.insert(Core::TaskHints::cgroups, QVariant::fromValue(cgroups));
    UserSettings settings;
    settings.setAutostartEntry(syncTask, entry);
    const TaskCGroups back = settings.autostartEntries()
                                 .value(syncTask)
                                 .hints.value(Core::TaskHints::cgroups)
                                 .value<TaskCGroups>();
    QCOMPARE(back,
             (TaskCGroups { { QStringLiteral("a.nul"), QByteArray("12") },
                            { QStringLiteral("b.utf8"), QByteArray("\xc3\xa4") },
                            { QStringLiteral("c.bad"), QByteArray("\xef\xbf\xbd") } }));
}

void tst_UserSettings::controlGroupHintOfAnotherTypeIsEmpty()
{
    m_fixture->write("{}");
    AutostartEntry entry;
    entry.hints.insert(Core::TaskHints::cgroups,
                       QVariantMap { { QStringLiteral("cpu.shares"), QStringLiteral("1") } });
    UserSettings settings;
    settings.setAutostartEntry(syncTask, entry);
    const QVariant back = settings.autostartEntries().value(syncTask).hints.value(Core::TaskHints::cgroups);
    QCOMPARE(back.userType(), qMetaTypeId<TaskCGroups>());
    QVERIFY(back.value<TaskCGroups>().isEmpty());
}

void tst_UserSettings::hintsOfOddTypesAreStored_data()
{
    QTest::addColumn<QVariant>("hint");
    QTest::addColumn<QJsonValue>("stored");
    QVariant nested = 1;
    QJsonValue nestedJson = 1;
    for (int i = 0; i < 60; ++i) {
        nested = QVariantList { nested };
        nestedJson = QJsonArray { nestedJson };
    }
    QTest::newRow("invalid") << QVariant() << QJsonValue();
    QTest::newRow("boolean") << QVariant(false) << QJsonValue(false);
    QTest::newRow("fraction") << QVariant(1.5) << QJsonValue(1.5);
    QTest::newRow("empty text") << QVariant(QString()) << QJsonValue(QString());
    QTest::newRow("bytes") << QVariant(QByteArray("text")) << QJsonValue(QStringLiteral("text"));
    QTest::newRow("list") << QVariant(QVariantList { 1, QStringLiteral("a"), QVariant() })
                          << QJsonValue(QJsonArray { 1, QStringLiteral("a"), QJsonValue() });
    QTest::newRow("map") << QVariant(QVariantMap { { QStringLiteral("a"), true } })
                         << QJsonValue(QJsonObject { { QStringLiteral("a"), true } });
    QTest::newRow("deep nesting") << nested << nestedJson;
    QTest::newRow("a megabyte") << QVariant(QString(1024 * 1024, QLatin1Char('x')))
                                << QJsonValue(QString(1024 * 1024, QLatin1Char('x')));
}

void tst_UserSettings::hintsOfOddTypesAreStored()
{
    QFETCH(QVariant, hint);
    m_fixture->write("{}");
    AutostartEntry entry;
    entry.hints.insert(QStringLiteral("Hint"), hint);
    UserSettings().setAutostartEntry(syncTask, entry);
    const QJsonObject tasks = rootOf(m_fixture->read()).value(QLatin1String("autostartedTasks")).toObject();
    QTEST(tasks.value(syncTask)
              .toObject()
              .value(QLatin1String("hints"))
              .toObject()
              .value(QLatin1String("Hint")),
          "stored");
    const UserSettings settings;
    QCOMPARE(settings.autostartEntries().keys(), QStringList(syncTask));
}

void tst_UserSettings::entriesComeInKeyOrder()
{
    m_fixture->write("{}");
    const QStringList ids { QStringLiteral("org.b.B.task_a"), QStringLiteral("org.a.A.task_z"),
                            QStringLiteral("org.a.A.task_a"), QStringLiteral("Org.z.Z.task_a") };
    UserSettings settings;
    for (const QString &id : ids) {
        settings.setAutostartEntry(id, {});
    }
    QCOMPARE(settings.autostartEntries().keys(), QStringList({ ids.at(3), ids.at(2), ids.at(1), ids.at(0) }));
}

void tst_UserSettings::entryReplacesAnEarlierOne()
{
    m_fixture->write("{}");
    UserSettings settings;
    settings.setAutostartEntry(syncTask, wholeEntry());
    settings.setAutostartEntry(otherTask, entryWith(QStringLiteral("other")));
    settings.setAutostartEntry(syncTask, entryWith(QStringLiteral("new")));
    const QMap<QString, AutostartEntry> entries = settings.autostartEntries();
    QCOMPARE(entries.size(), 2);
    QCOMPARE(entries.value(syncTask), entryWith(QStringLiteral("new")));
    QCOMPARE(entries.value(otherTask), entryWith(QStringLiteral("other")));
}

void tst_UserSettings::otherMembersAreKept()
{
    m_fixture->write(R"({"a":{"b":[1,2,{"c":null}]},"z":"text","n":12345678.5})");
    {
        UserSettings settings;
        settings.setAutostartEntry(syncTask, {});
        settings.removeAutostartEntry(syncTask);
    }
    QJsonObject root = rootOf(m_fixture->read());
    QCOMPARE(root.take(QLatin1String("autostartedTasks")), QJsonValue(QJsonObject()));
    QCOMPARE(root, rootOf(R"({"a":{"b":[1,2,{"c":null}]},"z":"text","n":12345678.5})"));
}

void tst_UserSettings::missingFileIsWarnedAboutOnce()
{
    const LogCapture log;
    {
        const UserSettings settings;
        QVERIFY(settings.autostartEntries().isEmpty());
        runEventLoop();
    }
    QCOMPARE(log.messages(),
             QStringList(QStringLiteral("Couldn't read config file \"%1\"").arg(m_fixture->path())));
    QVERIFY(!QFile::exists(m_fixture->directory())); // reading makes nothing
}

void tst_UserSettings::badContentGivesNoEntriesAndNoWarning_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("no JSON") << QByteArray("hello");
    QTest::newRow("cut in the middle")
        << QByteArray(R"({"autostartedTasks":{"org.example.Notes.task_sync":{"params":["--fu)");
    QTest::newRow("an array") << QByteArray("[1, 2]");
    QTest::newRow("a comma too much") << QByteArray(R"({"autostartedTasks":{"a.b.c.task_d":{}},})");
    QTest::newRow("zeros") << QByteArray(4096, '\0');
    QTest::newRow("bytes") << QByteArray("\xff\xfe\x80{}");
    QTest::newRow("nested too deeply") << QByteArray(100000, '[');
    QTest::newRow("tasks are an array") << QByteArray(R"({"autostartedTasks":["org.example.Notes.task_x"]})");
    QTest::newRow("tasks are a text") << QByteArray(R"({"autostartedTasks":"org.example.Notes.task_x"})");
    QTest::newRow("tasks are null") << QByteArray(R"({"autostartedTasks":null})");
}

void tst_UserSettings::badContentGivesNoEntriesAndNoWarning()
{
    QFETCH(QByteArray, content);
    m_fixture->write(content);
    const LogCapture log;
    {
        UserSettings settings;
        QVERIFY(settings.autostartEntries().isEmpty());
        runEventLoop();
        QCOMPARE(m_fixture->read(), content); // left alone until there is something to write
        settings.setAutostartEntry(syncTask, entryWith(QStringLiteral("new")));
    }
    QCOMPARE(log.messages(), QStringList());
    QCOMPARE(UserSettings().autostartEntries(),
             (QMap<QString, AutostartEntry> { { syncTask, entryWith(QStringLiteral("new")) } }));
}

void tst_UserSettings::oddMembersAreReadAsFarAsPossible_data()
{
    QTest::addColumn<QByteArray>("task");
    QTest::addColumn<QStringList>("params");
    QTest::addColumn<int>("hints");
    QTest::newRow("empty") << QByteArray("{}") << QStringList() << 0;
    QTest::newRow("a number") << QByteArray("5") << QStringList() << 0;
    QTest::newRow("null") << QByteArray("null") << QStringList() << 0;
    QTest::newRow("text for a list") << QByteArray(R"({"params":"a"})") << QStringList() << 0;
    QTest::newRow("list of all kinds") << QByteArray(R"({"params":["a",1,null,["b"],{},"c"]})")
                                       << QStringList({ QStringLiteral("a"), QString(), QString(), QString(),
                                                        QString(), QStringLiteral("c") })
                                       << 0;
    QTest::newRow("list for a map") << QByteArray(R"({"hints":[1],"conditionData":[2]})") << QStringList()
                                    << 0;
    QTest::newRow("groups of all kinds")
        << QByteArray(R"({"hints":{"CGroups":{"a":1,"b":"2","c":null}}})") << QStringList() << 1;
    QTest::newRow("groups as a list") << QByteArray(R"({"hints":{"CGroups":["a"]}})") << QStringList() << 1;
}

void tst_UserSettings::oddMembersAreReadAsFarAsPossible()
{
    QFETCH(QByteArray, task);
    m_fixture->write(R"({"autostartedTasks":{"org.example.Notes.task_sync":)" + task + "}}");
    const LogCapture log;
    const UserSettings settings;
    const AutostartEntry entry = settings.autostartEntries().value(syncTask);
    QTEST(entry.params, "params");
    QTEST(entry.hints.size(), "hints");
    QVERIFY(entry.environment.isEmpty());
    QVERIFY(entry.conditionData.isEmpty());
    if (!entry.hints.isEmpty()) {
        QCOMPARE(entry.hints.first().userType(), qMetaTypeId<TaskCGroups>());
    }
    QCOMPARE(log.messages(), QStringList());
}

void tst_UserSettings::changesOfOnePassMakeOneWrite()
{
    m_fixture->write("{}");
    UserSettings settings;
    m_fixture->startCounting();
    settings.setAutostartEntry(syncTask, wholeEntry());
    settings.setAutostartEntry(otherTask, wholeEntry());
    QCOMPARE(m_fixture->writes(), 0); // not within the call
    QCOMPARE(m_fixture->read(), QByteArray("{}"));
    runEventLoop();
    QCOMPARE(m_fixture->writes(), 1);
    QCOMPARE(UserSettings().autostartEntries().keys(), QStringList({ otherTask, syncTask }));
    runEventLoop();
    QCOMPARE(m_fixture->writes(), 0);
}

void tst_UserSettings::changesOfTwoPassesMakeTwoWrites()
{
    m_fixture->write("{}");
    UserSettings settings;
    m_fixture->startCounting();
    settings.setAutostartEntry(syncTask, wholeEntry());
    runEventLoop();
    QCOMPARE(m_fixture->writes(), 1);
    settings.setAutostartEntry(otherTask, wholeEntry());
    runEventLoop();
    QCOMPARE(m_fixture->writes(), 1);
    QCOMPARE(UserSettings().autostartEntries().keys(), QStringList({ otherTask, syncTask }));
}

void tst_UserSettings::nothingIsWrittenWithoutAChange()
{
    m_fixture->write(R"({"autostartedTasks":{"org.example.Notes.task_sync":{}}})");
    m_fixture->startCounting();
    {
        const UserSettings settings;
        QCOMPARE(settings.autostartEntries().size(), 1);
        runEventLoop();
    }
    QCOMPARE(m_fixture->writes(), 0);
}

void tst_UserSettings::removingAnUnknownIdDoesNotWrite()
{
    m_fixture->write(R"({"autostartedTasks":{"org.example.Notes.task_sync":{}}})");
    m_fixture->startCounting();
    {
        UserSettings settings;
        settings.removeAutostartEntry(otherTask);
        settings.removeAutostartEntry(QString());
        runEventLoop();
    }
    QCOMPARE(m_fixture->writes(), 0);
    QCOMPARE(UserSettings().autostartEntries().keys(), QStringList(syncTask));
}

void tst_UserSettings::removalIsWritten()
{
    m_fixture->write(
        R"({"autostartedTasks":{"org.example.Notes.task_sync":{},"org.example.Notes.task_clean":{}}})");
    UserSettings settings;
    m_fixture->startCounting();
    settings.removeAutostartEntry(syncTask);
    QCOMPARE(settings.autostartEntries().keys(), QStringList(otherTask));
    runEventLoop();
    QCOMPARE(m_fixture->writes(), 1);
    QCOMPARE(UserSettings().autostartEntries().keys(), QStringList(otherTask));
}

void tst_UserSettings::endOfTheProcessWritesWhatIsLeft()
{
    m_fixture->write("{}");
    m_fixture->startCounting();
    {
        UserSettings settings;
        settings.setAutostartEntry(syncTask, wholeEntry());
        settings.setAutostartEntry(otherTask, wholeEntry());
    }
    QCOMPARE(m_fixture->writes(), 1);
    runEventLoop(); // the queued write has gone with the object
    QCOMPARE(m_fixture->writes(), 0);
    QCOMPARE(UserSettings().autostartEntries().keys(), QStringList({ otherTask, syncTask }));
}

// The service's own settings are never destroyed: it is told to quit, and its loop does not run again.
void tst_UserSettings::endOfTheEventLoopWritesWhatIsLeft()
{
    m_fixture->write("{}");
    UserSettings settings;
    QMetaObject::invokeMethod(
        qApp,
        [&settings] {
            QCoreApplication::quit();
            settings.setAutostartEntry(QStringLiteral("org.example.App.task_late"), {});
        },
        Qt::QueuedConnection);
    QCoreApplication::exec();
    QVERIFY(m_fixture->read().contains("org.example.App.task_late"));
}

void tst_UserSettings::thousandChangesMakeOneWrite()
{
    m_fixture->write("{}");
    UserSettings settings;
    m_fixture->startCounting();
    for (int i = 0; i < 1000; ++i) {
        settings.setAutostartEntry(QStringLiteral("org.example.App%1.task_sync").arg(i), wholeEntry());
    }
    for (int i = 0; i < 1000; i += 2) {
        settings.removeAutostartEntry(QStringLiteral("org.example.App%1.task_sync").arg(i));
    }
    runEventLoop();
    QCOMPARE(m_fixture->writes(), 1);
    QCOMPARE(UserSettings().autostartEntries().size(), 500);
}

QTEST_GUILESS_MAIN(tst_UserSettings)

#include "tst_user_settings.moc"
