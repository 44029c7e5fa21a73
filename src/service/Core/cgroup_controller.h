#pragma once

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>

#include <memory>

#include <sys/types.h>

namespace Core {

class ApplicationInstanceId;
class ApplicationTaskId;
class CGroupControllerPrivate;

/// Places processes in control groups of their own and writes the settings of a state there.
///
/// Every application has one directory in each version 1 hierarchy that was handed over to the user, with a
/// directory for each of its instances and tasks in it. The construction asks the privileged helper for these
/// hierarchies; without them nothing can run, so the process ends with status 1 if that fails. The operations
/// that take an id fail, and touch nothing, before initializationDone() and for an id that is not valid.
///
/// Owned by the runtime controller; main thread only.
class CGroupController : public QObject
{
    Q_OBJECT

public:
    using Settings = QHash<QByteArray, QByteArray>; ///< control file name, for example "cpu.shares" -> value

    /// Reads which hierarchies there are and asks the helper for the user's subtree in them, without waiting.
    explicit CGroupController(QObject *parent = nullptr);
    ~CGroupController() override;

    /// Sets or replaces what applyState() writes for @p state.
    void registerState(const QString &state, const Settings &settings);

    /// Writes the settings of @p state for @p id in every hierarchy that their keys name.
    /// @returns false if the state is not registered (nothing is written) or a write failed (the other files
    ///          are written all the same).
    bool applyState(const ApplicationInstanceId &id, const QString &state);
    bool applyState(const ApplicationTaskId &id, const QString &state);

    /// Makes the directory of @p id in every hierarchy and puts the process @p pid, which must be above 0,
    /// into it.
    /// @returns false at the first failure, which is logged; what was done before it stays as it is.
    bool setupApplication(const ApplicationInstanceId &id, pid_t pid);

    /// As setupApplication(), for a task; writes @p settings when the process is in place everywhere.
    /// @returns false also if one of the settings could not be written (the others are).
    bool setupTask(const ApplicationTaskId &id, pid_t pid, const Settings &settings);

    /// Removes the directory of @p id in every hierarchy, and the application's own directory where nothing
    /// else of that application is left in it.
    void removeApplication(const ApplicationInstanceId &id);

    /// The processes in the memory group that the kernel has @p pid in, itself included; empty if they cannot
    /// be read. Needs no controller, and reads the files at once.
    static QSet<int> processesInSameGroup(pid_t pid);

signals:
    /// The subtree is known and the hierarchies are at hand. Emitted once, from the event loop.
    void initializationDone();

private:
    const std::unique_ptr<CGroupControllerPrivate> d;
};

} // namespace Core
