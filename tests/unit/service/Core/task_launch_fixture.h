#pragma once

#include "Core/launching_task.h"

#include "launch_fixture.h"

// What the tests of task launches share: a sandbox that tells what it got, and a hold on the child between
// fork and exec.

/// What the C library does in the parent between fork and the first message to the child.
struct ParentHook
{
    inline static std::function<void(pid_t)> afterFork; ///< gets the child's pid; empty: nothing
};

// In the place of the C library's, in each program that includes this once.
// NOLINTNEXTLINE(misc-definitions-in-headers)
extern "C" int setpgid(pid_t pid, pid_t group) noexcept
{
    // The child, which does the same for itself, names itself by 0.
    if (pid != 0 && ParentHook::afterFork) {
        ParentHook::afterFork(pid);
    }
    return static_cast<int>(::syscall(SYS_setpgid, pid, group));
}

/// One start of the task "sync" of the application that the tests know, as it is unless a test says
/// otherwise.
struct TaskRequest
{
    Core::ApplicationTaskId id { testAppId + QStringLiteral(".task_sync") };
    QStringList command { QStringLiteral("/usr/bin/worker") };
    QStringList environment;
    QStringList permissions;
    Core::CGroupController::Settings cgroups;
    int weight = 300;
    int priority = 0;
    int cpuLimit = -1;
    bool createIpcSocket = false;

    std::unique_ptr<Core::LaunchingTask> make(Core::CGroupController *controller) const
    {
        return std::make_unique<Core::LaunchingTask>(controller, id, command, environment, permissions,
                                                     cgroups, weight, priority, cpuLimit, createIpcSocket);
    }
};

/// A world with a sandbox in which every program may run: it keeps its arguments, its environment, and what
/// the system says about it, and then lives until it is asked to end.
class TaskWorld : public LaunchWorld
{
public:
    TaskWorld()
    {
        qputenv("XDG_RUNTIME_DIR", path(QStringLiteral("runtime")).toUtf8());
        QDir().mkpath(path(QStringLiteral("runtime")));
        QFile::setPermissions(path(QStringLiteral("runtime")),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        program(QStringLiteral("usr/bin/worker"));
        for (const char *permission : { "Base", "BaseTask", "Internet" }) {
            write(QStringLiteral("etc/sailjail/permissions/%1.permission").arg(QLatin1String(permission)),
                  QByteArray());
        }
        install(desktopFile("Exec=/bin/true"));
    }

    void sandbox(const QByteArray &body)
    {
        program(QStringLiteral("usr/bin/firejail"), "#!/bin/sh\n" + body);
    }

    /// What passes for the program of a task.
    void program(const QString &relative,
                 const QByteArray &content = QByteArrayLiteral("\x7f"
                                                               "ELF"))
    {
        write(relative, content);
        QFile::setPermissions(path(relative), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    /// Forgets what the sandbox told and makes it a telling one again.
    void clear()
    {
        sandbox("printf '%s\\n' \"$@\" >\"$0.args\"\n"
                "cat /proc/$$/environ >\"$0.env\"\n"
                "cut -d' ' -f5,19 /proc/$$/stat >\"$0.stat\"\n"
                "ulimit -S -t >\"$0.limit\"\n"
                "ls -l /proc/$$/fd >\"$0.fds\"\n"
                ": >\"$0.ready\"\n"
                "exec sleep 60\n");
        const QDir directory(path(QStringLiteral("usr/bin")));
        const QStringList told = directory.entryList({ QStringLiteral("firejail.*") }, QDir::Files);
        for (const QString &file : told) {
            QFile::remove(directory.filePath(file));
        }
        QDir(path(QStringLiteral("runtime/applications"))).removeRecursively();
        for (const QString &controller : controllers()) {
            QDir(groupPath(controller, QString())).removeRecursively();
            QDir().mkpath(groupPath(controller, QString()));
        }
    }

    bool sandboxIsReady() const { return QFile::exists(path(QStringLiteral("usr/bin/firejail.ready"))); }
    /// One of "args", "env", "stat", "limit", "fds".
    QByteArray told(const QString &what) const
    {
        return readBelow(QStringLiteral("usr/bin/firejail.") + what);
    }
    QByteArrayList toldLines(const QString &what) const
    {
        QByteArrayList lines = told(what).split(what == QLatin1String("env") ? '\0' : '\n');
        lines.removeLast();
        return lines;
    }
    /// What the program got, behind the options of the sandbox.
    QByteArrayList programArguments() const
    {
        const QByteArrayList arguments = toldLines(QStringLiteral("args"));
        return arguments.mid(arguments.indexOf("--") + 1);
    }
    /// The values of all entries of this name, in order.
    QByteArrayList environmentOf(const QByteArray &name) const
    {
        QByteArrayList values;
        const QByteArrayList entries = toldLines(QStringLiteral("env"));
        for (const QByteArray &entry : entries) {
            if (entry.startsWith(name + '=')) {
                values << entry.mid(name.size() + 1);
            }
        }
        return values;
    }

    /// Descriptors of this process.
    static int openDescriptors()
    {
        return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::AllEntries | QDir::System).size();
    }
};
