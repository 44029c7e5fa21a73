#include "Core/tracker_worker.h"

#include <QDebug>

#include <cerrno>

#include <sys/wait.h>

namespace Core {

namespace {

void logExit(pid_t pid, int status)
{
    const int signal = status & 0x7f;
    if (signal == 0) {
        qDebug() << "Process" << pid << "exited with status" << WEXITSTATUS(status);
    } else if (signal == 0x7f) {
        qWarning() << "Unexpected status change" << status << "from process" << pid;
    } else {
        qDebug() << "Process" << pid << "killed by signal" << signal;
    }
}

} // namespace

void TrackerWorker::waitForChildren()
{
    int error = 0;
    while (true) {
        int status = 0;
        const pid_t pid = ::waitpid(-1, &status, 0);
        error = errno;
        // A success leaves errno as it was, so this also skips a child that was reaped while errno still
        // held an earlier interruption. RuntimeTracker blocks all signals on this thread: nothing
        // interrupts the wait there.
        if (error == EINTR) {
            continue;
        }
        if (pid == -1) {
            break;
        }
        emit processExited(pid, status);
        logExit(pid, status);
    }
    if (error != ECHILD) {
        qWarning() << "waitpid returned error" << error;
    }
}

} // namespace Core
