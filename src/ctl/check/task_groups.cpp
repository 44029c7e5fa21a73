#include "check/command_lines.h"
#include "check/desktop_keys.h"
#include "check/desktop_subject.h"
#include "check/spelling.h"

#include "Core/task_config.h"

#include <QMap>

namespace Ctl::Check {

namespace {

QString taskNameOf(const QString &group)
{
    return group.section(QLatin1Char(' '), 1);
}

void checkType(const DesktopSubject &subject, const QString &group, const QString &type)
{
    static const QStringList types { QStringLiteral("worker"), QStringLiteral("periodic"),
                                     QStringLiteral("scheduled"), QStringLiteral("session-start") };
    if (!types.contains(type)) {
        subject.report.add(
            Rule::TaskType, subject.place(group, QStringLiteral("Type")),
            (type.isEmpty()
                 ? QStringLiteral("there is no Type")
                 : QStringLiteral("there is no type \"%1\"%2").arg(type, didYouMean(closest(type, types))))
                + QStringLiteral(": the task runs when its conditions hold, for 60 seconds unless its "
                                 "request says otherwise"));
    }
}

void checkCondition(const DesktopSubject &subject, const QString &condition, const Place &place)
{
    static const QStringList names { QStringLiteral("idle"), QStringLiteral("charging"),
                                     QStringLiteral("battery-not-low"), QStringLiteral("internet") };
    static const QStringList networks { QStringLiteral("wifi"), QStringLiteral("ethernet"),
                                        QStringLiteral("wifi-or-ethernet"), QStringLiteral("cellular") };
    const QString name = condition.section(QLatin1Char(':'), 0, 0);
    const QString parameter = condition.section(QLatin1Char(':'), 1, 1);
    const auto add = [&](const QString &text) {
        subject.report.add(Rule::TaskCondition, place, text);
    };
    if (!names.contains(name)) {
        add(QStringLiteral("there is no condition \"%1\"%2: the task runs without it")
                .arg(name, didYouMean(closest(name, names))));
    } else if (name != QLatin1String("internet") && condition.contains(QLatin1Char(':'))) {
        add(QStringLiteral("%1 takes no parameter: what follows the colon is dropped").arg(name));
    } else if (condition.count(QLatin1Char(':')) > 1) {
        add(QStringLiteral("what follows the second colon of \"%1\" is dropped").arg(condition));
    } else if (!parameter.isEmpty() && !networks.contains(parameter)) {
        add(QStringLiteral("there is no kind of network \"%1\"%2: any network will do")
                .arg(parameter, didYouMean(closest(parameter, networks))));
    }
}

void checkTask(const DesktopSubject &subject, const Core::ApplicationInfo::TaskInfo &task,
               const QString &group)
{
    const QString execKey = QStringLiteral("Exec");
    checkType(subject, group, task.type);
    for (const char *key : { "Permissions", "Conditions" }) {
        subject.checkList(subject.entry.value(group, QLatin1String(key)),
                          subject.place(group, QLatin1String(key)));
    }
    subject.checkPermissions(task.permissions, QStringLiteral("BaseTask"),
                             subject.place(group, QStringLiteral("Permissions")));
    for (const QString &condition : task.conditions) {
        checkCondition(subject, condition, subject.place(group, QStringLiteral("Conditions")));
    }
    const Place place = subject.place(group, execKey);
    if (subject.entry.value(group, execKey).isEmpty()) {
        if (task.exec.isEmpty()) {
            subject.report.add(
                Rule::ExecMissing, place,
                QStringLiteral("neither the task nor the application has an Exec: the task cannot "
                               "be started"));
            return;
        }
        subject.report.add(Rule::TaskExec, place,
                           QStringLiteral("there is no Exec: the task runs the application's own, ")
                               + task.exec);
        // What else there is to say stands beside the application's line.
        checkFieldCodes({ task.exec, place, true, false }, subject.report);
        if (!subject.info.launchData().sandboxed) {
            checkTaskProgram(subject.info, task, place, subject.report);
        }
        return;
    }
    checkWords({ task.exec, place, true, false }, subject.report);
    checkTaskProgram(subject.info, task, place, subject.report);
}

void checkLimit(const DesktopSubject &subject)
{
    const int limit = Core::TaskConfig().maxTasksPerApp();
    const int count = subject.info.tasks().size();
    if (limit >= 0 && count > limit) {
        subject.report.add(
            Rule::TaskLimit,
            QStringLiteral("there are %1 tasks; an application may have %2 at a time (see tasks.cfg)")
                .arg(count)
                .arg(limit));
    }
}

} // namespace

void checkTaskGroups(const DesktopSubject &subject)
{
    QMap<QString, QString> groups; // name of a task -> the group that declares it
    const QStringList all = subject.entry.groups();
    for (const QString &group : all) {
        if (DesktopKeys::kindOf(group) != DesktopKeys::GroupKind::Task) {
            continue;
        }
        const QString name = taskNameOf(group);
        if (!subject.info.tasks().contains(name)) {
            subject.report.add(
                Rule::TaskName, subject.place(group),
                QStringLiteral("the task \"%1\" is skipped: a name has 1 to 64 ASCII letters and "
                               "digits, and begins with a letter")
                    .arg(name));
            continue;
        }
        if (groups.contains(name)) {
            subject.report.add(
                Rule::TaskTwice, subject.place(group),
                QStringLiteral("[%1] declares the same task, and does not count").arg(groups.value(name)));
        }
        groups.insert(name, group);
    }
    for (auto group = groups.cbegin(); group != groups.cend(); ++group) {
        checkTask(subject, subject.info.tasks().value(group.key()), group.value());
    }
    checkLimit(subject);
}

} // namespace Ctl::Check
