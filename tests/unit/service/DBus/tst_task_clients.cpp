// What the objects that are about applications make of tasks: as callers, as arguments, and in what they
// list. The caller is this process, and the tracker is told whose it is.

#include "Core/memory_monitor.h"
#include "Core/runtime_tracker.h"
#include "DBus/client_registry.h"
#include "DBus/control.h"
#include "DBus/lifecycle.h"
#include "DBus/memory_pressure.h"
#include "DBus/system_control.h"
#include "DBus/types.h"
#include "DBus/window_management.h"
#include "service/Core/controller_fixture.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>

#include <unistd.h>

using Core::ApplicationId;
using Core::ApplicationState;
using Core::ApplicationTaskId;
using Core::InvocationContext;
using Core::RuntimeController;
using Core::StopReason;

namespace {

const QString app = QStringLiteral("org.example.App");
const QString other = QStringLiteral("org.example.Other");
const QString task = QStringLiteral("org.example.App.task_sync");

const QString notHandled = QStringLiteral("org.kestrix.Procwarden.Error.ProcessNotHandled");
const QString failed = QStringLiteral("org.freedesktop.DBus.Error.Failed");

} // namespace

class tst_TaskClients : public QObject
{
    Q_OBJECT

signals:
    void told();

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void runningTasksAreListedAsServices();
    void requestorIsTheTasksApplication();
    void taskIsStoppedByItsId();
    void tasksAreNotSignalledAsApplications();
    void taskHasNoStateOfAnApplication();
    void taskHasNoWindows();
    void packageManagerWaitsForTasksToo();
    void subscribedTaskHearsOfTheMemory();

private:
    /// From now on this process is one of the application's, or of the task's.
    static void become(const QString &id) { Core::RuntimeTracker::instance()->addProcess(::getpid(), id); }
    std::unique_ptr<QDBusPendingCallWatcher> send(const char *object, const QString &method,
                                                  const QVariantList &arguments = {}) const;
    QDBusMessage call(const char *object, const QString &method, const QVariantList &arguments = {}) const;

    std::unique_ptr<ControllerFixture> m_fixture;
    RuntimeController *m_controller = nullptr;
    QDBusConnection m_client { QString() };
    std::vector<std::unique_ptr<QObject>> m_objects;
    DBus::Control *m_control = nullptr;
};

void tst_TaskClients::initTestCase()
{
    m_fixture = std::make_unique<ControllerFixture>();
    m_fixture->tree().write(QStringLiteral("proc/meminfo"),
                            "MemTotal: 4000000 kB\nMemAvailable: 4000000 kB\n");
    m_fixture->install(app, "Exec=/bin/sleep 600\n");
    m_fixture->install(other, "Exec=/bin/sleep 600\n");
    m_controller = m_fixture->controller();
    m_client = m_fixture->bus().connect();

    const auto add = [this](const char *name, auto object) {
        auto *made = object.get();
        QVERIFY(QDBusConnection::sessionBus().registerObject(QStringLiteral("/org/kestrix/Procwarden/")
                                                                 + QLatin1String(name),
                                                             made, QDBusConnection::ExportAllContents));
        m_objects.push_back(std::move(object));
    };
    auto control = std::make_unique<DBus::Control>();
    m_control = control.get();
    add("Control1", std::move(control));
    add("SystemControl1", std::make_unique<DBus::SystemControl>());
    add("Lifecycle1", std::make_unique<DBus::Lifecycle>());
    add("WindowManagement1", std::make_unique<DBus::WindowManagement>());
    add("MemoryPressure1", std::make_unique<DBus::MemoryPressure>());
}

void tst_TaskClients::init()
{
    become(task);
}

void tst_TaskClients::cleanup()
{
    m_fixture->cleanUp();
}

void tst_TaskClients::cleanupTestCase()
{
    m_objects.clear();
    m_fixture->bus().disconnect(m_client);
}

std::unique_ptr<QDBusPendingCallWatcher> tst_TaskClients::send(const char *object, const QString &method,
                                                               const QVariantList &arguments) const
{
    auto message = QDBusMessage::createMethodCall(
        QDBusConnection::sessionBus().baseService(),
        QStringLiteral("/org/kestrix/Procwarden/") + QLatin1String(object),
        QStringLiteral("org.kestrix.Procwarden.") + QLatin1String(object), method);
    message.setArguments(arguments);
    return std::make_unique<QDBusPendingCallWatcher>(m_client.asyncCall(message));
}

QDBusMessage tst_TaskClients::call(const char *object, const QString &method,
                                   const QVariantList &arguments) const
{
    const auto watcher = send(object, method, arguments);
    QSignalSpy finished(watcher.get(), &QDBusPendingCallWatcher::finished);
    return watcher->isFinished() || finished.wait(20000) ? watcher->reply() : QDBusMessage();
}

void tst_TaskClients::runningTasksAreListedAsServices()
{
    m_fixture->waitForGroups();
    InvocationContext context;
    context.reason = InvocationContext::DBusStart; // other than its number on the wire
    const QStringList ids { QStringLiteral("org.example.Other.task_one"), task,
                            QStringLiteral("org.example.App.task_fetch") };
    for (const QString &id : ids) {
        QVERIFY(!m_controller->startTask(ApplicationTaskId(id), ControllerFixture::sleeper(), context));
    }
    m_fixture->startAndWait(app);

    const QDBusMessage reply = call("Control1", QStringLiteral("GetRunningApplications"));
    QCOMPARE(reply.signature(), QStringLiteral("a(siuua{sv})a(ssiua{sv})"));
    QCOMPARE(qdbus_cast<QVector<Procwarden::RunningApplication>>(reply.arguments().at(0)).size(), 1);
    const auto services = qdbus_cast<QVector<Procwarden::RunningService>>(reply.arguments().at(1));
    QCOMPARE(services.size(), 3);
    const QStringList sorted { ids.at(2), ids.at(1), ids.at(0) };
    for (int i = 0; i < sorted.size(); ++i) {
        const ApplicationTaskId id(sorted.at(i));
        QCOMPARE(services.at(i).appId, id.toString());
        QCOMPARE(services.at(i).taskName, id.taskName());
        QCOMPARE(services.at(i).pid, m_controller->taskRecord(id).pid);
        QCOMPARE(services.at(i).startReason, 6u);
        QCOMPARE(services.at(i).details, QVariantMap());
    }
}

