#pragma once

#include <QString>

#include <optional>

#include <sys/types.h>

namespace Core {

/// Who has asked for something, as it was at that time: its process may be gone before anybody reads of it.
///
/// Either one of the service's own, which has an id, or some other process on a bus, of which only what could
/// be found out is known.
struct Requestor
{
    QString
        id; ///< instance id or full task id; empty: none of the service's own, as all below for one that is
    QString bus; ///< "session" or "system"
    std::optional<uint> uid;
    pid_t pid = -1; ///< -1: not known
    QString program; ///< name of its file, or what it calls itself if that may not be looked at

    /// Takes over @p process, and what proc(5) tells of it. Reads three small files at most and never waits.
    /// Nothing is taken over of what cannot be a process of this system, nor a user id that is known already.
    void setProcess(pid_t process);
};

} // namespace Core
