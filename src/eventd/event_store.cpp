#include "event_store.h"

#include "Core/regular_file.h"
#include "units.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSaveFile>
#include <QSet>
#include <QStandardPaths>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

// The counter holds the last cookie that was given. It is written before the cookie is used, and where it is
// lost the time of day, in seconds, stands in for it: as cookies are given more slowly than one each second,
// none of those given before is larger.

namespace Eventd {

namespace {

using Maemo::Timed::WireEvent;

constexpr int lockTimeoutMs = 2000; // far more than what anybody does with the lock
constexpr int lockIntervalMs = 10;

Failure failure(const QString &what, const QString &path, const QString &reason)
{
    return QStringLiteral("Cannot %1 %2: %3").arg(what, path, reason);
}

QString reasonOf(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

/// Holds the directories against other processes, until its end.
class Lock
{
public:
    explicit Lock(const QString &path)
        : m_descriptor(::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600))
    {
        if (m_descriptor < 0) {
            m_failure = failure(QStringLiteral("open"), path, reasonOf(errno));
            return;
        }
        for (int waited = 0; ::flock(m_descriptor, LOCK_EX | LOCK_NB) != 0; waited += lockIntervalMs) {
            if (errno != EINTR && (errno != EWOULDBLOCK || waited >= lockTimeoutMs)) {
                m_failure = failure(QStringLiteral("lock"), path, reasonOf(errno));
                return;
            }
            QThread::msleep(lockIntervalMs);
        }
    }

    ~Lock()
    {
        if (m_descriptor >= 0) {
            ::close(m_descriptor);
        }
    }

    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;

    Failure failureText() const { return m_failure; }

private:
    const int m_descriptor;
    Failure m_failure;
};

Failure write(const QString &path, const QByteArray &content)
{
    if (QFileInfo(path).isSymLink()) {
        QFile::remove(path); // what it points to is not ours
    }
    QSaveFile file(path);
    // Without the flush, what a full disk does not take would be missing from a file that commit() finds
    // good.
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size() || !file.flush()
        || !file.commit()) {
        return failure(QStringLiteral("write"), path, file.errorString());
    }
    return Failure();
}

bool holds(const QString &path, const QByteArray &content)
{
    QByteArray present;
    return Core::readRegularFile(path, present) == 0 && present == content;
}

/// As they are written: QFile would make the target absolute.
bool pointsTo(const QByteArray &path, const QByteArray &target)
{
    QByteArray present(target.size() + 1, '\0');
    const ssize_t length = ::readlink(path.constData(), present.data(), size_t(present.size()));
    return length == target.size() && present.startsWith(target);
}

Failure link(const QByteArray &target, const QByteArray &path)
{
    ::unlink(path.constData());
    return ::symlink(target.constData(), path.constData()) == 0
        ? Failure()
        : failure(QStringLiteral("write"), QFile::decodeName(path), reasonOf(errno));
}

} // namespace

EventStore::Directories EventStore::Directories::ofUser()
{
    const QString data = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    return {
        data + QLatin1String("/procwarden-eventd"),
        QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)
            + QLatin1String("/systemd/user"),
        data + QLatin1String("/systemd/timers"),
    };
}

EventStore::EventStore(const Directories &directories, const QString &program)
    : m_directories(directories)
    , m_program(program)
{
}

Failure EventStore::add(const WireEvent &event, bool wake, Cookie *cookie)
{
    Failure problem = makeDirectories();
    if (!problem.isEmpty()) {
        return problem;
    }
    const Lock lock(m_directories.data + QLatin1String("/lock"));
    if (!lock.failureText().isEmpty()) {
        return lock.failureText();
    }
    if (cookies().size() >= maximumEvents) {
        return QStringLiteral("There are %1 events already").arg(maximumEvents);
    }
    problem = nextCookie(cookie);
    if (!problem.isEmpty()) {
        return problem;
    }
    bool changed = false;
    problem = writeUnits(*cookie, event, wake, &changed);
    if (problem.isEmpty()) {
        problem = write(recordPath(*cookie), toJson(*cookie, event));
    }
    if (!problem.isEmpty()) {
        removeFiles(*cookie);
    }
    return problem;
}

EventStore::State EventStore::find(Cookie cookie, WireEvent *event) const
{
    QByteArray json;
    const int error = Core::readRegularFile(recordPath(cookie), json);
    if (error == ENOENT || error == ENOTDIR) {
        return State::Unknown;
    }
    return error == 0 && fromJson(json, cookie, event) ? State::Good : State::Broken;
}

Failure EventStore::remove(Cookie cookie)
{
    if (!QFile::exists(m_directories.data)) {
        return Failure();
    }
    const Lock lock(m_directories.data + QLatin1String("/lock"));
    if (!lock.failureText().isEmpty()) {
        return lock.failureText();
    }
    removeFiles(cookie);
    struct stat status
    {
    };
    return ::lstat(QFile::encodeName(recordPath(cookie)).constData(), &status) != 0
        ? Failure()
        : failure(QStringLiteral("remove"), recordPath(cookie), reasonOf(errno));
}

