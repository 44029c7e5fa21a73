#include "Core/requestor.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

using Core::Requestor;

namespace {

constexpr int pid = 4711;

} // namespace

// What is found out about a process.
class TestRequestor : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void programIsNamed_data();
    void programIsNamed();
    void userIsTheEffectiveOne_data();
    void userIsTheEffectiveOne();
    void knownUserStands();
    void processThatIsNoneIsNotTakenOver_data();
    void processThatIsNoneIsNotTakenOver();
    void thisProcessIsKnown();

private:
    void write(const QString &name, const QByteArray &content);
    void link(const QString &target);

    std::unique_ptr<QTemporaryDir> m_root;
};

void TestRequestor::init()
{
    m_root = std::make_unique<QTemporaryDir>();
    QVERIFY(QDir(m_root->path()).mkpath(QStringLiteral("proc/%1").arg(pid)));
    qputenv("PROCWARDEN_ROOTFS", QFile::encodeName(m_root->path()));
}

void TestRequestor::cleanup()
{
    qunsetenv("PROCWARDEN_ROOTFS");
}

void TestRequestor::write(const QString &name, const QByteArray &content)
{
    QFile file(m_root->filePath(QStringLiteral("proc/%1/%2").arg(pid).arg(name)));
    QVERIFY(file.open(QFile::WriteOnly));
    QCOMPARE(file.write(content), content.size());
}

void TestRequestor::link(const QString &target)
{
    const QString place = m_root->filePath(QStringLiteral("proc/%1/exe").arg(pid));
    QCOMPARE(::symlink(QFile::encodeName(target).constData(), QFile::encodeName(place).constData()), 0);
}

void TestRequestor::programIsNamed_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QString>("program");

    QTest::newRow("file") << "/usr/bin/procwardenctl" << QByteArray("another\n") << "procwardenctl";
    QTest::newRow("file that was replaced") << "/usr/bin/tool (deleted)" << QByteArray("x\n") << "tool";
    QTest::newRow("file with blanks") << "/opt/a b/c d" << QByteArray("x\n") << "c d";
    QTest::newRow("longest file name") << QStringLiteral("/") + QString(255, QLatin1Char('x'))
                                       << QByteArray("x\n") << QString(255, QLatin1Char('x'));
    QTest::newRow("longest path")
        << QString(2000, QLatin1Char('x')).replace(QLatin1Char('x'), QLatin1String("y/"))
            + QStringLiteral("z")
        << QByteArray("x\n") << "z";
    QTest::newRow("no file name") << "/" << QByteArray("packaged\n") << "packaged";
    QTest::newRow("of another user") << "" << QByteArray("packagekitd\n") << "packagekitd";
    QTest::newRow("name with a bracket") << "" << QByteArray("a) R 1\n") << "a) R 1";
    QTest::newRow("no UTF-8") << "" << QByteArray("a\xff\n") << QString::fromUtf8("a\xef\xbf\xbd");
    QTest::newRow("longer than names are") << "" << QByteArray(100000, 'x') << QString(64, QLatin1Char('x'));
    QTest::newRow("empty name") << "" << QByteArray() << "";
}

void TestRequestor::programIsNamed()
{
    QFETCH(QString, file);
    QFETCH(QByteArray, name);
    QFETCH(QString, program);
    if (!file.isEmpty()) {
        link(file);
    }
    write(QStringLiteral("comm"), name);

    Requestor requestor;
    requestor.setProcess(pid);
    QCOMPARE(requestor.pid, pid);
    QCOMPARE(requestor.program, program);
    QVERIFY(!requestor.uid);
}

void TestRequestor::userIsTheEffectiveOne_data()
{
    QTest::addColumn<QByteArray>("status");
    QTest::addColumn<int>("uid"); // -1: not known

    QTest::newRow("usual") << QByteArray("Name:\tx\nUid:\t1\t100000\t3\t4\nGid:\t5\t6\t7\t8\n") << 100000;
    QTest::newRow("root") << QByteArray("Uid:\t0\t0\t0\t0\n") << 0;
    QTest::newRow("one number") << QByteArray("Uid:\t7\n") << -1;
    QTest::newRow("no number") << QByteArray("Uid:\tx\ty\n") << -1;
    QTest::newRow("another key") << QByteArray("Uids:\t1\t2\n") << -1;
    QTest::newRow("empty") << QByteArray() << -1;
}

void TestRequestor::userIsTheEffectiveOne()
{
    QFETCH(QByteArray, status);
    QFETCH(int, uid);
    write(QStringLiteral("status"), status);
    Requestor requestor;
    requestor.setProcess(pid);
    QCOMPARE(requestor.uid ? int(*requestor.uid) : -1, uid);
}

void TestRequestor::knownUserStands()
{
    write(QStringLiteral("status"), "Uid:\t1\t2\t3\t4\n");
    Requestor requestor;
    requestor.uid = 9;
    requestor.setProcess(pid);
    QCOMPARE(*requestor.uid, 9U);
}

void TestRequestor::processThatIsNoneIsNotTakenOver_data()
{
    QTest::addColumn<int>("process");
    QTest::addColumn<int>("taken");

    QTest::newRow("of another system") << 0 << -1;
    QTest::newRow("negative") << -5 << -1;
    QTest::newRow("that has left") << 815 << 815;
}

void TestRequestor::processThatIsNoneIsNotTakenOver()
{
    QFETCH(int, process);
    QFETCH(int, taken);
    Requestor requestor;
    requestor.setProcess(process);
    QCOMPARE(requestor.pid, taken);
    QCOMPARE(requestor.program, QString());
    QVERIFY(!requestor.uid);
}

void TestRequestor::thisProcessIsKnown()
{
    qunsetenv("PROCWARDEN_ROOTFS");
    Requestor requestor;
    requestor.setProcess(::getpid());
    QCOMPARE(requestor.program, QStringLiteral("tst_requestor"));
    QCOMPARE(*requestor.uid, ::geteuid());
}

QTEST_GUILESS_MAIN(TestRequestor)

#include "tst_requestor.moc"
