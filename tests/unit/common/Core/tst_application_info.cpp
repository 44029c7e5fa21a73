#include "Core/application_info.h"
#include "Core/application_info_p.h"
#include "common/Core/catalogue_fixture.h"
#include "support/log_capture.h"

#include <QtTest>

using namespace Core;
using TestSupport::LogCapture;

Q_DECLARE_METATYPE(Core::ApplicationLaunchData)

class TestApplicationInfo : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void defaultMadeIsInvalidAndSilent();
    void minimalFileIsAnApplication();
    void idComesFromTheFile_data();
    void idComesFromTheFile();
    void fileWithoutAnIdIsReported();
    void malformedFileIsInvalid();
    void displayDataIsRead();
    void launchDataIsRead();
    void flagsKeepTheirDefaults_data();
    void flagsKeepTheirDefaults();
    void sandboxGroupsHaveAnOrder_data();
    void sandboxGroupsHaveAnOrder();
    void maemoObjectPathHasADefault();
    void intentsAreParsed_data();
    void intentsAreParsed();
    void intentsComeFromTheSandboxGroups();
    void tasksAreRead();
    void taskWithoutExecRunsTheApplication();
    void taskNamesAreChecked_data();
    void taskNamesAreChecked();
    void lastGroupOfATaskWins();
    void manifestIsLoaded();
    void certificateIdIsRead_data();
    void certificateIdIsRead();
    void missingPackageHasNoCertificateId();
    void copySharesItsDataAndOutlivesTheFile();

private:
    ApplicationInfo read(const QByteArray &lines) const
    {
        return ApplicationInfo(
            m_fixture.writeDesktopFile(QStringLiteral("one"), QStringLiteral("app"), lines));
    }

    const CatalogueFixture m_fixture;
};

void TestApplicationInfo::init()
{
    m_fixture.clear();
}

void TestApplicationInfo::defaultMadeIsInvalidAndSilent()
{
    const LogCapture log;
    for (const ApplicationInfo &info : { ApplicationInfo(), ApplicationInfo(QString()) }) {
        QVERIFY(!info.isValid());
        QVERIFY(info.id().isEmpty());
        QCOMPARE(info.desktopFile(), QString());
        QVERIFY(info.launchData().sandboxed);
        QVERIFY(info.launchData().singleInstance);
        QVERIFY(!info.manifest().isValid());
    }
    QVERIFY(ApplicationInfo::TaskInfo().id.isEmpty());
    QCOMPARE(log.messages(), QStringList());
}

void TestApplicationInfo::minimalFileIsAnApplication()
{
    const QString path =
        m_fixture.write(QStringLiteral("one/applications/my-notes.desktop"), "[Desktop Entry]\n");
    const ApplicationInfo info(path);
    QVERIFY(info.isValid());
    QCOMPARE(info.id().text(), QStringLiteral("org.kestrix.my_2dnotes"));
    QCOMPARE(info.desktopFile(), path);
    QVERIFY(info.intents().isEmpty());
    QVERIFY(info.tasks().isEmpty());
    QVERIFY(info.mimeTypes().isEmpty());
    QVERIFY(!info.supportMimeParents());
    QCOMPARE(info.certificateId(), QString());
    QCOMPARE(info.launchData().exec, QString());
}

void TestApplicationInfo::idComesFromTheFile_data()
{
    QTest::addColumn<QByteArray>("groups");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("organisation");

    const auto row = [](const char *title, const QByteArray &groups, const char *id,
                        const char *organisation) {
        QTest::newRow(title) << groups << QString::fromUtf8(id) << QString::fromUtf8(organisation);
    };
    row("declared", "[X-Sailjail]\nOrganizationName=org.example\nApplicationName=Notes\n",
        "org.example.Notes", "org.example");
    row("declared in two groups",
        "[Sailjail]\nOrganizationName=org.other\nApplicationName=Notes\n[X-Application]\nOrganizationName="
        "org.example\n",
        "org.example.Notes", "org.example");
    row("believed as it is", "[X-Sailjail]\nOrganizationName=Org Example\nApplicationName=1\n",
        "Org Example.1", "Org Example");
    row("name alone", "[X-Sailjail]\nApplicationName=Notes\n", "org.kestrix.app", "org.kestrix");
    row("organisation alone", "[X-Sailjail]\nOrganizationName=org.example\n", "org.kestrix.app",
        "org.kestrix");
    row("nothing", "", "org.kestrix.app", "org.kestrix");
    row("slash in the name", "[X-Sailjail]\nOrganizationName=org.example\nApplicationName=/../../x\n",
        "org.kestrix.app", "org.kestrix");
    row("slash in the organisation", "[X-Sailjail]\nOrganizationName=../org\nApplicationName=x\n",
        "org.kestrix.app", "org.kestrix");
    row("too long",
        "[X-Sailjail]\nOrganizationName=org.example\nApplicationName=" + QByteArray(70000, 'x') + "\n",
        "org.kestrix.app", "org.kestrix");
}

