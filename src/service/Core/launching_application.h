#pragma once

#include "Core/application_id.h"
#include "Core/application_instance_id.h"
#include "Core/application_launch_data.h"
#include "Core/debug_params.h"
#include "Core/process_spawner.h"
#include "Core/sailjail_proxy.h"

#include <QFile>
#include <QList>
#include <QObject>
#include <QUrl>
#include <QVariantMap>

#include <functional>
#include <memory>

#include <sys/types.h>

namespace Core {

enum class LaunchStep;

class CGroupController;
class Error;
class Launch;
class MaemoDBusInvoker;
class Timeout;

/// What is to be started, and how. A copy of its own, since the registry's data may change meanwhile.
struct LaunchRequest
{
    ApplicationId appId;
    ApplicationLaunchData launchData;
    DebugParams debugParams;
    QVariantMap hints; ///< see Launcher::launch()
    QList<QUrl> uris;
};

/// One launch, from the request to the released program, and for a D-Bus service to its activation.
///
/// Made by the launcher for each start and deletes itself from the event loop; only after start() has
/// failed does the maker delete it. The child exists from start() on, blocked on its pipe, and counted
/// steps decide its release: each asynchronous part of the launch adds one and ends it with stepDone(),
/// and the last one to end releases the child. A part that fails calls fail() and never ends its
/// step, so a failed launch cannot run its program, whatever is still under way. Destroying the object
/// before the release ends the child. Main thread only.
class LaunchingApplication : public QObject
{
    Q_OBJECT

public:
    using Callback = std::function<void(const ApplicationInstanceId &, pid_t, const Error &)>;

    /// Time for an activated service to own its name and answer, from the release of its program.
    static constexpr int defaultActivationLimitMs = 20000;

    /// @param cgroups initialised; not owned, outlives this object.
    LaunchingApplication(const LaunchRequest &request, CGroupController *cgroups, QObject *parent = nullptr);
    ~LaunchingApplication() override;

    /// The child's oom_score_adj, see proc(5). To be set before start().
    void setOomScore(qint32 score) { oomScore = score; }

    /// Gets the result of the launch, see Launcher::Callback: once, from the event loop. May be empty.
    void setCallback(const Callback &function) { callback = function; }

    /// What a program finds in its environment: the service's own, and who it is.
    static QByteArrayList environmentFor(const ApplicationId &application,
                                         const ApplicationInstanceId &instance, const QString &package,
                                         const DebugParams &params);

    /// For tests, which do not have the time.
    void setActivationLimitMs(int limit) { m_activationLimitMs = limit; }
    int activationLimitMs() const { return m_activationLimitMs; }

    /// Makes the child, which then waits for the event loop.
    /// @returns its pid; negative, after a warning, if there is none, and then the callback never runs.
    [[nodiscard]] pid_t start();

signals:
    /// The launch has failed, and its child, which may be in its control groups already, is about to end.
    /// Emitted once, before the failure is reported.
    void childAbandoned(pid_t pid, const Core::ApplicationInstanceId &instanceId);

protected:
    /// Gives the spawner its command line, or arranges for it by a step of its own.
    /// @returns false, after a warning, if there is nothing to start.
    virtual bool prepare() = 0;

protected slots:
    /// Sends the child what it sets itself up with. Queued by start(), so that the pid is known by then.
    virtual void setupAndExec();

protected:
    /// Runs when the child has been released.
    virtual void postExec();

    /// Asks for the application's permissions, as a step that @p granted has to end. A refusal fails the
    /// launch.
    void promptPermissions(const std::function<void(const QStringList &)> &granted);

    /// Ends a step.
    void stepDone();

    /// Ends the launch, by deleting this object later, and a child that is still blocked with it.
    /// Reports @p error to the callback unless it is no error: then the launch was reported as a
    /// success before.
    void fail(const Error &error);
    /// As fail(), and tells the history which step it was.
    void failAt(LaunchStep step, const Error &error);

    const ApplicationId appId;
    const ApplicationLaunchData launchData;
    const DebugParams debugParams;
    const QVariantMap hints;
    const QList<QUrl> uris;
    ProcessSpawner spawner;
    SailjailProxy sailjail;
    CGroupController *const cgroups;
    ApplicationInstanceId instanceId; ///< empty until the child exists
    QFile stdoutFile; ///< open only where a debug start asks for it, as the next
    QFile stderrFile;
    qint32 oomScore = 0;
    Callback callback; ///< empty once it was called
    qint32 pendingSteps = 1; ///< that must end before the program runs; the first is setupAndExec()
    qint32 references = 1; ///< the launch itself, and the activation of a D-Bus service
    pid_t pid = -1; ///< the child's, until the launch has failed
    const QString desktopFile; ///< as the registry had it at the start
    const QString
        packageName; ///< its complete base name; sailjaild and the program know the application by it

private:
    void checkAllowed();
    void passed(LaunchStep step) const;
    void markFailed(LaunchStep step) const;
    bool setupCGroup();
    bool setupEnvironment();
    bool exec();
    void release();

    void activateMaemoService();
    void invokeMaemoMethod(Timeout *timeout);
    void onMaemoServiceTimeout();

    const std::shared_ptr<Launch> m_launch; ///< what the history knows of it; null if it was not asked for
    int m_activationLimitMs = defaultActivationLimitMs;
};

} // namespace Core
