#include "event_store.h"

#include "event_samples.h"
#include "units.h"

#include <QDateTime>
#include <QDir>
#include <QtTest>

#include <csignal>
#include <memory>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Eventd;
using namespace EventSamples;
using Maemo::Timed::WireEvent;

namespace {

const QString program = QStringLiteral("/usr/libexec/procwarden-eventd");

/// While it lives, no file of this process can get longer than nothing: the disk is full.
class FullDisk
{
public:
    FullDisk()
    {
        ::getrlimit(RLIMIT_FSIZE, &m_before);
        m_handler = std::signal(SIGXFSZ, SIG_IGN);
        rlimit none = m_before;
        none.rlim_cur = 0;
        ::setrlimit(RLIMIT_FSIZE, &none);
    }

    ~FullDisk()
    {
        ::setrlimit(RLIMIT_FSIZE, &m_before);
        std::signal(SIGXFSZ, m_handler);
    }

private:
    rlimit m_before {};
    void (*m_handler)(int) = nullptr;
};

} // namespace

class TestEventStore : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void directoriesAreThoseOfTheUser();
    void addedEventHasEverything();
    void recordsAreNobodyElsesBusiness();
    void cookiesAreNeverUsedAgain();
    void cookieGoesOnFromTheCounter();
    void lostCounterGivesALargerCookie_data();
    void lostCounterGivesALargerCookie();
    void lastCookieIsGivenAndNoneAfterIt();
    void removedEventLeavesNothing();
    void removalOfNothingSucceeds();
    void recordIsFound();
    void brokenRecordIsFoundAsSuch_data();
    void brokenRecordIsFoundAsSuch();
    void brokenRecordIsRemoved();
    void fullDiskLeavesNothing();
    void fileInTheWayIsTold_data();
    void fileInTheWayIsTold();
    void noMoreEventsThanTheMost();
    void otherFilesAreNoEvents();
    void unitsWithoutARecordAreLeftovers();
    void rightUnitsStay();
    void wrongUnitsArePutRight_data();
    void wrongUnitsArePutRight();
    void repairMakesNothingForAnEventThatIsGone();
    void heldLockIsAnError();
    void twoStoresShareTheCookies();

private:
    Cookie add(const WireEvent &event = recurrent({ daily({ 3 }) }));
    QString path(const QString &name) const { return m_directory->filePath(name); }
    QByteArray content(const QString &name) const;
    void write(const QString &name, const QByteArray &content);
    QStringList files() const;

    std::unique_ptr<QTemporaryDir> m_directory;
    std::unique_ptr<EventStore> m_store;
};

void TestEventStore::init()
{
    m_directory = std::make_unique<QTemporaryDir>();
    m_store = std::make_unique<EventStore>(EventStore::Directories { path(QStringLiteral("data")),
                                                                     path(QStringLiteral("units")),
                                                                     path(QStringLiteral("stamps")) },
                                           program);
}

void TestEventStore::cleanup()
{
    m_store.reset();
    m_directory.reset();
}

Cookie TestEventStore::add(const WireEvent &event)
{
    Cookie cookie = 0;
    const Failure failure = m_store->add(event, false, &cookie);
    if (!failure.isEmpty()) {
        qCritical() << failure;
        return 0;
    }
    return cookie;
}