void TestApplicationInfo::idComesFromTheFile()
{
    QFETCH(QByteArray, groups);
    const LogCapture log;
    const ApplicationInfo info = read(groups);
    QVERIFY(info.isValid());
    QTEST(info.id().text(), "id");
    QTEST(info.id().organisation(), "organisation");
    QCOMPARE(log.messages(), QStringList());
}

void TestApplicationInfo::fileWithoutAnIdIsReported()
{
    const QString path = m_fixture.write(QStringLiteral("one/applications/.desktop"),
                                         "[Desktop Entry]\nName=A\nExec=app\n[X-Task a]\n");
    QTest::ignoreMessage(QtWarningMsg, qPrintable(QStringLiteral("Invalid app ID in \"%1\"").arg(path)));
    const ApplicationInfo info(path);
    QVERIFY(!info.isValid());
    QVERIFY(info.tasks().isEmpty());
    QCOMPARE(info.launchData().exec, QString());
    QCOMPARE(info.desktopFile(), path);
}

void TestApplicationInfo::malformedFileIsInvalid()
{
    const LogCapture log;
    QVERIFY(!ApplicationInfo(m_fixture.write(QStringLiteral("one/applications/a.desktop"), "nonsense"))
                 .isValid());
    QVERIFY(!ApplicationInfo(m_fixture.path(QStringLiteral("missing.desktop"))).isValid());
    QCOMPARE(log.messages(QtWarningMsg), QStringList());
    QCOMPARE(log.messages(QtDebugMsg).size(), 2);
}

void TestApplicationInfo::displayDataIsRead()
{
    const ApplicationInfo info = read("Icon=icon-app\nMimeType=text/plain;image/*;x-scheme-handler/geo;\n"
                                      "X-Solvane-Support-Mime-Parents=true\n");
    QCOMPARE(info.name(), QStringLiteral("app"));
    QCOMPARE(info.icon(), QStringLiteral("icon-app"));
    QCOMPARE(info.mimeTypes(),
             (QStringList { QStringLiteral("text/plain"), QStringLiteral("image/*"),
                            QStringLiteral("x-scheme-handler/geo") }));
    QVERIFY(info.supportMimeParents());
}

void TestApplicationInfo::launchDataIsRead()
{
    const ApplicationLaunchData data =
        read("Exec=app %u\nX-Maemo-Service=org.example.app\nX-Maemo-Object-Path=/app\n"
             "X-Maemo-Method=org.example.app.open\nX-Maemo-Fixed-Args=a;b;\n"
             "ExecDBus=not here\nDataDirectory=not here\n"
             "[X-Sailjail]\nExecDBus=app --dbus\nDataDirectory=org.example/app\n")
            .launchData();
    QCOMPARE(data.exec, QStringLiteral("app %u"));
    QCOMPARE(data.execDBus, QStringLiteral("app --dbus"));
    QCOMPARE(data.maemoService, QStringLiteral("org.example.app"));
    QCOMPARE(data.maemoObjectPath, QStringLiteral("/app"));
    QCOMPARE(data.maemoMethod, QStringLiteral("org.example.app.open"));
    QCOMPARE(data.maemoFixedArgs, QStringLiteral("a;b;"));
    QCOMPARE(data.dataDirectory, QStringLiteral("org.example/app"));
}

