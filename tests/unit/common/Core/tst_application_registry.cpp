#include "Core/application_instance_id.h"
#include "Core/application_registry.h"
#include "common/Core/catalogue_fixture.h"
#include "support/log_capture.h"
#include "support/patience.h"

#include <QScopeGuard>
#include <QSignalSpy>
#include <QtTest>

#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

using namespace Core;
using TestSupport::LogCapture;

namespace {

ApplicationId appId(const char *text)
{
    return ApplicationId(QString::fromUtf8(text));
}

ApplicationTaskId taskId(const char *text)
{
    return ApplicationTaskId(QString::fromUtf8(text));
}

QStringList texts(const QList<ApplicationInfo::TaskInfo> &tasks)
{
    QStringList list;
    for (const ApplicationInfo::TaskInfo &task : tasks) {
        list.append(task.id.text());
    }
    return list;
}

} // namespace

class TestApplicationRegistry : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void emptySystemIsNoFault();
    void instanceIsOneAndTheSame();
    void applicationIsFound();
    void instanceAndTaskFindTheirApplication();
    void unknownApplicationGivesDefaults();
    void applicationIsFoundByDesktopFile();
    void intentsAreLookedUp();
    void tasksAreLookedUp();
    void backgroundPolicyFollowsManifestAndOverride_data();
    void backgroundPolicyFollowsManifestAndOverride();
    void lastDirectoryWinsForTheSameId();
    void onlyVisibleDesktopFilesAreRead();
    void brokenFilesDoNotStopTheScan();
    void reloadScansAndSignals();
    void changesAreNoticed();
    void fileMovedOverAnotherIsNoticed();
    void fileOverriddenElsewhereStaysWatched();
    void unusableFileStaysWatched();
    void directoriesThatVanishAreNoticed();
    void directoryThatComesLaterIsNoticed();
    void directoryThatComesAgainIsNoticed();
    void othersBesideAMissingDirectoryAreNoChange();
    void valuesOutliveAScan();
    void reloadFromTheSignalIsHarmless();

private:
    void write(const char *directory, const char *name, const QByteArray &lines) const
    {
        m_fixture.writeDesktopFile(QString::fromLatin1(directory), QString::fromLatin1(name), lines);
    }
    QString file(const char *directory, const char *name) const
    {
        return m_fixture.desktopFile(QString::fromLatin1(directory), QString::fromLatin1(name));
    }

    const CatalogueFixture m_fixture;
};

void TestApplicationRegistry::init()
{
    m_fixture.clear();
}

void TestApplicationRegistry::emptySystemIsNoFault()
{
    const LogCapture log;
    const ApplicationRegistry registry;
    QCOMPARE(registry.desktopFile(appId("org.kestrix.a")), QString());
    QCOMPARE(registry.handlersForIntent(QStringLiteral("Start")), QStringList());
    QCOMPARE(log.messages(), QStringList());
}

void TestApplicationRegistry::instanceIsOneAndTheSame()
{
    write("one", "a", "");
    ApplicationRegistry *const registry = ApplicationRegistry::instance();
    QVERIFY(registry != nullptr);
    QCOMPARE(ApplicationRegistry::instance(), registry);
    QCOMPARE(registry->desktopFile(appId("org.kestrix.a")), file("one", "a"));
}

void TestApplicationRegistry::applicationIsFound()
{
    write("one", "a",
          "Exec=a %u\nIcon=icon-a\nX-Solvane-Single-Cover=yes\n[X-Sailjail]\nOrganizationName=org.example\n"
          "ApplicationName=A\n");
    m_fixture.write(QStringLiteral("root/opt/app/org.example.A/current/manifest.json"), "{}");
    m_fixture.write(QStringLiteral("root/opt/app/org.example.A/current/solvane.pkg"),
                    "[certificate]\nid=c1\n");
    const ApplicationRegistry registry;
    const ApplicationId id = appId("org.example.A");
    QCOMPARE(registry.desktopFile(id), file("one", "a"));
    QCOMPARE(registry.launchData(id).exec, QStringLiteral("a %u"));
    QVERIFY(registry.launchData(id).singleCover);
    QCOMPARE(registry.name(id), QStringLiteral("a"));
    QCOMPARE(registry.icon(id), QStringLiteral("icon-a"));
    QCOMPARE(registry.certificateId(id), QStringLiteral("c1"));
    QVERIFY(registry.manifest(id).isValid());
}

