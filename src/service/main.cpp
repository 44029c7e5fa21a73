#include "Core/file_limit.h"
#include "DBus/service.h"

#include <QCoreApplication>
#include <QDebug>

#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace {

void onStopSignal(int signal)
{
    if (signal == SIGTERM || signal == SIGINT) {
        QCoreApplication::quit();
    }
}

sigset_t stopSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    return set;
}

void setUpSignals()
{
    struct sigaction action = {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);

    // A child that dies early closes its pipe; the write then fails and tells so.
    std::signal(SIGPIPE, SIG_IGN);
}

/// A quit that comes before the event loop runs is forgotten, so a stop signal has to wait for it.
/// Threads made meanwhile keep it blocked for good, which leaves it to the main thread. Called before
/// anything else is queued: no child may be made, and inherit this, before the signals are let through again.
void holdStopSignalsUntilEventLoop(QCoreApplication *application)
{
    const sigset_t held = stopSignals();
    pthread_sigmask(SIG_BLOCK, &held, nullptr);
    QMetaObject::invokeMethod(
        application, [held] { pthread_sigmask(SIG_UNBLOCK, &held, nullptr); }, Qt::QueuedConnection);
}

/// Whoever starts the service may have closed standard descriptors. What would get their numbers, the pipe to
/// a child for one, would then be taken for one of them.
void fillStandardDescriptors()
{
    int fd = -1;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd > STDERR_FILENO) {
        close(fd);
    }
}

/// The service's whole life; its objects are gone when this returns.
int run(int argc, char *argv[])
{
    fillStandardDescriptors();
    Core::raiseFileLimit();
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("procwarden"));
    setUpSignals();
    holdStopSignalsUntilEventLoop(&application);

    DBus::Service service;
    if (!service.registerObjects()) {
        qWarning() << "Service registration failed";
        return EXIT_FAILURE;
    }
    return QCoreApplication::exec();
}

} // namespace

int main(int argc, char *argv[])
{
    const int status = run(argc, argv);
    // The thread that waits for children runs until the process ends. What it uses must not be taken from
    // under it, which the destruction of static objects would do.
    std::fflush(nullptr);
    _exit(status);
}
