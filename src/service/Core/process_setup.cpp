#include "Core/process_setup.h"

#include "Core/child_ipc.h"
#include "Core/process_spawner.h"
#include "Core/types.h"

#include <QByteArray>
#include <QDebug>
#include <QDir>
#include <QFile>

#include <systemd/sd-journal.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

namespace Core {

namespace {

constexpr size_t maxOomBytes = 1024; // path of the score file with its NUL, and score
constexpr size_t maxIdentifierBytes = 256; // with the NUL
constexpr int secondsToHandleLimit = 2; // from SIGXCPU at the soft limit to SIGKILL at the hard one

} // namespace

class ProcessSetupPrivate
{
public:
    bool sendText(const QByteArray &text)
    {
        return spawner->sendBytes(text.constData(), static_cast<quint64>(text.size()) + 1);
    }

    ProcessSpawner *const spawner;
};

ProcessSetup::ProcessSetup(ProcessSpawner *spawner)
    : d(new ProcessSetupPrivate { spawner })
{
}

ProcessSetup::~ProcessSetup() = default;

bool ProcessSetup::sendOomScore(pid_t pid, int score)
{
    const QString rootFs = Types::rootFs();
    const QString directory = rootFs + QStringLiteral("/proc/%1").arg(pid);
    const QString path = directory + QStringLiteral("/oom_score_adj");
    if (!rootFs.isEmpty()) {
        // The child opens the file without making it. Should this fail, its step fails.
        QDir().mkpath(directory);
        QFile(path).open(QIODevice::WriteOnly);
    }
    const QByteArray text = QByteArray::number(score);
    if (!d->sendText(path.toUtf8())
        || !d->spawner->sendBytes(text.constData(), static_cast<quint64>(text.size()))) {
        qWarning() << "Error sending OOM data to child process";
        return false;
    }
    return true;
}

bool ProcessSetup::sendJournalIdentifier(const QString &identifier)
{
    return d->sendText(identifier.toUtf8());
}

bool ProcessSetup::sendOutputFds(int stdoutFd, int stderrFd)
{
    return d->spawner->sendInt(stdoutFd) && d->spawner->sendInt(stderrFd);
}

bool ProcessSetup::sendNiceLevel(int level)
{
    return d->spawner->sendInt(level);
}

bool ProcessSetup::sendMaxRunningTime(int seconds)
{
    return d->spawner->sendInt(seconds);
}

void ProcessSetup::becomeRealUser(ChildIPC & /*ipc*/)
{
    const gid_t gid = ::getgid();
    const uid_t uid = ::getuid();
    if (::setregid(gid, gid) == -1 || ::setreuid(uid, uid) == -1) {
        ChildIPC::die("Could not change to real user/group\n");
    }
    if (::setpgid(0, 0) == -1) {
        ChildIPC::die("Could not create process group\n");
    }
}

bool ProcessSetup::receiveOomScore(ChildIPC &ipc)
{
    char buffer[maxOomBytes];
    ipc.readBytes(buffer, sizeof(buffer));
    const int fd = ::open(buffer, O_WRONLY | O_CLOEXEC);
    if (fd == -1) {
        return false;
    }
    const size_t length = ipc.readBytes(buffer, sizeof(buffer));
    const bool written = ::write(fd, buffer, length) == static_cast<ssize_t>(length);
    ::close(fd);
    return written;
}

void ProcessSetup::receiveJournalIdentifier(ChildIPC &ipc)
{
    char identifier[maxIdentifierBytes];
    ipc.readBytes(identifier, sizeof(identifier));
    const int fd = ::sd_journal_stream_fd(identifier, LOG_INFO, 0);
    if (fd < 0) {
        return;
    }
    ::dup2(fd, STDOUT_FILENO);
    ::dup2(fd, STDERR_FILENO);
    ::close(fd);
}

bool ProcessSetup::receiveOutputFds(ChildIPC &ipc)
{
    const int stdoutFd = ipc.readInt();
    const int stderrFd = ipc.readInt();
    return (stdoutFd < 0 || ::dup2(stdoutFd, STDOUT_FILENO) != -1)
        && (stderrFd < 0 || ::dup2(stderrFd, STDERR_FILENO) != -1);
}

bool ProcessSetup::receiveNiceLevel(ChildIPC &ipc)
{
    const int level = ipc.readInt();
    return level == 0 || ::setpriority(PRIO_PGRP, 0, level) == 0 || level < 0;
}

bool ProcessSetup::receiveMaxRunningTime(ChildIPC &ipc)
{
    const int seconds = ipc.readInt();
    if (seconds < 0) {
        return true;
    }
    const auto softLimit = static_cast<rlim_t>(seconds);
    const rlimit limit { softLimit, softLimit + secondsToHandleLimit };
    return ::setrlimit(RLIMIT_CPU, &limit) == 0;
}

} // namespace Core