void TestApplicationInfo::flagsKeepTheirDefaults_data()
{
    QTest::addColumn<QByteArray>("lines");
    QTest::addColumn<QByteArray>("changed"); // the flag that differs from its default

    const auto row = [](const QByteArray &lines, const char *changed) {
        QTest::newRow(lines.isEmpty() ? "nothing" : QByteArray(lines).replace('\n', ' ').constData())
            << lines << QByteArray(changed);
    };
    row("", "");
    row("[X-Sailjail]\nSandboxing=Disabled\n", "sandboxed");
    row("[X-Sailjail]\nSandboxing=disabled\n", "");
    row("[X-Sailjail]\nSandboxing=false\n", "");
    row("[X-Sailjail]\nSandboxing=\n", "");
    row("Sandboxing=Disabled\n", "");
    row("X-Nemo-Single-Instance=no\n", "singleInstance");
    row("X-Nemo-Single-Instance=false\n", "");
    row("X-Nemo-Single-Instance=No\n", "");
    row("X-Nemo-Single-Instance=yes\n", "");
    row("[X-Sailjail]\nX-Nemo-Single-Instance=no\n", "");
    row("X-Solvane-Single-Cover=yes\n", "singleCover");
    row("X-Solvane-Single-Cover=true\n", "");
    row("X-Solvane-Single-Cover=Yes\n", "");
    row("Mode=Legacy\n", "compatibilityMode");
    row("Mode=normal\n", "compatibilityMode");
    row("Mode=Normal\n", "");
    row("Mode=\n", "");
    row("[X-Sailjail]\nMode=Legacy\n", "");
}

void TestApplicationInfo::flagsKeepTheirDefaults()
{
    QFETCH(QByteArray, lines);
    QFETCH(QByteArray, changed);
    const ApplicationLaunchData data = read(lines).launchData();
    QCOMPARE(data.sandboxed, changed != "sandboxed");
    QCOMPARE(data.singleInstance, changed != "singleInstance");
    QCOMPARE(data.singleCover, changed == "singleCover");
    QCOMPARE(data.compatibilityMode, changed == "compatibilityMode");
}

void TestApplicationInfo::sandboxGroupsHaveAnOrder_data()
{
    QTest::addColumn<QByteArray>("groups");
    QTest::addColumn<QString>("value");

    QTest::newRow("X-Application before X-Sailjail")
        << QByteArray("[X-Sailjail]\nDataDirectory=b\n[X-Application]\nDataDirectory=a\n")
        << QStringLiteral("a");
    QTest::newRow("X-Sailjail before Sailjail")
        << QByteArray("[Sailjail]\nDataDirectory=c\n[X-Sailjail]\nDataDirectory=b\n") << QStringLiteral("b");
    QTest::newRow("Sailjail alone") << QByteArray("[Sailjail]\nDataDirectory=c\n") << QStringLiteral("c");
    QTest::newRow("empty value") << QByteArray(
        "[X-Application]\nDataDirectory=\n[X-Sailjail]\nDataDirectory=b\n")
                                 << QStringLiteral("b");
    QTest::newRow("other group") << QByteArray("[Other]\nDataDirectory=x\n") << QString();
}

void TestApplicationInfo::sandboxGroupsHaveAnOrder()
{
    QFETCH(QByteArray, groups);
    const MyDesktopEntry entry(
        m_fixture.writeDesktopFile(QStringLiteral("one"), QStringLiteral("app"), groups));
    QTEST(entry.sailjailValue(QStringLiteral("DataDirectory")), "value");
    QTEST(read(groups).launchData().dataDirectory, "value");
}

void TestApplicationInfo::maemoObjectPathHasADefault()
{
    QCOMPARE(read("X-Maemo-Service=org.example.app\n").launchData().maemoObjectPath, QStringLiteral("/"));
    QCOMPARE(read("X-Maemo-Service=org.example.app\nX-Maemo-Object-Path=\n").launchData().maemoObjectPath,
             QStringLiteral("/"));
    QCOMPARE(read("").launchData().maemoObjectPath, QString());
    QCOMPARE(read("X-Maemo-Object-Path=/app\n").launchData().maemoObjectPath, QStringLiteral("/app"));
}

