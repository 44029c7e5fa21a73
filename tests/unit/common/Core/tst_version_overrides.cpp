#include "Core/application_id.h"
#include "Core/application_task_id.h"
#include "Core/version_overrides.h"
#include "common/Core/catalogue_fixture.h"
#include "support/log_capture.h"

#include <QtTest>

#include <sys/stat.h>

using namespace Core;
using TestSupport::LogCapture;

class TestVersionOverrides : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void missingFileGivesNothing();
    void mostSpecificKeyWins_data();
    void mostSpecificKeyWins();
    void otherGroupsDoNotCount();
    void taskFindsItsApplication();
    void keysAreChecked_data();
    void keysAreChecked();
    void fileIsReadOnce();
    void whatIsNoFileGivesNothing();
    void textOfOnlyDotsEnds();

private:
    static QString configuration() { return QStringLiteral("root/etc/procwarden/os-version-support.cfg"); }
    QString version(const char *id) const
    {
        return VersionOverrides().version(ApplicationId(QString::fromUtf8(id)));
    }

    const CatalogueFixture m_fixture;
};

void TestVersionOverrides::init()
{
    m_fixture.clear();
}

void TestVersionOverrides::missingFileGivesNothing()
{
    const LogCapture log;
    QCOMPARE(version("org.example.App"), QString());
    QCOMPARE(log.messages(), QStringList());
}

void TestVersionOverrides::mostSpecificKeyWins_data()
{
    QTest::addColumn<QByteArray>("keys");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("version");

    const auto row = [](const char *title, const QByteArray &keys, const char *id, const char *version) {
        QTest::newRow(title) << keys << QString::fromUtf8(id) << QString::fromUtf8(version);
    };
    const QByteArray all = "org.example.App=1\norg.example.*=2\norg.*=3\n*=4\n";
    row("the id itself", all, "org.example.App", "1");
    row("its organisation", all, "org.example.Other", "2");
    row("above its organisation", all, "org.other.App", "3");
    row("everything", all, "com.example.App", "4");
    row("one dot", all, "org.App", "3");
    row("no dot", all, "App", "4");
    row("a pattern as id", all, "org.example.*", "2");
    row("a star as id", all, "*", "4");
    row("empty id", all, "", "");
    row("pattern does not cover deeper names alone", "org.*=3\n", "org.example.deep.App", "3");
    row("nothing fits", "org.example.App=1\n", "org.example.App2", "");
    row("no beginnings of words", "org.example.*=2\n", "org.example2.App", "");
    row("blanks around the value", "org.example.App= 4.2.0 \n", "org.example.App", "4.2.0");
    row("quoted value", "org.example.App=\" 4.2.0 \"\n", "org.example.App", "4.2.0");
    row("empty value ends the search", "org.example.App=\n*=4\n", "org.example.App", "");
    row("case counts", "org.example.app=1\n", "org.example.App", "");
}

void TestVersionOverrides::mostSpecificKeyWins()
{
    QFETCH(QByteArray, keys);
    QFETCH(QString, id);
    m_fixture.write(configuration(), "[Applications]\n" + keys);
    QTEST(VersionOverrides().version(ApplicationId(id)), "version");
}

void TestVersionOverrides::otherGroupsDoNotCount()
{
    m_fixture.write(configuration(), "org.example.App=1\n[Other]\norg.example.App=2\n");
    QCOMPARE(version("org.example.App"), QString());
}

void TestVersionOverrides::taskFindsItsApplication()
{
    m_fixture.write(configuration(), "[Applications]\norg.example.App=1\n");
    const ApplicationTaskId task(ApplicationId(QStringLiteral("org.example.App")), QStringLiteral("sync"));
    QCOMPARE(VersionOverrides().version(task), QStringLiteral("1"));
}

void TestVersionOverrides::keysAreChecked_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<bool>("accepted");

    QTest::newRow("id") << QStringLiteral("org.example.App") << true;
    QTest::newRow("organisation") << QStringLiteral("org.example.*") << true;
    QTest::newRow("star") << QStringLiteral("*") << true;
    QTest::newRow("star in the middle") << QStringLiteral("org.*.App") << false;
    QTest::newRow("star without a dot") << QStringLiteral("org*") << false;
    QTest::newRow("two stars") << QStringLiteral("org.*.*") << false;
    QTest::newRow("two stars at the end") << QStringLiteral("org.**") << false;
    QTest::newRow("star first") << QStringLiteral("*.App") << false;
    QTest::newRow("dot and star") << QStringLiteral(".*") << true;
    QTest::newRow("only stars") << QStringLiteral("**") << false;
}

void TestVersionOverrides::keysAreChecked()
{
    QFETCH(QString, key);
    QFETCH(bool, accepted);
    m_fixture.write(configuration(), "[Applications]\n" + key.toUtf8() + "=5.2.0\nlast.one=1\n");
    const LogCapture log;
    const VersionOverrides overrides;
    const QStringList expected = accepted
        ? QStringList()
        : QStringList { QStringLiteral("Invalid version override: \"%1\"").arg(key) };
    QCOMPARE(log.messages(QtWarningMsg), expected);
    QCOMPARE(overrides.version(ApplicationId(key)), accepted ? QStringLiteral("5.2.0") : QString());
    QCOMPARE(overrides.version(ApplicationId(QStringLiteral("last.one"))), QStringLiteral("1"));
}

void TestVersionOverrides::fileIsReadOnce()
{
    m_fixture.write(configuration(), "[Applications]\norg.example.App=1\n");
    const VersionOverrides overrides;
    m_fixture.write(configuration(), "[Applications]\norg.example.App=22\n");
    QCOMPARE(overrides.version(ApplicationId(QStringLiteral("org.example.App"))), QStringLiteral("1"));
    QCOMPARE(version("org.example.App"), QStringLiteral("22"));
}

void TestVersionOverrides::whatIsNoFileGivesNothing()
{
    const QString path = m_fixture.write(configuration(), "");
    QVERIFY(QFile::remove(path));
    QCOMPARE(::mkfifo(QFile::encodeName(path).constData(), 0600), 0);
    QCOMPARE(version("org.example.App"), QString());
    QVERIFY(QFile::remove(path));
    QVERIFY(QDir().mkdir(path));
    QCOMPARE(version("org.example.App"), QString());
    m_fixture.clear();
    m_fixture.write(configuration(), QByteArray("\x00\xff[App]]=\n\n=x\n[Applications", 27));
    QCOMPARE(version("org.example.App"), QString());
}

void TestVersionOverrides::textOfOnlyDotsEnds()
{
    m_fixture.write(configuration(), "[Applications]\n*=4\n");
    QCOMPARE(version("...."), QStringLiteral("4"));
    QCOMPARE(version("..*"), QStringLiteral("4"));
}

QTEST_GUILESS_MAIN(TestVersionOverrides)
#include "tst_version_overrides.moc"
