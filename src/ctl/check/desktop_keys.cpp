#include "check/desktop_keys.h"

namespace Ctl::Check::DesktopKeys {

namespace {

QStringList words(const char *text)
{
    return QString::fromLatin1(text).split(QLatin1Char(' '));
}

} // namespace

const QStringList &sandboxGroups()
{
    static const QStringList groups = words("X-Application X-Sailjail Sailjail");
    return groups;
}

GroupKind kindOf(const QString &group)
{
    if (group == QLatin1String("Desktop Entry")) {
        return GroupKind::Main;
    }
    if (sandboxGroups().contains(group)) {
        return GroupKind::Sandbox;
    }
    const bool isTask =
        group.startsWith(QLatin1String("X-Task ")) || group.startsWith(QLatin1String("X-Service "));
    return isTask ? GroupKind::Task : GroupKind::Other;
}

const QStringList &keysOf(GroupKind kind)
{
    static const QStringList main =
        words("Exec Name Icon MimeType X-Solvane-Support-Mime-Parents Mode X-Nemo-Single-Instance "
              "X-Solvane-Single-Cover X-Maemo-Service X-Maemo-Object-Path X-Maemo-Method "
              "X-Maemo-Fixed-Args");
    static const QStringList sandbox =
        words("OrganizationName ApplicationName Sandboxing Permissions DataDirectory ExecDBus Intents");
    static const QStringList task = words("Type Exec Permissions Conditions");
    static const QStringList none;
    switch (kind) {
    case GroupKind::Main:
        return main;
    case GroupKind::Sandbox:
        return sandbox;
    case GroupKind::Task:
        return task;
    case GroupKind::Other:
        break;
    }
    return none;
}

const QStringList &standardKeys()
{
    static const QStringList keys =
        words("Type Version GenericName NoDisplay Comment Hidden OnlyShowIn NotShowIn DBusActivatable "
              "TryExec Path Terminal Actions Categories Implements Keywords StartupNotify StartupWMClass "
              "URL PrefersNonDefaultGPU SingleMainWindow Encoding");
    return keys;
}

const QStringList &taskHints()
{
    static const QStringList keys =
        words("Priority RunningTime CPULimit Weight CreateIPCSocket CGroups Autostart StartDelay Interval "
              "Schedule StartTime Months WeekDays Hours Minutes StartDate EndDate");
    return keys;
}

QString withoutLanguage(const QString &key)
{
    return key.section(QLatin1Char('['), 0, 0);
}

QString groupText(GroupKind kind)
{
    switch (kind) {
    case GroupKind::Main:
        return QStringLiteral("[Desktop Entry]");
    case GroupKind::Sandbox:
        return QStringLiteral("[X-Application], [X-Sailjail] or [Sailjail]");
    case GroupKind::Task:
        return QStringLiteral("the group of a task");
    case GroupKind::Other:
        break;
    }
    return QString();
}

} // namespace Ctl::Check::DesktopKeys
