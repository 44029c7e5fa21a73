#include "Core/file_watcher.h"

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <cstdio>
#include <memory>
#include <sys/stat.h>

using namespace Core;

class TestFileWatcher : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void changesAreReported();
    void manyPathsAreWatched();
    void pathThatLeadsNowhereIsPassedOver();
    void deletedFileIsForgottenAndWatchedAgain();
    void replacedFileIsWatchedAgain();
    void replacedFileThatIsStillOpenIsWatchedAgain();
    void linkTurnedElsewhereIsWatchedAgain();
    void watchingTwiceIsHarmless();

private:
    QString path(const QString &name) const { return m_dir->filePath(name); }
    QString write(const QString &name, const QByteArray &content = "x") const
    {
        QFile file(path(name));
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
            qFatal("cannot write");
        }
        return file.fileName();
    }
    /// Another file takes its place.
    bool replace(const QString &file) const
    {
        return std::rename(QFile::encodeName(write(QStringLiteral("new"))).constData(),
                           QFile::encodeName(file).constData())
            == 0;
    }
    /// Lets what is pending be reported, so that what a spy sees afterward is new.
    static void settle()
    {
        for (int i = 0; i < 5; ++i) {
            QCoreApplication::processEvents();
        }
    }

    std::unique_ptr<QTemporaryDir> m_dir;
};

void TestFileWatcher::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

void TestFileWatcher::changesAreReported()
{
    const QString file = write(QStringLiteral("a"));
    FileWatcher watcher;
    QSignalSpy files(&watcher, &FileWatcher::fileChanged);
    QSignalSpy directories(&watcher, &FileWatcher::directoryChanged);
    watcher.watch({ m_dir->path(), file });
    write(QStringLiteral("a"), "changed");
    QTRY_VERIFY(!files.isEmpty());
    QCOMPARE(files.first().first().toString(), file);
    QVERIFY(directories.isEmpty());
    write(QStringLiteral("b"));
    QTRY_VERIFY(!directories.isEmpty());
    QCOMPARE(directories.first().first().toString(), m_dir->path());
}

void TestFileWatcher::manyPathsAreWatched()
{
    QStringList paths;
    for (int i = 0; i < 1500; ++i) {
        paths.append(write(QString::number(i)));
    }
    FileWatcher watcher;
    QSignalSpy files(&watcher, &FileWatcher::fileChanged);
    watcher.watch(paths);
    QCOMPARE(watcher.paths().size(), paths.size());
    for (const int i : { 0, 511, 512, 1023, 1024, 1499 }) {
        files.clear();
        write(QString::number(i), "changed");
        QTRY_VERIFY(!files.isEmpty());
        QCOMPARE(files.first().first().toString(), paths.at(i));
        settle();
    }
}

void TestFileWatcher::pathThatLeadsNowhereIsPassedOver()
{
    QVERIFY(QFile::link(QStringLiteral("nowhere"), path(QStringLiteral("link"))));
    QCOMPARE(::mkfifo(QFile::encodeName(path(QStringLiteral("fifo"))).constData(), 0600), 0);
    FileWatcher watcher;
    watcher.watch({ path(QStringLiteral("link")), path(QStringLiteral("missing")), QString(),
                    path(QStringLiteral("fifo")) });
    QCOMPARE(watcher.paths(), QStringList { path(QStringLiteral("fifo")) });

    // Once they lead somewhere, the next call takes them.
    write(QStringLiteral("nowhere"));
    watcher.watch({ path(QStringLiteral("link")) });
    QVERIFY(watcher.paths().contains(path(QStringLiteral("link"))));
}

void TestFileWatcher::deletedFileIsForgottenAndWatchedAgain()
{
    const QString file = write(QStringLiteral("a"));
    FileWatcher watcher;
    QSignalSpy files(&watcher, &FileWatcher::fileChanged);
    watcher.watch({ file });
    QVERIFY(QFile::remove(file));
    QTRY_VERIFY(!files.isEmpty());
    QTRY_VERIFY(watcher.paths().isEmpty());

    write(QStringLiteral("a"));
    watcher.watch({ file });
    QCOMPARE(watcher.paths(), QStringList { file });
    files.clear();
    write(QStringLiteral("a"), "changed");
    QTRY_VERIFY(!files.isEmpty());
}

void TestFileWatcher::replacedFileIsWatchedAgain()
{
    const QString file = write(QStringLiteral("a"));
    FileWatcher watcher;
    QSignalSpy files(&watcher, &FileWatcher::fileChanged);
    watcher.watch({ file });
    for (int i = 0; i < 3; ++i) {
        QVERIFY(replace(file));
        QTRY_VERIFY(!files.isEmpty());
        settle();
        watcher.watch({ file });
        files.clear();
        write(QStringLiteral("a"), "changed");
        QTRY_VERIFY(!files.isEmpty());
        settle();
        files.clear();
    }
}

void TestFileWatcher::replacedFileThatIsStillOpenIsWatchedAgain()
{
    const QString file = write(QStringLiteral("a"));
    QFile open(file);
    QVERIFY(open.open(QIODevice::ReadOnly));
    FileWatcher watcher;
    QSignalSpy files(&watcher, &FileWatcher::fileChanged);
    watcher.watch({ file });
    QVERIFY(replace(file));
    QTRY_VERIFY(!files.isEmpty());
    settle();
    watcher.watch({ file });
    files.clear();
    write(QStringLiteral("a"), "changed");
    QTRY_VERIFY(!files.isEmpty());
}

void TestFileWatcher::linkTurnedElsewhereIsWatchedAgain()
{
    write(QStringLiteral("one"));
    write(QStringLiteral("two"));
    const QString link = path(QStringLiteral("link"));
    QVERIFY(QFile::link(QStringLiteral("one"), link));
    FileWatcher watcher;
    QSignalSpy files(&watcher, &FileWatcher::fileChanged);
    watcher.watch({ link });
    QVERIFY(QFile::remove(link));
    QVERIFY(QFile::link(QStringLiteral("two"), link));
    watcher.watch({ link });
    settle();
    files.clear();
    write(QStringLiteral("one"), "changed");
    settle();
    QVERIFY(files.isEmpty());
    write(QStringLiteral("two"), "changed");
    QTRY_VERIFY(!files.isEmpty());
    QCOMPARE(files.first().first().toString(), link);
}

void TestFileWatcher::watchingTwiceIsHarmless()
{
    const QString file = write(QStringLiteral("a"));
    FileWatcher watcher;
    watcher.watch({ file, file, m_dir->path() });
    watcher.watch({ m_dir->path(), file });
    QCOMPARE(watcher.paths().size(), 2);
    QSignalSpy files(&watcher, &FileWatcher::fileChanged);
    QVERIFY(QFile::remove(file));
    QTRY_VERIFY(!files.isEmpty());
    QTRY_COMPARE(watcher.paths(), QStringList { m_dir->path() });
}

QTEST_GUILESS_MAIN(TestFileWatcher)
#include "tst_file_watcher.moc"
