#include "Core/invocation_context.h"

#include <QtTest>

#include <type_traits>

using namespace Core;

class TestInvocationContext : public QObject
{
    Q_OBJECT

private slots:
    void nobodyAskedForNoReason();
    void wireValues_data();
    void wireValues();
};

void TestInvocationContext::nobodyAskedForNoReason()
{
    const InvocationContext context;
    QCOMPARE(context.reason, InvocationContext::NoReason);
    QVERIFY(context.requestor.isEmpty());
}

void TestInvocationContext::wireValues_data()
{
    QTest::addColumn<int>("reason");
    QTest::addColumn<int>("value");
    QTest::addColumn<quint32>("wire");

    const auto row = [](const char *title, int reason, int value, quint32 wire) {
        QTest::newRow(title) << reason << value << wire;
    };
    row("NoReason", InvocationContext::NoReason, 0, 0);
    row("StartIntent", InvocationContext::StartIntent, 1, 1);
    row("Autostart", InvocationContext::Autostart, 2, 2);
    row("IntentDelivery", InvocationContext::IntentDelivery, 3, 3);
    row("DirectStart", InvocationContext::DirectStart, 4, 4);
    row("DBusStart", InvocationContext::DBusStart, 5, 6);
    row("behind the last", 6, 6, 0);
    row("negative", -1, -1, 0);
}

void TestInvocationContext::wireValues()
{
    static_assert(std::is_same_v<std::underlying_type_t<InvocationContext::StartReason>, qint32>);
    QFETCH(int, reason);
    QTEST(reason, "value");
    QTEST(wireStartReason(static_cast<InvocationContext::StartReason>(reason)), "wire");
}

QTEST_GUILESS_MAIN(TestInvocationContext)
#include "tst_invocation_context.moc"
