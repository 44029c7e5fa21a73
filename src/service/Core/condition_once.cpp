#include "Core/condition_once.h"

#include "Core/application_id.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

namespace Core {

class ConditionOncePrivate
{
public:
    QString sentinel; ///< path of the file whose presence says that the task has been started
};

ConditionOnce::ConditionOnce(const ApplicationInfo::TaskInfo &task, QObject *parent)
    : Condition(QStringLiteral("once"), parent)
    , d(new ConditionOncePrivate)
{
    d->sentinel = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation)
        + QStringLiteral("/applications/%1/%2.launched").arg(task.id.toString(), task.id.taskName());
    setSatisfied(!QFile::exists(d->sentinel));
}

ConditionOnce::~ConditionOnce() = default;

void ConditionOnce::taskWasTriggered()
{
    QDir().mkpath(QFileInfo(d->sentinel).path());
    QFile file(d->sentinel);
    if (!file.open(QIODevice::WriteOnly)) {
        qWarning() << "Cannot create sentinel file" << d->sentinel;
    }
    setSatisfied(false);
}

} // namespace Core
