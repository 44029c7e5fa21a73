#pragma once

#include "Core/application_state.h"

#include <QDateTime>
#include <QList>
#include <QMap>
#include <QObject>
#include <QString>

#include <memory>

#include <sys/types.h>

namespace Core {

class ChroniclePrivate;
class DBusNameWatcher;
class Error;
class RuntimeController;

/// What a launch passes on its way, roughly in this order.
enum class LaunchStep {
    Allowed, ///< the permission daemon lets it start
    Prompted, ///< the user is being asked for permissions
    Granted,
    Spawned, ///< the child exists, blocked
    Grouped, ///< it is in its control groups
    Released, ///< it runs its program
    NameSeen, ///< the instance's name has an owner on the bus
    FirstWindow,
};

/// The step's name, for example "Spawned".
[[nodiscard]] QString launchStepName(LaunchStep step);

/// A launch of an application.
struct LaunchAccount
{
    QDateTime asked; ///< null: there was none
    QMap<LaunchStep, qint32> stepsMs; ///< those passed so far, in milliseconds after it was asked for
    QString failedAt; ///< name of the last step of a failed launch; "Asked" if it passed none
    QString error; ///< of a failed launch
};

/// Why something ended.
enum class Decision {
    Exited, ///< by itself
    Crashed, ///< by a signal that nobody here sent
    Requested,
    Closed, ///< with its last window
    EarlyOom,
    TimeLimit,
    Stopped, ///< a task, by whoever manages it
    LaunchFailed,
};

/// The name on the bus, for example "early-oom".
[[nodiscard]] QString decisionName(Decision decision);

/// An end of an application or a task.
struct Ending
{
    QString id; ///< instance id or full task id; of a failed launch, the application's
    bool isTask = false;
    pid_t pid = -1; ///< -1: there was no process
    QDateTime started;
    QDateTime ended;
    int exitStatus = 0; ///< raw status of waitpid(2)
    StopReason stopReason = StopReason::None;
    Decision decision = Decision::Exited;
    QString detail; ///< in words
    QString requestor; ///< id of the one of the service's own who asked for it; empty: nobody of these
    LaunchAccount launch; ///< of an application: how it came to run, or failed to
};

/// Keeps account of launches, and of the last ends and what decided them, for those who want to know why.
///
/// Kept in memory only; nothing in the service depends on it. Main thread only.
class Chronicle : public QObject
{
    Q_OBJECT

public:
    static constexpr int maximumEndings = 200;

    /// Follows the runtime controller; made at first use, never destroyed.
    static Chronicle *instance();

    explicit Chronicle(QObject *parent = nullptr);
    ~Chronicle() override;

    /// Follows what @p controller signals from now on; names are looked for on the bus of @p names.
    void follow(RuntimeController *controller, DBusNameWatcher *names);

    // Told by who does it

    void launchAsked(const QString &appId);
    void launchStep(const QString &appId, LaunchStep step);
    void launchFailed(const QString &appId, const Error &error);
    /// Says what is about to end @p id, as soon as it is decided. The first decision stands, but for one that
    /// kills at once. Forgotten with the end.
    void decide(const QString &id, Decision decision, const QString &detail = QString());
    /// Who asked for it, if a request decided: the first who did. Empty for nobody of the service's own.
    void requestedBy(const QString &id, const QString &requestor);

    // Told to who asks

    /// The last launch of an application.
    [[nodiscard]] LaunchAccount lastLaunch(const QString &appId) const;
    /// The launch of what runs under @p id; a null time in it for a task, and if nothing runs.
    [[nodiscard]] LaunchAccount launchOf(const QString &id) const;
    /// When what runs under @p id was started; null if nothing does.
    [[nodiscard]] QDateTime runsSince(const QString &id) const;
    /// The latest first. @p id: an application, with its instances and tasks, an instance or a task; empty:
    /// all.
    /// @p limit: how many at most; 0: all that are kept.
    [[nodiscard]] QList<Ending> endings(const QString &id = QString(), int limit = 0) const;

private:
    const std::unique_ptr<ChroniclePrivate> d;
};

} // namespace Core
