#include "Core/task_manager.h"

#include "Core/task_config.h"
#include "Core/user_settings.h"

namespace Core {

class TaskManagerPrivate
{
public:
    UserSettings settings;
    TaskConfig config;
};

TaskManager *TaskManager::instance()
{
    static auto *manager = new TaskManager;
    return manager;
}

TaskManager::TaskManager(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<TaskManagerPrivate>())
{
}

TaskManager::~TaskManager() = default;

void TaskManager::initialize() { }

Error TaskManager::start(const ApplicationTaskId &taskId, const QStringList &, const QStringList &,
                         const QVariantMap &, const ClientInfo &)
{
    return Error(Error::TaskNotFound, QStringLiteral("No such task: %1").arg(taskId.text()));
}

Error TaskManager::stop(const ApplicationTaskId &, bool, const ClientInfo &)
{
    return {};
}

} // namespace Core
