#pragma once

#include "Core/memory_monitor.h"
#include "Core/runtime_controller.h"
#include "Core/task_startup_info.h"

#include "runtime_surroundings.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <algorithm>
#include <memory>

#include <csignal>

/// Runtime controllers with real applications.
///
/// What the kernel says about memory and scores is what the test writes. Applications are started with a
/// number of child processes. Each test makes the controller that it needs; there is one at a time.
class RuntimeFixture : public RuntimeSurroundings
{
public:
    RuntimeFixture()
        : RuntimeSurroundings("20000") // nobody ignores SIGTERM but who is stopped
    {
        for (const char *state : { "active", "inactive", "hidden" }) {
            writeState(state, "cgroup1.freezer.state=" + QByteArray(state) + '\n');
        }
        // Says who its children are, and then that it is ready. Children may be killed one by one.
        m_tree.write(QStringLiteral("family"),
                     "n=0\n"
                     "while [ $n -lt $2 ]; do sleep 600 & echo $! >>\"$1.children\"; n=$((n + 1)); done\n"
                     ": >\"$1.ready\"\n"
                     "sleep 600 &\n"
                     "wait\n");
        m_tree.makeDirectory(QStringLiteral("run"));
        m_tree.link(QStringLiteral("bin"), QStringLiteral("/bin"));
        configure({});
        setAvailableMb(1000);
    }

    /// An application with this many children, below one of the background policies `policy.one`,
    /// `policy.two`.
    void install(const QString &id, int children = 0)
    {
        const Core::ApplicationId appId(id);
        m_tree.write(
            QStringLiteral("usr/share/applications/%1.desktop").arg(id),
            QStringLiteral("[Desktop Entry]\nType=Application\nName=App\nExec=/bin/sh %1 %2 %3\n"
                           "[X-Application]\nSandboxing=Disabled\nOrganizationName=%4\nApplicationName=%5\n")
                .arg(path(QStringLiteral("family")), runFile(id), QString::number(children),
                     appId.organisation(), appId.name())
                .toUtf8());
    }

    /// What the next controller goes by, besides thresholds of 200 and 100 MB. The memory monitor, being one
    /// for the process, keeps what it found first: it looks only when it is told to.
    void configure(const QByteArray &lines)
    {
        m_tree.write(QStringLiteral("etc/procwarden/oom.cfg"),
                     "LowMemoryTermMB=200\nMinMemoryTermMB=100\nCheckIntervalMsec=600000\n"
                     "CheckIntervalMsecLowMem=600000\nCheckIntervalMsecCriticalMem=600000\n"
                         + lines);
    }

    void makeController()
    {
        m_own = std::make_unique<Core::RuntimeController>();
        m_controller = m_own.get();
    }
    /// For what asks for that one.
    void useTheOneOfTheProcess() { m_controller = Core::RuntimeController::instance(); }
    Core::RuntimeController *controller() const { return m_controller; }

    /// Ends all that runs, and the controller; the memory is plenty again.
    void end()
    {
        setLevel(Core::MemoryLevel::Normal);
        if (m_controller) {
            m_controller->killAll();
            QTRY_VERIFY(m_controller->runningApplications().isEmpty()
                        && m_controller->runningTasks().isEmpty());
            m_controller = nullptr;
            m_own.reset();
        }
        const QDir run(path(QStringLiteral("run")));
        for (const QString &file : run.entryList(QDir::Files)) {
            QFile::remove(run.filePath(file));
        }
        QDir(m_tree.group(QStringLiteral("freezer") + subtree())).removeRecursively();
        m_tree.addHierarchies({ QStringLiteral("freezer") }, subtree());
    }

    /// Runs when it returns, with scores of 0 and a memory group that holds it alone. 0 on failure.
    pid_t start(const QString &id)
    {
        m_controller->startApplication(Core::ApplicationId(id), {}, {}, {},
                                       [](const auto &, const auto &) {});
        const bool ready = QTest::qWaitFor(
            [&] { return pidOf(id) > 0 && QFile::exists(runFile(id) + QStringLiteral(".ready")); }, 20000);
        if (!ready) {
            return 0;
        }
        const pid_t pid = pidOf(id);
        setScores(pid, 0);
        setGroup(id, { pid });
        return pid;
    }

    /// As start(), a task with this many children.
    pid_t startTask(const QString &id, int children = 0)
    {
        bool groups = false;
        m_controller->whenInitialized([&groups] { groups = true; });
        Core::TaskStartupInfo info;
        info.command = QStringList { QStringLiteral("/bin/sh"), path(QStringLiteral("family")), runFile(id),
                                     QString::number(children) };
        const bool ready = QTest::qWaitFor([&] { return groups; }, 20000)
            && !m_controller->startTask(Core::ApplicationTaskId(id), info, {})
            && QTest::qWaitFor([&] { return QFile::exists(runFile(id) + QStringLiteral(".ready")); }, 20000);
        const pid_t pid = ready ? pidOf(id) : 0;
        if (pid > 0) {
            setScores(pid, 0);
            setGroup(id, { pid });
        }
        return pid;
    }

