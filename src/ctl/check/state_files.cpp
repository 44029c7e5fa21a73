#include "check/settings_file.h"

#include "check/settings_subject.h"
#include "check/spelling.h"

#include <QFileInfo>

namespace Ctl::Check {

namespace {

const QString &settingsGroup()
{
    static const QString name = QStringLiteral("Backend settings");
    return name;
}

const QString &delayKey()
{
    static const QString name = QStringLiteral("ApplyWithDelay");
    return name;
}

/// What a control file takes, as far as it is known.
QString valueFault(const QString &file, const QString &value)
{
    struct Range
    {
        const char *file;
        int least;
        int most;
    };
    static const Range ranges[] = { { "cpu.shares", 2, 262144 }, { "memory.swappiness", 0, 100 } };
    for (const Range &range : ranges) {
        bool isNumber = false;
        const int number = value.toInt(&isNumber);
        if (file == QLatin1String(range.file) && (!isNumber || number < range.least || number > range.most)) {
            return QStringLiteral("a number from %1 to %2").arg(range.least).arg(range.most);
        }
    }
    const bool isState = value == QLatin1String("THAWED") || value == QLatin1String("FROZEN");
    return file == QLatin1String("freezer.state") && !isState ? QStringLiteral("THAWED or FROZEN")
                                                              : QString();
}

void checkSetting(const SettingsSubject &subject, const QString &key, const QString &state)
{
    static const QStringList usual { QStringLiteral("cpu.shares"), QStringLiteral("freezer.state"),
                                     QStringLiteral("memory.swappiness") };
    const auto add = [&](Rule rule, const QString &text) {
        subject.add(rule, settingsGroup(), key, text);
    };
    const int dot = key.indexOf(QLatin1Char('.'));
    if (dot < 0) {
        add(Rule::StateKey, QStringLiteral("%1 is skipped: a setting is BACKEND.FILE").arg(key));
        return;
    }
    const QString backend = key.left(dot);
    const QString file = key.mid(dot + 1);
    if (backend != QLatin1String("cgroup1")) {
        add(Rule::StateBackend,
            QStringLiteral("there is no backend \"%1\", only \"cgroup1\": %2 has no effect")
                .arg(backend, key));
        return;
    }
    if (!file.contains(QLatin1Char('.')) || file.contains(QLatin1Char('/'))) {
        add(Rule::StateKey, QStringLiteral("%1 names no control file, which is HIERARCHY.NAME").arg(key));
        return;
    }
    const QVariant value = subject.value(settingsGroup(), key);
    if (value.type() == QVariant::StringList || value.type() == QVariant::List) {
        add(Rule::CutValue,
            QStringLiteral("a value with a comma must stand in double quotes: nothing is written to "
                           "%1")
                .arg(file));
        return;
    }
    if (!usual.contains(file)) {
        add(Rule::StateFile,
            QStringLiteral("%1 is not among the usual control files%2: where there is none, each "
                           "change of state is warned about")
                .arg(file, didYouMean(closest(file, usual))));
    }
    const QString wanted = valueFault(file, value.toString());
    if (!wanted.isEmpty()) {
        add(Rule::StateValue,
            QStringLiteral("%1 does not take \"%2\": it takes %3").arg(file, value.toString(), wanted));
    }
    if (state == QLatin1String("background") && file == QLatin1String("freezer.state")) {
        add(Rule::StateFreezer,
            QStringLiteral("tasks are never frozen, nor thawed: leave freezer.state out of "
                           "background"));
    }
}

void checkFreezer(const SettingsSubject &subject, const QString &state)
{
    const QString key = QStringLiteral("cgroup1.freezer.state");
    const QString value = subject.value(settingsGroup(), key).toString();
    if ((state == QLatin1String("active") || state == QLatin1String("inactive"))
        && value == QLatin1String("FROZEN")) {
        subject.add(
            Rule::StateFreezer, settingsGroup(), key,
            QStringLiteral("an application in the state %1 can be seen, and must not be frozen").arg(state));
    }
}

void checkDelay(const SettingsSubject &subject, const QString &state)
{
    const QVariant value = subject.value(QString(), delayKey());
    if (!value.isValid()) {
        return;
    }
    bool isNumber = false;
    const int number = value.toString().toInt(&isNumber);
    const auto add = [&subject](Rule rule, const QString &text) {
        subject.add(rule, QString(), delayKey(), text);
    };
    if (!isNumber) {
        add(Rule::Number,
            QStringLiteral("%1=%2 is no whole number: it is %3")
                .arg(delayKey(), value.toString())
                .arg(qMax(0, value.toInt())));
    } else if (number < 0) {
        add(Rule::Number, QStringLiteral("%1=%2: a negative delay is 0").arg(delayKey()).arg(number));
    } else if (number > 0 && state == QLatin1String("background")) {
        add(Rule::StateDelay,
            QStringLiteral("%1 has no effect: the settings of a task are written at its start")
                .arg(delayKey()));
    }
}

} // namespace

void checkStateFile(const QString &path, Report &report)
{
    static const QStringList states { QStringLiteral("active"), QStringLiteral("inactive"),
                                      QStringLiteral("hidden"), QStringLiteral("background") };
    const QString name = QFileInfo(path).fileName();
    const QString state = QFileInfo(path).baseName();
    const SettingsSubject subject(path, report);
    if (!subject.isRead()) {
        return;
    }
    if (!name.endsWith(QLatin1String(".config")) || name.startsWith(QLatin1Char('.'))) {
        report.add(Rule::FileName, QStringLiteral("only files STATE.config are read, and no hidden ones"));
    } else if (!states.contains(state)) {
        report.add(Rule::UnknownState,
                   QStringLiteral("there is no state \"%1\"%2: nothing comes of the file")
                       .arg(state, didYouMean(closest(state, states))));
    } else if (QFileInfo(path).completeBaseName() != state) {
        report.add(
            Rule::FileName,
            QStringLiteral("what follows the first dot does not count: this is another file of the state "
                           "\"%1\"")
                .arg(state));
    }
    subject.checkGroups({ settingsGroup() });
    bool hasSettings = false;
    for (const KeyLine &line : subject.lines().keys) {
        const bool counts = &line == subject.lines().find(line.group, line.key);
        if (!counts || line.key.startsWith(QLatin1Char('#'))) {
            continue;
        }
        const Place place { line.line, line.group, line.key };
        if (line.group == settingsGroup() && line.key != delayKey()) {
            hasSettings = true;
            checkSetting(subject, line.key, state);
        } else if (line.key == delayKey() && !line.group.isEmpty()) {
            report.add(Rule::WrongGroup, place,
                       QStringLiteral("%1 is not read in [%2], but before the first group")
                           .arg(delayKey(), line.group));
        } else if (line.key != delayKey() && closest(line.group, { settingsGroup() }).isEmpty()) {
            // In a group that is nearly the right one, the line of the group is told of.
            const QString near = closest(line.key, { delayKey() });
            report.add(near.isEmpty() ? Rule::WrongGroup : Rule::MisspeltKey, place,
                       near.isEmpty()
                           ? QStringLiteral("%1 is not read here; settings stand in [%2]")
                                 .arg(line.key, settingsGroup())
                           : QStringLiteral("nothing reads the key %1%2").arg(line.key, didYouMean(near)));
        }
    }
    if (!hasSettings) {
        report.add(Rule::StateEmpty,
                   QStringLiteral("there are no settings: what another state has written stays"));
    }
    checkFreezer(subject, state);
    checkDelay(subject, state);
}

} // namespace Ctl::Check
