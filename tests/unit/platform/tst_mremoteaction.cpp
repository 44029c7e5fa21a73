#include <QtTest>

#include <mremoteaction.h>

#include <sys/resource.h>

class TestMRemoteAction : public QObject
{
    Q_OBJECT

private slots:
    void serviceIsTheFirstWord_data();
    void serviceIsTheFirstWord();
    void longTextTakesNoMemory();
};

void TestMRemoteAction::serviceIsTheFirstWord_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("serviceName");
    const QString name = QStringLiteral("org.example.Notes");

    QTest::newRow("call without arguments")
        << QStringLiteral("org.example.Notes / org.example.Notes open") << name;
    QTest::newRow("call with arguments")
        << QStringLiteral("org.example.Notes / org.example.Notes open AAAACgAAAAAEAGEAYg== AAAAAgAAAAAF")
        << name;
    QTest::newRow("arguments that are no base64")
        << QStringLiteral("org.example.Notes / org.example.Notes open %%%") << name;
    QTest::newRow("path and interface are not looked at")
        << QStringLiteral("org.example.Notes a b c") << name;
    // Whoever skips blanks would call it.
    QTest::newRow("blanks in front") << QStringLiteral("  org.example.Notes / i m") << name;
    QTest::newRow("more blanks between") << QStringLiteral("org.example.Notes  /   i\tm\n") << name;
    QTest::newRow("name of another script")
        << QStringLiteral("\u00fc.\u0436 / i m") << QStringLiteral("\u00fc.\u0436");

    // An interface may be left out of a call, and then two blanks follow each other.
    QTest::newRow("no interface") << QStringLiteral("org.example.Notes /  open") << name;
    QTest::newRow("blanks behind") << QStringLiteral("org.example.Notes / i ") << name;

    QTest::newRow("nothing") << QString() << QString();
    QTest::newRow("blanks") << QStringLiteral(" \t\n ") << QString();
    QTest::newRow("service only") << QStringLiteral("org.example.Notes") << QString();
    QTest::newRow("no method") << QStringLiteral("org.example.Notes / org.example.Notes") << QString();
    QTest::newRow("no method, blank in front") << QStringLiteral(" org.example.Notes / i") << QString();
}

void TestMRemoteAction::serviceIsTheFirstWord()
{
    QFETCH(QString, text);
    QFETCH(QString, serviceName);
    QCOMPARE(MRemoteAction(text).serviceName(), serviceName);
}

// A client may send as much as the bus takes.
void TestMRemoteAction::longTextTakesNoMemory()
{
    const int words = 20'000'000;
    QString text;
    text.reserve(2 * words);
    for (int i = 0; i < words; ++i) {
        text += QLatin1String("a ");
    }
    rusage before {};
    rusage after {};
    QCOMPARE(::getrusage(RUSAGE_SELF, &before), 0);
    QCOMPARE(MRemoteAction(text).serviceName(), QStringLiteral("a"));
    QCOMPARE(::getrusage(RUSAGE_SELF, &after), 0);
    QVERIFY2(after.ru_maxrss - before.ru_maxrss < 1024, // kB
             qPrintable(QString::number(after.ru_maxrss - before.ru_maxrss)));
}

QTEST_GUILESS_MAIN(TestMRemoteAction)
#include "tst_mremoteaction.moc"
