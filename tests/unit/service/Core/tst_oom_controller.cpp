#include "Core/oom_controller.h"

#include <QtTest>

using namespace Core;

class TestOomController : public QObject
{
    Q_OBJECT

private slots:
    void eachStartFlagTakesAHundredOff_data();
    void eachStartFlagTakesAHundredOff();
};

void TestOomController::eachStartFlagTakesAHundredOff_data()
{
    QTest::addColumn<int>("flags");
    QTest::addColumn<int>("score");
    QTest::newRow("none") << 0 << 0;
    QTest::newRow("direct request") << 1 << -100;
    QTest::newRow("further protection") << 2 << -100;
    QTest::newRow("both") << 3 << -200;
    QTest::newRow("other bits") << 0xfc << 0;
    QTest::newRow("other bits and a direct request") << 0xfd << -100;
}

void TestOomController::eachStartFlagTakesAHundredOff()
{
    QFETCH(int, flags);
    QTEST(OomController::oomScoreForStart(flags), "score");
}

QTEST_APPLESS_MAIN(TestOomController)
#include "tst_oom_controller.moc"
