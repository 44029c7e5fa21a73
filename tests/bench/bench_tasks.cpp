// How long the service is busy with its stored tasks when it starts, and how often it writes their file. One
// line of JSON:
//
//   {"bench": "tasks_startup", "n": 1000, "ms": 20.1, "parse_ms": 3.2, "started": 300, "forgotten": 100,
//   "writes": 1}
//
// ms        making the manager, which reads the file, adding all tasks, and the write; median
// parse_ms  reading and parsing the same file, and nothing else: what nobody can save; median
// started   tasks that were handed over to be run. Nothing is run: that is the price of a start, not of this.
// writes    of the file, in one start; more than one is a failure
//
// The tasks are five of each application: workers with a delay, scheduled and periodic ones. Each tenth
// application is gone, so that there is something to write.

#include "Core/application_registry.h"
#include "Core/task_manager_p.h"

#include "measuring.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <vector>

#include <sys/inotify.h>
#include <unistd.h>

namespace {

constexpr int runs = 9;
constexpr int tasksOfAnApplication = 5;

void write(const QString &path, const QByteArray &content)
{
    QFile file(path);
    check(file.open(QIODevice::WriteOnly) && file.write(content) == content.size(), "cannot write a file");
}

QString applicationOf(int number)
{
    return QStringLiteral("org.example.Application%1").arg(number);
}

void install(const QString &directory, int number)
{
    const QByteArray text = QByteArray::number(number);
    QByteArray content =
        "[Desktop Entry]\nType=Application\nName=Application\nExec=/usr/bin/true\n[X-Application]\n"
        "OrganizationName=org.example\nApplicationName=Application"
        + text + '\n';
    for (const char *task : { "a\nType=worker", "b\nType=worker", "c\nType=scheduled", "d\nType=scheduled",
                              "e\nType=periodic" }) {
        content += "[X-Task " + QByteArray(task).replace('\n', "]\n")
            + "\nExec=/usr/bin/true --sync\nPermissions=Internet\n";
    }
    write(QStringLiteral("%1/%2.desktop").arg(directory, applicationOf(number)), content);
}

QJsonObject storedTask(char name, int number)
{
    const QJsonObject schedule { { QStringLiteral("Hours"), QJsonArray { 3, 15 } },
                                 { QStringLiteral("Minutes"), QJsonArray { 0, 30 } } };
    QJsonObject hints { { QStringLiteral("RunningTime"), 30 } };
    QJsonObject data;
    if (name <= 'b') {
        hints.insert(QStringLiteral("StartDelay"), 3600);
    } else if (name <= 'd') {
        hints.insert(QStringLiteral("Schedule"), schedule);
        data.insert(QStringLiteral("Schedule"), QJsonObject { { QStringLiteral("cookieId"), number } });
    } else {
        hints.insert(QStringLiteral("Interval"), 900);
    }
    return QJsonObject { { QStringLiteral("params"), QJsonArray { QStringLiteral("--full") } },
                         { QStringLiteral("environment"), QJsonArray() },
                         { QStringLiteral("hints"), hints },
                         { QStringLiteral("conditionData"), data } };
}

QByteArray storedTasks(int count)
{
    QJsonObject tasks;
    for (int i = 0; i < count; ++i) {
        const char name = static_cast<char>('a' + i % tasksOfAnApplication);
        tasks.insert(applicationOf(i / tasksOfAnApplication) + QStringLiteral(".task_") + QLatin1Char(name),
                     storedTask(name, i));
    }
    return QJsonDocument(QJsonObject { { QStringLiteral("autostartedTasks"), tasks } }).toJson();
}

/// How often a file has been put into the directory since it was last asked.
int writesSince(int inotify)
{
    int writes = 0;
    alignas(inotify_event) char buffer[16 * (sizeof(inotify_event) + NAME_MAX + 1)];
    for (ssize_t size = 0; (size = ::read(inotify, buffer, sizeof buffer)) > 0;) {
        for (ssize_t at = 0; at < size; ++writes) {
            at += static_cast<ssize_t>(sizeof(inotify_event))
                + reinterpret_cast<const inotify_event *>(buffer + at)->len;
        }
    }
    return writes;
}

void benchStartup(const QString &path, int count)
{
    const QByteArray stored = storedTasks(count);
    const int inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    check(inotify_add_watch(inotify, QFile::encodeName(QFileInfo(path).path()).constData(), IN_MOVED_TO) >= 0,
          "cannot watch the directory");
    std::vector<double> startups;
    std::vector<double> parses;
    int started = 0;
    int writes = 0;
    int forgotten = 0;
    for (int run = 0; run < runs; ++run) {
        write(path, stored);
        writesSince(inotify);
        parses.push_back(milliseconds([&] {
            QFile file(path);
            check(file.open(QIODevice::ReadOnly), "cannot open the file");
            check(!QJsonDocument::fromJson(file.readAll()).isNull(), "cannot parse the file");
        }));
        started = 0;
        const Core::TaskProcesses processes {
            [&started](const auto &, const auto &, const auto &) {
                ++started;
                return Core::Error();
            },
            [](const auto &, auto) { return Core::Error(); },
            [](const auto &callback) { callback(); },
        };
        QObject owner;
        std::unique_ptr<Core::TaskManagerPrivate> manager;
        startups.push_back(milliseconds([&] {
            manager = std::make_unique<Core::TaskManagerPrivate>(&owner, processes);
            manager->startAutostartTasks();
            QCoreApplication::processEvents();
        }));
        writes = writesSince(inotify);
        forgotten = count - manager->records.size();
        check(writes == 1, "the file was not written once");
    }
    ::close(inotify);
    std::printf(
        "{\"bench\": \"tasks_startup\", \"n\": %d, \"ms\": %.4f, \"parse_ms\": %.4f, \"started\": %d, "
        "\"forgotten\": %d, \"writes\": %d}\n",
        count, median(startups), median(parses), started, forgotten, writes);
}

} // namespace

int main(int argc, char **argv)
{
    const int count = argc > 1 ? std::max(1, std::atoi(argv[1])) : 1000;
    const QTemporaryDir root;
    check(root.isValid(), "no temporary directory");
    const auto directory = [&root](const char *name) {
        const QString path = root.filePath(QLatin1String(name));
        check(QDir().mkpath(path), "cannot make a directory");
        return path;
    };
    const QString applications = directory("data/applications");
    const QString config = directory("config/procwarden");
    for (int i = 0; i * tasksOfAnApplication < count; ++i) {
        if (i % 10 != 0) {
            install(applications, i);
        }
    }
    qputenv("XDG_DATA_DIRS", QFile::encodeName(root.filePath(QStringLiteral("data"))));
    qputenv("XDG_DATA_HOME", QFile::encodeName(directory("home")));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(root.filePath(QStringLiteral("config"))));
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(directory("run")));
    qputenv("PROCWARDEN_ROOTFS", QFile::encodeName(directory("root")));
    // No bus: what goes over one is not measured.
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent");
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent");
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("procwarden"));
    qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext &, const QString &) {}); // the bus is missed

    Core::ApplicationRegistry::instance(); // the catalogue has a measurement of its own
    benchStartup(config + QStringLiteral("/user-settings.json"), count);
    return 0;
}
