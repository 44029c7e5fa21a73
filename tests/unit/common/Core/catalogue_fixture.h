#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

/// A home, data directories and a root of their own for what reads installed applications. Sets the
/// environment for the process when it is made.
///
/// The MIME database below the root knows few types, and the same ones on every machine.
class CatalogueFixture
{
public:
    CatalogueFixture()
    {
        if (!m_root.isValid()) {
            qFatal("no temporary directory");
        }
        qputenv("HOME", bytes(QStringLiteral("home")));
        qputenv("XDG_DATA_HOME", bytes(QStringLiteral("home/data")));
        qputenv("XDG_CONFIG_HOME", bytes(QStringLiteral("home/config")));
        qputenv("XDG_DATA_DIRS", bytes(QStringLiteral("one")) + ':' + bytes(QStringLiteral("two")));
        qputenv("XDG_CONFIG_DIRS", bytes(QStringLiteral("etc")));
        qputenv("PROCWARDEN_ROOTFS", bytes(QStringLiteral("root")));
        // The file's name keeps Qt from adding its own database.
        write(QStringLiteral("two/mime/packages/freedesktop.org.xml"), mimeTypes);
    }

    QString path(const QString &relative) const { return m_root.filePath(relative); }

    /// Directories of applications, by what stands before "/applications": "home/data", "one", "two". The
    /// last one wins.
    QString desktopFile(const QString &directory, const QString &name) const
    {
        return path(QStringLiteral("%1/applications/%2.desktop").arg(directory, name));
    }

    QString write(const QString &relative, const QByteArray &content) const
    {
        const QString file = path(relative);
        QDir().mkpath(QFileInfo(file).path());
        QFile device(file);
        if (!device.open(QIODevice::WriteOnly) || device.write(content) != content.size()) {
            qFatal("cannot write %s", qUtf8Printable(file));
        }
        // QSettings takes a file of the same size and time for the one that it has read before, and a test is
        // fast enough to write two of them within a tick of the clock.
        static int written = 0;
        device.flush();
        device.setFileTime(QDateTime::fromSecsSinceEpoch(1'000'000'000 + ++written),
                           QFileDevice::FileModificationTime);
        return file;
    }

    /// Writes a desktop file; the main group is opened already.
    QString writeDesktopFile(const QString &directory, const QString &name, const QByteArray &lines) const
    {
        return write(QStringLiteral("%1/applications/%2.desktop").arg(directory, name),
                     "[Desktop Entry]\nType=Application\nName=" + name.toUtf8() + "\n" + lines);
    }

    /// Removes all applications, packages and settings.
    void clear() const
    {
        const QStringList directories { QStringLiteral("home"), QStringLiteral("one"),
                                        QStringLiteral("two/applications"), QStringLiteral("root") };
        for (const QString &directory : directories) {
            QDir(path(directory)).removeRecursively();
        }
    }

private:
    QByteArray bytes(const QString &relative) const { return QFile::encodeName(path(relative)); }

    static constexpr const char *mimeTypes = R"(<?xml version="1.0" encoding="UTF-8"?>
<mime-info xmlns="http://www.freedesktop.org/standards/shared-mime-info">
  <mime-type type="application/octet-stream"/>
  <mime-type type="application/zip"><glob pattern="*.zip"/></mime-type>
  <mime-type type="application/x-book"><glob pattern="*.book"/><sub-class-of type="application/x-shelf"/></mime-type>
  <mime-type type="application/x-shelf"><glob pattern="*.shelf"/><sub-class-of type="application/zip"/></mime-type>
  <mime-type type="image/png"><glob pattern="*.png"/></mime-type>
  <mime-type type="image/jpeg"><glob pattern="*.jpg"/></mime-type>
  <mime-type type="inode/directory"/>
  <mime-type type="text/plain"><glob pattern="*.txt"/></mime-type>
</mime-info>
)";

    QTemporaryDir m_root;
};
