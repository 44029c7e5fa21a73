#pragma once

#include "Core/file_watcher.h"

#include <QObject>
#include <QString>
#include <QStringList>

namespace Core {

/// Notices when a directory is made, by the nearest existing one above it.
class MissingDirectories : public QObject
{
    Q_OBJECT

public:
    explicit MissingDirectories(QObject *parent = nullptr);

    /// Waits for @p directory, unless it exists.
    /// @returns whether it exists
    bool await(const QString &directory);

    /// Waits for nothing any more. The directories above stay watched: a few, at which nothing happens often.
    void clear() { m_awaited.clear(); }

signals:
    /// One or more of those that are awaited exist now. They stay awaited.
    void appeared();

private:
    void look();

    QStringList m_awaited;
    FileWatcher m_watcher; ///< of the directories above, also of some that have been nearest once
};

} // namespace Core