void TestApplicationRegistry::instanceAndTaskFindTheirApplication()
{
    write("one", "a", "Exec=a\n[X-Task t]\n");
    const ApplicationRegistry registry;
    QCOMPARE(registry.desktopFile(ApplicationInstanceId(appId("org.kestrix.a"), 7)), file("one", "a"));
    QCOMPARE(registry.launchData(taskId("org.kestrix.a.task_t")).exec, QStringLiteral("a"));
    QCOMPARE(texts(registry.tasks(taskId("org.kestrix.a.task_other"))).size(), 1);
}

void TestApplicationRegistry::unknownApplicationGivesDefaults()
{
    write("one", "a", "Exec=a\n");
    const ApplicationRegistry registry;
    for (const ApplicationId &id : { ApplicationId(), appId("org.kestrix.b"), appId("nonsense"),
                                     ApplicationId(QString(100000, QLatin1Char('.'))) }) {
        QCOMPARE(registry.desktopFile(id), QString());
        QCOMPARE(registry.launchData(id).exec, QString());
        QVERIFY(registry.launchData(id).sandboxed);
        QVERIFY(registry.launchData(id).singleInstance);
        QCOMPARE(registry.name(id), QString());
        QCOMPARE(registry.icon(id), QString());
        QCOMPARE(registry.certificateId(id), QString());
        QVERIFY(!registry.manifest(id).isValid());
        QCOMPARE(registry.backgroundPolicy(id), 0);
        QVERIFY(!registry.handlesIntent(id, QStringLiteral("Start")));
        QVERIFY(registry.tasks(id).isEmpty());
    }
    QCOMPARE(&registry.launchData(appId("org.kestrix.b")), &registry.launchData(appId("org.kestrix.c")));
    QCOMPARE(&registry.name(appId("org.kestrix.b")), &registry.name(appId("org.kestrix.c")));
}

void TestApplicationRegistry::applicationIsFoundByDesktopFile()
{
    write("one", "a", "[X-Sailjail]\nOrganizationName=org.example\nApplicationName=A\n");
    const ApplicationRegistry registry;
    QCOMPARE(registry.applicationForDesktopFile(file("one", "a")).text(), QStringLiteral("org.example.A"));
    QVERIFY(registry.applicationForDesktopFile(file("two", "a")).isEmpty());
    QVERIFY(registry.applicationForDesktopFile(QStringLiteral("a.desktop")).isEmpty());
    QVERIFY(registry.applicationForDesktopFile(QString()).isEmpty());
}

void TestApplicationRegistry::intentsAreLookedUp()
{
    write("one", "c", "[X-Sailjail]\nIntents=Start;Share\n");
    write("one", "a", "[X-Sailjail]\nIntents=Share:x\n");
    write("two", "b", "[X-Sailjail]\nIntents=share\n");
    const ApplicationRegistry registry;
    QVERIFY(registry.handlesIntent(appId("org.kestrix.a"), QStringLiteral("Share")));
    QVERIFY(!registry.handlesIntent(appId("org.kestrix.a"), QStringLiteral("Start")));
    QVERIFY(!registry.handlesIntent(appId("org.kestrix.b"), QStringLiteral("Share")));
    QCOMPARE(registry.handlersForIntent(QStringLiteral("Share")),
             (QStringList { QStringLiteral("org.kestrix.a"), QStringLiteral("org.kestrix.c") }));
    QCOMPARE(registry.handlersForIntent(QString()), QStringList());
}