QByteArray TestEventStore::content(const QString &name) const
{
    QFile file(path(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void TestEventStore::write(const QString &name, const QByteArray &content)
{
    QVERIFY(QFileInfo(path(name)).dir().mkpath(QStringLiteral(".")));
    QFile file(path(name));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), qint64(content.size()));
}

/// All there is of events, links too, without the counter and the lock.
QStringList TestEventStore::files() const
{
    QStringList result;
    const QDir root(m_directory->path());
    QDirIterator entries(m_directory->path(), QDir::Files | QDir::System | QDir::Hidden,
                         QDirIterator::Subdirectories);
    while (entries.hasNext()) {
        result << root.relativeFilePath(entries.next());
    }
    result.removeAll(QStringLiteral("data/last-cookie"));
    result.removeAll(QStringLiteral("data/lock"));
    result.sort();
    return result;
}

void TestEventStore::directoriesAreThoseOfTheUser()
{
    qputenv("XDG_DATA_HOME", "/home/user/data");
    qputenv("XDG_CONFIG_HOME", "/home/user/config");
    const auto directories = EventStore::Directories::ofUser();
    QCOMPARE(directories.data, QStringLiteral("/home/user/data/procwarden-eventd"));
    QCOMPARE(directories.units, QStringLiteral("/home/user/config/systemd/user"));
    QCOMPARE(directories.stamps, QStringLiteral("/home/user/data/systemd/timers"));
}

void TestEventStore::addedEventHasEverything()
{
    const WireEvent event = recurrent({ daily({ 3 }) });
    Cookie cookie = 0;
    QCOMPARE(m_store->add(event, true, &cookie), Failure());
    QVERIFY(cookie > 0);
    QVERIFY(cookie < 0xffffffff);
    const QString timer = Units::timerName(cookie);
    const QString service = Units::serviceName(cookie);
    const QString record = QStringLiteral("data/events/%1.json").arg(cookie);
    QCOMPARE(content(record), toJson(cookie, event));
    QCOMPARE(content(QLatin1String("units/") + timer), Units::timer(cookie, event, true));
    QCOMPARE(content(QLatin1String("units/") + service), Units::service(cookie, event, program));
    const QString link = QLatin1String("units/timers.target.wants/") + timer;
    QCOMPARE(QFile::symLinkTarget(path(link)), path(QLatin1String("units/") + timer));
    QCOMPARE(
        files(),
        QStringList({ record, QLatin1String("units/") + service, QLatin1String("units/") + timer, link }));
    QCOMPARE(m_store->cookies(), QList<Cookie> { cookie });
}

void TestEventStore::recordsAreNobodyElsesBusiness()
{
    QVERIFY(add() > 0);
    QCOMPARE(QFileInfo(path(QStringLiteral("data"))).permissions() & 0x0fff,
             QFile::ReadUser | QFile::WriteUser | QFile::ExeUser);
}

void TestEventStore::cookiesAreNeverUsedAgain()
{
    QSet<Cookie> given;
    for (int round = 0; round < 20; ++round) {
        const Cookie cookie = add();
        QVERIFY(cookie > 0);
        QVERIFY(!given.contains(cookie));
        given << cookie;
        if (round % 3) {
            QCOMPARE(m_store->remove(cookie), Failure());
        }
    }
}

void TestEventStore::cookieGoesOnFromTheCounter()
{
    write(QStringLiteral("data/last-cookie"), "16\n");
    QCOMPARE(add(), Cookie(17));
    QCOMPARE(content(QStringLiteral("data/last-cookie")), QByteArray("17\n"));
    QCOMPARE(m_store->remove(17), Failure());
    QCOMPARE(add(), Cookie(18));
}

void TestEventStore::lostCounterGivesALargerCookie_data()
{
    QTest::addColumn<QByteArray>("counter");
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("text") << QByteArray("many");
    QTest::newRow("negative") << QByteArray("-5");
    QTest::newRow("too large") << QByteArray("99999999999");
    QTest::newRow("cut, with something behind") << QByteArray("12 34");
    QTest::newRow("zeros") << QByteArray(10, '\0');
    QTest::newRow("huge") << QByteArray(2 * 1024 * 1024, '1');
}

void TestEventStore::lostCounterGivesALargerCookie()
{
    QFETCH(QByteArray, counter);
    const Cookie before = add();
    QVERIFY(before > 0);
    write(QStringLiteral("data/last-cookie"), counter);
    QCOMPARE(m_store->remove(before), Failure());
    const Cookie after = add();
    // The time of day stands in, and has gone on by less than two cookies.
    QVERIFY(after >= before);
    QVERIFY(qAbs(qint64(after) - QDateTime::currentSecsSinceEpoch()) < 1000);

    // An event that is there is never less than the counter.
    write(QStringLiteral("data/events/4000000000.json"), "{}");
    write(QStringLiteral("data/last-cookie"), counter);
    QCOMPARE(add(), Cookie(4000000001));
}

void TestEventStore::lastCookieIsGivenAndNoneAfterIt()
{
    write(QStringLiteral("data/last-cookie"), "4294967293");
    QCOMPARE(add(), largestCookie);
    QCOMPARE(m_store->remove(largestCookie), Failure());
    Cookie cookie = 0;
    QCOMPARE(m_store->add(recurrent({ daily({ 3 }) }), false, &cookie),
             QStringLiteral("There are no cookies left"));
    QCOMPARE(files(), QStringList());
}

void TestEventStore::removedEventLeavesNothing()
{
    const Cookie cookie = add();
    write(QStringLiteral("stamps/stamp-") + Units::timerName(cookie), QByteArray());
    QCOMPARE(m_store->remove(cookie), Failure());
    QCOMPARE(files(), QStringList());
    QCOMPARE(m_store->cookies(), QList<Cookie>());
    WireEvent event;
    QVERIFY(m_store->find(cookie, &event) == EventStore::State::Unknown);
}

void TestEventStore::removalOfNothingSucceeds()
{
    QCOMPARE(m_store->remove(17), Failure());
    QVERIFY(!QFile::exists(path(QStringLiteral("data"))));
    const Cookie cookie = add();
    QCOMPARE(m_store->remove(17), Failure());
    QCOMPARE(m_store->cookies(), QList<Cookie> { cookie });
}

void TestEventStore::recordIsFound()
{
    WireEvent event = single(QStringLiteral("2027-01-02T03:04"));
    event.attributes.insert(QStringLiteral("x"), QStringLiteral("\n%n"));
    const Cookie cookie = add(event);
    WireEvent found;
    QVERIFY(m_store->find(cookie, &found) == EventStore::State::Good);
    QCOMPARE(toJson(cookie, found), toJson(cookie, event));
    QVERIFY(m_store->find(cookie + 1, &found) == EventStore::State::Unknown);
    QVERIFY(m_store->find(0, &found) == EventStore::State::Unknown);
}

void TestEventStore::brokenRecordIsFoundAsSuch_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("empty") << "empty";
    QTest::newRow("cut") << "cut";
    QTest::newRow("of another event") << "other";
    QTest::newRow("huge") << "huge";
    QTest::newRow("a directory") << "directory";
    QTest::newRow("a pipe") << "pipe";
}

