#include "Core/application_task_id.h"

#include <QtTest>

using namespace Core;

class TestApplicationTaskId : public QObject
{
    Q_OBJECT

private slots:
    void textIsParsed_data();
    void textIsParsed();
    void overlongTextIsInvalidAndKept();
    void nameIsAppended();
    void emptyNameIsInvalid();
    void taskNamesAreChecked_data();
    void taskNamesAreChecked();
};

void TestApplicationTaskId::textIsParsed_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("organisationLength");
    QTest::addColumn<int>("applicationEnd");
    QTest::addColumn<QString>("application");
    QTest::addColumn<QString>("taskName");

    const auto row = [](const char *title, const char *text, int length, int end, const char *application,
                        const char *taskName) {
        QTest::newRow(title) << QString::fromUtf8(text) << length << end << QString::fromUtf8(application)
                             << QString::fromUtf8(taskName);
    };
    row("task", "org.example.App.task_a", 11, 15, "org.example.App", "a");
    row("long name", "org.example.App.task_sync1", 11, 15, "org.example.App", "sync1");
    row("name is not checked", "org.example.App.task_1 /", 11, 15, "org.example.App", "1 /");
    row("no name", "org.example.App.task_", -1, 21, "org.example.App.task_", "");
    row("no task", "org.example.App", -1, 15, "org.example.App", "");
    row("instance", "org.example.App.instance_1", -1, 26, "org.example.App.instance_1", "");
    row("other case", "org.example.App.Task_a", -1, 22, "org.example.App.Task_a", "");
    row("dot in the name", "org.example.App.task_a.b", -1, 24, "org.example.App.task_a.b", "");
    row("application does not parse", "Example.task_a", 0, 14, "Example.task_a", "");
    row("nothing before", ".task_a", -1, 7, ".task_a", "");
    row("no dot", "task_a", -1, 6, "task_a", "");
    row("empty", "", -1, 0, "", "");
}

void TestApplicationTaskId::textIsParsed()
{
    QFETCH(QString, text);
    QFETCH(int, organisationLength);

    const ApplicationTaskId id(text);
    QCOMPARE(id.text(), text);
    QCOMPARE(int(id.organisationLength()), organisationLength);
    QTEST(int(id.applicationEnd()), "applicationEnd");
    QCOMPARE(id.isValid(), organisationLength > 0);
    QTEST(id.toString(), "application");
    QTEST(id.taskName(), "taskName");
}

void TestApplicationTaskId::overlongTextIsInvalidAndKept()
{
    const QString text =
        QStringLiteral("org.") + QString(65536, QLatin1Char('x')) + QStringLiteral(".task_a");
    const ApplicationTaskId id(text);
    QVERIFY(!id.isValid());
    QCOMPARE(id.text(), text);
    QCOMPARE(id.toString(), text);
    QCOMPARE(id.taskName(), QString());
}

void TestApplicationTaskId::nameIsAppended()
{
    const ApplicationTaskId id(ApplicationId(QStringLiteral("org.example.App")), QStringLiteral("sync"));
    QCOMPARE(id.text(), QStringLiteral("org.example.App.task_sync"));
    QCOMPARE(id.toString(), QStringLiteral("org.example.App"));
    QCOMPARE(int(id.applicationEnd()), 15);
    QVERIFY(id.isValid());
    QCOMPARE(id.taskName(), QStringLiteral("sync"));
    QVERIFY(id == ApplicationTaskId(QStringLiteral("org.example.App.task_sync")));
    QVERIFY(!ApplicationTaskId(ApplicationId(QStringLiteral("Example")), QStringLiteral("sync")).isValid());
}

void TestApplicationTaskId::emptyNameIsInvalid()
{
    const ApplicationTaskId id(ApplicationId(QStringLiteral("org.example.App")), QString());
    QVERIFY(!id.isValid());
    QCOMPARE(id.text(), QStringLiteral("org.example.App"));
    QCOMPARE(int(id.organisationLength()), -1);
    QCOMPARE(id.organisation(), QString());
    QCOMPARE(id.taskName(), QString());
}

void TestApplicationTaskId::taskNamesAreChecked_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("valid");

    QTest::newRow("one letter") << QStringLiteral("a") << true;
    QTest::newRow("letters and digits") << QStringLiteral("Sync1") << true;
    QTest::newRow("64 characters") << QString(64, QLatin1Char('a')) << true;
    QTest::newRow("65 characters") << QString(65, QLatin1Char('a')) << false;
    QTest::newRow("digit first") << QStringLiteral("1sync") << false;
    QTest::newRow("underscore") << QStringLiteral("my_sync") << false;
    QTest::newRow("hyphen") << QStringLiteral("my-sync") << false;
    QTest::newRow("dot") << QStringLiteral("my.sync") << false;
    QTest::newRow("blank") << QStringLiteral("my sync") << false;
    QTest::newRow("not ASCII letter") << QString::fromUtf8("\xc3\xa4") << false;
    QTest::newRow("not ASCII digit") << QString::fromUtf8("a\xd9\xa3") << false;
}

void TestApplicationTaskId::taskNamesAreChecked()
{
    QFETCH(QString, name);
    QTEST(ApplicationTaskId::isValidTaskName(name), "valid");
}

QTEST_GUILESS_MAIN(TestApplicationTaskId)
#include "tst_application_task_id.moc"