    pid_t pidOf(const QString &id) const
    {
        const pid_t task = m_controller->taskRecord(Core::ApplicationTaskId(id)).pid;
        return task > 0 ? task : m_controller->applicationRecord(Core::ApplicationId(id)).pid;
    }

    QVector<pid_t> childrenOf(const QString &id) const
    {
        QFile file(runFile(id) + QStringLiteral(".children"));
        QVector<pid_t> children;
        if (file.open(QFile::ReadOnly)) {
            const QList<QByteArray> lines = file.readAll().split('\n');
            for (const QByteArray &line : lines) {
                if (!line.isEmpty()) {
                    children.append(line.toInt());
                }
            }
        }
        return children;
    }

    void setScores(pid_t pid, int adjustment, int score = 0)
    {
        const QString directory = QStringLiteral("proc/%1/").arg(pid);
        m_tree.write(directory + QStringLiteral("oom_score_adj"), QByteArray::number(adjustment));
        m_tree.write(directory + QStringLiteral("oom_score"), QByteArray::number(score));
    }
    void removeScores(pid_t pid)
    {
        const QString directory = path(QStringLiteral("proc/%1/").arg(pid));
        QFile::remove(directory + QStringLiteral("oom_score_adj"));
        QFile::remove(directory + QStringLiteral("oom_score"));
    }

    /// Who shares the memory group of the running application or task @p id.
    void setGroup(const QString &id, const QVector<pid_t> &members)
    {
        const Core::ApplicationTaskId task(id);
        const QString group = subtree()
            + (task.isValid() ? QStringLiteral("/%1/task_%2").arg(task.toString(), task.taskName())
                              : QStringLiteral("/%1/app").arg(id));
        QByteArray lines;
        for (const pid_t member : members) {
            lines += QByteArray::number(member) + '\n';
        }
        m_tree.write(QStringLiteral("proc/%1/cgroup").arg(pidOf(id)), "3:memory:" + group.toUtf8() + '\n');
        m_tree.write(QStringLiteral("sys/fs/cgroup/memory%1/cgroup.procs").arg(group), lines);
    }

    /// What was last written to the freezer of @p id: "active", "inactive", "hidden"; empty: nothing.
    QByteArray frozenState(const QString &id) const { return m_tree.read(freezer(id)); }
    QString freezerPath(const QString &id) const { return m_tree.group(freezer(id)); }
    void forgetFrozenState(const QString &id) { QFile::remove(m_tree.group(freezer(id))); }

    /// Looks at the memory.
    void setLevel(Core::MemoryLevel level)
    {
        switch (level) {
        case Core::MemoryLevel::Unknown:
            QFile::remove(path(QStringLiteral("proc/meminfo")));
            break;
        case Core::MemoryLevel::Normal:
            setAvailableMb(1000);
            break;
        case Core::MemoryLevel::Low:
            setAvailableMb(150);
            break;
        case Core::MemoryLevel::Critical:
            setAvailableMb(50);
            break;
        }
        Core::MemoryMonitor::instance()->checkOomState();
    }

    /// Event loop runs until a timer of this interval has ticked so often.
    static bool waitTicks(int count, int intervalMs)
    {
        QTimer timer;
        timer.setTimerType(Qt::PreciseTimer);
        QSignalSpy ticks(&timer, &QTimer::timeout);
        timer.start(intervalMs);
        while (ticks.count() < count) {
            if (!ticks.wait(20000)) {
                return false;
            }
        }
        return true;
    }

    static bool isAlive(pid_t pid) { return pid > 1 && ::kill(pid, 0) == 0; }

    /// To one process, and never, by a pid that a test did not get, to a group.
    static void sendSignal(pid_t pid, int signal)
    {
        if (pid > 1) {
            ::kill(pid, signal);
        }
    }

    /// From now on it can only be killed, or told to continue. False if it does not come to that.
    static bool stop(pid_t pid)
    {
        sendSignal(pid, SIGSTOP);
        return QTest::qWaitFor(
            [pid] {
                QFile status(QStringLiteral("/proc/%1/status").arg(pid));
                return status.open(QFile::ReadOnly) && status.readAll().contains("\nState:\tT");
            },
            20000);
    }

    /// Ends an application with all of its children, as they would otherwise outlive the test.
    static void killGroup(pid_t leader)
    {
        if (leader > 1) {
            ::kill(-leader, SIGKILL);
        }
    }

private:
    QString runFile(const QString &id) const { return path(QStringLiteral("run/") + id); }
    QString freezer(const QString &id) const
    {
        return QStringLiteral("freezer%1/%2/app/freezer.state").arg(subtree(), id);
    }
    void setAvailableMb(int mb)
    {
        m_tree.write(QStringLiteral("proc/meminfo"),
                     "MemTotal: 4000000 kB\nMemAvailable: " + QByteArray::number(mb * 1024) + " kB\n");
    }

    std::unique_ptr<Core::RuntimeController> m_own;
    Core::RuntimeController *m_controller = nullptr;
};
