#pragma once

#include "Core/runtime_controller.h"
#include "Core/task_startup_info.h"

#include "runtime_surroundings.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTest>

#include <algorithm>
#include <memory>
#include <vector>

/// What a start reported.
struct StartOutcome
{
    bool reported = false;
    Core::ApplicationInstanceId id;
    Core::Error error;
};

/// The controller of the process with applications and tasks that are real.
///
/// To be made once, before the first use of a bus; cleanUp() after each test.
class ControllerFixture : public RuntimeSurroundings
{
public:
    ControllerFixture()
        : RuntimeSurroundings("300")
    {
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(path(QStringLiteral("runtime"))));
        m_permissions.setHandler([this](const QDBusMessage &call, const QDBusConnection &connection) {
            if (holdAnswers) {
                m_held.append(call);
            } else {
                connection.send(call.createReply(1));
            }
        });

        writeState("active", "cgroup1.freezer.state=ACTIVE\n");
        writeState("inactive", "cgroup1.freezer.state=INACTIVE\n");
        writeState("hidden", "cgroup1.freezer.state=HIDDEN\n", "ApplyWithDelay=50\n");
        writeState("background", "cgroup1.cpu.shares=128\ncgroup1.memory.soft=7\nother.cpu.shares=9\n");

        m_tree.makeDirectory(QStringLiteral("runtime"));
        QFile::setPermissions(path(QStringLiteral("runtime")),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        for (const char *program : { "sleep", "sh", "true" }) {
            m_tree.link(QLatin1String("usr/bin/") + QLatin1String(program),
                        QLatin1String("/bin/") + QLatin1String(program));
        }
        // The shell keeps running when its own group is asked to end, and so does what it waits for.
        m_tree.write(QStringLiteral("stubborn"),
                     "trap '' TERM\n: >\"$0.ready\"\nwhile :; do sleep 600; done\n");
    }

    Core::RuntimeController *controller() const { return Core::RuntimeController::instance(); }

    /// An application that runs outside the sandbox.
    void install(const QString &id, const QByteArray &keys)
    {
        const Core::ApplicationId appId(id);
        m_tree.write(QStringLiteral("usr/share/applications/%1.desktop").arg(id),
                     "[Desktop Entry]\nType=Application\nName=App\n" + keys
                         + "[X-Application]\nSandboxing=Disabled\nOrganizationName="
                         + appId.organisation().toUtf8() + "\nApplicationName=" + appId.name().toUtf8()
                         + "\n");
    }

    /// One that ignores SIGTERM once stubbornIsReady().
    QByteArray stubbornCommand() const
    {
        return "/bin/sh " + QFile::encodeName(path(QStringLiteral("stubborn")));
    }
    bool stubbornIsReady() const { return QFile::exists(path(QStringLiteral("stubborn.ready"))); }

    StartOutcome *start(const QString &id,
                        Core::InvocationContext::StartReason reason = Core::InvocationContext::DirectStart)
    {
        Core::InvocationContext context;
        context.reason = reason;
        m_outcomes.push_back(std::make_unique<StartOutcome>());
        StartOutcome *outcome = m_outcomes.back().get();
        controller()->startApplication(
            Core::ApplicationId(id), {}, {}, context,
            [outcome](const Core::ApplicationInstanceId &instanceId, const Core::Error &error) {
                outcome->reported = true;
                outcome->id = instanceId;
                outcome->error = error;
            });
        return outcome;
    }

    Core::ApplicationInstanceId startAndWait(const QString &id)
    {
        const StartOutcome *outcome = start(id);
        [outcome] {
            QTRY_VERIFY(outcome->reported);
        }();
        [outcome] {
            QVERIFY2(!outcome->error, qPrintable(outcome->error.message()));
        }();
        return outcome->id;
    }

    /// Starts a task, which runs when it returns; waits for the control groups before.
    /// @returns its pid; 0 on failure.
    pid_t startTask(const QString &id, const Core::TaskStartupInfo &info = sleeper())
    {
        waitForGroups();
        const Core::ApplicationTaskId taskId(id);
        const Core::Error error = controller()->startTask(taskId, info, {});
        if (error) {
            qWarning("%s: %s", qPrintable(id), qPrintable(error.message()));
            return 0;
        }
        return controller()->taskRecord(taskId).pid;
    }

    void waitForGroups() const
    {
        bool ready = false;
        controller()->whenInitialized([&ready] { ready = true; });
        QTRY_VERIFY(ready);
    }

    static Core::TaskStartupInfo running(const QStringList &command)
    {
        Core::TaskStartupInfo info;
        info.command = command;
        return info;
    }
    static Core::TaskStartupInfo sleeper()
    {
        return running({ QStringLiteral("sleep"), QStringLiteral("600") });
    }
    Core::TaskStartupInfo stubborn() const
    {
        return running({ QStringLiteral("sh"), path(QStringLiteral("stubborn")) });
    }

    QString groupOf(const QString &controllerName, const QString &id) const
    {
        return m_tree.group(controllerName + subtree() + QLatin1Char('/') + id);
    }
    QByteArray readGroup(const QString &controllerName, const QString &file) const
    {
        return m_tree.read(controllerName + subtree() + QLatin1Char('/') + file);
    }

    void answerHeld()
    {
        for (const QDBusMessage &call : qAsConst(m_held)) {
            m_permissions.send(call.createReply(1));
        }
        m_held.clear();
    }
    int held() const { return m_held.size(); }

    /// Ends all that runs.
    void cleanUp()
    {
        holdAnswers = false;
        answerHeld();
        QTRY_VERIFY(std::all_of(m_outcomes.cbegin(), m_outcomes.cend(),
                                [](const auto &outcome) { return outcome->reported; }));
        controller()->killAll();
        QTRY_VERIFY(controller()->runningApplications().isEmpty() && controller()->runningTasks().isEmpty());
        m_outcomes.clear();
        QFile::remove(path(QStringLiteral("stubborn.ready")));
        for (const QString &name : controllers()) {
            QDir(m_tree.group(name + subtree())).removeRecursively();
        }
        m_tree.addHierarchies(controllers(), subtree());
    }

    bool holdAnswers = false; ///< of the permission daemon

private:
    QList<QDBusMessage> m_held;
    std::vector<std::unique_ptr<StartOutcome>> m_outcomes;
};
