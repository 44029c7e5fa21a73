#include "DBus/task_invoker.h"

#include "Core/error.h"
#include "DBus/keys.h"
#include "DBus/property_notifier.h"
#include "DBus/task_invoker_session.h"
#include "DBus/types.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDebug>
#include <QHash>

namespace DBus {

namespace {

/// Longer than any name on the bus may be. It bounds how deep a path can lie: Qt walks down the paths of its
/// objects by recursion.
constexpr int maximumTypeLength = 255;

template<typename T>
QVariant marshalled(const T &list)
{
    QDBusArgument argument;
    argument << list;
    return QVariant::fromValue(argument);
}

} // namespace

class TaskInvokerPrivate
{
public:
    QHash<QString, TaskInvokerSession *> sessions; // task type -> a child of the invoker, never removed
};

TaskInvoker::TaskInvoker(QObject *parent)
    : Context(parent)
    , d(std::make_unique<TaskInvokerPrivate>())
{
    Procwarden::registerTypes();
}

TaskInvoker::~TaskInvoker() = default;

void TaskInvoker::RegisterInvoker(const QString &taskType, QDBusObjectPath &sessionPath,
                                  QVariantMap &properties)
{
    qDebug() << Q_FUNC_INFO << taskType;
    // There is no object at a path that the bus does not allow, and no message can hold such a path.
    if (taskType.size() <= maximumTypeLength) {
        sessionPath = QDBusObjectPath(TaskInvokerSession::pathOf(taskType));
    }
    if (sessionPath.path().isEmpty()) {
        sendError({ Core::Error::InvalidArgs, QStringLiteral("Task type cannot be part of an object path") });
        return;
    }

    TaskInvokerSession *&session = d->sessions[taskType];
    if (!session) {
        session = new TaskInvokerSession(taskType, this);
        auto bus = connection();
        bus.registerObject(sessionPath.path(), session,
                           QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllProperties);
        new PropertyNotifier(bus, sessionPath.path(), session);
    }
    properties = {
        { Keys::activeTasks, marshalled(session->activeTasks()) },
        { Keys::availableTasks, marshalled(session->availableTasks()) },
    };
}

} // namespace DBus
