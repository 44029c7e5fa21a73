#pragma once

#include <QHash>
#include <QObject>
#include <QString>
#include <QStringList>

#include <sys/types.h>

#include <memory>
#include <utility>
#include <vector>

class QFileSystemWatcher;

namespace Core {

/// Watches any number of files and directories and follows those that are replaced.
///
/// A QFileSystemWatcher compares each new path with all that it has, so that ten thousand of them take a
/// third of a second; here, several of bounded size share the paths. And it watches a file, not its name:
/// when another file is renamed over one that is still open, or a link is turned elsewhere, it goes on
/// watching the old one. Here, watch() notices that the path stands for another file.
class FileWatcher : public QObject
{
    Q_OBJECT

public:
    explicit FileWatcher(QObject *parent = nullptr);
    ~FileWatcher() override;

    /// Watches @p paths, too. What is watched already costs one look at the file. A path that leads to
    /// nothing is passed over; one that is deleted later is forgotten, and watched again by the next call
    /// that names it.
    void watch(const QStringList &paths);

    /// In no order.
    [[nodiscard]] QStringList paths() const;

signals:
    /// A watched file was changed, replaced or deleted.
    void fileChanged(const QString &path);
    /// An entry of a watched directory was added, removed or renamed, or the directory itself was.
    void directoryChanged(const QString &path);

private:
    struct Watched
    {
        QFileSystemWatcher *watcher;
        std::pair<dev_t, ino_t> file;
    };

    void add(const QStringList &paths);
    QFileSystemWatcher *watcherWithRoom();
    void forgetIfGone(QFileSystemWatcher *watcher, const QString &path);

    std::vector<std::unique_ptr<QFileSystemWatcher>> m_watchers;
    QHash<QString, Watched> m_watched; // path -> who watches it and which file it was then
};

} // namespace Core