void TestApplicationRegistry::tasksAreLookedUp()
{
    write("one", "b", "[X-Task z]\nType=worker\n[X-Task a]\nType=worker\n[X-Task m]\nType=timer\n");
    write("one", "a", "[X-Service s]\nType=worker\nExec=run\n");
    const ApplicationRegistry registry;
    QCOMPARE(registry.taskInfo(taskId("org.kestrix.a.task_s")).exec, QStringLiteral("run"));
    QVERIFY(registry.taskInfo(taskId("org.kestrix.a.task_t")).id.isEmpty());
    QVERIFY(registry.taskInfo(taskId("org.kestrix.c.task_s")).id.isEmpty());
    QVERIFY(registry.taskInfo(taskId("org.kestrix.a")).id.isEmpty());
    QVERIFY(registry.taskInfo(ApplicationTaskId()).id.isEmpty());
    QCOMPARE(texts(registry.tasks(appId("org.kestrix.b"))),
             (QStringList { QStringLiteral("org.kestrix.b.task_a"), QStringLiteral("org.kestrix.b.task_m"),
                            QStringLiteral("org.kestrix.b.task_z") }));
    QCOMPARE(texts(registry.tasksOfType(QStringLiteral("worker"))),
             (QStringList { QStringLiteral("org.kestrix.a.task_s"), QStringLiteral("org.kestrix.b.task_a"),
                            QStringLiteral("org.kestrix.b.task_z") }));
    QVERIFY(registry.tasksOfType(QStringLiteral("Worker")).isEmpty());
}

void TestApplicationRegistry::backgroundPolicyFollowsManifestAndOverride_data()
{
    QTest::addColumn<QByteArray>("manifest"); // null: none
    QTest::addColumn<QByteArray>("override");
    QTest::addColumn<int>("policy");

    const QByteArray keep("{\"keepMediaActiveInBackground\": true}");
    QTest::newRow("nothing") << QByteArray() << QByteArray() << 0;
    QTest::newRow("manifest") << QByteArray("{}") << QByteArray() << 2;
    QTest::newRow("manifest that keeps media") << keep << QByteArray() << 1;
    QTest::newRow("manifest that is no object") << QByteArray("[]") << QByteArray() << 0;
    QTest::newRow("4.2.0") << QByteArray() << QByteArray("4.2.0") << 1;
    QTest::newRow("5.2.0") << QByteArray() << QByteArray("5.2.0") << 2;
    QTest::newRow("5.1.9") << QByteArray() << QByteArray("5.1.9") << 1;
    QTest::newRow("4.1.9") << QByteArray() << QByteArray("4.1.9") << 0;
    QTest::newRow("4.2 is below 4.2.0") << QByteArray() << QByteArray("4.2") << 0;
    QTest::newRow("5.2 is below 5.2.0") << QByteArray() << QByteArray("5.2") << 1;
    QTest::newRow("4.10.0 is above 4.2.0") << QByteArray() << QByteArray("4.10.0") << 1;
    QTest::newRow("later version") << QByteArray() << QByteArray("10") << 2;
    QTest::newRow("unparsable") << QByteArray("{}") << QByteArray("latest") << 0;
    QTest::newRow("empty override is none") << QByteArray("{}") << QByteArray("\"\"") << 2;
    QTest::newRow("manifest and 3.0") << QByteArray("{}") << QByteArray("3.0") << 0;
    QTest::newRow("manifest and 4.5.0") << QByteArray("{}") << QByteArray("4.5.0") << 1;
    QTest::newRow("manifest that keeps media and 4.5.0") << keep << QByteArray("4.5.0") << 1;
    QTest::newRow("manifest that keeps media and 6.0.0") << keep << QByteArray("6.0.0") << 1;
}

void TestApplicationRegistry::backgroundPolicyFollowsManifestAndOverride()
{
    QFETCH(QByteArray, manifest);
    QFETCH(QByteArray, override);
    write("one", "a", "");
    if (!manifest.isNull()) {
        m_fixture.write(QStringLiteral("root/opt/app/org.kestrix.a/current/manifest.json"), manifest);
    }
    if (!override.isNull()) {
        m_fixture.write(QStringLiteral("root/etc/procwarden/os-version-support.cfg"),
                        "[Applications]\norg.kestrix.*=" + override + '\n');
    }
    const ApplicationRegistry registry;
    QTEST(registry.backgroundPolicy(appId("org.kestrix.a")), "policy");
    QTEST(registry.backgroundPolicy(ApplicationInstanceId(appId("org.kestrix.a"), 3)), "policy");
}

