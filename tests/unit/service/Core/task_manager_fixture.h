#pragma once

#include "Core/application_registry.h"
#include "Core/condition.h"
#include "Core/keepalive.h"
#include "Core/task_hints.h"
#include "Core/task_manager_p.h"

#include "common/Core/catalogue_fixture.h"
#include "settings_fixture.h"
#include "support/log_capture.h"
#include "support/login_daemon.h"
#include "support/private_bus.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QTest>

#include <memory>

/// Runs nothing, and keeps what it was told to run and to stop.
class FakeProcesses
{
public:
    struct Start
    {
        Core::ApplicationTaskId id;
        Core::TaskStartupInfo info;
        Core::InvocationContext context;
    };

    Core::TaskProcesses operations()
    {
        return {
            [this](const Core::ApplicationTaskId &id, const Core::TaskStartupInfo &info,
                   const Core::InvocationContext &context) {
                starts.append({ id, info, context });
                events.append(QStringLiteral("start ") + id.taskName());
                if (onStart) {
                    onStart();
                }
                if (!startError) {
                    running.insert(id.text());
                }
                return startError;
            },
            [this](const Core::ApplicationTaskId &id, Core::StopReason reason) {
                events.append(QStringLiteral("stop ") + id.taskName());
                stopReasons.append(reason);
                if (!stopError && !running.contains(id.text())) {
                    return Core::Error(Core::Error::NotRunning, QStringLiteral("not running"));
                }
                return stopError;
            },
            [this](const std::function<void()> &callback) { initializationCallbacks.append(callback); },
        };
    }

    QVector<Start> starts;
    QVector<Core::StopReason> stopReasons;
    QVector<std::function<void()>> initializationCallbacks;
    QStringList events; // "start NAME", "stop NAME", and what conditions add
    QSet<QString> running; // whole ids
    Core::Error startError;
    Core::Error stopError;
    std::function<void()> onStart; // while a task is being started
};

/// Says what it hears, and holds when the test says so.
class FakeCondition : public Core::Condition
{
public:
    FakeCondition(QStringList &events, const QString &name)
        : Condition(name)
        , m_events(events)
    {
    }
    void conditionDataLoaded() override { setSatisfied(true); }
    void taskWasTriggered() override { m_events.append(name() + QStringLiteral(" triggered")); }
    void taskRemoved() override { m_events.append(name() + QStringLiteral(" removed")); }
    using Condition::setSatisfied;

private:
    QStringList &m_events;
};

