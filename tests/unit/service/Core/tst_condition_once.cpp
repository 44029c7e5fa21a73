#include "Core/condition_once.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>
#include <sys/stat.h>
#include <unistd.h>

using Core::ApplicationInfo;
using Core::ApplicationTaskId;
using Core::ConditionOnce;

namespace {

ApplicationInfo::TaskInfo task(const QString &id)
{
    ApplicationInfo::TaskInfo info;
    info.id = ApplicationTaskId(id);
    info.type = QStringLiteral("session-start");
    return info;
}

} // namespace

class tst_ConditionOnce : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup() { m_runtime.reset(); }

    void isTrueWithoutTheSentinel();
    void startLeavesTheSentinel();
    void sentinelHoldsForTheSession();
    void sentinelIsTheTasksOwn();
    void newSessionBeginsAnew();
    void whatIsInItsPlaceIsLeftAsItIs();
    void pipeInItsPlaceIsWarnedAbout();
    void linkInItsPlaceIsNotFollowed();
    void failureToMakeTheDirectoryIsWarnedAbout();
    void readOnlyRuntimeDirectoryIsWarnedAbout();
    void fullSetOfDescriptorsIsWarnedAbout();
    void conditionHasNoData();

private:
    QString sentinel() const
    {
        return m_runtime->filePath(QStringLiteral("applications/org.example.App/Sync.launched"));
    }

    /// A file of the user's with four bytes in it. @returns its path
    QString makeLetter() const
    {
        QFile letter(m_runtime->filePath(QStringLiteral("letter")));
        return letter.open(QIODevice::WriteOnly) && letter.write("text") == 4 ? letter.fileName() : QString();
    }

    std::unique_ptr<QTemporaryDir> m_runtime;
    const ApplicationInfo::TaskInfo m_task = task(QStringLiteral("org.example.App.task_Sync"));
};

void tst_ConditionOnce::init()
{
    m_runtime = std::make_unique<QTemporaryDir>();
    QFile::setPermissions(m_runtime->path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(m_runtime->path()));
}

void tst_ConditionOnce::isTrueWithoutTheSentinel()
{
    QCOMPARE(m_task.id.text(), QStringLiteral("org.example.App.task_Sync"));
    const ConditionOnce once(m_task);
    QCOMPARE(once.name(), QStringLiteral("once"));
    QVERIFY(once.isSatisfied());
    QVERIFY(!QFile::exists(m_runtime->filePath(QStringLiteral("applications")))); // nothing as yet
}

void tst_ConditionOnce::startLeavesTheSentinel()
{
    ConditionOnce once(m_task);
    once.taskWasTriggered();
    QVERIFY(!once.isSatisfied());
    QVERIFY(QFile::exists(sentinel()));
    QCOMPARE(QFileInfo(sentinel()).size(), 0);
    once.taskWasTriggered();
    QVERIFY(!once.isSatisfied());
}

void tst_ConditionOnce::sentinelHoldsForTheSession()
{
    ConditionOnce(m_task).taskWasTriggered();
    ConditionOnce once(m_task);
    QVERIFY(!once.isSatisfied());
    once.taskRemoved(); // also over a removal
    QVERIFY(!ConditionOnce(m_task).isSatisfied());
}

void tst_ConditionOnce::sentinelIsTheTasksOwn()
{
    ConditionOnce(m_task).taskWasTriggered();
    QVERIFY(ConditionOnce(task(QStringLiteral("org.example.App.task_Other"))).isSatisfied());
    QVERIFY(ConditionOnce(task(QStringLiteral("org.example.Other.task_Sync"))).isSatisfied());
}

void tst_ConditionOnce::newSessionBeginsAnew()
{
    ConditionOnce(m_task).taskWasTriggered();
    init();
    QVERIFY(ConditionOnce(m_task).isSatisfied());
}

// One that has come meanwhile may be another name of a file of the user's.
void tst_ConditionOnce::whatIsInItsPlaceIsLeftAsItIs()
{
    ConditionOnce once(m_task);
    QDir().mkpath(QFileInfo(sentinel()).path());
    const QString letter = makeLetter();
    QCOMPARE(::link(QFile::encodeName(letter).constData(), QFile::encodeName(sentinel()).constData()), 0);
    once.taskWasTriggered();
    QVERIFY(!once.isSatisfied());
    QCOMPARE(QFileInfo(letter).size(), 4);
    QVERIFY(!ConditionOnce(m_task).isSatisfied());
}

