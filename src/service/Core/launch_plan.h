#pragma once

#include <QList>
#include <QMap>
#include <QMetaType>
#include <QString>
#include <QStringList>

class QDBusArgument;

namespace Core {

class ApplicationId;

/// One thing that a start depends on.
struct LaunchCheck
{
    QString name;
    bool passed = false;
    QString text;
};

/// What the start of an application would do, found out without starting anything.
///
/// The permission daemon is not asked: the permissions are those that the desktop file declares.
struct LaunchPlan
{
    QString program;
    QStringList arguments; ///< the complete command line; as far as it could be composed
    QStringList environment; ///< with "PID" in the instance id where several instances may run
    QMap<QString, QList<uint>> counts; ///< name -> count and limit
    QList<LaunchCheck> checks; ///< in their order; what depends on a failed one is left out

    [[nodiscard]] static LaunchPlan make(const ApplicationId &appId);
};

QDBusArgument &operator<<(QDBusArgument &argument, const LaunchCheck &check);
const QDBusArgument &operator>>(const QDBusArgument &argument, LaunchCheck &check);

} // namespace Core

Q_DECLARE_METATYPE(Core::LaunchCheck)