void TestApplicationInfo::intentsAreParsed_data()
{
    QTest::addColumn<QString>("value");
    QTest::addColumn<QStringList>("intents"); // name, qualifier, items, each as written here

    const auto row = [](const char *title, const char *value, std::initializer_list<const char *> intents) {
        QStringList list;
        for (const char *intent : intents) {
            list.append(QString::fromLatin1(intent));
        }
        QTest::newRow(title) << QString::fromLatin1(value) << list;
    };
    row("empty", "", {});
    row("names", "OpenURI;Start:", { "OpenURI // ", "Start // " });
    row("separators only", ";;;", {});
    row("items", "Share:a|b||c|", { "Share // a b c" });
    row("qualifier", "Pick/contact:a", { "Pick /contact/ a" });
    row("further qualifiers are dropped", "Pick/a/b", { "Pick /a/ " });
    row("further tails are dropped", "Share:a:b", { "Share // a" });
    row("last one of a name wins", "Share/x:a;Share:b", { "Share // b" });
    row("no name", ":a;/q", { " /q/ " });
    row("blanks stay", " Share : a", { " Share  //  a" });
}

void TestApplicationInfo::intentsAreParsed()
{
    QFETCH(QString, value);
    const auto intents = ApplicationInfoPrivate::parseIntents(value);
    QStringList found;
    for (auto it = intents.cbegin(); it != intents.cend(); ++it) {
        found.append(
            QStringLiteral("%1 /%2/ %3").arg(it.key(), it->qualifier, it->items.join(QLatin1Char(' '))));
    }
    QTEST(found, "intents");
}

void TestApplicationInfo::intentsComeFromTheSandboxGroups()
{
    const ApplicationInfo info = read("Intents=Wrong\n[X-Sailjail]\nIntents=OpenURI;Pick/contact:a|b;\n");
    QCOMPARE(info.intents().keys(), (QStringList { QStringLiteral("OpenURI"), QStringLiteral("Pick") }));
    const ApplicationInfo::IntentEntry pick = info.intents().value(QStringLiteral("Pick"));
    QCOMPARE(pick.qualifier, QStringLiteral("contact"));
    QCOMPARE(pick.items, (QStringList { QStringLiteral("a"), QStringLiteral("b") }));
}

void TestApplicationInfo::tasksAreRead()
{
    const ApplicationInfo info =
        read("Exec=app\n[X-Task sync1]\nType=worker\nExec=sync\nPermissions=Internet;Email\n"
             "Conditions=internet;battery>20;\n[X-Service player]\nType=audio\nExec=play\n"
             "[X-Other x]\nExec=no\n[X-Tasksync]\nExec=no\n");
    QCOMPARE(info.tasks().keys(), (QStringList { QStringLiteral("player"), QStringLiteral("sync1") }));
    const ApplicationInfo::TaskInfo sync = info.tasks().value(QStringLiteral("sync1"));
    QCOMPARE(sync.id.text(), QStringLiteral("org.kestrix.app.task_sync1"));
    QVERIFY(sync.id.isValid());
    QCOMPARE(sync.type, QStringLiteral("worker"));
    QCOMPARE(sync.exec, QStringLiteral("sync"));
    QCOMPARE(sync.permissions, (QStringList { QStringLiteral("Internet"), QStringLiteral("Email") }));
    QCOMPARE(sync.conditions, (QStringList { QStringLiteral("internet"), QStringLiteral("battery>20") }));
    const ApplicationInfo::TaskInfo player = info.tasks().value(QStringLiteral("player"));
    QCOMPARE(player.type, QStringLiteral("audio"));
    QVERIFY(player.permissions.isEmpty());
    QVERIFY(player.conditions.isEmpty());
}

void TestApplicationInfo::taskWithoutExecRunsTheApplication()
{
    const ApplicationInfo info = read("Exec=app %u\n[X-Task sync]\n[X-Task other]\nExec=\n");
    QCOMPARE(info.tasks().value(QStringLiteral("sync")).exec, QStringLiteral("app %u"));
    QCOMPARE(info.tasks().value(QStringLiteral("other")).exec, QStringLiteral("app %u"));
}

