#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

namespace TestSupport {

/// A root directory with control group hierarchies that are plain directories, and with what the kernel says
/// about them.
///
/// Unlike the kernel's, its groups have no files of their own, and those that are written have to be removed
/// before the group can be. It is reachable for every user.
class CGroupTree
{
public:
    CGroupTree();
    ~CGroupTree(); ///< takes PROCWARDEN_ROOTFS back

    CGroupTree(const CGroupTree &) = delete;
    CGroupTree &operator=(const CGroupTree &) = delete;

    /// Sets PROCWARDEN_ROOTFS, for this process and its children.
    void use() const;

    QString root() const { return m_directory.path(); }
    QString hierarchies() const { return path(QStringLiteral("sys/fs/cgroup")); }

    /// Absolute path of what lies at @p relative below the root.
    QString path(const QString &relative) const;
    /// Absolute path of what lies at @p relative below the directory of the hierarchies.
    QString group(const QString &relative) const;

    /// Sets what the kernel says about the groups of this process.
    void setOwnGroups(const QByteArray &lines) const;

    /// Makes a file, or a directory, with its parents. The path is relative to the root.
    void write(const QString &relative, const QByteArray &content) const;
    void makeDirectory(const QString &relative) const;
    void link(const QString &relative, const QString &target) const;

    /// Makes directories of the hierarchies, with @p subtree below each.
    void addHierarchies(const QStringList &names, const QString &subtree = QString()) const;

    /// The content of a file below the directory of the hierarchies; a null array if there is none.
    QByteArray read(const QString &relative) const;

private:
    QTemporaryDir m_directory;
};

} // namespace TestSupport
