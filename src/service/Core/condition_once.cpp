#include "Core/condition_once.h"

#include "Core/application_id.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <fcntl.h>
#include <unistd.h>

namespace Core {

namespace {

/// The application may write there, too: a FIFO in the file's place would keep the service waiting for a
/// reader, a link would lead to another file. What is there already stays as it is: its presence says all,
/// and it may be another name of a file of the user's.
bool makeFile(const QString &path)
{
    const int fd = ::open(QFile::encodeName(path).constData(),
                          O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
    return fd >= 0 && ::close(fd) == 0;
}

} // namespace

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
    if (!makeFile(d->sentinel)) {
        qWarning() << "Cannot create sentinel file" << d->sentinel;
    }
    setSatisfied(false);
}

} // namespace Core