void TestApplicationRegistry::lastDirectoryWinsForTheSameId()
{
    write("home/data", "a", "Exec=home\n[X-Task t]\n");
    write("one", "a", "Exec=one\n");
    write("two", "a", "Exec=two\n");
    // Another file's name, the same id.
    write("two", "other", "Exec=other\n[X-Sailjail]\nOrganizationName=org.example\nApplicationName=A\n");
    write("one", "first", "Exec=first\n[X-Sailjail]\nOrganizationName=org.example\nApplicationName=A\n");
    const ApplicationRegistry registry;
    QCOMPARE(registry.launchData(appId("org.kestrix.a")).exec, QStringLiteral("two"));
    QCOMPARE(registry.desktopFile(appId("org.kestrix.a")), file("two", "a"));
    QVERIFY(registry.tasks(appId("org.kestrix.a")).isEmpty());
    QCOMPARE(registry.launchData(appId("org.example.A")).exec, QStringLiteral("other"));
    QVERIFY(registry.applicationForDesktopFile(file("one", "a")).isEmpty());
}

void TestApplicationRegistry::onlyVisibleDesktopFilesAreRead()
{
    m_fixture.write(QStringLiteral("one/applications/a.txt"), "[Desktop Entry]\n");
    m_fixture.write(QStringLiteral("one/applications/a.desktop.new"), "[Desktop Entry]\n");
    m_fixture.write(QStringLiteral("one/applications/.hidden.desktop"), "nonsense");
    m_fixture.write(QStringLiteral("one/applications/below/b.desktop"), "[Desktop Entry]\n");
    m_fixture.write(QStringLiteral("one/applications/dir.desktop/c.desktop"), "[Desktop Entry]\n");
    const LogCapture log;
    const ApplicationRegistry registry;
    for (const char *id : { "org.kestrix.a", "org.kestrix._2ehidden", "org.kestrix.b",
                            "org.kestrix.below_2fb", "org.kestrix.dir", "org.kestrix.c" }) {
        QCOMPARE(registry.desktopFile(appId(id)), QString());
    }
    QCOMPARE(log.messages(), QStringList());
}

void TestApplicationRegistry::brokenFilesDoNotStopTheScan()
{
    write("one", "good", "Exec=good\n");
    write("two", "linked", "Exec=linked\n");
    m_fixture.write(QStringLiteral("one/applications/text.desktop"), "nonsense");
    m_fixture.write(QStringLiteral("one/applications/empty.desktop"), "");
    m_fixture.write(QStringLiteral("one/applications/binary.desktop"),
                    QByteArray("\x7f"
                               "ELF\0\0\1\2",
                               8));
    m_fixture.write(QStringLiteral("one/applications/huge.desktop"),
                    "[Desktop Entry]\nName=x\n#" + QByteArray(2 * 1024 * 1024, 'x'));
    QVERIFY(QFile::link(QStringLiteral("nowhere"), file("one", "dangling")));
    QVERIFY(QFile::link(file("one", "loop"), file("one", "loop")));
    QVERIFY(QFile::link(file("two", "linked"), file("one", "link")));
    QVERIFY(QFile::link(QStringLiteral("/dev/zero"), file("one", "device")));
    QCOMPARE(::mkfifo(QFile::encodeName(file("one", "fifo")).constData(), 0600), 0);
    QVERIFY(QFile::link(file("one", "fifo"), file("one", "fifolink")));
    // A name that no text can hold.
    const QByteArray rawName =
        QFile::encodeName(m_fixture.path(QStringLiteral("one/applications/"))) + "\xff.desktop";
    QCOMPARE(::mknod(rawName.constData(), S_IFREG | 0600, 0), 0);
    const auto removed = qScopeGuard([&rawName] { ::unlink(rawName.constData()); }); // QDir cannot

    const LogCapture log;
    const ApplicationRegistry registry;
    QCOMPARE(registry.launchData(appId("org.kestrix.good")).exec, QStringLiteral("good"));
    QCOMPARE(registry.launchData(appId("org.kestrix.link")).exec, QStringLiteral("linked"));
    for (const char *id : { "org.kestrix.text", "org.kestrix.empty", "org.kestrix.binary", "org.kestrix.huge",
                            "org.kestrix.dangling", "org.kestrix.loop", "org.kestrix.fifo" }) {
        QCOMPARE(registry.desktopFile(appId(id)), QString());
    }
    QCOMPARE(log.messages(QtWarningMsg), QStringList());
}

