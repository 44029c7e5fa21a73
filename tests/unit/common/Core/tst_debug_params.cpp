#include "Core/debug_params.h"

#include <QtTest>

using namespace Core;

class TestDebugParams : public QObject
{
    Q_OBJECT

private slots:
    void emptyMapIsANormalStart();
    void everyKeyIsRead();
    void onlyFalseTakesTheSandboxAway_data();
    void onlyFalseTakesTheSandboxAway();
    void wrongTypesGiveEmptyValues();
};

void TestDebugParams::emptyMapIsANormalStart()
{
    const DebugParams params = DebugParams::fromMap(QVariantMap());
    QVERIFY(params == DebugParams());
    QVERIFY(params.firejailParams.isEmpty());
    QVERIFY(!params.noSandbox);
    QCOMPARE(params.stdoutFile, QString());
}

void TestDebugParams::everyKeyIsRead()
{
    const DebugParams params = DebugParams::fromMap({
        { QStringLiteral("firejailParams"),
          QStringList { QStringLiteral("--trace"), QStringLiteral("--debug") } },
        { QStringLiteral("environment"), QStringList { QStringLiteral("A=1") } },
        { QStringLiteral("applicationWrapper"),
          QStringList { QStringLiteral("strace"), QStringLiteral("-f") } },
        { QStringLiteral("commandLineParams"), QStringList { QStringLiteral("-x") } },
        { QStringLiteral("sandbox"), false },
        { QStringLiteral("stdoutFile"), QStringLiteral("/tmp/out") },
        { QStringLiteral("stderrFile"), QStringLiteral("/tmp/err") },
        { QStringLiteral("unknown"), 1 },
    });
    QCOMPARE(params.firejailParams, (QStringList { QStringLiteral("--trace"), QStringLiteral("--debug") }));
    QCOMPARE(params.environment, QStringList { QStringLiteral("A=1") });
    QCOMPARE(params.applicationWrapper, (QStringList { QStringLiteral("strace"), QStringLiteral("-f") }));
    QCOMPARE(params.commandLineParams, QStringList { QStringLiteral("-x") });
    QCOMPARE(params.noSandbox, true);
    QCOMPARE(params.stdoutFile, QStringLiteral("/tmp/out"));
    QCOMPARE(params.stderrFile, QStringLiteral("/tmp/err"));
    QVERIFY(params != DebugParams());
}

void TestDebugParams::onlyFalseTakesTheSandboxAway_data()
{
    QTest::addColumn<QVariant>("sandbox");
    QTest::addColumn<bool>("noSandbox");

    QTest::newRow("false") << QVariant(false) << true;
    QTest::newRow("true") << QVariant(true) << false;
    QTest::newRow("number") << QVariant(0) << false;
    QTest::newRow("text") << QVariant(QStringLiteral("false")) << false;
    QTest::newRow("empty list") << QVariant(QVariantList()) << false;
    QTest::newRow("invalid") << QVariant() << false;
}

void TestDebugParams::onlyFalseTakesTheSandboxAway()
{
    QFETCH(QVariant, sandbox);
    QTEST(DebugParams::fromMap({ { QStringLiteral("sandbox"), sandbox } }).noSandbox, "noSandbox");
}

void TestDebugParams::wrongTypesGiveEmptyValues()
{
    const DebugParams params = DebugParams::fromMap({
        { QStringLiteral("firejailParams"), 17 },
        { QStringLiteral("environment"), QVariantMap() },
        { QStringLiteral("stdoutFile"), QVariantList { 1, 2 } },
    });
    QVERIFY(params.environment.isEmpty());
    QCOMPARE(params.stdoutFile, QString());
}

QTEST_GUILESS_MAIN(TestDebugParams)
#include "tst_debug_params.moc"
