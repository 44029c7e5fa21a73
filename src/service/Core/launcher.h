#pragma once

#include <QList>
#include <QObject>
#include <QUrl>
#include <QVariantMap>

#include <sys/types.h>

#include <functional>

namespace Core {

class ApplicationId;
class ApplicationInstanceId;
class CGroupController;
class Error;
class OomController;
struct DebugParams;

/// Turns a request to start an application into a running process.
///
/// Owned by the runtime controller, whose control group controller must have
/// been initialised before the first launch. Each launch is an object of its
/// own below this one: it lives until its steps have ended, and the end of the
/// launcher ends those still under way, their blocked children included,
/// without a report. Main thread only.
class Launcher : public QObject
{
    Q_OBJECT

public:
    /// Result of a launch: on success the instance, its process (which leads its process group)
    /// and no error, after the program has been released; on failure an empty id, -1 and the error.
    using Callback = std::function<void(const ApplicationInstanceId &, pid_t, const Error &)>;

    Launcher(CGroupController *cgroups, OomController *oom, QObject *parent = nullptr);
    ~Launcher() override;

    /// Starts @p appId, without regard to whether it runs already.
    ///
    /// @param hints  "startDBus", a bool: use the command line that the desktop file has for a
    ///               start over D-Bus, if it has one. Other keys mean nothing here.
    /// @param uris   take the place of the command line's field code, or go to the D-Bus method
    ///               of an application that is activated over D-Bus.
    /// @param direct somebody asked for this very start: the kernel spares the process longer.
    /// @param callback runs exactly once unless this launcher ends first, possibly before this
    ///               returns (an unknown application, a child that cannot be made); an empty
    ///               one is allowed. How long it takes is up to the user: the launch waits
    ///               for the answer to a permission prompt without limit.
    ///
    /// After a failure a child may still end with status 1: childAbandoned() tells of it.
    void launch(const ApplicationId &appId, const DebugParams &debugParams, const QVariantMap &hints,
                const QList<QUrl> &uris, bool direct, const Callback &callback);

signals:
    /// A launch has failed whose child is about to end. Nobody else knows of the child: it has to be reaped,
    /// and the control groups of the instance go with it. Emitted before the failure is reported.
    void childAbandoned(pid_t pid, const Core::ApplicationInstanceId &instanceId);

private:
    CGroupController *const m_cgroups;
    OomController *const m_oom;
};

} // namespace Core