void TestApplicationRegistry::reloadScansAndSignals()
{
    ApplicationRegistry registry;
    QSignalSpy changed(&registry, &ApplicationRegistry::manifestsChanged);
    write("one", "a", "");
    QCOMPARE(registry.desktopFile(appId("org.kestrix.a")), QString());
    registry.reload();
    QCOMPARE(changed.count(), 1);
    QCOMPARE(registry.desktopFile(appId("org.kestrix.a")), file("one", "a"));
}

void TestApplicationRegistry::changesAreNoticed()
{
    write("one", "a", "Exec=old\n");
    ApplicationRegistry registry;
    QSignalSpy changed(&registry, &ApplicationRegistry::manifestsChanged);
    const ApplicationId a = appId("org.kestrix.a");

    write("one", "a", "Exec=new\n");
    QTRY_COMPARE(registry.launchData(a).exec, QStringLiteral("new"));
    QVERIFY(!changed.isEmpty());

    write("one", "b", "Exec=b\n");
    QTRY_COMPARE(registry.launchData(appId("org.kestrix.b")).exec, QStringLiteral("b"));
    // A file that came later is watched like the others.
    write("one", "b", "Exec=b2\n");
    QTRY_COMPARE(registry.launchData(appId("org.kestrix.b")).exec, QStringLiteral("b2"));

    QVERIFY(QFile::remove(file("one", "a")));
    QTRY_COMPARE(registry.desktopFile(a), QString());
    write("one", "a", "Exec=again\n");
    QTRY_COMPARE(registry.launchData(a).exec, QStringLiteral("again"));
    write("one", "a", "Exec=and again\n");
    QTRY_COMPARE(registry.launchData(a).exec, QStringLiteral("and again"));
}

void TestApplicationRegistry::fileMovedOverAnotherIsNoticed()
{
    write("one", "a", "Exec=old\n");
    const ApplicationRegistry registry;
    const ApplicationId a = appId("org.kestrix.a");
    QFile stillOpen(file("one", "a"));
    QVERIFY(stillOpen.open(QIODevice::ReadOnly));
    write("two", "new", "Exec=new\n");
    QCOMPARE(std::rename(QFile::encodeName(file("two", "new")).constData(),
                         QFile::encodeName(file("one", "a")).constData()),
             0);
    QTRY_COMPARE(registry.launchData(a).exec, QStringLiteral("new"));
    // It is the new file that is watched now.
    write("one", "a", "Exec=newer\n");
    QTRY_COMPARE(registry.launchData(a).exec, QStringLiteral("newer"));
}

void TestApplicationRegistry::fileOverriddenElsewhereStaysWatched()
{
    write("one", "a", "Exec=one\n");
    write("two", "a", "Exec=two\n");
    ApplicationRegistry registry;
    QSignalSpy changed(&registry, &ApplicationRegistry::manifestsChanged);
    write("one", "a", "Exec=uno\n");
    QVERIFY(changed.wait(patienceMs));
    QCOMPARE(registry.launchData(appId("org.kestrix.a")).exec, QStringLiteral("two"));
    QVERIFY(QFile::remove(file("two", "a")));
    QTRY_COMPARE(registry.launchData(appId("org.kestrix.a")).exec, QStringLiteral("uno"));
}

void TestApplicationRegistry::unusableFileStaysWatched()
{
    m_fixture.write(QStringLiteral("one/applications/a.desktop"), "nonsense");
    const LogCapture log;
    const ApplicationRegistry registry;
    QCOMPARE(registry.desktopFile(appId("org.kestrix.a")), QString());
    write("one", "a", "Exec=fine\n");
    QTRY_COMPARE(registry.launchData(appId("org.kestrix.a")).exec, QStringLiteral("fine"));
}

