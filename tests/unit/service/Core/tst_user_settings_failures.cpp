#include "Core/user_settings.h"

#include "settings_fixture.h"
#include "support/file_size_limit.h"
#include "support/log_capture.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTest>

#include <csignal>
#include <functional>
#include <memory>

#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using Core::AutostartEntry;
using Core::UserSettings;
using TestSupport::FileSizeLimit;
using TestSupport::LogCapture;

namespace {

const QString task = QStringLiteral("org.example.Notes.task_sync");
const QByteArray before(R"({"autostartedTasks":{"org.example.Mail.task_fetch":{"params":["before"]}}})");

constexpr int allWell = 42; // of a child; nothing else ends with it by chance
constexpr uid_t ordinaryUser = 65534;

AutostartEntry entryOfSize(int size)
{
    AutostartEntry entry;
    entry.params = QStringList(QString(size, QLatin1Char('x')));
    return entry;
}

/// The exit status of a child that did @p work; -1 if it was killed.
int inChild(const std::function<int()> &work)
{
    const pid_t child = fork();
    if (child < 0) {
        return -1;
    }
    if (child == 0) {
        _exit(work());
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// The same as an ordinary user, to whom the permissions of a file apply.
int inOrdinaryChild(const std::function<int()> &work)
{
    return inChild([&work] {
        if (geteuid() == 0 && setresuid(ordinaryUser, ordinaryUser, ordinaryUser) != 0) {
            return 1;
        }
        return work();
    });
}

/// The exit status of an ordinary child that changed the settings: all is well if it logged @p expected.
int statusOfAChange(const QStringList &expected)
{
    return inOrdinaryChild([&expected] {
        const LogCapture log;
        {
            UserSettings settings;
            settings.setAutostartEntry(task, entryOfSize(1));
        }
        return log.messages() == expected ? allWell : 2;
    });
}

/// Mounts a file system of 16 kB, seen by this process only.
bool mountTinyDisk(const QByteArray &directory)
{
    return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0
        && ::mount("none", directory.constData(), "tmpfs", 0, "size=16k") == 0;
}

} // namespace

/// The file cannot be read or written, or the process dies meanwhile.
class tst_UserSettingsFailures : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void whatIsNoFileIsWarnedAbout_data();
    void whatIsNoFileIsWarnedAbout();
    void directoryThatCannotBeMadeIsWarnedAbout();
    void fileThatMayNotBeReadIsWarnedAbout();
    void readOnlyDirectoryIsWarnedAbout();
    void readOnlyFileIsWarnedAbout();
    void failedWriteLeavesTheFile_data();
    void failedWriteLeavesTheFile();
    void failedWriteIsTriedAgainAtTheNextChange();
    void fullDiskLeavesTheFile_data();
    void fullDiskLeavesTheFile();
    void killInTheMiddleOfAWriteLosesNothing();
    void linkIsFollowed();
    void restOfAnotherWriteIsNotTaken();

private:
    static void runEventLoop() { QCoreApplication::processEvents(); }
    QString readWarning() const
    {
        return QStringLiteral("Couldn't read config file \"%1\"").arg(m_fixture->path());
    }
    QString writeWarning() const
    {
        return QStringLiteral("Couldn't create config file \"%1\"").arg(m_fixture->path());
    }

    std::unique_ptr<SettingsFixture> m_fixture;
};

void tst_UserSettingsFailures::init()
{
    m_fixture = std::make_unique<SettingsFixture>();
}

void tst_UserSettingsFailures::cleanup()
{
    m_fixture.reset();
}

void tst_UserSettingsFailures::whatIsNoFileIsWarnedAbout_data()
{
    QTest::addColumn<bool>("canBeReplaced");
    QTest::newRow("directory") << false;
    QTest::newRow("fifo") << true;
    QTest::newRow("dangling link") << true;
}

void tst_UserSettingsFailures::whatIsNoFileIsWarnedAbout()
{
    QFETCH(bool, canBeReplaced);
    const QByteArray kind = QTest::currentDataTag();
    QVERIFY(QDir().mkpath(m_fixture->directory()));
    if (kind == "directory") {
        QVERIFY(QDir().mkpath(m_fixture->path() + QStringLiteral("/inner")));
    } else if (kind == "fifo") {
        QCOMPARE(mkfifo(QFile::encodeName(m_fixture->path()).constData(), 0600), 0);
    } else {
        QVERIFY(QFile::link(QStringLiteral("nowhere"), m_fixture->path()));
    }
    const LogCapture log;
    {
        UserSettings settings;
        settings.setAutostartEntry(task, entryOfSize(1));
        runEventLoop();
        QCOMPARE(settings.autostartEntries().size(), 1); // it goes on without the file
    }
    QStringList expected { readWarning() };
    if (!canBeReplaced) {
        expected.append(writeWarning());
    }
    QCOMPARE(log.messages(), expected);
    QCOMPARE(!m_fixture->read().isEmpty(), canBeReplaced);
}

void tst_UserSettingsFailures::directoryThatCannotBeMadeIsWarnedAbout()
{
    m_fixture->use(QStringLiteral("/dev/null/config"));
    const LogCapture log;
    {
        UserSettings settings;
        settings.setAutostartEntry(task, entryOfSize(1));
    }
    QCOMPARE(log.messages(), QStringList({ readWarning(), writeWarning() }));
}

void tst_UserSettingsFailures::fileThatMayNotBeReadIsWarnedAbout()
{
    m_fixture->write(before);
    QCOMPARE(chmod(QFile::encodeName(m_fixture->path()).constData(), 0), 0);
    const int status = inOrdinaryChild([this] {
        const LogCapture log;
        const UserSettings settings;
        return settings.autostartEntries().isEmpty() && log.messages() == QStringList(readWarning()) ? allWell
                                                                                                     : 2;
    });
    QCOMPARE(status, allWell);
}

void tst_UserSettingsFailures::readOnlyDirectoryIsWarnedAbout()
{
    m_fixture->write(before);
    QCOMPARE(chmod(QFile::encodeName(m_fixture->directory()).constData(), 0555), 0);
    QCOMPARE(statusOfAChange({ writeWarning() }), allWell);
    QCOMPARE(m_fixture->read(), before);
    QCOMPARE(chmod(QFile::encodeName(m_fixture->directory()).constData(), 0755), 0);
}

void tst_UserSettingsFailures::readOnlyFileIsWarnedAbout()
{
    m_fixture->write(before);
    QCOMPARE(chmod(QFile::encodeName(m_fixture->directory()).constData(), 0777), 0);
    QCOMPARE(chmod(QFile::encodeName(m_fixture->path()).constData(), 0444), 0);
    QCOMPARE(statusOfAChange({ writeWarning() }), allWell);
    QCOMPARE(m_fixture->read(), before);
}

void tst_UserSettingsFailures::failedWriteLeavesTheFile_data()
{
    QTest::addColumn<int>("size");
    QTest::newRow("in what is written at the end") << 2000;
    QTest::newRow("in the middle") << 2000000;
}

void tst_UserSettingsFailures::failedWriteLeavesTheFile()
{
    QFETCH(int, size);
    m_fixture->write(before);
    const LogCapture log;
    {
        UserSettings settings;
        settings.setAutostartEntry(task, entryOfSize(size));
        const FileSizeLimit limit(1000);
        runEventLoop();
    }
    QCOMPARE(m_fixture->read(), before);
    QCOMPARE(m_fixture->files(), QStringList(QStringLiteral("user-settings.json")));
    QCOMPARE(log.messages(), QStringList());
}

void tst_UserSettingsFailures::failedWriteIsTriedAgainAtTheNextChange()
{
    m_fixture->write(before);
    UserSettings settings;
    settings.setAutostartEntry(task, entryOfSize(2000));
    {
        const FileSizeLimit limit(1000);
        runEventLoop();
    }
    m_fixture->startCounting();
    runEventLoop();
    QCOMPARE(m_fixture->writes(), 0);
    QCOMPARE(m_fixture->read(), before);
    settings.setAutostartEntry(QStringLiteral("org.example.Notes.task_clean"), entryOfSize(1));
    runEventLoop();
    QCOMPARE(m_fixture->writes(), 1);
    QCOMPARE(UserSettings().autostartEntries().size(), 3);
}

void tst_UserSettingsFailures::fullDiskLeavesTheFile_data()
{
    QTest::addColumn<int>("size");
    QTest::newRow("half full") << 10000;
    QTest::newRow("too large at once") << 100000;
}

void tst_UserSettingsFailures::fullDiskLeavesTheFile()
{
    QFETCH(int, size);
    const QString config = m_fixture->temporaryPath(QStringLiteral("disk"));
    QVERIFY(QDir().mkpath(config));
    m_fixture->use(config);
    const int status = inChild([&] {
        if (!mountTinyDisk(QFile::encodeName(config))) {
            return 77;
        }
        m_fixture->write("{}");
        UserSettings settings;
        settings.setAutostartEntry(task, entryOfSize(6000));
        runEventLoop();
        const QByteArray first = m_fixture->read();
        settings.setAutostartEntry(QStringLiteral("org.example.Notes.task_large"), entryOfSize(size));
        runEventLoop();
        if (first.isEmpty() || m_fixture->read() != first || m_fixture->files().size() != 1) {
            return 1;
        }
        settings.removeAutostartEntry(QStringLiteral("org.example.Notes.task_large"));
        settings.setAutostartEntry(QStringLiteral("org.example.Notes.task_small"), entryOfSize(1));
        runEventLoop();
        return UserSettings().autostartEntries().size() == 2 ? allWell : 2;
    });
    if (status == 77) {
        QSKIP("needs the right to mount a file system");
    }
    QCOMPARE(status, allWell);
}

void tst_UserSettingsFailures::killInTheMiddleOfAWriteLosesNothing()
{
    m_fixture->write(before);
    m_fixture->startCounting();
    for (int round = 0; round < 20; ++round) {
        const pid_t child = fork();
        QVERIFY(child >= 0);
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (int i = 0;; ++i) {
                UserSettings settings;
                settings.setAutostartEntry(task, entryOfSize(500000 + i));
            }
        }
        // Some of it has been written: another point of the work in each round.
        int writes = 0;
        QTRY_VERIFY_WITH_TIMEOUT((writes += m_fixture->writes()) > 0, 20000);
        QElapsedTimer elapsed;
        for (elapsed.start(); elapsed.nsecsElapsed() < round * 137000;) { }
        QCOMPARE(::kill(child, SIGKILL), 0);
        int status = 0;
        QCOMPARE(waitpid(child, &status, 0), child);
        QVERIFY(WIFSIGNALED(status));
        m_fixture->writes();

        const QMap<QString, AutostartEntry> entries = UserSettings().autostartEntries();
        QCOMPARE(entries.size(), 2);
        QCOMPARE(entries.value(QStringLiteral("org.example.Mail.task_fetch")).params,
                 QStringList(QStringLiteral("before")));
        QVERIFY(entries.value(task).params.value(0).size() >= 500000);
    }
}

void tst_UserSettingsFailures::linkIsFollowed()
{
    const QString target = m_fixture->temporaryPath(QStringLiteral("elsewhere.json"));
    QVERIFY(QDir().mkpath(m_fixture->directory()));
    m_fixture->write(before);
    QVERIFY(QFile::rename(m_fixture->path(), target));
    QVERIFY(QFile::link(target, m_fixture->path()));
    UserSettings().setAutostartEntry(task, entryOfSize(1));
    QVERIFY(QFileInfo(m_fixture->path()).isSymLink());
    QCOMPARE(UserSettings().autostartEntries().size(), 2);
}

void tst_UserSettingsFailures::restOfAnotherWriteIsNotTaken()
{
    m_fixture->write(before);
    QFile rest(m_fixture->path() + QStringLiteral(".abcdef"));
    QVERIFY(rest.open(QIODevice::WriteOnly));
    rest.write("{\"autostartedTasks\":{");
    rest.close();
    UserSettings().setAutostartEntry(task, entryOfSize(1));
    QCOMPARE(UserSettings().autostartEntries().size(), 2);
}

QTEST_GUILESS_MAIN(tst_UserSettingsFailures)

#include "tst_user_settings_failures.moc"
