#pragma once

#include "Core/application_state.h"

#include <QObject>
#include <QString>

#include <sys/types.h>

namespace Core {

/// The record of one process that the service started and that has not been reaped.
///
/// Owned by the runtime controller's record map, with the controller as parent; main thread only. Timers
/// of the record have it as context and end with it.
class Process : public QObject
{
    Q_OBJECT

public:
    /// @param id  the whole text of the instance id or full task id: the key of the record map
    /// @param pid the child's pid, which is also its process group's id
    Process(const QString &id, pid_t pid, QObject *parent = nullptr);
    ~Process() override;

    const QString &id() const { return m_id; }
    pid_t pid() const { return m_pid; }
    ApplicationState state() const { return m_state; }
    StopReason stopReason() const { return m_stopReason; }
    void setStopReason(StopReason reason) { m_stopReason = reason; }

    /// Emits stateChanged() if the state is another one.
    virtual void setState(ApplicationState state);

    /// Asks the whole process group to end, and kills it when @p killTimeoutMs have passed without an exit.
    /// The state becomes `Terminating` in any case.
    /// @returns false if the signal could not be sent (logged). A group that is gone already is a success:
    ///          its exit is on its way.
    bool terminate(int killTimeoutMs);

    /// SIGKILL to the whole process group. A failure is logged.
    void kill();

signals:
    void stateChanged(Core::ApplicationState state);

private:
    const QString m_id;
    const pid_t m_pid;
    ApplicationState m_state = ApplicationState::Launched;
    StopReason m_stopReason = StopReason::None;
};

} // namespace Core
