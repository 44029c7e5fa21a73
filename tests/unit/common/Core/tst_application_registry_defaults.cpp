#include "Core/application_instance_id.h"
#include "Core/application_registry.h"
#include "common/Core/catalogue_fixture.h"
#include "support/file_size_limit.h"
#include "support/log_capture.h"

#include <QUrl>
#include <QtTest>

#include <sys/stat.h>

using namespace Core;
using TestSupport::FileSizeLimit;
using TestSupport::LogCapture;

// The user's default handlers and the file that holds them.
class TestApplicationRegistryDefaults : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void missingFileGivesNoDefaults();
    void fileIsRead_data();
    void fileIsRead();
    void laterFileOfANameGivesTheApplication();
    void fileThatCannotBeOpenedIsReported();
    void manyEntriesTakeNoTime();
    void defaultIsSetPerMimeType();
    void defaultIsSetForAnInstancesApplication();
    void unknownApplicationChangesNothing();
    void fileIsRewrittenWhole();
    void desktopFilesNameIsWritten();
    void writerMakesTheDirectory();
    void writerReportsWhatItCannotDo();
    void changeThatCannotBeWrittenLastsUntilTheNextScan();
    void fullDiskLeavesTheFileAsItWas();
    void defaultsOfAnApplicationAreCleared();
    void fileSurvivesAReload();

private:
    void install(const char *name, const QByteArray &lines = QByteArray(),
                 const char *directory = "one") const
    {
        m_fixture.writeDesktopFile(QString::fromLatin1(directory), QString::fromLatin1(name), lines);
    }
    QString list() const { return m_fixture.path(QStringLiteral("home/config/mimeapps.list")); }
    void writeList(const QByteArray &content) const
    {
        m_fixture.write(QStringLiteral("home/config/mimeapps.list"), content);
    }
    QByteArray listContent() const
    {
        QFile file(list());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    static QString defaultFor(const ApplicationRegistry &registry, const char *name)
    {
        return registry.defaultHandlerForUrl(QUrl(QStringLiteral("file:///") + QString::fromLatin1(name)));
    }
    static ApplicationId appId(const char *text) { return ApplicationId(QString::fromLatin1(text)); }
    static QUrl url(const char *text) { return QUrl(QString::fromLatin1(text)); }

    const CatalogueFixture m_fixture;
};

void TestApplicationRegistryDefaults::init()
{
    m_fixture.clear();
}

void TestApplicationRegistryDefaults::missingFileGivesNoDefaults()
{
    install("a", "MimeType=text/plain\n");
    const LogCapture log;
    QCOMPARE(defaultFor(ApplicationRegistry(), "a.txt"), QString());
    QCOMPARE(log.messages(), QStringList());
}

void TestApplicationRegistryDefaults::fileIsRead_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("application"); // default of text/plain

    const auto row = [](const char *title, const char *content, const char *application) {
        QTest::newRow(title) << QByteArray(content) << QString::fromLatin1(application);
    };
    row("own form", "[Default Applications]\ntext/plain=a.desktop\n", "org.kestrix.a");
    row("no group", "text/plain=a.desktop", "org.kestrix.a");
    row("any group", "[Removed Associations]\ntext/plain=a.desktop\n", "org.kestrix.a");
    row("first installed one", "text/plain=gone.desktop;b.desktop;a.desktop;\n", "org.kestrix.b");
    row("later lines are appended",
        "text/plain=gone.desktop\n[x]\ntext/plain=b.desktop\ntext/plain=a.desktop\n", "org.kestrix.b");
    row("duplicates", "text/plain=gone.desktop;gone.desktop;a.desktop\n", "org.kestrix.a");
    row("nothing installed", "text/plain=gone.desktop\n", "");
    row("blanks", " text/plain = a.desktop \n", "org.kestrix.a");
    row("line ends of other systems", "[x]\r\ntext/plain=a.desktop\r\n", "org.kestrix.a");
    row("comment", "#text/plain=a.desktop\n", "");
    row("comment's character behind", "text/plain=a.desktop\n# no more\n", "org.kestrix.a");
    row("bracket in front", "[text/plain=a.desktop\n", "");
    row("no equals sign", "text/plain\na.desktop\n", "");
    row("second equals sign", "text/plain=a.desktop=b\n", "");
    row("empty value", "text/plain=\ntext/plain=;;\n", "");
    row("empty lines", "\n\n\ntext/plain=a.desktop\n\n", "org.kestrix.a");
    row("path is no name", "text/plain=/usr/share/applications/a.desktop\n", "");
    row("other type", "image/png=a.desktop\n", "");
    row("not UTF-8", "\xff\xfe=\xff\ntext/plain=\xff;a.desktop\n", "org.kestrix.a");
}

