#include "Core/missing_directories.h"

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using Core::MissingDirectories;

class tst_MissingDirectories : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void existingOneIsNotAwaited();
    void oneThatIsMadeIsNoticed_data();
    void oneThatIsMadeIsNoticed();
    void oneThatIsMadeStepByStepIsNoticed();
    void oneThatIsMovedThereIsNoticed();
    void wayThatVanishesIsFollowed();
    void eachOfSeveralIsNoticed();
    void othersAreNot();
    void nothingIsAwaitedAfterClear();

private:
    QString path(const char *relative) const { return m_dir->filePath(QString::fromLatin1(relative)); }
    void make(const char *relative) const { QVERIFY(QDir().mkpath(path(relative))); }

    std::unique_ptr<QTemporaryDir> m_dir;
};

void tst_MissingDirectories::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

void tst_MissingDirectories::existingOneIsNotAwaited()
{
    make("a/b");
    MissingDirectories missing;
    QVERIFY(missing.await(path("a/b")));
    QVERIFY(missing.await(QStringLiteral("/")));
    QVERIFY(!missing.await(path("a/c")));
}

void tst_MissingDirectories::oneThatIsMadeIsNoticed_data()
{
    QTest::addColumn<QString>("directory");
    QTest::newRow("in an existing one") << QStringLiteral("there/b");
    QTest::newRow("at the end of a way that is missing") << QStringLiteral("there/b/c/d/e/f");
}

void tst_MissingDirectories::oneThatIsMadeIsNoticed()
{
    QFETCH(QString, directory);
    make("there");
    MissingDirectories missing;
    QSignalSpy appeared(&missing, &MissingDirectories::appeared);
    QVERIFY(!missing.await(m_dir->filePath(directory)));
    QVERIFY(QDir().mkpath(m_dir->filePath(directory)));
    QTRY_VERIFY(!appeared.isEmpty());
}

void tst_MissingDirectories::oneThatIsMadeStepByStepIsNoticed()
{
    MissingDirectories missing;
    QSignalSpy appeared(&missing, &MissingDirectories::appeared);
    QVERIFY(!missing.await(path("a/b/c")));
    for (const char *step : { "a", "a/b", "a/b/c" }) {
        QVERIFY(appeared.isEmpty());
        make(step);
        QCoreApplication::processEvents();
    }
    QTRY_VERIFY(!appeared.isEmpty());
}

void tst_MissingDirectories::oneThatIsMovedThereIsNoticed()
{
    make("made/b/c");
    MissingDirectories missing;
    QSignalSpy appeared(&missing, &MissingDirectories::appeared);
    QVERIFY(!missing.await(path("a/b/c")));
    QVERIFY(QDir().rename(path("made"), path("a")));
    QTRY_VERIFY(!appeared.isEmpty());
}

void tst_MissingDirectories::wayThatVanishesIsFollowed()
{
    make("a/b");
    MissingDirectories missing;
    QSignalSpy appeared(&missing, &MissingDirectories::appeared);
    QVERIFY(!missing.await(path("a/b/c")));
    QVERIFY(QDir(path("a")).removeRecursively());
    QVERIFY(!appeared.wait(50));
    make("a/b/c");
    QTRY_VERIFY(!appeared.isEmpty());
}

void tst_MissingDirectories::eachOfSeveralIsNoticed()
{
    MissingDirectories missing;
    QSignalSpy appeared(&missing, &MissingDirectories::appeared);
    QVERIFY(!missing.await(path("a/b")));
    QVERIFY(!missing.await(path("c/d")));
    connect(&missing, &MissingDirectories::appeared, &missing, [&] {
        missing.clear(); // as who looks at all of them anew
        missing.await(path("a/b"));
        missing.await(path("c/d"));
    });
    make("c/d");
    QTRY_COMPARE(appeared.size(), 1);
    make("a/b");
    QTRY_COMPARE(appeared.size(), 2);
}

void tst_MissingDirectories::othersAreNot()
{
    MissingDirectories missing;
    QSignalSpy appeared(&missing, &MissingDirectories::appeared);
    QVERIFY(!missing.await(path("a")));
    make("b");
    make("c/a");
    QVERIFY(!appeared.wait(50));
}

void tst_MissingDirectories::nothingIsAwaitedAfterClear()
{
    MissingDirectories missing;
    QSignalSpy appeared(&missing, &MissingDirectories::appeared);
    QVERIFY(!missing.await(path("a")));
    missing.clear();
    make("a");
    QVERIFY(!appeared.wait(50));
}

QTEST_GUILESS_MAIN(tst_MissingDirectories)
#include "tst_missing_directories.moc"