void tst_TaskClients::requestorIsTheTasksApplication()
{
    const QDBusMessage reply = call("Control1", QStringLiteral("Start"), { other });
    QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
    const auto details = qdbus_cast<QVariantMap>(reply.arguments().at(1));
    QCOMPARE(details.value(QStringLiteral("RequestorId")), QVariant(app));
    QCOMPARE(m_controller->applicationRecord(ApplicationId(other)).context.requestor.text(), task);
}

void tst_TaskClients::taskIsStoppedByItsId()
{
    QVERIFY(m_fixture->startTask(task) > 1);
    QSignalSpy ended(m_controller, &RuntimeController::taskTerminated);
    QCOMPARE(call("Control1", QStringLiteral("Terminate"), { task }).type(), QDBusMessage::ReplyMessage);
    QTRY_COMPARE(ended.count(), 1);
    QCOMPARE(ended.at(0).at(3).value<StopReason>(), StopReason::Requested);

    const QDBusMessage second = call("Control1", QStringLiteral("Terminate"), { task });
    QCOMPARE(second.errorName(), failed);
    QCOMPARE(second.errorMessage(), QStringLiteral("Application not running: org.example.App.task_sync"));
}

void tst_TaskClients::tasksAreNotSignalledAsApplications()
{
    QSignalSpy started(m_control, &DBus::Control::Started);
    QSignalSpy changed(m_control, &DBus::Control::StateChanged);
    QSignalSpy terminated(m_control, &DBus::Control::Terminated);
    QSignalSpy ended(m_controller, &RuntimeController::taskTerminated);
    QVERIFY(m_fixture->startTask(task) > 1);
    QVERIFY(!m_controller->terminateTask(ApplicationTaskId(task), StopReason::Requested));
    QTRY_COMPARE(ended.count(), 1);
    QCOMPARE(started.count() + changed.count() + terminated.count(), 0);
}

void tst_TaskClients::taskHasNoStateOfAnApplication()
{
    m_fixture->startAndWait(app);
    QVERIFY(m_fixture->startTask(task) > 1);
    const QDBusMessage reply = call("Lifecycle1", QStringLiteral("GetProperties"));
    QCOMPARE(reply.errorName(), notHandled);
    QCOMPARE(reply.errorMessage(), QStringLiteral("Client not handled by the procwarden"));
    QCOMPARE(DBus::ClientRegistry::instance()->busName(task), m_client.baseService());
    // Its application's own processes are answered.
    become(app);
    QCOMPARE(call("Lifecycle1", QStringLiteral("GetProperties")).type(), QDBusMessage::ReplyMessage);
}

void tst_TaskClients::taskHasNoWindows()
{
    QVERIFY(m_fixture->startTask(task) > 1);
    const QDBusMessage reply =
        call("WindowManagement1", QStringLiteral("UpdateWindowStatus"), { task, 0, 0, 0 });
    QCOMPARE(reply.errorName(), failed);
    QCOMPARE(reply.errorMessage(), QStringLiteral("Not an application ID: org.example.App.task_sync"));
    QCOMPARE(m_controller->state(task), ApplicationState::Launched);
}

void tst_TaskClients::packageManagerWaitsForTasksToo()
{
    QVERIFY(m_fixture->startTask(task) > 1);
    const auto waiting = send("SystemControl1", QStringLiteral("WaitForNotRunning"), { app });
    // What comes back on the same connection later would come behind the answer.
    QCOMPARE(call("SystemControl1", QStringLiteral("PreventLaunch"), { other }).type(),
             QDBusMessage::ReplyMessage);
    QVERIFY(!waiting->isFinished());
    QCOMPARE(call("SystemControl1", QStringLiteral("Terminate"), { app }).type(), QDBusMessage::ReplyMessage);
    QTRY_VERIFY(waiting->isFinished());
    QVERIFY(!waiting->isError());
    QVERIFY(m_controller->runningTasks().isEmpty());
    QCOMPARE(call("SystemControl1", QStringLiteral("AllowLaunch"), { other }).type(),
             QDBusMessage::ReplyMessage);
}

void tst_TaskClients::subscribedTaskHearsOfTheMemory()
{
    QVERIFY(m_fixture->startTask(task) > 1);
    QCOMPARE(call("MemoryPressure1", QStringLiteral("Subscribe")).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(DBus::ClientRegistry::instance()->busName(task), m_client.baseService());
    QVERIFY(m_client.connect(QString(), QStringLiteral("/org/kestrix/Procwarden/MemoryPressure1"),
                             QStringLiteral("org.freedesktop.DBus.Properties"),
                             QStringLiteral("PropertiesChanged"), this, SIGNAL(told())));
    QSignalSpy heard(this, &tst_TaskClients::told);
    emit Core::MemoryMonitor::instance()->levelChanged(Core::MemoryLevel::Low);
    QTRY_COMPARE(heard.count(), 1);
}

QTEST_GUILESS_MAIN(tst_TaskClients)
#include "tst_task_clients.moc"
