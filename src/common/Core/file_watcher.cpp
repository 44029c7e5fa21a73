#include "Core/file_watcher.h"

#include <QDebug>
#include <QFile>
#include <QFileSystemWatcher>

#include <sys/stat.h>

#include <optional>

namespace Core {

namespace {

/// More would make adding slow, fewer would use up the inotify instances that a user may have (128).
constexpr int maximumPathsPerWatcher = 512;

int pathCount(const QFileSystemWatcher &watcher)
{
    return watcher.files().size() + watcher.directories().size();
}

std::optional<std::pair<dev_t, ino_t>> fileAt(const QString &path)
{
    struct stat status
    {
    };
    if (::stat(QFile::encodeName(path).constData(), &status) != 0) {
        return std::nullopt;
    }
    return std::make_pair(status.st_dev, status.st_ino);
}

} // namespace

FileWatcher::FileWatcher(QObject *parent)
    : QObject(parent)
{
}

FileWatcher::~FileWatcher() = default;

void FileWatcher::watch(const QStringList &paths)
{
    QStringList added;
    for (const QString &path : paths) {
        const auto file = fileAt(path);
        const auto watched = m_watched.find(path);
        if (watched != m_watched.end()) {
            const bool namedTwice = watched->watcher == nullptr;
            if (namedTwice || file == watched->file) {
                continue;
            }
            watched->watcher->removePath(path);
            m_watched.erase(watched);
        }
        if (file) {
            added.append(path);
            // As it is before watching begins: if it is replaced in between, the next call sees a difference.
            m_watched.insert(path, { nullptr, *file });
        }
    }
    add(added);
}

void FileWatcher::add(const QStringList &paths)
{
    int next = 0;
    while (next < paths.size()) {
        QFileSystemWatcher *const watcher = watcherWithRoom();
        const QStringList batch = paths.mid(next, maximumPathsPerWatcher - pathCount(*watcher));
        next += batch.size();
        for (const QString &path : batch) {
            m_watched[path].watcher = watcher;
        }
        const QStringList failed = watcher->addPaths(batch);
        if (!failed.isEmpty()) {
            // Gone meanwhile, or the user's inotify watches are used up.
            qDebug() << "FileWatcher: cannot watch" << failed.size() << "paths, the first one"
                     << failed.first();
        }
        for (const QString &path : failed) {
            m_watched.remove(path);
        }
    }
}

QStringList FileWatcher::paths() const
{
    return m_watched.keys();
}

QFileSystemWatcher *FileWatcher::watcherWithRoom()
{
    for (const auto &watcher : m_watchers) {
        if (pathCount(*watcher) < maximumPathsPerWatcher) {
            return watcher.get();
        }
    }
    QFileSystemWatcher *const watcher = m_watchers.emplace_back(std::make_unique<QFileSystemWatcher>()).get();
    connect(watcher, &QFileSystemWatcher::fileChanged, this, [this, watcher](const QString &path) {
        forgetIfGone(watcher, path);
        emit fileChanged(path);
    });
    connect(watcher, &QFileSystemWatcher::directoryChanged, this, [this, watcher](const QString &path) {
        forgetIfGone(watcher, path);
        emit directoryChanged(path);
    });
    return watcher;
}

/// A deleted file leaves its watcher, which says nothing else about it.
void FileWatcher::forgetIfGone(QFileSystemWatcher *watcher, const QString &path)
{
    const auto watched = m_watched.find(path);
    if (watched != m_watched.end() && watched->watcher == watcher && !watcher->files().contains(path)
        && !watcher->directories().contains(path)) {
        m_watched.erase(watched);
    }
}

} // namespace Core
