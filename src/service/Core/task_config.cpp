#include "Core/task_config.h"

#include "Core/regular_file.h"
#include "Core/types.h"

#include <QSettings>

namespace Core {

namespace {

constexpr qint32 defaultMaxTasksPerApp = 5; // several kinds of work, and no way to fill the memory with them

qint32 readMaxTasksPerApp()
{
    const QString path = Types::rootFs() + QStringLiteral("/etc/procwarden/tasks.cfg");
    if (!isRegularFile(path)) {
        return defaultMaxTasksPerApp;
    }
    const QSettings settings(path, QSettings::IniFormat);
    bool ok = false;
    // As a text, since a variant cuts a number that is too large for an int.
    const qint32 value = settings.value(QStringLiteral("MaxTasksPerApp")).toString().toInt(&ok);
    return ok ? value : defaultMaxTasksPerApp;
}

} // namespace

TaskConfig::TaskConfig()
    : m_maxTasksPerApp(readMaxTasksPerApp())
{
}

TaskConfig::~TaskConfig() = default;

} // namespace Core
