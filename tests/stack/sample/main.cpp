// The sample application: a well-behaved one by default, and by its options one of the badly behaved kinds
// that the service has to cope with.

#include "intents.h"
#include "sample.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDir>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int bytesPerMegabyte = 1 << 20;

int termPipe[2] = { -1, -1 };

// Tells the event loop, where the diary can be written, that SIGTERM came.
void onTerm(int)
{
    const char byte = 1;
    if (write(termPipe[1], &byte, 1) < 0) {
        _exit(1);
    }
}

bool catchTerm()
{
    if (pipe2(termPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        return false;
    }
    struct sigaction action = {};
    action.sa_handler = onTerm;
    return sigaction(SIGTERM, &action, nullptr) == 0;
}

// Leaves the process that the service knows, and goes on as a child of init.
void forkAway()
{
    if (fork() != 0) {
        _exit(0);
    }
    setsid();
}

void floodOutput(int lines)
{
    for (int i = 0; i < lines; ++i) {
        std::printf("flood %d ", i);
        for (int column = 0; column < 100; ++column) {
            std::putchar('x');
        }
        std::putchar('\n');
    }
    std::fflush(stdout);
}

// The id of the instance, or of the task if this is one.
QString processId()
{
    const QString task = qEnvironmentVariable("SOLVANE_TASK_ID");
    if (!task.isEmpty()) {
        return qEnvironmentVariable("SOLVANE_APP_ID") + QStringLiteral(".task_") + task;
    }
    return qEnvironmentVariable("SOLVANE_APP_INSTANCE_ID", QStringLiteral("unmanaged"));
}

// "instance_123" for one of several instances, "task_sync" for a task, else "Main".
QString nameSuffix(const QString &processId)
{
    const QString suffix = processId.section(QLatin1Char('.'), -1);
    const bool meant =
        suffix.startsWith(QLatin1String("instance_")) || suffix.startsWith(QLatin1String("task_"));
    return meant ? suffix : QStringLiteral("Main");
}

QCommandLineOption option(const char *name, const char *help, const char *value = "")
{
    return QCommandLineOption(QString::fromLatin1(name), QString::fromLatin1(help),
                              QString::fromLatin1(value));
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);

    const QCommandLineOption name = option("name", "Owns this bus name; @ is the instance or task.", "name");
    const QCommandLineOption directory = option("dir", "Directory of the diary and the ticks.", "path");
    const QCommandLineOption ignoreTerm = option("ignore-term", "Notes SIGTERM and goes on.");
    const QCommandLineOption exitWith = option("exit", "Ends at once with this status.", "code");
    const QCommandLineOption daemonise = option("daemonise", "Forks away before anything else.");
    const QCommandLineOption flood = option("flood", "Prints so many lines first.", "lines");
    const QCommandLineOption noLifecycle = option("no-lifecycle", "Never asks for its state.");
    const QCommandLineOption memoryPressure = option("memory-pressure", "Subscribes to the memory level.");
    const QCommandLineOption notifications =
        option("notifications", "Listens to the events of notifications.");
    const QCommandLineOption hold = option("hold", "Keeps so much memory in use.", "megabytes");
    const QCommandLineOption intents = option("intents", "Handles intents, in this way.", "behaviour");
    const QCommandLineOption noIntentName = option("no-intent-name", "Never owns its id as a name.");
    QCommandLineParser parser;
    parser.addOptions(
        { name, directory, ignoreTerm, exitWith, daemonise, flood, noLifecycle, memoryPressure, hold });
    parser.addOptions({ notifications, intents, noIntentName });
    parser.addPositionalArgument(QStringLiteral("uris"), QStringLiteral("What to open."));
    if (!parser.parse(app.arguments())) {
        std::fprintf(stderr, "%s\n", qPrintable(parser.errorText()));
        return 2;
    }

    if (parser.isSet(exitWith)) {
        return parser.value(exitWith).toInt();
    }
    if (parser.isSet(daemonise)) {
        forkAway();
    }
    if (parser.isSet(flood)) {
        floodOutput(parser.value(flood).toInt());
    }
    if (!catchTerm()) {
        return 3;
    }

    // Every page is written to, so that it really costs something.
    const QByteArray held(parser.value(hold).toInt() * bytesPerMegabyte, 'x');
    Q_UNUSED(held)

    SampleOptions options;
    options.directory = parser.value(directory);
    options.instanceId = processId();
    options.busName = parser.value(name).replace(QLatin1Char('@'), nameSuffix(options.instanceId));
    options.arguments = app.arguments();
    options.lifecycle = !parser.isSet(noLifecycle);
    options.memoryPressure = parser.isSet(memoryPressure);
    options.notifications = parser.isSet(notifications);
    if (options.directory.isEmpty()) {
        options.directory = QDir::homePath() + QStringLiteral("/.cache/org.example/Sample");
    }

    Sample sample(options);
    QSocketNotifier termNotifier(termPipe[0], QSocketNotifier::Read);
    QObject::connect(&termNotifier, &QSocketNotifier::activated, &sample, [&] {
        char byte = 0;
        if (read(termPipe[0], &byte, 1) == 1) {
            sample.note(QStringLiteral("term"));
        }
        if (!parser.isSet(ignoreTerm)) {
            QCoreApplication::exit(0);
        }
    });
    if (!sample.start()) {
        std::fprintf(stderr, "Cannot start in %s\n", qPrintable(options.directory));
        return 4;
    }

    const auto note = [&sample](const QString &line) {
        sample.note(line);
    };
    SampleInvoker invoker;
    SampleIntents handler(parser.value(intents), options.directory, note);
    QDBusConnection::sessionBus().registerObject(QStringLiteral("/intents"), &invoker,
                                                 QDBusConnection::ExportAllSlots);
    if (parser.isSet(intents)
        && !handler.start(parser.isSet(noIntentName) ? QString() : options.instanceId)) {
        sample.note(QStringLiteral("no name for intents"));
    }
    return QCoreApplication::exec();
}
