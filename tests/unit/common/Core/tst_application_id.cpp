#include "Core/application_id.h"
#include "Core/application_instance_id.h"

#include <QtTest>

#include <ctime>

using namespace Core;

class TestApplicationId : public QObject
{
    Q_OBJECT

private slots:
    void textIsParsed_data();
    void textIsParsed();
    void hostileTextIsParsedInTime_data();
    void hostileTextIsParsedInTime();
    void overlongTextIsInvalidAndKept();
    void longestTextIsValid();
    void partsAreBelieved();
    void overlongPartsAreInvalid();
    void desktopFileGivesId_data();
    void desktopFileGivesId();
    void idsCompareByText();
    void applicationIsTakenOutOfAnInstance();
    void debugOutputIsTheText();
};

void TestApplicationId::textIsParsed_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("organisationLength");
    QTest::addColumn<QString>("name");

    const auto row = [](const char *title, const char *text, int length, const char *name) {
        QTest::newRow(title) << QString::fromUtf8(text) << length << QString::fromUtf8(name);
    };
    row("plain", "org.example", 3, "example");
    row("longest organisation", "a.b.c", 3, "c");
    row("capital ends the organisation", "com.Foo.bar", 3, "Foo.bar");
    row("three parts", "org.example.Notes", 11, "Notes");
    row("digits in the organisation", "1.2.a", 3, "a");
    row("name begins with an underscore", "org._app", 3, "_app");
    row("name begins with a hyphen", "org.-app", 3, "-app");
    row("digit part joins the name", "org.example.2048", 3, "example.2048");
    row("dot at the end joins the name", "org.app.", 3, "app.");
    row("dot at the beginning of the organisation", "..app", 1, "app");
    row("empty", "", 0, "");
    row("no dot", "example", 0, "");
    row("name begins with a digit", "org.1app", 0, "");
    row("capital organisation", "Org.app", 0, "");
    row("no organisation", ".app", 0, "");
    row("no name", "org.", 0, "");
    row("only dots", "...", 0, "");
    row("blank", "org.my app", 0, "");
    row("slash", "org.app/..", 0, "");
    row("line feed at the end", "org.app\n", 0, "");
    row("not ASCII", "org.\xc3\xa4pp", 0, "");
    row("not ASCII digit", "org.app\xd9\xa3", 0, "");
}

void TestApplicationId::textIsParsed()
{
    QFETCH(QString, text);
    QFETCH(int, organisationLength);

    const ApplicationId id(text);
    QCOMPARE(int(id.organisationLength()), organisationLength);
    QCOMPARE(int(id.applicationEnd()), text.length());
    QCOMPARE(id.isValid(), organisationLength > 0);
    QCOMPARE(id.isEmpty(), text.isEmpty());
    QCOMPARE(id.organisation(), text.left(organisationLength));
    QTEST(id.name(), "name");
    QCOMPARE(id.text(), text);
    QCOMPARE(id.toString(), text);
}

void TestApplicationId::hostileTextIsParsedInTime_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("valid");

    QTest::newRow("dots and an illegal end")
        << QStringLiteral("a.").repeated(16000) + QLatin1Char('!') << false;
    QTest::newRow("digits behind all dots")
        << QStringLiteral("1.").repeated(16000) + QLatin1Char('1') << false;
    QTest::newRow("dots and a capital end")
        << QStringLiteral("a.").repeated(16000) + QLatin1Char('A') << true;
    QTest::newRow("name begins at the first dot")
        << QStringLiteral("a.B") + QStringLiteral(".1").repeated(16000) << true;
    QTest::newRow("nothing but hyphens") << QString(32000, QLatin1Char('-')) << false;
}

void TestApplicationId::hostileTextIsParsedInTime()
{
    QFETCH(QString, text);
    const std::clock_t begin = std::clock(); // what other programs take does not count
    QTEST(ApplicationId(text).isValid(), "valid");
    QVERIFY2(std::clock() - begin < CLOCKS_PER_SEC, "took quadratic time");
}

void TestApplicationId::overlongTextIsInvalidAndKept()
{
    for (const int length : { 32768, 65536, 65540, 1000000 }) {
        const QString text = QStringLiteral("org.") + QString(length - 4, QLatin1Char('x'));
        const ApplicationId id(text);
        QVERIFY(!id.isValid());
        QCOMPARE(id.text(), text);
        QCOMPARE(id.toString(), text);
        QCOMPARE(id.organisation(), QString());
        QCOMPARE(id.name(), QString());
    }
}

void TestApplicationId::longestTextIsValid()
{
    const ApplicationId id(QStringLiteral("org.") + QString(32767 - 4, QLatin1Char('x')));
    QVERIFY(id.isValid());
    QCOMPARE(int(id.applicationEnd()), 32767);
    QCOMPARE(id.name().length(), 32767 - 4);
}