QList<Cookie> EventStore::cookies() const
{
    static const QRegularExpression form(
        QRegularExpression::anchoredPattern(QStringLiteral("([1-9][0-9]{0,9})\\.json")));
    QList<Cookie> result;
    const QStringList names =
        QDir(m_directories.data + QLatin1String("/events"))
            .entryList({ QStringLiteral("*.json") }, QDir::AllEntries | QDir::Hidden | QDir::System);
    for (const QString &name : names) {
        const Cookie cookie = form.match(name).captured(1).toUInt();
        if (cookie > 0 && cookie <= largestCookie) {
            result << cookie;
        }
    }
    std::sort(result.begin(), result.end());
    return result;
}

QList<Cookie> EventStore::leftovers() const
{
    // Under the lock a unit without a record is not one whose record is about to be written.
    const Lock lock(m_directories.data + QLatin1String("/lock"));
    if (!lock.failureText().isEmpty()) {
        return {};
    }
    QSet<Cookie> found;
    const QStringList names =
        QDir(m_directories.units)
            .entryList({ QStringLiteral("procwarden-event-*") }, QDir::AllEntries | QDir::System);
    for (const QString &name : names) {
        found << Units::cookieOf(name);
    }
    found.remove(0);
    const QList<Cookie> known = cookies();
    QList<Cookie> result = (found - QSet<Cookie>(known.cbegin(), known.cend())).values();
    std::sort(result.begin(), result.end());
    return result;
}

Failure EventStore::repair(Cookie cookie, const WireEvent &event, bool wake, bool *changed)
{
    *changed = false;
    Failure problem = makeDirectories();
    if (!problem.isEmpty()) {
        return problem;
    }
    const Lock lock(m_directories.data + QLatin1String("/lock"));
    if (!lock.failureText().isEmpty()) {
        return lock.failureText();
    }
    if (!QFile::exists(recordPath(cookie))) {
        return Failure(); // somebody has been faster
    }
    return writeUnits(cookie, event, wake, changed);
}

QString EventStore::recordPath(Cookie cookie) const
{
    return QStringLiteral("%1/events/%2.json").arg(m_directories.data).arg(cookie);
}

QString EventStore::unitPath(const QString &name) const
{
    return m_directories.units + QLatin1Char('/') + name;
}

QString EventStore::linkPath(Cookie cookie) const
{
    return unitPath(QLatin1String("timers.target.wants/") + Units::timerName(cookie));
}

QString EventStore::counterPath() const
{
    return m_directories.data + QLatin1String("/last-cookie");
}

Failure EventStore::makeDirectories() const
{
    const QStringList paths = { m_directories.data + QLatin1String("/events"),
                                unitPath(QStringLiteral("timers.target.wants")) };
    for (const QString &path : paths) {
        if (!QDir().mkpath(path)) {
            return failure(QStringLiteral("make"), path, reasonOf(errno));
        }
    }
    // The attributes are nobody else's business.
    ::chmod(QFile::encodeName(m_directories.data).constData(), 0700);
    return Failure();
}

Failure EventStore::nextCookie(Cookie *cookie) const
{
    QByteArray content;
    bool isNumber = false;
    Cookie last = 0;
    if (Core::readRegularFile(counterPath(), content) == 0) {
        last = content.trimmed().toUInt(&isNumber);
    }
    if (!isNumber) {
        const qint64 now = QDateTime::currentSecsSinceEpoch();
        last = Cookie(qBound<qint64>(0, now, largestCookie));
    }
    const QList<Cookie> present = cookies();
    if (!present.isEmpty()) {
        last = std::max(last, present.last());
    }
    if (last >= largestCookie) {
        return QStringLiteral("There are no cookies left");
    }
    *cookie = last + 1;
    return write(counterPath(), QByteArray::number(*cookie) + '\n');
}

Failure EventStore::writeUnits(Cookie cookie, const WireEvent &event, bool wake, bool *changed) const
{
    const QString timer = Units::timerName(cookie);
    const QString service = Units::serviceName(cookie);
    const struct
    {
        QString path;
        QByteArray content;
    } files[] = {
        { unitPath(service), Units::service(cookie, event, m_program) },
        { unitPath(timer), Units::timer(cookie, event, wake) },
    };
    for (const auto &file : files) {
        if (holds(file.path, file.content)) {
            continue;
        }
        *changed = true;
        const Failure problem = write(file.path, file.content);
        if (!problem.isEmpty()) {
            return problem;
        }
    }
    const QByteArray target = "../" + QFile::encodeName(timer);
    const QByteArray path = QFile::encodeName(linkPath(cookie));
    if (pointsTo(path, target)) {
        return Failure();
    }
    *changed = true;
    return link(target, path);
}

void EventStore::removeFiles(Cookie cookie) const
{
    const QString timer = Units::timerName(cookie);
    const QStringList paths = { recordPath(cookie), linkPath(cookie), unitPath(timer),
                                unitPath(Units::serviceName(cookie)),
                                m_directories.stamps + QLatin1String("/stamp-") + timer };
    for (const QString &path : paths) {
        ::unlink(QFile::encodeName(path).constData());
    }
}

} // namespace Eventd
