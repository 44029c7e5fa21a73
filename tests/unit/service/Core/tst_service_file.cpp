#include "Core/service_file.h"

#include <QTemporaryDir>
#include <QtTest>

#include <cerrno>
#include <sys/stat.h>

using namespace Core;

class TestServiceFile : public QObject
{
    Q_OBJECT

private slots:
    void execLineIsRead_data();
    void execLineIsRead();
    void fileThatCannotBeOpenedGivesNothing_data();
    void fileThatCannotBeOpenedGivesNothing();

private:
    QTemporaryDir m_dir;
};

void TestServiceFile::execLineIsRead_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("line");

    const auto row = [](const char *name, const QByteArray &content, const char *line) {
        QTest::newRow(name) << content << QString::fromUtf8(line);
    };
    row("plain", "[D-BUS Service]\nName=a.b\nExec=/usr/bin/app -x\nUser=u\n", "/usr/bin/app -x\n");
    row("last line without line feed", "[D-BUS Service]\nExec=app", "app");
    row("the last one counts", "Exec=one\nExec=two\n", "two\n");
    row("groups do not matter", "Exec=one\n[Other]\nExec=two\n", "two\n");
    row("a unit wins behind", "Exec=app\nSystemdService=app.service\n",
        "systemctl --user start app.service\n");
    row("a unit wins in front", "SystemdService=app.service\nExec=app\n",
        "systemctl --user start app.service\n");
    row("the first unit ends the reading", "SystemdService=one.service\nSystemdService=two.service\n",
        "systemctl --user start one.service\n");
    row("a unit at the end of the file", "SystemdService=app.service", "systemctl --user start app.service");
    row("not at the start of the line", " Exec=app\n#Exec=app\nTryExec=app\nexec=app\nExec =app\n", "");
    row("an empty value keeps its line feed", "Exec=app\nExec=\n", "\n");
    row("an empty value at the end of the file", "Exec=app\nExec=", "");
    row("empty lines in between", "\n\nExec=app\n\n\n", "app\n");
    row("blanks stay", "Exec=  app  x \n", "  app  x \n");
    row("not ASCII", "Exec=k\xc3\xa4se\n", "k\xc3\xa4se\n");
    row("empty file", "", "");
    row("long line", "Exec=" + QByteArray(100000, 'x') + '\n', (QByteArray(100000, 'x') + '\n').constData());
}

void TestServiceFile::execLineIsRead()
{
    QFETCH(QByteArray, content);
    const QString path = m_dir.filePath(QStringLiteral("a.service"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), content.size());
    file.close();

    QTEST(readExecLine(path), "line");
}

void TestServiceFile::fileThatCannotBeOpenedGivesNothing_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("missing") << m_dir.filePath(QStringLiteral("missing.service"));
    QTest::newRow("directory") << m_dir.path();
    const QString pipe = m_dir.filePath(QStringLiteral("pipe.service")); // that nobody ever writes to
    QVERIFY(::mkfifo(QFile::encodeName(pipe).constData(), 0600) == 0 || errno == EEXIST);
    QTest::newRow("pipe") << pipe;
}

void TestServiceFile::fileThatCannotBeOpenedGivesNothing()
{
    QFETCH(QString, path);
    QTest::ignoreMessage(QtWarningMsg, qPrintable(QStringLiteral("Cannot open \"%1\"").arg(path)));
    QCOMPARE(readExecLine(path), QString());
}

QTEST_APPLESS_MAIN(TestServiceFile)
#include "tst_service_file.moc"