void TestEventStore::brokenRecordIsFoundAsSuch()
{
    QFETCH(QString, kind);
    const Cookie cookie = add();
    const QString name = QStringLiteral("data/events/%1.json").arg(cookie);
    const QByteArray good = content(name);
    QVERIFY(QFile::remove(path(name)));
    if (kind == QLatin1String("directory")) {
        QVERIFY(QDir().mkdir(path(name)));
    } else if (kind == QLatin1String("pipe")) {
        QCOMPARE(::mkfifo(path(name).toUtf8().constData(), 0600), 0);
    } else {
        write(name,
              kind == QLatin1String("cut")         ? good.left(good.size() / 2)
                  : kind == QLatin1String("other") ? toJson(cookie + 1, recurrent({ daily({ 3 }) }))
                  : kind == QLatin1String("huge")  ? QByteArray(2 * 1024 * 1024, ' ') + good
                                                   : QByteArray());
    }
    WireEvent event;
    QVERIFY(m_store->find(cookie, &event) == EventStore::State::Broken);
    QCOMPARE(m_store->cookies(), QList<Cookie> { cookie });
}

void TestEventStore::brokenRecordIsRemoved()
{
    const Cookie cookie = add();
    write(QStringLiteral("data/events/%1.json").arg(cookie), "{");
    QCOMPARE(m_store->remove(cookie), Failure());
    QCOMPARE(files(), QStringList());
}

void TestEventStore::fullDiskLeavesNothing()
{
    const Cookie before = add();
    const QStringList filesBefore = files();
    Cookie cookie = 0;
    Failure failure;
    {
        const FullDisk fullDisk;
        failure = m_store->add(recurrent({ daily({ 3 }) }), false, &cookie);
    }
    QVERIFY2(failure.startsWith(QLatin1String("Cannot write ")), qUtf8Printable(failure));
    QCOMPARE(files(), filesBefore);
    QVERIFY(add() > before);
}