/// A manager without processes, with applications, buses and a settings file of its own.
///
/// There is one in a test program, since the catalogue and the buses belong to the process.
class TaskManagerFixture
{
    TestSupport::PrivateBus m_bus; // goes last

public:
    TaskManagerFixture()
    {
        m_bus.useAsSessionBus();
        m_bus.useAsSystemBus();
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(catalogue.path(QStringLiteral("run"))));
        login = std::make_unique<TestSupport::LoginDaemon>(m_bus);
    }

    ~TaskManagerFixture()
    {
        // What the last test asked the login daemon for has been answered when this is: nothing is left that
        // a search for leaks would find.
        Core::KeepaliveSwitch last;
        last.on();
        QTRY_COMPARE(login->held(), 1);
    }
    Q_DISABLE_COPY(TaskManagerFixture)

    TestSupport::PrivateBus &bus() { return m_bus; }

    /// The application "org.example.<name>" with tasks of all types, and "w1" to "w9", which are workers.
    void install(const QString &name) const
    {
        QByteArray lines = "Exec=/bin/app\n[X-Application]\nOrganizationName=org.example\nApplicationName="
            + name.toUtf8() + '\n';
        const auto addTask = [&lines](const QByteArray &task, const QByteArray &type) {
            lines += "[X-Task " + task + "]\nType=" + type + "\nExec=/bin/task  --go\n"
                + "Permissions=Internet;Audio\n";
        };
        for (const char *type : { "worker", "periodic", "scheduled", "other" }) {
            addTask(type, type);
        }
        addTask("session", "session-start");
        for (char number = '1'; number <= '9'; ++number) {
            addTask(QByteArray("w") + number, "worker");
        }
        addTask("idle", "worker");
        lines += "Conditions=idle;unheardof:of\n";
        addTask("bare", "worker");
        lines.chop(int(qstrlen("Permissions=Internet;Audio\n")));
        catalogue.writeDesktopFile(QStringLiteral("one"), QStringLiteral("org.example.") + name, lines);
        Core::ApplicationRegistry::instance()->reload();
    }
    void uninstall(const QString &name) const
    {
        QFile::remove(catalogue.desktopFile(QStringLiteral("one"), QStringLiteral("org.example.") + name));
        Core::ApplicationRegistry::instance()->reload();
    }
    void setTaskLimit(int limit) const
    {
        catalogue.write(QStringLiteral("root/etc/procwarden/tasks.cfg"),
                        "MaxTasksPerApp=" + QByteArray::number(limit) + '\n');
    }

    /// At the begin of each test: settings without a task, the application "Notes", a limit of 5, a manager.
    void begin()
    {
        settings = std::make_unique<SettingsFixture>();
        settings->write("{}");
        setTaskLimit(5);
        install(QStringLiteral("Notes"));
        processes = std::make_unique<FakeProcesses>();
        makeManager();
    }
    void end()
    {
        manager.reset();
        owner.reset();
        processes.reset();
        settings.reset();
        catalogue.clear();
        QDir(catalogue.path(QStringLiteral("run"))).removeRecursively();
        QTRY_COMPARE(login->held(), 0);
    }

    /// Made anew, as after a restart of the service, which nothing that ran has survived.
    Core::TaskManagerPrivate *makeManager()
    {
        manager.reset();
        owner = std::make_unique<QObject>();
        manager = std::make_unique<Core::TaskManagerPrivate>(owner.get(), processes->operations());
        return manager.get();
    }

    static QString idText(const char *task)
    {
        return QStringLiteral("org.example.Notes.task_") + QLatin1String(task);
    }
    static Core::ApplicationTaskId id(const char *task) { return Core::ApplicationTaskId(idText(task)); }
    static Core::ClientInfo application() { return { false, QStringLiteral("org.example.Notes") }; }
    static Core::ClientInfo privileged() { return { true, QString() }; }

    /// Asks as the task's own application.
    Core::Error start(const char *task, const QVariantMap &hints = {}, const QStringList &params = {},
                      const QStringList &environment = {}) const
    {
        Core::TaskRequest request;
        request.id = id(task);
        request.params = params;
        request.environment = environment;
        request.hints = hints;
        return manager->start(request, application());
    }
    QSharedPointer<Core::TaskRecord> record(const char *task) const
    {
        return manager->records.value(idText(task));
    }
    /// A condition for a task that has been added, which holds.
    FakeCondition *addCondition(const char *task, const QString &name = QStringLiteral("fake")) const
    {
        auto *condition = new FakeCondition(processes->events, name);
        record(task)->watcher.addCondition(condition);
        return condition;
    }
    /// The process of the task has ended.
    void endProcess(const char *task) const
    {
        processes->running.remove(idText(task));
        manager->onTaskTerminated(idText(task));
    }
    QStringList takeEvents() const
    {
        const QStringList events = processes->events;
        processes->events.clear();
        return events;
    }

    /// What the settings hold in memory, of a task or all.
    QStringList storedIds() const { return manager->settings.autostartEntries().keys(); }
    Core::AutostartEntry stored(const char *task) const
    {
        return manager->settings.autostartEntries().value(idText(task));
    }

    const CatalogueFixture catalogue;
    std::unique_ptr<TestSupport::LoginDaemon> login;
    std::unique_ptr<SettingsFixture> settings;
    std::unique_ptr<FakeProcesses> processes;
    std::unique_ptr<QObject> owner;
    std::unique_ptr<Core::TaskManagerPrivate> manager;
};

namespace TestHints {

/// One hint.
inline QVariantMap of(const QString &key, const QVariant &value)
{
    return { { key, value } };
}

/// A worker with this one waits as long as any test.
inline QVariantMap waiting()
{
    return of(Core::TaskHints::startDelay, 3600);
}

} // namespace TestHints
