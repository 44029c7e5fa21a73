#pragma once

#include <QDateTime>
#include <QElapsedTimer>
#include <QMap>
#include <QString>

namespace Core {

/// What a launch goes through, roughly in this order. A task's has no part of the permission daemon and no
/// user interface, so fewer of them.
enum class LaunchStep {
    Asked, ///< somebody wants it; it fails here if nothing is known under the id
    Allowed, ///< the permission daemon lets it start
    Prompted, ///< the user is being asked for permissions
    Granted,
    Prepared, ///< the command line stands, and the socket of a task; not in the account unless it failed
    Spawned, ///< the child exists, blocked
    SetUp, ///< the child has got its score, limits and output; not in the account unless it failed
    Grouped, ///< it is in its control groups
    Released, ///< it runs its program
    NameSeen, ///< the instance's name has an owner on the bus
    FirstWindow,
};

/// The step's name, for example "Spawned".
[[nodiscard]] QString launchStepName(LaunchStep step);

/// A launch of an application or a task.
struct LaunchAccount
{
    QDateTime asked; ///< null: there was none
    QMap<LaunchStep, qint32> stepsMs; ///< those passed so far, in milliseconds after it was asked for
    QString failedAt; ///< name of the step that a launch has failed at
    QString error; ///< of a failed launch
};

/// A launch, under way or over, as those who carry it out tell of it. Main thread only.
class Launch
{
public:
    /// Begins to count the time. @param launchedId id of the application or the task
    explicit Launch(const QString &launchedId);

    /// It has got this far. Told again, and of a launch that has failed already, it changes nothing: answers
    /// may come late.
    void pass(LaunchStep step);
    /// It has failed at @p step. The first failure stands.
    void fail(LaunchStep step);

    const QString id;
    LaunchAccount account;
    bool hasStarted = false; ///< something runs of it, or has

private:
    QElapsedTimer m_clock; ///< since it was asked for; the time of day may be set meanwhile
};

} // namespace Core
