#pragma once

#include "Core/application_registry.h"
#include "Core/cgroup_controller.h"
#include "Core/error.h"
#include "Core/launching_application.h"

#include "child_fixture.h"
#include "support/bus_stand_in.h"
#include "support/log_capture.h"
#include "support/patience.h"
#include "support/private_bus.h"

#include <QDBusError>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QList>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

// What the tests of launches share: a root directory of their own with control groups in plain directories,
// application files, both buses with the daemons that a launch asks, and programs that tell what they got.

const QString testAppId = QStringLiteral("org.example.Notes");
const QString testPackage = QStringLiteral("notes.v2"); ///< complete base name of the desktop file

/// The sailjail daemon: allows everything and grants what it is told to, unless it holds its answers.
class Sailjaild
{
public:
    explicit Sailjaild(TestSupport::PrivateBus &bus)
        : object(bus, QStringLiteral("org.sailfishos.sailjaild1"),
                 QStringLiteral("/org/sailfishos/sailjaild1"))
    {
        object.setHandler([this](const QDBusMessage &call, const QDBusConnection &) {
            const bool prompt = call.member() == QLatin1String("PromptLaunchPermissions");
            if (!(prompt ? holdsPrompt : holdsAllowed)) {
                answer(call);
            }
        });
    }

    /// Answers a call as the members say, also one that was held.
    void answer(const QDBusMessage &call)
    {
        if (call.member() == QLatin1String("GetAllowed")) {
            object.send(call.createReply(allowed));
        } else if (refusal.isEmpty()) {
            object.send(call.createReply(granted));
        } else {
            object.send(call.createErrorReply(QDBusError::AccessDenied, refusal));
        }
    }

    /// Answers all calls of @p member.
    void answerHeld(const QString &member)
    {
        const QList<QDBusMessage> calls = object.calls();
        for (const QDBusMessage &call : calls) {
            if (call.member() == member) {
                answer(call);
            }
        }
    }

    /// The applications that @p member was called for.
    QStringList asked(const QString &member) const
    {
        QStringList result;
        for (const QDBusMessage &call : object.calls()) {
            if (call.member() == member) {
                result << call.arguments().value(0).toString();
            }
        }
        return result;
    }
    QStringList askedAllowed() const { return asked(QStringLiteral("GetAllowed")); }
    QStringList askedPrompt() const { return asked(QStringLiteral("PromptLaunchPermissions")); }
    void answerAllowed() { answerHeld(QStringLiteral("GetAllowed")); }
    void answerPrompt() { answerHeld(QStringLiteral("PromptLaunchPermissions")); }

    TestSupport::BusStandIn object;
    qint32 allowed = 1;
    QStringList granted;
    QString refusal; ///< message of the prompt's error; empty: no error
    bool holdsAllowed = false;
    bool holdsPrompt = false;
};

/// One call of a launch's callback.
struct Report
{
    QString instanceId;
    pid_t pid;
    int code;
    QString message;

    bool operator==(const Report &other) const
    {
        return instanceId == other.instanceId && pid == other.pid && code == other.code
            && message == other.message;
    }
};

inline char *toString(const Report &report)
{
    return QTest::toString(QStringLiteral("(%1, %2, %3, %4)")
                               .arg(report.instanceId)
                               .arg(report.pid)
                               .arg(report.code)
                               .arg(report.message));
}

inline Report failure(Core::Error::Code code, const QString &message)
{
    return { QString(), -1, code, message };
}

/// To be made once, before the first use of a bus and of the registry.
class LaunchWorld
{
public:
    LaunchWorld()
    {
        qputenv("PROCWARDEN_ROOTFS", root().toUtf8());
        qputenv("XDG_DATA_HOME", path(QStringLiteral("home/data")).toUtf8());
        qputenv("XDG_DATA_DIRS", path(QStringLiteral("data")).toUtf8());
        qputenv("XDG_CONFIG_HOME", path(QStringLiteral("home/config")).toUtf8());
        m_bus.useAsSystemBus();
        m_bus.useAsSessionBus();

        write(QStringLiteral("proc/self/cgroup"), "3:cpu:/\n2:freezer:/\n1:memory:/\n");
        for (const QString &controller : controllers()) {
            QDir().mkpath(groupPath(controller, QString()));
        }
        m_helper =
            std::make_unique<TestSupport::BusStandIn>(m_bus, QStringLiteral("org.kestrix.Procwarden.Helper"),
                                                      QStringLiteral("/org/kestrix/Procwarden/Helper"));
        m_helper->answerWith({ subtree() });
        m_cgroups = std::make_unique<Core::CGroupController>();
        QSignalSpy ready(m_cgroups.get(), &Core::CGroupController::initializationDone);
        if (!ready.wait(patienceMs)) {
            qFatal("no control groups");
        }
    }

    QString root() const { return m_dir.path(); }
    QString path(const QString &relative) const { return root() + QLatin1Char('/') + relative; }
    TestSupport::PrivateBus &bus() { return m_bus; }
    Core::CGroupController *cgroups() { return m_cgroups.get(); }