void TestEventStore::fileInTheWayIsTold_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("isDirectory");
    QTest::addColumn<QString>("failure");
    QTest::newRow("data") << "data" << false << "Cannot make ";
    QTest::newRow("events") << "data/events" << false << "Cannot make ";
    QTest::newRow("units") << "units" << false << "Cannot make ";
    QTest::newRow("wants") << "units/timers.target.wants" << false << "Cannot make ";
    QTest::newRow("counter") << "data/last-cookie" << true << "Cannot write ";
    QTest::newRow("lock") << "data/lock" << true << "Cannot open ";
    QTest::newRow("timer") << "units/procwarden-event-17.timer" << true << "Cannot write ";
    QTest::newRow("service") << "units/procwarden-event-17.service" << true << "Cannot write ";
    QTest::newRow("link") << "units/timers.target.wants/procwarden-event-17.timer" << true << "Cannot write ";
}

void TestEventStore::fileInTheWayIsTold()
{
    QFETCH(QString, name);
    QFETCH(bool, isDirectory);
    QFETCH(QString, failure);
    if (name != QLatin1String("data") && name != QLatin1String("data/last-cookie")) {
        write(QStringLiteral("data/last-cookie"), "16");
    }
    if (isDirectory) {
        QVERIFY(QDir().mkpath(path(name)));
    } else {
        write(name, "in the way");
    }
    Cookie cookie = 0;
    const Failure told = m_store->add(recurrent({ daily({ 3 }) }), false, &cookie);
    QVERIFY2(told.startsWith(failure), qUtf8Printable(told));
    QVERIFY2(told.contains(path(name)), qUtf8Printable(told));
    QCOMPARE(m_store->cookies(), QList<Cookie>());
    QCOMPARE(files().filter(QStringLiteral("procwarden-event-")), QStringList());
}

void TestEventStore::noMoreEventsThanTheMost()
{
    write(QStringLiteral("data/last-cookie"), "10000");
    for (int i = 1; i < EventStore::maximumEvents; ++i) {
        QFile file(path(QStringLiteral("data/events/%1.json").arg(i)));
        QDir().mkpath(path(QStringLiteral("data/events")));
        QVERIFY(file.open(QIODevice::WriteOnly));
    }
    QCOMPARE(add(), Cookie(10001));
    Cookie cookie = 0;
    QCOMPARE(m_store->add(recurrent({ daily({ 3 }) }), false, &cookie),
             QStringLiteral("There are 4096 events already"));
    QCOMPARE(m_store->remove(10001), Failure());
    QCOMPARE(add(), Cookie(10002));
}

void TestEventStore::otherFilesAreNoEvents()
{
    for (const char *name : { "0.json", "017.json", "17.json.x", "17", "x.json", "4294967295.json", "-1.json",
                              "99999999999.json", " 1.json" }) {
        write(QStringLiteral("data/events/") + QLatin1String(name), "{}");
    }
    write(QStringLiteral("data/events/3.json"), "{}");
    write(QStringLiteral("data/events/20.json"), "{}");
    QCOMPARE(m_store->cookies(), QList<Cookie>({ 3, 20 }));
}

void TestEventStore::unitsWithoutARecordAreLeftovers()
{
    QCOMPARE(m_store->leftovers(), QList<Cookie>());
    const Cookie cookie = add();
    write(QStringLiteral("units/procwarden-event-5.timer"), QByteArray());
    write(QStringLiteral("units/procwarden-event-4.service"), QByteArray());
    write(QStringLiteral("units/procwarden-event-5.service"), QByteArray());
    write(QStringLiteral("units/procwarden-event-x.service"), QByteArray());
    write(QStringLiteral("units/other.service"), QByteArray());
    QCOMPARE(m_store->leftovers(), QList<Cookie>({ 4, 5 }));
    QCOMPARE(m_store->remove(5), Failure());
    QCOMPARE(m_store->leftovers(), QList<Cookie>({ 4 }));
    QVERIFY(m_store->cookies().contains(cookie));
    QVERIFY(QFile::exists(path(QStringLiteral("units/other.service"))));
}

