#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <sys/types.h>

namespace TestSupport {

/// The machine's own control groups, for a user that nobody else has.
///
/// At its end everything that was made for that user is thawed, killed and removed.
class KernelGroups
{
public:
    KernelGroups();
    ~KernelGroups();

    KernelGroups(const KernelGroups &) = delete;
    KernelGroups &operator=(const KernelGroups &) = delete;

    /// Whether this process can use them: it is root, and the hierarchies are mounted at their usual place.
    static bool areUsable();

    uid_t user() const { return m_user; }
    QString subtree() const { return QStringLiteral("/procwarden/user-%1").arg(m_user); }
    /// Names of the hierarchies that the user needs.
    static QStringList hierarchies();
    /// The user's directory in a hierarchy.
    QString directory(const QString &hierarchy) const;

private:
    void clean() const;

    const uid_t m_user;
};

} // namespace TestSupport
