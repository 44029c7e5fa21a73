#pragma once

#include "Core/application_state.h"
#include "Core/launch_account.h"
#include "Core/requestor.h"

#include <QDateTime>
#include <QList>
#include <QObject>
#include <QString>

#include <memory>

#include <sys/types.h>

namespace Core {

class ChroniclePrivate;
class DBusNameWatcher;
class Error;
class RuntimeController;

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
    QString id; ///< instance id or full task id; of an application's failed launch, the application's
    bool isTask = false;
    pid_t pid = -1; ///< -1: there was no process
    QDateTime started;
    QDateTime ended;
    int exitStatus = 0; ///< raw status of waitpid(2)
    StopReason stopReason = StopReason::None;
    Decision decision = Decision::Exited;
    QString detail; ///< in words
    std::shared_ptr<const Requestor> requestor; ///< who asked for it; null: nobody did
    LaunchAccount launch; ///< how it came to run, or failed to
};

/// Keeps account of launches, and of the last ends and what decided them, for those who want to know why.
///
/// Kept in memory only, and little of it however long the texts are that it is told; nothing in the service
/// depends on it. Main thread only.
class Chronicle : public QObject
{
    Q_OBJECT

public:
    static constexpr int maximumEndings = 200; ///< after which the oldest of who has the most is forgotten
    static constexpr int maximumIdLength = 512; ///< what is longer is cut; no process has such an id
    static constexpr int maximumErrorLength = 1000; ///< and of what is longer the beginning is kept
    static constexpr int maximumDetailLength = 1024; ///< an error, and at which step

    /// Follows the runtime controller; made at first use, never destroyed.
    static Chronicle *instance();

    explicit Chronicle(QObject *parent = nullptr);
    ~Chronicle() override;

    /// Follows what @p controller signals from now on; names are looked for on the bus of @p names.
    void follow(RuntimeController *controller, DBusNameWatcher *names);

    // Told by who does it

    /// A launch of an application or a task begins.
    std::shared_ptr<Launch> launchAsked(const QString &id);
    /// What is done and started from now on belongs to @p launch, if it is of that application or task.
    /// Others of the same one may be under way at the same time.
    void launchGoesOn(const std::shared_ptr<Launch> &launch);
    /// Who carries out a launch tells it how far it got. Null if none was asked for.
    [[nodiscard]] std::shared_ptr<Launch> launchUnderWay(const QString &id) const;
    /// @p launch has come to its end, at the step that it was told of; without one, before it began.
    void launchFailed(const std::shared_ptr<Launch> &launch, const Error &error);

    /// Says what is about to end @p id, as soon as it is decided. The first decision stands, but for one that
    /// kills at once. Forgotten with the end.
    void decide(const QString &id, Decision decision, const QString &detail = QString());
    /// Who asked for the end of @p id, if a request decided: the first who did.
    void requestedBy(const QString &id, const Requestor &requestor);
    /// The same for everything whose id begins with @p idPrefix. What of @p requestor is not known yet may be
    /// filled in later, also after the ends.
    void allRequestedBy(const QString &idPrefix, const std::shared_ptr<const Requestor> &requestor);

    // Told to who asks

    /// The last launch of an application or a task.
    [[nodiscard]] LaunchAccount lastLaunch(const QString &id) const;
    /// The launch of what runs under @p id; a null time in it if nothing does.
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