void TestApplicationRegistryDefaults::fileIsRead()
{
    QFETCH(QByteArray, content);
    install("a");
    install("b");
    writeList(content);
    const LogCapture log;
    QTEST(defaultFor(ApplicationRegistry(), "a.txt"), "application");
    QCOMPARE(log.messages(), QStringList());
}

void TestApplicationRegistryDefaults::laterFileOfANameGivesTheApplication()
{
    install("a", "[X-Sailjail]\nOrganizationName=org.example\nApplicationName=One\n", "one");
    install("a", "[X-Sailjail]\nOrganizationName=org.example\nApplicationName=Two\n", "two");
    writeList("text/plain=a.desktop\n");
    QCOMPARE(defaultFor(ApplicationRegistry(), "a.txt"), QStringLiteral("org.example.Two"));
}

void TestApplicationRegistryDefaults::fileThatCannotBeOpenedIsReported()
{
    install("a");
    const QString report = QStringLiteral("Failed to open file \"%1\"").arg(list());
    QVERIFY(QDir().mkpath(list()));
    QTest::ignoreMessage(QtWarningMsg, qPrintable(report));
    QCOMPARE(defaultFor(ApplicationRegistry(), "a.txt"), QString());

    QVERIFY(QDir().rmdir(list()));
    QCOMPARE(::mkfifo(QFile::encodeName(list()).constData(), 0600), 0);
    QTest::ignoreMessage(QtWarningMsg, qPrintable(report));
    QCOMPARE(defaultFor(ApplicationRegistry(), "a.txt"), QString());
}

void TestApplicationRegistryDefaults::manyEntriesTakeNoTime()
{
    install("a");
    QByteArray content("text/plain=");
    for (int i = 0; content.size() < 1024 * 1024 - 100; ++i) {
        content += QByteArray::number(i) + ';';
    }
    writeList(content + "a.desktop\n");
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(defaultFor(ApplicationRegistry(), "a.txt"), QStringLiteral("org.kestrix.a"));
    QVERIFY2(timer.elapsed() < 5000, "took quadratic time");
}

void TestApplicationRegistryDefaults::defaultIsSetPerMimeType()
{
    install("a");
    install("b");
    ApplicationRegistry registry;
    registry.setDefaultHandlerForUri(url("web://host/x.png"), appId("org.kestrix.a"));
    QCOMPARE(defaultFor(registry, "y.png"), QStringLiteral("org.kestrix.a"));
    QCOMPARE(registry.defaultHandlerForUrl(url("http://other/z.png")), QStringLiteral("org.kestrix.a"));
    QCOMPARE(defaultFor(registry, "y.jpg"), QString());
    registry.setDefaultHandlerForUri(url("file:///x.png"), appId("org.kestrix.b"));
    QCOMPARE(defaultFor(registry, "y.png"), QStringLiteral("org.kestrix.b"));
    QCOMPARE(listContent(), QByteArray("[Default Applications]\nimage/png=b.desktop\n"));
}

void TestApplicationRegistryDefaults::defaultIsSetForAnInstancesApplication()
{
    install("a");
    ApplicationRegistry registry;
    registry.setDefaultHandlerForUri(url("file:///x.png"), ApplicationInstanceId(appId("org.kestrix.a"), 9));
    QCOMPARE(defaultFor(registry, "x.png"), QStringLiteral("org.kestrix.a"));
}

void TestApplicationRegistryDefaults::unknownApplicationChangesNothing()
{
    install("a");
    ApplicationRegistry registry;
    QTest::ignoreMessage(QtWarningMsg,
                         "Failed to set \"org.example.Gone\" as default handler for \"web://host/x.png\" uri "
                         "(application doesn't exists in the application registry)");
    registry.setDefaultHandlerForUri(url("web://host/x.png"), appId("org.example.Gone"));
    QCOMPARE(defaultFor(registry, "x.png"), QString());
    QVERIFY(!QFile::exists(list()));
}

void TestApplicationRegistryDefaults::fileIsRewrittenWhole()
{
    install("a");
    install("b");
    writeList("# mine\n[Added "
              "Associations]\ntext/plain=gone.desktop;b.desktop;a.desktop\nimage/jpeg=gone.desktop\n");
    ApplicationRegistry registry;
    registry.setDefaultHandlerForUri(url("file:///x.png"), appId("org.kestrix.a"));
    QCOMPARE(listContent(),
             QByteArray("[Default Applications]\nimage/png=a.desktop\ntext/plain=b.desktop\n"));
}