void TestEventStore::rightUnitsStay()
{
    const WireEvent event = recurrent({ daily({ 3 }) });
    const Cookie cookie = add(event);
    bool changed = true;
    QCOMPARE(m_store->repair(cookie, event, false, &changed), Failure());
    QVERIFY(!changed);
}

void TestEventStore::wrongUnitsArePutRight_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("kind");
    for (const char *file : { "units/%1.timer", "units/%1.service", "units/timers.target.wants/%1.timer" }) {
        for (const char *kind : { "missing", "empty", "edited", "link" }) {
            QTest::addRow("%s %s", kind, file) << QString::fromLatin1(file) << QString::fromLatin1(kind);
        }
    }
    QTest::newRow("wakes") << QString() << "wakes";
}

void TestEventStore::wrongUnitsArePutRight()
{
    QFETCH(QString, file);
    QFETCH(QString, kind);
    const WireEvent event = recurrent({ daily({ 3 }) });
    const Cookie cookie = add(event);
    const QStringList filesBefore = files();
    const bool wakes = kind == QLatin1String("wakes");
    if (!wakes) {
        const QString name = file.arg(QStringLiteral("procwarden-event-%1").arg(cookie));
        QVERIFY(QFile::remove(path(name)));
        if (kind == QLatin1String("link")) {
            QVERIFY(QFile::link(QStringLiteral("/nonexistent/unit"), path(name)));
        } else if (kind != QLatin1String("missing")) {
            write(name, kind == QLatin1String("empty") ? QByteArray() : QByteArray("[Timer]\n"));
        }
    }
    bool changed = false;
    QCOMPARE(m_store->repair(cookie, event, wakes, &changed), Failure());
    QVERIFY(changed);
    QCOMPARE(files(), filesBefore);
    const QString timer = QLatin1String("units/") + Units::timerName(cookie);
    QCOMPARE(content(timer), Units::timer(cookie, event, wakes));
    QCOMPARE(content(QLatin1String("units/") + Units::serviceName(cookie)),
             Units::service(cookie, event, program));
    QCOMPARE(
        QFile::symLinkTarget(path(QLatin1String("units/timers.target.wants/") + Units::timerName(cookie))),
        path(timer));
    QCOMPARE(m_store->repair(cookie, event, wakes, &changed), Failure());
    QVERIFY(!changed);
}

void TestEventStore::repairMakesNothingForAnEventThatIsGone()
{
    bool changed = true;
    QCOMPARE(m_store->repair(17, recurrent({ daily({ 3 }) }), false, &changed), Failure());
    QVERIFY(!changed);
    QCOMPARE(files(), QStringList());
}

void TestEventStore::heldLockIsAnError()
{
    const Cookie cookie = add();
    const int other = ::open(path(QStringLiteral("data/lock")).toUtf8().constData(), O_RDWR | O_CLOEXEC);
    QVERIFY(other >= 0);
    QCOMPARE(::flock(other, LOCK_EX), 0);
    const Failure failure = m_store->remove(cookie);
    ::close(other);
    QVERIFY2(failure.startsWith(QLatin1String("Cannot lock ")), qUtf8Printable(failure));
    QCOMPARE(m_store->cookies(), QList<Cookie> { cookie });
    QCOMPARE(m_store->remove(cookie), Failure());
}

void TestEventStore::twoStoresShareTheCookies()
{
    EventStore other(
        { path(QStringLiteral("data")), path(QStringLiteral("units")), path(QStringLiteral("stamps")) },
        program);
    QSet<Cookie> given;
    for (int round = 0; round < 10; ++round) {
        Cookie cookie = 0;
        QCOMPARE((round % 2 ? other : *m_store).add(recurrent({ daily({ 3 }) }), false, &cookie), Failure());
        given << cookie;
    }
    QCOMPARE(given.size(), 10);
    QCOMPARE(m_store->cookies().size(), 10);
}

QTEST_GUILESS_MAIN(TestEventStore)

#include "tst_event_store.moc"
