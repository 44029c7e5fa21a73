#include "Core/runtime_tracker.h"

#include "Core/kernel_file.h"
#include "Core/send_signal.h"
#include "Core/tracker_worker.h"
#include "Core/types.h"

#include <QDebug>
#include <QFile>
#include <QHash>
#include <QSet>
#include <QStringBuilder>
#include <QThread>

#include <csignal>
#include <string_view>

#include <unistd.h>

namespace Core {

namespace {

/// @returns -1 when status(5) of the process is missing or does not say.
pid_t parentOf(pid_t pid)
{
    KernelFile file(QFile::encodeName(Types::rootFs()) % "/proc/" % QByteArray::number(pid) % "/status");
    constexpr std::string_view key = "PPid:";
    std::string_view line;
    while (file.readLine(&line)) {
        if (line.substr(0, key.size()) == key) {
            return parseDecimal(line.substr(key.size())).value_or(-1);
        }
    }
    return -1;
}

} // namespace

class RuntimeTrackerPrivate
{
public:
    explicit RuntimeTrackerPrivate(RuntimeTracker *q);
    ~RuntimeTrackerPrivate();

    void onProcessExited(pid_t pid, int exitStatus);

    QHash<pid_t, std::function<void()>> abandoned; ///< child without an id -> what to call when it ends, once
    QHash<pid_t, QString> table; ///< child -> id of its record; an entry goes when its child ends
    QThread thread;
    TrackerWorker worker; ///< lives on the thread
    RuntimeTracker *const owner;
};

RuntimeTrackerPrivate::RuntimeTrackerPrivate(RuntimeTracker *q)
    : owner(q)
{
    qRegisterMetaType<pid_t>("pid_t");
    worker.moveToThread(&thread);
    QObject::connect(
        &worker, &TrackerWorker::processExited, owner,
        [this](pid_t pid, int exitStatus) { onProcessExited(pid, exitStatus); }, Qt::QueuedConnection);

    // The thread inherits this mask: signals of the process are the main thread's business, and one
    // handled on the worker's thread would interrupt its wait. Those of a fault cannot be put off.
    sigset_t blocked;
    sigset_t mask;
    ::sigfillset(&blocked);
    for (const int fault : { SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP }) {
        ::sigdelset(&blocked, fault);
    }
    ::pthread_sigmask(SIG_SETMASK, &blocked, &mask);
    thread.start();
    ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

RuntimeTrackerPrivate::~RuntimeTrackerPrivate()
{
    thread.quit();
    thread.wait();
}

void RuntimeTrackerPrivate::onProcessExited(pid_t pid, int exitStatus)
{
    qDebug() << "onProcessExited" << pid << exitStatus;
    if (const auto gone = abandoned.take(pid)) {
        gone();
        return;
    }
    const auto entry = table.constFind(pid);
    if (entry == table.constEnd()) {
        qWarning() << "Internal error, missing record for pid" << pid;
        return;
    }
    // A copy, and erased by its key: who hears of the end may add the next child.
    const QString id = *entry;
    emit owner->applicationTerminated(id, exitStatus);
    table.remove(pid);
}

RuntimeTracker *RuntimeTracker::instance()
{
    static auto *const tracker = new RuntimeTracker;
    return tracker;
}

RuntimeTracker::RuntimeTracker(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<RuntimeTrackerPrivate>(this))
{
}

RuntimeTracker::~RuntimeTracker() = default;

void RuntimeTracker::addProcess(pid_t pid, const QString &id)
{
    d->abandoned.remove(pid);
    d->table.insert(pid, id);
    QMetaObject::invokeMethod(&d->worker, "waitForChildren", Qt::QueuedConnection);
}

void RuntimeTracker::abandonProcess(pid_t pid, const std::function<void()> &gone)
{
    // Something may have ended the child while other children were waited for; its pid is free again then,
    // and may even be another child's.
    if (d->table.contains(pid) || sendSignal(pid, SignalTarget::Process, 0) != 0) {
        gone();
        return;
    }
    d->abandoned.insert(pid, gone);
    QMetaObject::invokeMethod(&d->worker, "waitForChildren", Qt::QueuedConnection);
}

std::tuple<Error, QString> RuntimeTracker::applicationForPid(pid_t pid) const
{
    // Upward from the process to the leader of its group, and from a leader to its parent: every child
    // leads its group, so whatever it starts leads back to it.
    QSet<pid_t> seen;
    while (pid != -1) {
        const auto entry = d->table.constFind(pid);
        if (entry != d->table.constEnd()) {
            return { Error(), *entry };
        }
        pid_t next = ::getpgid(pid);
        if (next == pid) {
            next = parentOf(pid);
            if (next == 1) {
                break;
            }
        }
        if (seen.contains(next)) {
            break;
        }
        seen.insert(next);
        pid = next;
    }
    return { Error(Error::ProcessNotHandled, QString()), QString() };
}

} // namespace Core
