#pragma once

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QTemporaryDir>

#include <climits>
#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

/// A configuration directory of its own for the settings file, and a count of how often that is replaced.
class SettingsFixture
{
public:
    SettingsFixture()
    {
        QCoreApplication::setApplicationName(QStringLiteral("procwarden"));
        QCoreApplication::setOrganizationName(QString());
        if (!m_directory.isValid()) {
            qFatal("no temporary directory");
        }
        QFile::setPermissions(m_directory.path(), QFile::Permissions(0x7775)); // also for another user
        use(m_directory.filePath(QStringLiteral("config")));
    }
    ~SettingsFixture()
    {
        stopCounting();
        qunsetenv("XDG_CONFIG_HOME");
    }
    Q_DISABLE_COPY(SettingsFixture)

    /// Another directory instead, from now on.
    void use(const QString &configDirectory)
    {
        m_config = configDirectory;
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_config));
    }

    QString directory() const { return m_config + QStringLiteral("/procwarden"); }
    QString path() const { return directory() + QStringLiteral("/user-settings.json"); }
    QString temporaryPath(const QString &relative) const { return m_directory.filePath(relative); }

    void write(const QByteArray &content) const
    {
        QDir().mkpath(directory());
        QFile file(path());
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
            qFatal("cannot write %s", qPrintable(path()));
        }
    }
    /// Null if it cannot be read.
    QByteArray read() const
    {
        QFile file(path());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    QStringList files() const { return QDir(directory()).entryList(QDir::Files | QDir::Hidden); }

    /// Counts from here.
    void startCounting()
    {
        stopCounting();
        QDir().mkpath(directory());
        m_inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (inotify_add_watch(m_inotify, QFile::encodeName(directory()).constData(),
                              IN_MOVED_TO | IN_CLOSE_WRITE)
            < 0) {
            qFatal("cannot watch %s", qPrintable(directory()));
        }
    }

    /// How often a file has taken the place of the settings file, or been written, since it was last asked.
    /// A write that did not come that far counts too.
    int writes() const
    {
        int closed = 0;
        int moved = 0;
        alignas(inotify_event) char buffer[64 * (sizeof(inotify_event) + NAME_MAX + 1)];
        for (ssize_t size = 0; (size = ::read(m_inotify, buffer, sizeof buffer)) > 0;) {
            for (ssize_t at = 0; at < size;) {
                const auto *event = reinterpret_cast<const inotify_event *>(buffer + at);
                ++((event->mask & IN_MOVED_TO) ? moved : closed);
                at += static_cast<ssize_t>(sizeof(inotify_event)) + event->len;
            }
        }
        return std::max(closed, moved);
    }

private:
    void stopCounting()
    {
        if (m_inotify >= 0) {
            ::close(m_inotify);
            m_inotify = -1;
        }
    }

    QTemporaryDir m_directory;
    QString m_config;
    int m_inotify = -1;
};