void TestApplicationRegistryDefaults::desktopFilesNameIsWritten()
{
    install("a-b", "[X-Sailjail]\nOrganizationName=org.example\nApplicationName=A\n");
    ApplicationRegistry registry;
    registry.setDefaultHandlerForUri(url("file:///x.png"), appId("org.example.A"));
    QCOMPARE(listContent(), QByteArray("[Default Applications]\nimage/png=a-b.desktop\n"));
    QCOMPARE(defaultFor(ApplicationRegistry(), "x.png"), QStringLiteral("org.example.A"));
}

void TestApplicationRegistryDefaults::writerMakesTheDirectory()
{
    install("a");
    QVERIFY(!QDir(m_fixture.path(QStringLiteral("home/config"))).exists());
    ApplicationRegistry registry;
    registry.setDefaultHandlerForUri(url("file:///x.png"), appId("org.kestrix.a"));
    QCOMPARE(listContent(), QByteArray("[Default Applications]\nimage/png=a.desktop\n"));
}

void TestApplicationRegistryDefaults::writerReportsWhatItCannotDo()
{
    install("a");
    ApplicationRegistry registry;
    const QString openReport = QStringLiteral("Failed to open file \"%1\"").arg(list());

    // No directory can be made where a file is.
    const QString directory = m_fixture.write(QStringLiteral("home/config"), "file");
    QTest::ignoreMessage(QtWarningMsg,
                         qPrintable(QStringLiteral("Failed to create directory \"%1\"").arg(directory)));
    QTest::ignoreMessage(QtWarningMsg, qPrintable(openReport));
    registry.setDefaultHandlerForUri(url("file:///x.png"), appId("org.kestrix.a"));

    QVERIFY(QFile::remove(directory));
    QVERIFY(QDir().mkpath(list()));
    QTest::ignoreMessage(QtWarningMsg, qPrintable(openReport));
    registry.setDefaultHandlerForUri(url("file:///x.png"), appId("org.kestrix.a"));
}

void TestApplicationRegistryDefaults::changeThatCannotBeWrittenLastsUntilTheNextScan()
{
    install("a");
    ApplicationRegistry registry;
    m_fixture.write(QStringLiteral("home/config"), "file");
    {
        const LogCapture log;
        registry.setDefaultHandlerForUri(url("file:///x.png"), appId("org.kestrix.a"));
        QCOMPARE(log.messages(QtWarningMsg).size(), 2);
    }
    QCOMPARE(defaultFor(registry, "x.png"), QStringLiteral("org.kestrix.a"));
    registry.reload();
    QCOMPARE(defaultFor(registry, "x.png"), QString());
}

void TestApplicationRegistryDefaults::fullDiskLeavesTheFileAsItWas()
{
    install("a", "MimeType=text/plain;image/png\n");
    const QByteArray before = "[Default Applications]\ntext/plain=a.desktop\n";
    writeList(before);
    ApplicationRegistry registry;
    const LogCapture log;
    {
        const FileSizeLimit limit(before.size()); // the new file needs more
        registry.setDefaultHandlerForUri(url("file:///a.png"), appId("org.kestrix.a"));
    }
    QCOMPARE(listContent(), before);
    QCOMPARE(log.warnings().size(), 1);
    QVERIFY(log.warnings().first().startsWith(QLatin1String("Failed to write file")));
}

void TestApplicationRegistryDefaults::defaultsOfAnApplicationAreCleared()
{
    install("a");
    install("b");
    writeList("image/png=a.desktop\nimage/jpeg=a.desktop\ntext/plain=b.desktop\n");
    ApplicationRegistry registry;
    registry.clearDefaultHandlers(appId("org.kestrix.a"));
    QCOMPARE(defaultFor(registry, "x.png"), QString());
    QCOMPARE(defaultFor(registry, "x.jpg"), QString());
    QCOMPARE(defaultFor(registry, "x.txt"), QStringLiteral("org.kestrix.b"));
    QCOMPARE(listContent(), QByteArray("[Default Applications]\ntext/plain=b.desktop\n"));

    // It is written also when nothing had to go.
    writeList("");
    registry.clearDefaultHandlers(appId("org.example.Unknown"));
    QCOMPARE(listContent(), QByteArray("[Default Applications]\ntext/plain=b.desktop\n"));
}

void TestApplicationRegistryDefaults::fileSurvivesAReload()
{
    install("a");
    ApplicationRegistry registry;
    registry.setDefaultHandlerForUri(url("file:///x.png"), appId("org.kestrix.a"));
    registry.reload();
    QCOMPARE(defaultFor(registry, "x.png"), QStringLiteral("org.kestrix.a"));
    QVERIFY(QFile::remove(m_fixture.desktopFile(QStringLiteral("one"), QStringLiteral("a"))));
    registry.reload();
    QCOMPARE(defaultFor(registry, "x.png"), QString());
}

QTEST_GUILESS_MAIN(TestApplicationRegistryDefaults)
#include "tst_application_registry_defaults.moc"