void TestApplicationId::partsAreBelieved()
{
    const ApplicationId id(QStringLiteral("Org x"), QStringLiteral("1 app"));
    QVERIFY(id.isValid());
    QCOMPARE(id.text(), QStringLiteral("Org x.1 app"));
    QCOMPARE(int(id.organisationLength()), 5);
    QCOMPARE(int(id.applicationEnd()), 11);
    QCOMPARE(id.organisation(), QStringLiteral("Org x"));
    QCOMPARE(id.name(), QStringLiteral("1 app"));

    const ApplicationId nameless(QStringLiteral("org"), QString());
    QVERIFY(nameless.isValid());
    QCOMPARE(nameless.name(), QString());

    const ApplicationId homeless(QString(), QStringLiteral("app"));
    QVERIFY(!homeless.isValid());
    QCOMPARE(homeless.text(), QStringLiteral(".app"));
    QCOMPARE(homeless.name(), QString());
}

void TestApplicationId::overlongPartsAreInvalid()
{
    const QString huge(40000, QLatin1Char('x'));
    for (const ApplicationId &id :
         { ApplicationId(huge, QStringLiteral("app")), ApplicationId(QStringLiteral("org"), huge),
           ApplicationId(huge, huge) }) {
        QVERIFY(!id.isValid());
        QCOMPARE(id.toString(), id.text());
        QCOMPARE(id.organisation(), QString());
        QCOMPARE(id.name(), QString());
    }
}

void TestApplicationId::desktopFileGivesId_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("text");

    const auto row = [](const char *title, const char *path, const char *text) {
        QTest::newRow(title) << QString::fromUtf8(path) << QString::fromUtf8(text);
    };
    row("name alone", "notes.desktop", "org.kestrix.notes");
    row("path", "/usr/share/applications/notes.desktop", "org.kestrix.notes");
    row("hyphen", "my-notes.desktop", "org.kestrix.my_2dnotes");
    row("dots are no structure", "/a/org.example.Notes.desktop", "org.kestrix.org_2eexample_2eNotes");
    row("underscore", "my_notes.desktop", "org.kestrix.my_5fnotes");
    row("blank", "a b.desktop", "org.kestrix.a_20b");
    row("value below 16", "a\tb.desktop", "org.kestrix.a_9b");
    row("digit first", "2048.desktop", "org.kestrix.2048");
    row("other decimal digits", "a\xd9\xa3.desktop", "org.kestrix.a\xd9\xa3");
    row("Latin-1 letter is a negative number", "\xc3\xa9.desktop", "org.kestrix._ffffffffffffffe9");
    row("Latin-1 superscript is no decimal digit", "\xc2\xb2.desktop", "org.kestrix._ffffffffffffffb2");
    row("beyond Latin-1", "\xe2\x82\xac.desktop", "org.kestrix._0");
    row("beyond the basic plane", "\xf0\x9f\x98\x80.desktop", "org.kestrix._0_0");
    row("suffix twice", "a.desktop.desktop", "org.kestrix.a_2edesktop");
    row("no base name", "/usr/share/applications/.desktop", "");
    row("suffix alone", ".desktop", "");
    row("other suffix", "notes.txt", "");
    row("other case", "notes.Desktop", "");
    row("directory", "/a/notes.desktop/", "");
    row("empty", "", "");
}

void TestApplicationId::desktopFileGivesId()
{
    QFETCH(QString, path);
    QFETCH(QString, text);
    const ApplicationId id = ApplicationId::fromDesktopFile(path);
    QCOMPARE(id.text(), text);
    QCOMPARE(id.isValid(), !text.isEmpty());
    QCOMPARE(id.text().isNull(), text.isEmpty());
    QCOMPARE(id.organisation(), text.isEmpty() ? QString() : QStringLiteral("org.kestrix"));
}

void TestApplicationId::idsCompareByText()
{
    const ApplicationId parsed(QStringLiteral("org.example.App"));
    const ApplicationId built(QStringLiteral("org.example"), QStringLiteral("App"));
    const ApplicationId other(QStringLiteral("org.example.Bpp"));
    QVERIFY(parsed == built);
    QVERIFY(!(parsed != built));
    QVERIFY(parsed != other);
    QVERIFY(parsed < other);
    QVERIFY(!(other < parsed));
    QCOMPARE(qHash(parsed), qHash(built));
    QCOMPARE((QSet<ApplicationId> { parsed, built, other }.size()), 2);
}

void TestApplicationId::applicationIsTakenOutOfAnInstance()
{
    // Read as a whole text, this would be another organisation and name.
    const ApplicationId built(QStringLiteral("org.Example"), QStringLiteral("1"));
    const ApplicationId taken = ApplicationInstanceId(built, 7).applicationId();
    QCOMPARE(taken.text(), QStringLiteral("org.Example.1"));
    QCOMPARE(taken.organisation(), QStringLiteral("org.Example"));
    QCOMPARE(taken.name(), QStringLiteral("1"));
    QVERIFY(taken == built);
}

void TestApplicationId::debugOutputIsTheText()
{
    QString text;
    QDebug(&text) << "id" << ApplicationId(QStringLiteral("org.example.App")) << "end";
    QCOMPARE(text.trimmed(), QStringLiteral("id \"org.example.App\" end"));
}

QTEST_GUILESS_MAIN(TestApplicationId)
#include "tst_application_id.moc"
