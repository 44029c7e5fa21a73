#include "Core/process_id.h"

#include <QtTest>

using namespace Core;

class TestProcessId : public QObject
{
    Q_OBJECT

private slots:
    void textIsParsed_data();
    void textIsParsed();
};

void TestProcessId::textIsParsed_data()
{
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("valid");
    QTest::addColumn<QString>("application");

    const auto row = [](const char *title, const char *input, const char *text, bool valid,
                        const char *application) {
        QTest::newRow(title) << QString::fromUtf8(input) << QString::fromUtf8(text) << valid
                             << QString::fromUtf8(application);
    };
    row("task", "org.example.App.task_a", "org.example.App.task_a", true, "org.example.App");
    row("instance", "org.example.App.instance_3", "org.example.App.instance_3", true, "org.example.App");
    row("application", "org.example.App", "org.example.App", true, "org.example.App");
    row("task without a name", "org.example.App.task_", "org.example.App.task_", false,
        "org.example.App.task_");
    row("neither", "Not.an id", "Not.an id", false, "Not.an id");
    row("no dot is not kept", "example", "", false, "");
    row("dot at the beginning is not kept", ".task_a", "", false, "");
    row("empty", "", "", false, "");
}

void TestProcessId::textIsParsed()
{
    QFETCH(QString, input);
    const ProcessId id(input);
    QTEST(id.text(), "text");
    QTEST(id.isValid(), "valid");
    QTEST(id.toString(), "application");
}

QTEST_GUILESS_MAIN(TestProcessId)
#include "tst_process_id.moc"
