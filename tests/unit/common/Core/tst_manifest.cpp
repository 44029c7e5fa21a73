#include "Core/application_id.h"
#include "Core/application_instance_id.h"
#include "Core/manifest.h"
#include "common/Core/catalogue_fixture.h"
#include "support/log_capture.h"

#include <QtTest>

#include <sys/stat.h>

using namespace Core;
using TestSupport::LogCapture;

class TestManifest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void missingFileIsNoFault();
    void defaultMadeIsInvalid();
    void invalidIdReadsNoFile();
    void instanceFindsItsApplication();
    void contentIsRead_data();
    void contentIsRead();
    void fileThatCannotBeOpenedIsReportedAtDebugLevel();
    void malformedFileIsReported();
    void copyIsDeep();

private:
    QString write(const QByteArray &content) const
    {
        return m_fixture.write(QStringLiteral("root/opt/app/org.example.App/current/manifest.json"), content);
    }

    const CatalogueFixture m_fixture;
    const ApplicationId m_id { QStringLiteral("org.example.App") };
};

void TestManifest::init()
{
    m_fixture.clear();
}

void TestManifest::missingFileIsNoFault()
{
    const LogCapture log;
    const Manifest manifest(m_id);
    QVERIFY(!manifest.isValid());
    QVERIFY(!manifest.keepMediaActiveInBackground());
    QCOMPARE(log.messages(), QStringList());
}

void TestManifest::defaultMadeIsInvalid()
{
    const Manifest manifest;
    QVERIFY(!manifest.isValid());
    QVERIFY(!manifest.keepMediaActiveInBackground());
}

void TestManifest::invalidIdReadsNoFile()
{
    m_fixture.write(QStringLiteral("root/opt/app/App/current/manifest.json"), "{}");
    QVERIFY(!Manifest(ApplicationId(QStringLiteral("App"))).isValid());
    QVERIFY(!Manifest(ApplicationId()).isValid());
}

void TestManifest::instanceFindsItsApplication()
{
    write("{}");
    QVERIFY(Manifest(ApplicationInstanceId(m_id, 3)).isValid());
}

void TestManifest::contentIsRead_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("valid");
    QTest::addColumn<bool>("keepMedia");

    const auto row = [](const char *title, const char *content, bool valid, bool keepMedia) {
        QTest::newRow(title) << QByteArray(content) << valid << keepMedia;
    };
    row("empty object", "{}", true, false);
    row("true", "{\"keepMediaActiveInBackground\": true}", true, true);
    row("false", "{\"keepMediaActiveInBackground\": false}", true, false);
    row("text", "{\"keepMediaActiveInBackground\": \"true\"}", true, false);
    row("number", "{\"keepMediaActiveInBackground\": 1}", true, false);
    row("other keys", "{\"name\": \"x\", \"list\": [1]}", true, false);
    row("array", "[{\"keepMediaActiveInBackground\": true}]", false, false);
}

void TestManifest::contentIsRead()
{
    QFETCH(QByteArray, content);
    write(content);
    const LogCapture log;
    const Manifest manifest(m_id);
    QTEST(manifest.isValid(), "valid");
    QTEST(manifest.keepMediaActiveInBackground(), "keepMedia");
    QCOMPARE(manifest.object().contains(QStringLiteral("keepMediaActiveInBackground")),
             manifest.isValid() && content.contains("keepMediaActiveInBackground"));
    QCOMPARE(log.messages(), QStringList());
}

void TestManifest::fileThatCannotBeOpenedIsReportedAtDebugLevel()
{
    const QString path = write("{}");
    QVERIFY(QFile::remove(path));
    const auto report = [&path](const char *reason) {
        return QStringLiteral("Failed to open file: \"%1\" reason: \"%2\"").arg(path, QLatin1String(reason));
    };
    {
        QVERIFY(QDir().mkdir(path));
        const LogCapture log;
        QVERIFY(!Manifest(m_id).isValid());
        QCOMPARE(log.messages(QtDebugMsg), QStringList { report("Is a directory") });
        QCOMPARE(log.messages().size(), 1);
        QVERIFY(QDir().rmdir(path));
    }
    {
        QCOMPARE(::mkfifo(QFile::encodeName(path).constData(), 0600), 0);
        const LogCapture log;
        QVERIFY(!Manifest(m_id).isValid());
        QCOMPARE(log.messages(QtDebugMsg), QStringList { report("No such device or address") });
        QVERIFY(QFile::remove(path));
    }
    {
        write("{}" + QByteArray(1024 * 1024, ' '));
        const LogCapture log;
        QVERIFY(!Manifest(m_id).isValid());
        QCOMPARE(log.messages(QtDebugMsg), QStringList { report("File too large") });
    }
}

void TestManifest::malformedFileIsReported()
{
    write("{\"a\": }");
    QTest::ignoreMessage(QtWarningMsg, "Could not parse manifest.json");
    QTest::ignoreMessage(QtWarningMsg, "Parse error at  7 : \"object is missing after a comma\"");
    QVERIFY(!Manifest(m_id).isValid());

    write("");
    QTest::ignoreMessage(QtWarningMsg, "Could not parse manifest.json");
    QTest::ignoreMessage(QtWarningMsg, "Parse error at  0 : \"illegal value\"");
    QVERIFY(!Manifest(m_id).isValid());

    write(QByteArray(100000, '['));
    const LogCapture log;
    QVERIFY(!Manifest(m_id).isValid());
    QCOMPARE(log.messages(QtWarningMsg).size(), 2);
}

void TestManifest::copyIsDeep()
{
    write("{\"keepMediaActiveInBackground\": true}");
    Manifest manifest(m_id);
    const Manifest copy(manifest);
    manifest = Manifest();
    QVERIFY(!manifest.isValid());
    QVERIFY(copy.isValid());
    QVERIFY(copy.keepMediaActiveInBackground());
    manifest = copy;
    QVERIFY(manifest.keepMediaActiveInBackground());
    const Manifest &itself = manifest;
    manifest = itself;
    QVERIFY(manifest.keepMediaActiveInBackground());
}

QTEST_GUILESS_MAIN(TestManifest)
#include "tst_manifest.moc"