// The application may write there, too.
void tst_ConditionOnce::pipeInItsPlaceIsWarnedAbout()
{
    ConditionOnce once(m_task);
    QDir().mkpath(QFileInfo(sentinel()).path());
    QCOMPARE(::mkfifo(QFile::encodeName(sentinel()).constData(), 0600), 0);
    QTest::ignoreMessage(
        QtWarningMsg, qUtf8Printable(QStringLiteral("Cannot create sentinel file \"%1\"").arg(sentinel())));
    once.taskWasTriggered();
    QVERIFY(!once.isSatisfied());
}

void tst_ConditionOnce::linkInItsPlaceIsNotFollowed()
{
    ConditionOnce once(m_task);
    QDir().mkpath(QFileInfo(sentinel()).path());
    const QString letter = makeLetter();
    QVERIFY(QFile::link(letter, sentinel()));
    QTest::ignoreMessage(
        QtWarningMsg, qUtf8Printable(QStringLiteral("Cannot create sentinel file \"%1\"").arg(sentinel())));
    once.taskWasTriggered();
    QVERIFY(!once.isSatisfied());
    QCOMPARE(QFileInfo(letter).size(), 4);
}

void tst_ConditionOnce::failureToMakeTheDirectoryIsWarnedAbout()
{
    ConditionOnce once(m_task);
    QFile file(m_runtime->filePath(QStringLiteral("applications")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QTest::ignoreMessage(QtDebugMsg, "Condition \"once\" became false");
    QTest::ignoreMessage(
        QtWarningMsg, qUtf8Printable(QStringLiteral("Cannot create sentinel file \"%1\"").arg(sentinel())));
    once.taskWasTriggered();
    QVERIFY(!once.isSatisfied()); // it does not run twice
}

void tst_ConditionOnce::readOnlyRuntimeDirectoryIsWarnedAbout()
{
    // A directory in the sentinel's place is one that even root cannot write.
    ConditionOnce once(m_task);
    QVERIFY(QDir().mkpath(sentinel()));
    QTest::ignoreMessage(
        QtWarningMsg, qUtf8Printable(QStringLiteral("Cannot create sentinel file \"%1\"").arg(sentinel())));
    once.taskWasTriggered();
    QVERIFY(!once.isSatisfied());
    QDir(sentinel()).removeRecursively();

    if (geteuid() == 0) {
        return; // permissions do not bind it
    }
    ConditionOnce again(m_task);
    QVERIFY(again.isSatisfied());
    QFile::setPermissions(m_runtime->path(), QFile::ReadOwner | QFile::ExeOwner);
    QTest::ignoreMessage(
        QtWarningMsg, qUtf8Printable(QStringLiteral("Cannot create sentinel file \"%1\"").arg(sentinel())));
    again.taskWasTriggered();
    QVERIFY(!again.isSatisfied());
    QFile::setPermissions(m_runtime->path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

void tst_ConditionOnce::fullSetOfDescriptorsIsWarnedAbout()
{
    ConditionOnce once(m_task);
    // Every descriptor that the process may have is open.
    std::vector<std::unique_ptr<QFile>> files;
    for (;;) {
        auto file = std::make_unique<QFile>(QStringLiteral("/dev/null"));
        if (!file->open(QIODevice::ReadOnly)) {
            break;
        }
        files.push_back(std::move(file));
        if (files.size() > 100000) {
            QSKIP("no limit of descriptors here");
        }
    }
    QTest::ignoreMessage(
        QtWarningMsg, qUtf8Printable(QStringLiteral("Cannot create sentinel file \"%1\"").arg(sentinel())));
    once.taskWasTriggered();
    files.clear();
    QVERIFY(!once.isSatisfied());
    QVERIFY(!QFile::exists(sentinel()));
}

void tst_ConditionOnce::conditionHasNoData()
{
    ConditionOnce once(m_task);
    once.restoreConfig({});
    once.taskWasTriggered();
    QCOMPARE(once.config(), QVariantMap());
}

QTEST_GUILESS_MAIN(tst_ConditionOnce)
#include "tst_condition_once.moc"
