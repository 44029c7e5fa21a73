#include "Core/process.h"

#include "Core/send_signal.h"

#include <QDebug>
#include <QTimer>

#include <cerrno>
#include <csignal>

namespace Core {

Process::Process(const QString &id, pid_t pid, QObject *parent)
    : QObject(parent)
    , m_id(id)
    , m_pid(pid)
{
}

Process::~Process() = default;

void Process::setState(ApplicationState state)
{
    if (state == m_state) {
        return;
    }
    m_state = state;
    emit stateChanged(state);
}

bool Process::terminate(int killTimeoutMs)
{
    setState(ApplicationState::Terminating);

    const int error = sendSignal(m_pid, SignalTarget::Group, SIGTERM);
    if (error == ESRCH) {
        return true;
    }
    if (error != 0) {
        qWarning() << "Cannot terminate" << m_id << "- errno:" << error;
        return false;
    }
    QTimer::singleShot(killTimeoutMs, this, &Process::kill);
    return true;
}

void Process::kill()
{
    const int error = sendSignal(m_pid, SignalTarget::Group, SIGKILL);
    if (error != 0) {
        qWarning() << "Cannot kill" << m_id << "- errno:" << error;
    }
}

} // namespace Core
