#include "Core/regular_file.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <cerrno>
#include <sys/stat.h>

using namespace Core;

class TestRegularFile : public QObject
{
    Q_OBJECT

private slots:
    void contentIsRead_data();
    void contentIsRead();
    void whatIsNoRegularFileIsRefusedAtOnce();
    void nulEndsNoName();
    void largeFileIsRefused();

private:
    QString path(const char *name) const { return m_dir.filePath(QString::fromLatin1(name)); }

    QTemporaryDir m_dir;
};

void TestRegularFile::contentIsRead_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("text") << QByteArray("line\nline");
    QTest::newRow("zeros") << QByteArray(10, '\0');
    QTest::newRow("largest") << QByteArray(int(maximumConfigurationSize), 'x');
}

void TestRegularFile::contentIsRead()
{
    QFETCH(QByteArray, content);
    QFile file(path("file"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), qint64(content.size()));
    file.close();
    QFile::remove(path("link"));
    QVERIFY(QFile::link(path("file"), path("link")));

    for (const char *name : { "file", "link" }) {
        QByteArray data("old");
        QCOMPARE(readRegularFile(path(name), data), 0);
        QCOMPARE(data, content);
        QVERIFY(isRegularFile(path(name)));
    }
}

void TestRegularFile::whatIsNoRegularFileIsRefusedAtOnce()
{
    QCOMPARE(::mkfifo(QFile::encodeName(path("fifo")).constData(), 0600), 0);
    QVERIFY(QDir().mkdir(path("directory")));
    QVERIFY(QFile::link(QStringLiteral("nowhere"), path("dangling")));
    QVERIFY(QFile::link(QStringLiteral("loop"), path("loop")));

    const auto refused = [](const QString &file, int error) {
        QByteArray data("old");
        QCOMPARE(readRegularFile(file, data), error);
        QVERIFY(data.isEmpty());
        QVERIFY(!isRegularFile(file));
    };
    refused(path("fifo"), ENXIO);
    refused(QStringLiteral("/dev/zero"), ENXIO);
    refused(path("directory"), EISDIR);
    refused(path("dangling"), ENOENT);
    refused(path("missing"), ENOENT);
    refused(path("loop"), ELOOP);
    refused(QString(), ENOENT);
}

void TestRegularFile::nulEndsNoName()
{
    QFile file(path("file"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QByteArray data("old");
    QCOMPARE(readRegularFile(path("file") + QChar(0) + QLatin1String("more"), data), EINVAL);
    QVERIFY(data.isEmpty());
}

void TestRegularFile::largeFileIsRefused()
{
    QFile file(path("large"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QVERIFY(file.resize(maximumConfigurationSize + 1));
    QByteArray data;
    QCOMPARE(readRegularFile(path("large"), data), EFBIG);
    QVERIFY(data.isEmpty());
    QVERIFY(!isRegularFile(path("large")));
}

QTEST_GUILESS_MAIN(TestRegularFile)
#include "tst_regular_file.moc"
