#include "Core/missing_directories.h"

#include <QFileInfo>

namespace Core {

namespace {

/// The nearest directory above @p path that exists.
QString existingParent(const QString &path)
{
    QString parent = path;
    do {
        parent = QFileInfo(parent).path();
    } while (!QFileInfo(parent).isDir()); // at the latest, "/" or "." is one
    return parent;
}

} // namespace

MissingDirectories::MissingDirectories(QObject *parent)
    : QObject(parent)
{
    connect(&m_watcher, &FileWatcher::directoryChanged, this, &MissingDirectories::look);
}

bool MissingDirectories::await(const QString &directory)
{
    if (QFileInfo::exists(directory)) {
        return true;
    }
    QString watched;
    // Again, if a nearer one has come before the watch began.
    for (QString parent = existingParent(directory); parent != watched; parent = existingParent(directory)) {
        watched = parent;
        m_watcher.watch({ watched });
    }
    if (QFileInfo::exists(directory)) {
        return true;
    }
    if (!m_awaited.contains(directory)) {
        m_awaited.append(directory);
    }
    return false;
}

void MissingDirectories::look()
{
    bool anyExists = false;
    const QStringList awaited = m_awaited;
    for (const QString &directory : awaited) {
        anyExists = await(directory) || anyExists;
    }
    if (anyExists) {
        emit appeared();
    }
}

} // namespace Core
