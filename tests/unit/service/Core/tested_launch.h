#pragma once

#include "launch_fixture.h"

#include <QByteArrayList>
#include <QObject>
#include <QPointer>
#include <QtTest>

#include <functional>
#include <memory>

const QByteArrayList sleepArguments { "/bin/sleep", "60" };

/// A launch whose command line is given, and whose inside can be seen.
class TestedLaunch : public Core::LaunchingApplication
{
public:
    TestedLaunch(const Core::LaunchRequest &request, Core::CGroupController *controller,
                 QObject *parent = nullptr)
        : Core::LaunchingApplication(request, controller, parent)
    {
        setCallback([this](const Core::ApplicationInstanceId &id, pid_t process, const Core::Error &error) {
            reports << Report { id.text(), process, error.code(), error.message() };
            if (onReport) {
                const auto run = onReport;
                run();
            }
        });
    }

    bool prepare() override
    {
        spawner.setArguments(arguments);
        return onPrepare ? onPrepare() : true;
    }

    using LaunchingApplication::callback;
    using LaunchingApplication::fail;
    using LaunchingApplication::instanceId;
    using LaunchingApplication::packageName;
    using LaunchingApplication::pendingSteps;
    using LaunchingApplication::promptPermissions;
    using LaunchingApplication::references;
    using LaunchingApplication::spawner;
    using LaunchingApplication::stderrFile;
    using LaunchingApplication::stdoutFile;
    using LaunchingApplication::stepDone;

    QByteArrayList arguments;
    std::function<bool()> onPrepare;
    std::function<void()> onReport;
    inline static QList<Report> reports; ///< of all launches
};

/// What the tests of such launches share: the world, and for each of them a daemon, the log, a request for
/// the application that is installed, and a recorder to run.
class LaunchTest : public QObject
{
protected:
    void makeWorld(const QByteArray &keys)
    {
        m_world = std::make_unique<LaunchWorld>();
        m_world->install(desktopFile(keys));
    }

    void begin()
    {
        m_sailjaild = std::make_unique<Sailjaild>(m_world->bus());
        m_log = std::make_unique<TestSupport::LogCapture>();
        m_request = {};
        m_request.appId = Core::ApplicationId(testAppId);
        m_recorder = m_world->recorder().toUtf8();
        TestedLaunch::reports.clear();
    }
    void end()
    {
        m_log.reset();
        m_sailjaild.reset();
        QVERIFY(noChildIsLeft());
    }

    TestedLaunch *make(const QByteArrayList &arguments = sleepArguments, QObject *parent = nullptr)
    {
        auto *launch = new TestedLaunch(m_request, m_world->cgroups(), parent);
        launch->arguments = arguments;
        return launch;
    }

    static void verifyEnded(pid_t pid, int exitStatus)
    {
        const int status = waitForChild(pid);
        QVERIFY2(WIFEXITED(status), qPrintable(QString::number(status)));
        QCOMPARE(WEXITSTATUS(status), exitStatus);
    }

    std::unique_ptr<LaunchWorld> m_world;
    std::unique_ptr<Sailjaild> m_sailjaild;
    std::unique_ptr<TestSupport::LogCapture> m_log;
    Core::LaunchRequest m_request;
    QByteArray m_recorder;
};
