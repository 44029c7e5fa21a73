#include "Core/application_instance_id.h"

#include <QtTest>

using namespace Core;

class TestApplicationInstanceId : public QObject
{
    Q_OBJECT

private slots:
    void textIsParsed_data();
    void textIsParsed();
    void overlongTextIsInvalidAndKept_data();
    void overlongTextIsInvalidAndKept();
    void numberIsAppended();
    void numberZeroGivesThePlainId();
    void numberIsAppendedToAnyText();
};

void TestApplicationInstanceId::textIsParsed_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("organisationLength");
    QTest::addColumn<int>("applicationEnd");
    QTest::addColumn<QString>("application");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("instance");

    const auto row = [](const char *title, const char *text, int length, int end, const char *application,
                        const char *name, const char *instance) {
        QTest::newRow(title) << QString::fromUtf8(text) << length << end << QString::fromUtf8(application)
                             << QString::fromUtf8(name) << QString::fromUtf8(instance);
    };
    row("instance", "org.example.App.instance_12", 11, 15, "org.example.App", "App", "instance_12");
    row("plain id", "org.example.App", 11, 15, "org.example.App", "App", "");
    row("no number", "app.name.instance_", 3, 8, "app.name", "name", "instance_");
    row("not a number", "org.example.App.instance_1x", 11, 27, "org.example.App.instance_1x",
        "App.instance_1x", "");
    row("other case", "org.example.App.Instance_1", 11, 26, "org.example.App.Instance_1", "App.Instance_1",
        "");
    row("other decimal digits", "org.example.App.instance_\xd9\xa3", 11, 15, "org.example.App", "App",
        "instance_\xd9\xa3");
    row("digit that is no decimal", "org.example.App.instance_\xc2\xb2", 0, 26,
        "org.example.App.instance_\xc2\xb2", "", "");
    row("application does not parse", "Example.instance_1", 0, 18, "Example.instance_1", "", "");
    row("nothing before", ".instance_1", -1, 11, ".instance_1", "", "");
    row("no dot", "instance_1", -1, 10, "instance_1", "", "");
    row("empty", "", -1, 0, "", "", "");
    row("task id is an application", "org.example.App.task_a", 11, 22, "org.example.App.task_a", "App.task_a",
        "");
}

void TestApplicationInstanceId::textIsParsed()
{
    QFETCH(QString, text);
    QFETCH(int, organisationLength);
    QFETCH(QString, instance);

    const ApplicationInstanceId id(text);
    QCOMPARE(id.text(), text);
    QCOMPARE(int(id.organisationLength()), organisationLength);
    QTEST(int(id.applicationEnd()), "applicationEnd");
    QCOMPARE(id.isValid(), organisationLength > 0);
    QTEST(id.toString(), "application");
    QTEST(id.name(), "name");
    QCOMPARE(id.instance().toString(), instance);
    QCOMPARE(id.hasInstance(), !instance.isEmpty());
}

void TestApplicationInstanceId::overlongTextIsInvalidAndKept_data()
{
    QTest::addColumn<QString>("text");

    const QString huge(40000, QLatin1Char('x'));
    QTest::newRow("application") << QStringLiteral("org.") + huge;
    QTest::newRow("application of an instance")
        << QStringLiteral("org.") + huge + QStringLiteral(".instance_1");
    QTest::newRow("wraps around to a small number")
        << QStringLiteral("org.") + QString(65536, QLatin1Char('x'));
}

void TestApplicationInstanceId::overlongTextIsInvalidAndKept()
{
    QFETCH(QString, text);
    const ApplicationInstanceId id(text);
    QVERIFY(!id.isValid());
    QCOMPARE(id.text(), text);
    QCOMPARE(id.toString(), text);
    QCOMPARE(id.name(), QString());
}

void TestApplicationInstanceId::numberIsAppended()
{
    const ApplicationInstanceId id(ApplicationId(QStringLiteral("org.example.App")), 4711);
    QCOMPARE(id.text(), QStringLiteral("org.example.App.instance_4711"));
    QCOMPARE(id.toString(), QStringLiteral("org.example.App"));
    QCOMPARE(int(id.applicationEnd()), 15);
    QVERIFY(id.isValid());
    QVERIFY(id.hasInstance());
    QCOMPARE(id.instance().toString(), QStringLiteral("instance_4711"));
    QVERIFY(id == ApplicationInstanceId(QStringLiteral("org.example.App.instance_4711")));
}

void TestApplicationInstanceId::numberZeroGivesThePlainId()
{
    const ApplicationInstanceId id(ApplicationId(QStringLiteral("org.example.App")), 0);
    QCOMPARE(id.text(), QStringLiteral("org.example.App"));
    QVERIFY(id.isValid());
    QVERIFY(!id.hasInstance());
    QVERIFY(id.instance().isEmpty());
}

void TestApplicationInstanceId::numberIsAppendedToAnyText()
{
    const ApplicationInstanceId id(ApplicationId(QStringLiteral("org.example"), QStringLiteral("%1%2")), 3);
    QCOMPARE(id.text(), QStringLiteral("org.example.%1%2.instance_3"));
    QVERIFY(!ApplicationInstanceId(ApplicationId(), 3).isValid());
}

QTEST_GUILESS_MAIN(TestApplicationInstanceId)
#include "tst_application_instance_id.moc"
