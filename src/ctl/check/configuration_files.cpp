#include "check/settings_file.h"

#include "check/settings_subject.h"
#include "check/spelling.h"

#include "Core/application_id.h"

#include <QVersionNumber>

namespace Ctl::Check {

namespace {

constexpr int shortestInterval = 100; // ms; what is below was rather meant as seconds

struct IntervalKey
{
    const char *name;
    int otherwise;
};

void checkIntervals(const SettingsSubject &subject)
{
    static const IntervalKey keys[] = {
        { "CheckIntervalMsec", 5000 },
        { "CheckIntervalMsecLowMem", 2000 },
        { "CheckIntervalMsecCriticalMem", 1000 },
    };
    for (const IntervalKey &key : keys) {
        const QString name = QLatin1String(key.name);
        const QString otherwise = QStringLiteral("the default counts, %1").arg(key.otherwise);
        const std::optional<int> value = subject.number(name, otherwise);
        if (value && *value <= 0) {
            subject.add(Rule::Number, QString(), name,
                        QStringLiteral("%1=%2 is no interval: %3").arg(name).arg(*value).arg(otherwise));
        } else if (value && *value < shortestInterval) {
            subject.add(Rule::Interval, QString(), name,
                        QStringLiteral("%1 is in milliseconds: %2 is very short").arg(name).arg(*value));
        }
    }
    const QString unfreeze = QStringLiteral("NotificationUnfreezeMsec");
    const std::optional<int> value = subject.number(unfreeze, QStringLiteral("the default counts, 5000"));
    if (value && *value <= 0) {
        subject.add(Rule::Number, QString(), unfreeze,
                    QStringLiteral("%1=%2: a hidden application never runs to hear of low memory, and each "
                                   "attempt is warned about")
                        .arg(unfreeze)
                        .arg(*value));
    } else if (value && *value < shortestInterval) {
        subject.add(Rule::Interval, QString(), unfreeze,
                    QStringLiteral("%1 is in milliseconds: %2 is very short").arg(unfreeze).arg(*value));
    }
}

int threshold(const SettingsSubject &subject, const char *key)
{
    const QString name = QLatin1String(key);
    const std::optional<int> value = subject.number(name, QStringLiteral("the threshold is not used"));
    if (value && *value < 0) {
        subject.add(Rule::Number, QString(), name,
                    QStringLiteral("%1=%2: a negative threshold is not used").arg(name).arg(*value));
    }
    return value && *value > 0 ? *value : 0;
}

void checkOrder(const SettingsSubject &subject, const char *lowKey, int low, const char *criticalKey,
                int critical)
{
    if (low > 0 && critical >= low) {
        subject.add(Rule::Thresholds, QString(), QLatin1String(criticalKey),
                    QStringLiteral("%1=%2 is not below %3=%4: memory is critical before it is low")
                        .arg(QLatin1String(criticalKey))
                        .arg(critical)
                        .arg(QLatin1String(lowKey))
                        .arg(low));
    }
}

void checkThresholds(const SettingsSubject &subject)
{
    const int lowPercent = threshold(subject, "LowMemoryTermPercent");
    const int lowMb = threshold(subject, "LowMemoryTermMB");
    const int criticalPercent = threshold(subject, "MinMemoryTermPercent");
    const int criticalMb = threshold(subject, "MinMemoryTermMB");
    checkOrder(subject, "LowMemoryTermPercent", lowPercent, "MinMemoryTermPercent", criticalPercent);
    checkOrder(subject, "LowMemoryTermMB", lowMb, "MinMemoryTermMB", criticalMb);
    for (const auto &[key, value] :
         { std::pair<const char *, int>("LowMemoryTermPercent", lowPercent),
           std::pair<const char *, int>("MinMemoryTermPercent", criticalPercent) }) {
        if (value > 100) {
            subject.add(Rule::Thresholds, QString(), QLatin1String(key),
                        QStringLiteral("%1=%2 is more than all memory: the level always holds")
                            .arg(QLatin1String(key))
                            .arg(value));
        }
    }
    const bool hasLow = lowPercent > 0 || lowMb > 0;
    const bool hasCritical = criticalPercent > 0 || criticalMb > 0;
    if (!hasLow && !hasCritical) {
        subject.report.add(
            Rule::ThresholdsOff,
            QStringLiteral("there is no threshold: memory always counts as enough, and the service "
                           "kills nothing"));
    } else if (!hasCritical) {
        subject.report.add(
            Rule::ThresholdsOff,
            QStringLiteral("there is no threshold of critical memory: the service kills nothing"));
    } else if (!hasLow) {
        subject.report.add(Rule::ThresholdsOff,
                           QStringLiteral("there is no threshold of low memory: nobody is told before it is "
                                          "critical"));
    }
}

/// What of the keys is read, as the reader has it: no star, or "*", or one star at the end, behind a dot.
bool isPattern(const QString &key)
{
    const int star = key.indexOf(QLatin1Char('*'));
    return star < 0 || key == QLatin1String("*")
        || (star == key.size() - 1 && key.endsWith(QLatin1String(".*")));
}

void checkVersion(const SettingsSubject &subject, const QString &group, const QString &key)
{
    const QVariant value = subject.value(group, key);
    if (value.type() == QVariant::StringList || value.type() == QVariant::List) {
        subject.add(
            Rule::CutValue, group, key,
            QStringLiteral("a value with a comma must stand in double quotes: %1 is read as empty").arg(key));
        return;
    }
    const QString text = value.toString().trimmed();
    int end = 0;
    const QVersionNumber version = QVersionNumber::fromString(text, &end);
    const auto add = [&](const QString &fault) {
        subject.add(Rule::Version, group, key, QStringLiteral("%1=%2: %3").arg(key, text, fault));
    };
    if (text.isEmpty()) {
        add(QStringLiteral("an empty value counts as no entry, and hides more general ones"));
    } else if (version.isNull()) {
        add(QStringLiteral("this is no version, and counts as the lowest one"));
    } else if (end < text.size()) {
        add(QStringLiteral("only %1 is read of it").arg(version.toString()));
    } else if (version.segmentCount() < 3) {
        add(QStringLiteral("a version has three numbers: this one lies below %1.0").arg(text));
    }
}

} // namespace

void checkOomConfiguration(const QString &path, Report &report)
{
    const SettingsSubject subject(path, report);
    if (!subject.isRead()) {
        return;
    }
    subject.checkNames(QString(),
                       { QStringLiteral("CheckIntervalMsec"), QStringLiteral("CheckIntervalMsecLowMem"),
                         QStringLiteral("CheckIntervalMsecCriticalMem"),
                         QStringLiteral("NotificationUnfreezeMsec"), QStringLiteral("LowMemoryTermPercent"),
                         QStringLiteral("LowMemoryTermMB"), QStringLiteral("MinMemoryTermPercent"),
                         QStringLiteral("MinMemoryTermMB") });
    checkIntervals(subject);
    checkThresholds(subject);
}

void checkTaskConfiguration(const QString &path, Report &report)
{
    const SettingsSubject subject(path, report);
    if (!subject.isRead()) {
        return;
    }
    const QString key = QStringLiteral("MaxTasksPerApp");
    subject.checkNames(QString(), { key });
    const std::optional<int> limit = subject.number(key, QStringLiteral("the default counts, 5"));
    if (limit && *limit == 0) {
        subject.add(Rule::NoTasks, QString(), key,
                    QStringLiteral("%1=0: no application may have background tasks").arg(key));
    } else if (limit && *limit < 0) {
        subject.add(
            Rule::AnyTasks, QString(), key,
            QStringLiteral("%1=%2: an application may have any number of tasks").arg(key).arg(*limit));
    }
}

void checkVersionOverrides(const QString &path, Report &report)
{
    const SettingsSubject subject(path, report);
    if (!subject.isRead()) {
        return;
    }
    const QString group = QStringLiteral("Applications");
    subject.checkGroups({ group });
    for (const KeyLine &line : subject.lines().keys) {
        if (line.group != group) {
            report.add(Rule::WrongGroup, { line.line, line.group, line.key },
                       QStringLiteral("%1 is not read here, but in [%2]").arg(line.key, group));
            continue;
        }
        if (&line != subject.lines().find(group, line.key) || line.key.startsWith(QLatin1Char('#'))) {
            continue;
        }
        if (!isPattern(line.key)) {
            subject.add(
                Rule::VersionKey, group, line.key,
                QStringLiteral("%1 is skipped: a star can only stand at the end, behind a dot, or alone")
                    .arg(line.key));
            continue;
        }
        if (!line.key.contains(QLatin1Char('*')) && !Core::ApplicationId(line.key).isValid()) {
            subject.add(Rule::VersionKey, group, line.key,
                        QStringLiteral("%1 is no id of an application").arg(line.key));
        }
        checkVersion(subject, group, line.key);
    }
}

void checkPackageFile(const QString &path, Report &report)
{
    const SettingsSubject subject(path, report);
    if (!subject.isRead()) {
        return;
    }
    const QString group = QStringLiteral("certificate");
    const QString key = QStringLiteral("id");
    for (const GroupLine &line : subject.lines().groups) {
        const QString near = closest(line.name, { group });
        if (!near.isEmpty()) {
            report.add(Rule::MisspeltGroup, { line.line, line.name },
                       QStringLiteral("nothing reads the group [%1]%2").arg(line.name, didYouMean(near)));
        }
    }
    if (subject.value(group, key).toStringList().join(QLatin1Char(',')).isEmpty()) {
        report.add(
            Rule::Certificate, subject.place(group, key),
            QStringLiteral("there is no id in [certificate]: the application counts as signed by the same "
                           "hand as all others without one"));
    }
}

} // namespace Ctl::Check
