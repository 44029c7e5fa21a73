#include <QtTest>

#include <mremoteaction.h>

class TestMRemoteAction : public QObject
{
    Q_OBJECT

private slots:
    void serviceIsTheFirstWord_data();
    void serviceIsTheFirstWord();
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

    QTest::newRow("nothing") << QString() << QString();
    QTest::newRow("blanks") << QStringLiteral(" \t\n ") << QString();
    QTest::newRow("service only") << QStringLiteral("org.example.Notes") << QString();
    QTest::newRow("no method") << QStringLiteral("org.example.Notes / org.example.Notes") << QString();
}

void TestMRemoteAction::serviceIsTheFirstWord()
{
    QFETCH(QString, text);
    QFETCH(QString, serviceName);
    QCOMPARE(MRemoteAction(text).serviceName(), serviceName);
}

QTEST_GUILESS_MAIN(TestMRemoteAction)
#include "tst_mremoteaction.moc"
