#include "Core/launch_account.h"

namespace Core {

QString launchStepName(LaunchStep step)
{
    switch (step) {
    case LaunchStep::Asked:
        return QStringLiteral("Asked");
    case LaunchStep::Allowed:
        return QStringLiteral("Allowed");
    case LaunchStep::Prompted:
        return QStringLiteral("Prompted");
    case LaunchStep::Granted:
        return QStringLiteral("Granted");
    case LaunchStep::Prepared:
        return QStringLiteral("Prepared");
    case LaunchStep::Spawned:
        return QStringLiteral("Spawned");
    case LaunchStep::SetUp:
        return QStringLiteral("SetUp");
    case LaunchStep::Grouped:
        return QStringLiteral("Grouped");
    case LaunchStep::Released:
        return QStringLiteral("Released");
    case LaunchStep::NameSeen:
        return QStringLiteral("NameSeen");
    case LaunchStep::FirstWindow:
        return QStringLiteral("FirstWindow");
    }
    return QString();
}

Launch::Launch(const QString &launchedId)
    : id(launchedId)
{
    account.asked = QDateTime::currentDateTimeUtc();
    m_clock.start();
}

void Launch::pass(LaunchStep step)
{
    if (account.failedAt.isEmpty() && !account.stepsMs.contains(step)) {
        account.stepsMs.insert(step, static_cast<qint32>(m_clock.elapsed()));
    }
}

void Launch::fail(LaunchStep step)
{
    if (account.failedAt.isEmpty()) {
        account.failedAt = launchStepName(step);
    }
}

} // namespace Core