void TestApplicationRegistry::directoriesThatVanishAreNoticed()
{
    write("one", "a", "");
    write("two", "b", "");
    ApplicationRegistry registry;
    QVERIFY(QDir(m_fixture.path(QStringLiteral("one/applications"))).removeRecursively());
    QTRY_COMPARE(registry.desktopFile(appId("org.kestrix.a")), QString());
    QCOMPARE(registry.desktopFile(appId("org.kestrix.b")), file("two", "b"));

    // And what takes their place.
    write("one", "a", "Exec=1\n");
    QTRY_COMPARE(registry.launchData(appId("org.kestrix.a")).exec, QStringLiteral("1"));
    write("one", "c", "");
    QTRY_COMPARE(registry.desktopFile(appId("org.kestrix.c")), file("one", "c"));
}

void TestApplicationRegistry::directoryThatComesLaterIsNoticed()
{
    // Not even a home. All of it comes at once, and then step by step.
    const ApplicationRegistry registry;
    write("home/data", "a", "Exec=a\n");
    QTRY_COMPARE(registry.desktopFile(appId("org.kestrix.a")), file("home/data", "a"));
    write("home/data", "a", "Exec=changed\n");
    QTRY_COMPARE(registry.launchData(appId("org.kestrix.a")).exec, QStringLiteral("changed"));

    QVERIFY(QDir().mkdir(m_fixture.path(QStringLiteral("one"))));
    QTest::qWait(0);
    QVERIFY(QDir().mkdir(m_fixture.path(QStringLiteral("one/applications"))));
    QTest::qWait(0);
    write("one", "b", "");
    QTRY_COMPARE(registry.desktopFile(appId("org.kestrix.b")), file("one", "b"));
}

void TestApplicationRegistry::directoryThatComesAgainIsNoticed()
{
    write("home/data", "a", "");
    const ApplicationRegistry registry;
    const ApplicationId a = appId("org.kestrix.a");
    for (const char *removed : { "home/data/applications", "home" }) {
        QVERIFY(QDir(m_fixture.path(QString::fromLatin1(removed))).removeRecursively());
        QTRY_COMPARE(registry.desktopFile(a), QString());
        write("home/data", "a", "");
        QTRY_COMPARE(registry.desktopFile(a), file("home/data", "a"));
    }
}

void TestApplicationRegistry::othersBesideAMissingDirectoryAreNoChange()
{
    m_fixture.write(QStringLiteral("home/data/other"), "");
    ApplicationRegistry registry;
    QSignalSpy changed(&registry, &ApplicationRegistry::manifestsChanged);
    for (int i = 0; i < 3; ++i) {
        m_fixture.write(QStringLiteral("home/data/other%1").arg(i), "");
        QTest::qWait(0);
    }
    write("home/data", "a", "");
    QTRY_COMPARE(registry.desktopFile(appId("org.kestrix.a")), file("home/data", "a"));
    QVERIFY(changed.count() <= 2); // the directory, and maybe the file in it
}

void TestApplicationRegistry::valuesOutliveAScan()
{
    write("one", "a", "Exec=a\n[X-Task t]\nExec=t\n");
    ApplicationRegistry registry;
    const QList<ApplicationInfo::TaskInfo> tasks = registry.tasks(appId("org.kestrix.a"));
    QVERIFY(QFile::remove(file("one", "a")));
    registry.reload();
    QVERIFY(registry.tasks(appId("org.kestrix.a")).isEmpty());
    QCOMPARE(tasks.value(0).exec, QStringLiteral("t"));
}

void TestApplicationRegistry::reloadFromTheSignalIsHarmless()
{
    write("one", "a", "");
    ApplicationRegistry registry;
    int count = 0;
    connect(&registry, &ApplicationRegistry::manifestsChanged, &registry, [&] {
        if (++count < 3) {
            registry.reload();
        }
    });
    registry.reload();
    QCOMPARE(count, 3);
    QCOMPARE(registry.desktopFile(appId("org.kestrix.a")), file("one", "a"));
}

QTEST_GUILESS_MAIN(TestApplicationRegistry)
#include "tst_application_registry.moc"
