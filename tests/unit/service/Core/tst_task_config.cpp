#include "Core/task_config.h"

#include "support/cgroup_tree.h"
#include "support/log_capture.h"

#include <QTest>

#include <memory>

#include <sys/stat.h>
#include <type_traits>

using Core::TaskConfig;
using TestSupport::CGroupTree;
using TestSupport::LogCapture;

class tst_TaskConfig : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void fileGivesTheLimit_data();
    void fileGivesTheLimit();
    void missingFileGivesTheDefault();
    void unreadableFileGivesTheDefault_data();
    void unreadableFileGivesTheDefault();
    void fileIsReadOnce();
    void canBeDerivedFrom() { QVERIFY(std::has_virtual_destructor_v<TaskConfig>); }

private:
    void configure(const QByteArray &content)
    {
        m_tree->write(QStringLiteral("etc/procwarden/tasks.cfg"), content);
    }

    std::unique_ptr<CGroupTree> m_tree;
};

void tst_TaskConfig::init()
{
    m_tree = std::make_unique<CGroupTree>(); // a path of its own for each test: QSettings remembers files
    m_tree->use();
}

void tst_TaskConfig::cleanup()
{
    m_tree.reset();
}

void tst_TaskConfig::fileGivesTheLimit_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("limit");
    const auto row = [](const char *name, const char *content, int limit) {
        QTest::newRow(name) << QByteArray(content) << limit;
    };
    row("a number", "MaxTasksPerApp=7\n", 7);
    row("any number of tasks", "MaxTasksPerApp=-1\n", -1);
    row("very negative", "MaxTasksPerApp=-2147483648\n", -2147483647 - 1);
    row("no task", "MaxTasksPerApp=0\n", 0);
    row("greatest", "MaxTasksPerApp=2147483647\n", 2147483647);
    row("behind a comment", "; how many\nMaxTasksPerApp=3\n", 3);
    row("quoted", "MaxTasksPerApp=\"4\"\n", 4);
    row("given twice", "MaxTasksPerApp=3\nMaxTasksPerApp=4\n", 4);
    row("among others", "Other=1\nMaxTasksPerApp=2\nAnother=3\n", 2);
    row("empty file", "", 5);
    row("another key", "MaxTasks=7\n", 5);
    row("within a group", "[Tasks]\nMaxTasksPerApp=7\n", 5);
    row("a word", "MaxTasksPerApp=many\n", 5);
    row("empty value", "MaxTasksPerApp=\n", 5);
    row("a list", "MaxTasksPerApp=7,8\n", 5);
    row("a fraction", "MaxTasksPerApp=7.5\n", 5);
    row("too large for an int", "MaxTasksPerApp=4294967297\n", 5);
    row("no INI file",
        "\x7f"
        "ELF[[[=\n=\n]",
        5);
}

void tst_TaskConfig::fileGivesTheLimit()
{
    QFETCH(QByteArray, content);
    configure(content);
    const LogCapture log;
    const TaskConfig config;
    QTEST(config.maxTasksPerApp(), "limit");
    QCOMPARE(log.messages(), QStringList());
}

void tst_TaskConfig::missingFileGivesTheDefault()
{
    const LogCapture log;
    const TaskConfig config;
    QCOMPARE(config.maxTasksPerApp(), 5);
    QCOMPARE(log.messages(), QStringList());
}

void tst_TaskConfig::unreadableFileGivesTheDefault_data()
{
    QTest::addColumn<QString>("kind");
    for (const char *kind : { "directory", "fifo", "dangling link", "huge" }) {
        QTest::newRow(kind) << QString::fromLatin1(kind);
    }
}

void tst_TaskConfig::unreadableFileGivesTheDefault()
{
    QFETCH(QString, kind);
    const QString file = QStringLiteral("etc/procwarden/tasks.cfg");
    m_tree->makeDirectory(QStringLiteral("etc/procwarden"));
    if (kind == QStringLiteral("directory")) {
        m_tree->makeDirectory(file);
    } else if (kind == QStringLiteral("fifo")) {
        QCOMPARE(mkfifo(qPrintable(m_tree->path(file)), 0600), 0);
    } else if (kind == QStringLiteral("dangling link")) {
        m_tree->link(file, QStringLiteral("nowhere"));
    } else {
        configure("MaxTasksPerApp=7\n" + QByteArray(2 * 1024 * 1024, ';'));
    }
    const LogCapture log;
    const TaskConfig config;
    QCOMPARE(config.maxTasksPerApp(), 5);
    QCOMPARE(log.messages(), QStringList());
}

void tst_TaskConfig::fileIsReadOnce()
{
    configure("MaxTasksPerApp=7\n");
    const TaskConfig config;
    configure("MaxTasksPerApp=800\n");
    QCOMPARE(config.maxTasksPerApp(), 7);
    QCOMPARE(TaskConfig().maxTasksPerApp(), 800);
}

QTEST_GUILESS_MAIN(tst_TaskConfig)

#include "tst_task_config.moc"