    static QStringList controllers()
    {
        return { QStringLiteral("cpu"), QStringLiteral("freezer"), QStringLiteral("memory") };
    }

    /// The directory of a group, for example "org.example.Notes/app".
    QString groupPath(const QString &controller, const QString &group) const
    {
        return path(QStringLiteral("sys/fs/cgroup/%1%2/%3").arg(controller, subtree(), group));
    }

    void write(const QString &relative, const QByteArray &content)
    {
        QDir().mkpath(QFileInfo(path(relative)).path());
        QFile file(path(relative));
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
            qFatal("%s: cannot write", qPrintable(relative));
        }
    }

    static QByteArray read(const QString &absolute)
    {
        QFile file(absolute);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    QByteArray readBelow(const QString &relative) const { return read(path(relative)); }

    /// Makes an application known by its desktop file, "data/applications/" + @p package + ".desktop".
    void install(const QByteArray &desktopFile, const QString &package = testPackage)
    {
        write(QStringLiteral("data/applications/%1.desktop").arg(package), desktopFile);
        Core::ApplicationRegistry::instance()->reload();
    }

    /// Takes away all applications and service files.
    void uninstallAll()
    {
        QDir(path(QStringLiteral("data"))).removeRecursively();
        QDir(path(QStringLiteral("home"))).removeRecursively();
        Core::ApplicationRegistry::instance()->reload();
    }

    /// Makes an executable shell script in bin/. @returns its path.
    QString script(const QString &name, const QByteArray &body)
    {
        const QString relative = QLatin1String("bin/") + name;
        write(relative, "#!/bin/sh\n" + body);
        QFile::setPermissions(path(relative),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadOther
                                  | QFile::ExeOther);
        return path(relative);
    }

    /// A program that writes its arguments, a line each, to its own path and ".args", and ends.
    QString recorder(const QString &name = QStringLiteral("recorder"))
    {
        QFile::remove(path(QStringLiteral("bin/%1.args").arg(name)));
        return script(name, "printf '%s\\n' \"$0\" \"$@\" >\"$0.tmp\" && mv \"$0.tmp\" \"$0.args\"\n");
    }

    /// What a recorder wrote; empty if it has not run.
    QStringList recorded(const QString &name = QStringLiteral("recorder")) const
    {
        QStringList lines =
            QString::fromUtf8(readBelow(QStringLiteral("bin/%1.args").arg(name))).split(QLatin1Char('\n'));
        lines.removeLast();
        return lines;
    }

private:
    static QString subtree() { return QStringLiteral("/procwarden/user-%1").arg(::getuid()); }

    QTemporaryDir m_dir;
    TestSupport::PrivateBus m_bus;
    std::unique_ptr<TestSupport::BusStandIn> m_helper;
    std::unique_ptr<Core::CGroupController> m_cgroups;
};

/// The desktop file of the application that the tests start; @p keys go to its main group.
inline QByteArray desktopFile(const QByteArray &keys, const QByteArray &sandboxKeys = QByteArray())
{
    return "[Desktop Entry]\nType=Application\nName=Notes\n" + keys
        + "\n[X-Application]\nOrganizationName=org.example\nApplicationName=Notes\n" + sandboxKeys + '\n';
}

/// Until the end of the scope, no pipe can be made, and so no child. The system's own limit of descriptors
/// would do as well, but sanitizers make pipes, too.
class NoPipes
{
public:
    NoPipes() { inForce = true; }
    ~NoPipes() { inForce = false; }
    NoPipes(const NoPipes &) = delete;
    NoPipes &operator=(const NoPipes &) = delete;

    inline static bool inForce = false;
};

/// The ends of the pipe that was made last.
struct NewestPipe
{
    inline static int readEnd = -1;
    inline static int writeEnd = -1;
};

// In the place of the C library's, in each program that includes this once.
// NOLINTNEXTLINE(misc-definitions-in-headers)
extern "C" int pipe2(int ends[2], int flags) noexcept
{
    if (NoPipes::inForce) {
        errno = EMFILE;
        return -1;
    }
    const int result = static_cast<int>(::syscall(SYS_pipe2, ends, flags));
    NewestPipe::readEnd = ends[0];
    NewestPipe::writeEnd = ends[1];
    return result;
}

/// Whether the child is alive after time enough for one that is not blocked to have ended.
inline bool staysAlive(pid_t pid)
{
    QTest::qWait(100);
    int status = 0;
    return ::waitpid(pid, &status, WNOHANG) == 0;
}

/// Ends what a test left running, so that the next one does not see it. @returns whether there was nothing.
inline bool noChildIsLeft()
{
    bool none = true;
    while (::waitpid(-1, nullptr, WNOHANG) != -1) {
        none = false;
        const QByteArrayList children =
            LaunchWorld::read(QStringLiteral("/proc/self/task/%1/children").arg(::getpid()))
                .simplified()
                .split(' ');
        for (const QByteArray &child : children) {
            if (child.toInt() > 1) {
                ::kill(child.toInt(), SIGKILL);
            }
        }
    }
    return none;
}
