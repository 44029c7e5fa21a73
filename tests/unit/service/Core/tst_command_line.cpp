#include "Core/command_line.h"

#include <QtTest>

using namespace Core;

class TestCommandLine : public QObject
{
    Q_OBJECT

private slots:
    void lineIsSplitAtEachBlank_data();
    void lineIsSplitAtEachBlank();
    void programWithoutSlashLiesInUsrBin_data();
    void programWithoutSlashLiesInUsrBin();
    void uriBecomesPathOrText_data();
    void uriBecomesPathOrText();
    void fieldCodesAreExpanded_data();
    void fieldCodesAreExpanded();
};

void TestCommandLine::lineIsSplitAtEachBlank_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QByteArrayList>("argv");

    QTest::newRow("one word") << QStringLiteral("app") << QByteArrayList { "app" };
    QTest::newRow("words") << QStringLiteral("app -a b") << QByteArrayList { "app", "-a", "b" };
    QTest::newRow("blanks and a line feed around")
        << QStringLiteral(" \tapp b \n") << QByteArrayList { "app", "b" };
    QTest::newRow("two blanks in a row") << QStringLiteral("app  b") << QByteArrayList { "app", "", "b" };
    QTest::newRow("no quoting") << QStringLiteral("app \"a b\" 'c' d\\ e")
                                << QByteArrayList { "app", "\"a", "b\"", "'c'", "d\\", "e" };
    QTest::newRow("a tab does not split") << QStringLiteral("app\tb c") << QByteArrayList { "app\tb", "c" };
    QTest::newRow("not ASCII") << QStringLiteral("k\u00e4se \u4e2d")
                               << QByteArrayList { "k\xc3\xa4se", "\xe4\xb8\xad" };
    QTest::newRow("empty") << QString() << QByteArrayList { "" };
    QTest::newRow("only blanks") << QStringLiteral("   ") << QByteArrayList { "" };
}

void TestCommandLine::lineIsSplitAtEachBlank()
{
    QFETCH(QString, line);
    QTEST(splitCommandLine(line), "argv");
}

void TestCommandLine::programWithoutSlashLiesInUsrBin_data()
{
    QTest::addColumn<QByteArray>("program");
    QTest::addColumn<QByteArray>("path");

    QTest::newRow("name") << QByteArray("app") << QByteArray("/usr/bin/app");
    QTest::newRow("absolute") << QByteArray("/opt/app") << QByteArray("/opt/app");
    QTest::newRow("relative") << QByteArray("sub/app") << QByteArray("/usr/bin/sub/app");
    QTest::newRow("empty") << QByteArray("") << QByteArray("/usr/bin/");
}

void TestCommandLine::programWithoutSlashLiesInUsrBin()
{
    QFETCH(QByteArray, program);
    QTEST(programPath(program), "path");
}

void TestCommandLine::uriBecomesPathOrText_data()
{
    QTest::addColumn<QUrl>("uri");
    QTest::addColumn<QString>("argument");

    QTest::newRow("local file") << QUrl(QStringLiteral("file:///tmp/a%20b")) << QStringLiteral("/tmp/a b");
    QTest::newRow("web") << QUrl(QStringLiteral("https://host/a?b=c#d"))
                         << QStringLiteral("https://host/a?b=c#d");
    QTest::newRow("without host") << QUrl(QStringLiteral("tel:123")) << QStringLiteral("tel:123");
    QTest::newRow("no URI") << QUrl() << QString();
}

void TestCommandLine::uriBecomesPathOrText()
{
    QFETCH(QUrl, uri);
    QTEST(uriArgument(uri), "argument");
}

void TestCommandLine::fieldCodesAreExpanded_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QStringList>("uris");
    QTest::addColumn<QString>("expanded");

    const QStringList none;
    const QStringList abc { QStringLiteral("x:a"), QStringLiteral("x:b"), QStringLiteral("x:c") };
    const QStringList files { QStringLiteral("file:///a"), QStringLiteral("file:///b") };
    const QStringList webThenFiles = QStringList { QStringLiteral("x:w") } + files;
    const auto row = [](const char *name, const char *line, const QStringList &uris, const char *expanded) {
        QTest::newRow(name) << QString::fromUtf8(line) << uris << QString::fromUtf8(expanded);
    };

    row("%U takes all", "app %U", abc, "app x:a x:b x:c");
    row("%u takes the first", "app %u", abc, "app x:a");
    row("%U without URIs stays", "app %U", none, "app %U");
    row("%u without URIs stays", "app %u", none, "app %u");
    row("%f without URIs stays", "app %f", none, "app %f");
    row("%u takes a local file as a path", "app %u", files, "app /a");
    row("%U mixes paths and texts", "app %U z", webThenFiles, "app x:w /a /b z");
    row("%f skips what is not local", "app --open %f", webThenFiles, "app --open /a");
    row("%F skips what is not local", "app %F z", webThenFiles, "app /a /b z");
    row("%F with nothing local stays", "app %F", abc, "app %F");
    row("%f with nothing local stays", "app %f", abc, "app %f");
    row("no code takes nothing", "app --x", abc, "app --x");
    row("a code within an element is none", "app --file=%f a%u %uu %", files, "app --file=%f a%u %uu %");
    row("other codes stay", "app %i %c %k %%", files, "app %i %c %k %%");
    row("the last URI code counts", "app %u m %U z", abc, "app %u m x:a x:b x:c z");
    row("the last URI code counts, the other case", "app %U m %u z", abc, "app %U m x:a x:b x:c z");
    row("the last file code counts", "app %F m %f z", files, "app %F m /a /b z");
    row("the URI code wins in front", "app %u %f", files, "app /a %f");
    row("the URI code wins behind", "app %f %u", files, "app %f /a");
    row("a capital file code makes the URI code take all", "app %u %F", abc, "app x:a x:b x:c %F");
    row("a capital file code in front of the URI code", "app %F %u z", abc, "app %F x:a x:b x:c z");
    row("a code as program", "%u z", abc, "x:a z");
    row("an empty URI is passed over", "app %u", { QString(), QStringLiteral("x:b") }, "app x:b");
    row("an empty URI in the middle", "app %U z", { QStringLiteral("x:a"), QString(), QStringLiteral("x:c") },
        "app x:a x:c z");
    row("a file without a path is passed over", "app %u",
        { QStringLiteral("file://"), QStringLiteral("x:b") }, "app x:b");
    row("a replaced code is not looked at again", "app %U",
        { QStringLiteral("file:%U"), QStringLiteral("x:b") }, "app %U x:b");
}

void TestCommandLine::fieldCodesAreExpanded()
{
    QFETCH(QString, line);
    QFETCH(QStringList, uris);
    QFETCH(QString, expanded);

    QList<QUrl> urls;
    for (const QString &uri : qAsConst(uris)) {
        urls << QUrl(uri);
    }
    QCOMPARE(expandFieldCodes(splitCommandLine(line), urls), splitCommandLine(expanded));
}

QTEST_APPLESS_MAIN(TestCommandLine)
#include "tst_command_line.moc"