void TestApplicationInfo::taskNamesAreChecked_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<bool>("accepted");
    QTest::addColumn<bool>("reported");

    QTest::newRow("letter and digit") << QByteArray("sync1") << true << false;
    QTest::newRow("64 characters") << QByteArray(64, 'a') << true << false;
    QTest::newRow("65 characters") << QByteArray(65, 'a') << false << true;
    QTest::newRow("digit first") << QByteArray("1sync") << false << true;
    QTest::newRow("underscore") << QByteArray("my_sync") << false << true;
    QTest::newRow("blank in front") << QByteArray(" sync") << false << true;
    QTest::newRow("empty") << QByteArray("") << false << false;
}

void TestApplicationInfo::taskNamesAreChecked()
{
    QFETCH(QByteArray, name);
    QFETCH(bool, reported);
    for (const char *prefix : { "X-Task ", "X-Service " }) {
        const LogCapture log;
        const ApplicationInfo info = read("[" + QByteArray(prefix) + name + "]\nExec=x\n[X-Task good]\n");
        QVERIFY(info.isValid());
        QTEST(info.tasks().contains(QString::fromLatin1(name)), "accepted");
        QVERIFY(info.tasks().contains(QStringLiteral("good")));
        const QString report = QStringLiteral("Invalid task name: \"%1\"").arg(QString::fromLatin1(name));
        QCOMPARE(log.messages(), reported ? QStringList { report } : QStringList());
    }
}

void TestApplicationInfo::lastGroupOfATaskWins()
{
    const QByteArray task("[X-Task sync]\nExec=task\n");
    const QByteArray service("[X-Service sync]\nExec=service\n");
    const ApplicationInfo first = read(task + service);
    QCOMPARE(first.tasks().size(), 1);
    QCOMPARE(first.tasks().first().exec, QStringLiteral("service"));
    QCOMPARE(read(service + task).tasks().first().exec, QStringLiteral("task"));
}

void TestApplicationInfo::manifestIsLoaded()
{
    m_fixture.write(QStringLiteral("root/opt/app/org.kestrix.app/current/manifest.json"),
                    "{\"keepMediaActiveInBackground\": true}");
    const ApplicationInfo info = read("");
    QVERIFY(info.manifest().isValid());
    QVERIFY(info.manifest().keepMediaActiveInBackground());
}

void TestApplicationInfo::certificateIdIsRead_data()
{
    QTest::addColumn<QByteArray>("package");
    QTest::addColumn<QString>("certificateId");

    const auto row = [](const char *title, const QByteArray &package, const char *id) {
        QTest::newRow(title) << package << QString::fromLatin1(id);
    };
    row("id", "[certificate]\nid=ab:cd\n", "ab:cd");
    row("other group", "id=x\n[other]\nid=y\n", "");
    row("other key", "[certificate]\nname=x\n", "");
    row("empty", "", "");
    row("commas keep two ids apart", "[certificate]\nid=CN=a,O=b\n", "CN=a,O=b");
    row("malformed", "\x01\x02[certificate\nid", "");
    row("too large", "[certificate]\nid=x\n#" + QByteArray(1024 * 1024, 'x'), "");
}

void TestApplicationInfo::certificateIdIsRead()
{
    QFETCH(QByteArray, package);
    m_fixture.write(QStringLiteral("root/opt/app/org.kestrix.app/current/solvane.pkg"), package);
    const ApplicationInfo info = read("");
    QVERIFY(info.isValid());
    QTEST(info.certificateId(), "certificateId");
}

void TestApplicationInfo::missingPackageHasNoCertificateId()
{
    QDir().mkpath(m_fixture.path(QStringLiteral("root/opt/app/org.kestrix.app/current/solvane.pkg")));
    const ApplicationInfo info = read("");
    QVERIFY(info.isValid());
    QCOMPARE(info.certificateId(), QString());
}

void TestApplicationInfo::copySharesItsDataAndOutlivesTheFile()
{
    ApplicationInfo info = read("Exec=app\n[X-Task a]\n");
    const ApplicationInfo copy = info;
    QCOMPARE(&copy.launchData(), &info.launchData());
    QVERIFY(QFile::remove(info.desktopFile()));
    info = ApplicationInfo();
    QVERIFY(copy.isValid());
    QCOMPARE(copy.launchData().exec, QStringLiteral("app"));
    QCOMPARE(copy.tasks().size(), 1);
}

QTEST_GUILESS_MAIN(TestApplicationInfo)
#include "tst_application_info.moc"
