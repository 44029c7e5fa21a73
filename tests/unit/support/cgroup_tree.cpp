#include "support/cgroup_tree.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>

namespace TestSupport {

CGroupTree::CGroupTree()
{
    ::chmod(QFile::encodeName(root()).constData(), 0755);
    makeDirectory(QStringLiteral("sys/fs/cgroup"));
    makeDirectory(QStringLiteral("proc/self"));
}

CGroupTree::~CGroupTree()
{
    qunsetenv("PROCWARDEN_ROOTFS");
}

void CGroupTree::use() const
{
    qputenv("PROCWARDEN_ROOTFS", root().toUtf8());
}

QString CGroupTree::path(const QString &relative) const
{
    return root() + QLatin1Char('/') + relative;
}

QString CGroupTree::group(const QString &relative) const
{
    return hierarchies() + QLatin1Char('/') + relative;
}

void CGroupTree::setOwnGroups(const QByteArray &lines) const
{
    write(QStringLiteral("proc/self/cgroup"), lines);
}

void CGroupTree::write(const QString &relative, const QByteArray &content) const
{
    makeDirectory(QFileInfo(relative).path());
    QFile file(path(relative));
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("%s: cannot write", qUtf8Printable(file.fileName()));
    }
}

void CGroupTree::makeDirectory(const QString &relative) const
{
    if (!QDir(root()).mkpath(relative)) {
        qFatal("%s: cannot make", qUtf8Printable(path(relative)));
    }
}

void CGroupTree::link(const QString &relative, const QString &target) const
{
    makeDirectory(QFileInfo(relative).path());
    if (!QFile::link(target, path(relative))) {
        qFatal("%s: cannot link", qUtf8Printable(path(relative)));
    }
}

void CGroupTree::addHierarchies(const QStringList &names, const QString &subtree) const
{
    for (const QString &name : names) {
        makeDirectory(QStringLiteral("sys/fs/cgroup/") + name + subtree);
    }
}

QByteArray CGroupTree::read(const QString &relative) const
{
    QFile file(group(relative));
    if (!file.open(QIODevice::ReadOnly)) {
        return QByteArray();
    }
    const QByteArray content = file.readAll();
    return content.isNull() ? QByteArray("") : content;
}

} // namespace TestSupport
