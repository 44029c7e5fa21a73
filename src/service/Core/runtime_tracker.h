#pragma once

#include "Core/error.h"

#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <tuple>

#include <sys/types.h>

namespace Core {

class RuntimeTrackerPrivate;

/// Knows the children of the service by pid, reports when one ends, and says to which of them any
/// process belongs.
///
/// Main thread only, apart from the worker that waits for the children: it reaps every child of the
/// process, so nothing else may wait for one.
class RuntimeTracker : public QObject
{
    Q_OBJECT

public:
    /// The tracker of the service, made at the first call and never destroyed.
    static RuntimeTracker *instance();

    explicit RuntimeTracker(QObject *parent = nullptr);
    /// Returns only when no child of the process is left, since the worker cannot be interrupted.
    ~RuntimeTracker() override;

    /// Follows a child from now on. A child whose pid was followed before replaces that one.
    ///
    /// To be called before control returns to the event loop after the fork: an earlier end of the child
    /// is then reported all the same.
    /// @param id text of the instance id or of the full task id.
    void addProcess(pid_t pid, const QString &id);

    /// Has a child reaped that never got an id: a launch has failed, and the child is about to end.
    ///
    /// @param gone called when the child has ended, or at once if it is gone already; what it uses must
    ///             live until then.
    void abandonProcess(pid_t pid, const std::function<void()> &gone);

    /// The id of the child to which a process belongs: itself, a process of its group, or one whose chain
    /// of group leaders and parents leads to it.
    /// @returns ProcessNotHandled without message, and an empty id, if there is none; also for a process
    ///          that does not exist.
    std::tuple<Error, QString> applicationForPid(pid_t pid) const;

signals:
    /// A followed child has ended; it is still followed while this is emitted.
    /// @param appId as given to addProcess.
    /// @param exitStatus the status word of wait(2), not decoded: exit code in bits 8 to 15, terminating
    ///                   signal in bits 0 to 6.
    void applicationTerminated(const QString &appId, int exitStatus);

private:
    const std::unique_ptr<RuntimeTrackerPrivate> d;
};

} // namespace Core
