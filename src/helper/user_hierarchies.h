#pragma once

#include "Core/error.h"

#include <QString>
#include <QStringList>

#include <sys/types.h>

namespace Helper {

/// Makes the control group subtrees of a user and hands them over.
///
/// Works on the version 1 hierarchies that hold "cpu", "freezer" and "memory", and on that of "cpuacct" where
/// it is mounted apart from "cpu". Holds no state, so that any number of calls, also by several processes at
/// once, give the same result. Nothing that an ordinary user can put into the tree is followed or changed.
class UserHierarchies
{
public:
    struct Result
    {
        QString path; ///< the subtree below each hierarchy, "/procwarden/user-<uid>"; empty on failure
        Core::Error error;
    };

    /// @param rootFs what stands before /proc and /sys; usually empty. With a prefix, plain directories count
    ///               as hierarchies.
    explicit UserHierarchies(const QString &rootFs);

    /// Makes "/procwarden/user-<uid>" in each hierarchy, as root or whoever runs this, and gives @p uid the
    /// directory and its files "cgroup.procs" and "tasks", but none of the files with limits.
    ///
    /// Errors: InvalidArgs for an id that no user can have; Failed if a hierarchy is missing (nothing has
    /// been made then) or if something in its place cannot be made, opened, trusted or handed over (what had
    /// been made before stays; a later call goes on from there).
    [[nodiscard]] Result create(uid_t uid) const;

private:
    QString m_rootFs;
};

} // namespace Helper
