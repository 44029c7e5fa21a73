#include "check/installed.h"

#include "check/key_lines.h"
#include "check/reader_log.h"

#include "Core/application_info.h"
#include "Core/regular_file.h"
#include "Core/types.h"

#include <QDir>
#include <QFileInfo>
#include <QMap>
#include <QSettings>
#include <QStandardPaths>

namespace Ctl::Check {

namespace {

/// All files of a directory whose names match, in the order of the names.
QVector<Target> targetsIn(const QString &directory, const QString &pattern, Kind kind)
{
    QVector<Target> targets;
    const QDir dir(directory);
    const QStringList names =
        dir.entryList({ pattern }, QDir::Files | QDir::System | QDir::Hidden, QDir::Name);
    for (const QString &name : names) {
        targets.append({ dir.filePath(name), kind });
    }
    return targets;
}

QStringList serviceDirectories(const QString &name)
{
    return QStandardPaths::locateAll(QStandardPaths::GenericDataLocation,
                                     QStringLiteral("procwarden/") + name, QStandardPaths::LocateDirectory);
}

/// Files at a fixed place, where they are.
QVector<Target> fixedTargets()
{
    QVector<Target> targets;
    const QDir packages(Core::Types::rootFs() + QStringLiteral("/opt/app"));
    const QStringList ids = packages.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    const QString etc = Core::Types::rootFs() + QStringLiteral("/etc/procwarden/");
    const auto add = [&targets](const QString &path, Kind kind) {
        if (QFileInfo::exists(path) || QFileInfo(path).isSymLink()) {
            targets.append({ path, kind });
        }
    };
    for (const QString &id : ids) {
        add(packages.filePath(id + QStringLiteral("/current/manifest.json")), Kind::Manifest);
        add(packages.filePath(id + QStringLiteral("/current/solvane.pkg")), Kind::Package);
    }
    add(etc + QStringLiteral("oom.cfg"), Kind::Oom);
    add(etc + QStringLiteral("tasks.cfg"), Kind::Tasks);
    add(etc + QStringLiteral("os-version-support.cfg"), Kind::Versions);
    return targets;
}

/// Of two files with one id, the later one counts; within a directory their order is not fixed.
QVector<Finding> checkIds(const QVector<Target> &targets)
{
    QVector<Finding> findings;
    QMap<QString, QString> files; // id -> the desktop file that counts so far
    for (const Target &target : targets) {
        const Core::ApplicationInfo info(target.kind == Kind::Desktop ? target.path : QString());
        if (!info.isValid()) {
            continue;
        }
        QString &file = files[info.id().toString()];
        if (!file.isEmpty()) {
            const bool isSameDirectory = QFileInfo(file).path() == QFileInfo(target.path).path();
            Report report(file);
            report.add(Rule::DuplicateId,
                       (isSameDirectory
                            ? QStringLiteral("%1 has the same id, %2, and only one of both counts")
                            : QStringLiteral("%1 has the same id, %2, and counts in its place"))
                           .arg(target.path, info.id().toString()));
            findings += report.findings();
        }
        file = target.path;
    }
    return findings;
}

/// The directory that is most local hides all others.
QVector<Finding> checkIntentDirectories(const QVector<Target> &targets)
{
    QVector<Finding> findings;
    const QString counting = serviceDirectories(QStringLiteral("intents")).value(0);
    for (const Target &target : targets) {
        if (target.kind == Kind::Intent && QFileInfo(target.path).path() != QDir(counting).path()) {
            Report report(target.path);
            report.add(Rule::HiddenDirectory,
                       QStringLiteral("is not read, since there is the directory ") + counting);
            findings += report.findings();
        }
    }
    return findings;
}

/// What the state files say together: settings of each state, and its delay.
class StateFiles
{
public:
    void add(const QString &path)
    {
        QByteArray content;
        if (Core::readRegularFile(path, content) != 0) {
            return;
        }
        const QString state = QFileInfo(path).baseName();
        const KeyLines lines = KeyLines::ofSettings(content);
        const QSettings file(path, QSettings::IniFormat);
        for (const KeyLine &line : lines.keys) {
            if (line.group == QLatin1String("Backend settings")
                && line.key.startsWith(QLatin1String("cgroup1."))) {
                addSetting(state, line, path);
            }
        }
        const auto before = m_delays.constFind(state);
        const int delay = file.value(QStringLiteral("ApplyWithDelay"), 0).toInt();
        if (before != m_delays.cend() && before->value != delay) {
            report(before->file, Rule::Overridden, lines,
                   QStringLiteral("the delay of this state comes from %1, and is %2")
                       .arg(path)
                       .arg(qMax(0, delay)));
        }
        m_delays.insert(state, { path, delay });
    }

    QVector<Finding> check()
    {
        const QStringList states { QStringLiteral("active"), QStringLiteral("inactive"),
                                   QStringLiteral("hidden") };
        QMap<QString, QString> files; // control file -> a state that sets it
        for (const QString &state : states) {
            const QStringList keys = m_settings.value(state).keys();
            for (const QString &key : keys) {
                files.insert(key, state);
            }
        }
        for (const QString &state : states) {
            if (m_delays.contains(state)) {
                checkState(state, files);
            }
        }
        return m_findings;
    }

private:
    struct Delay
    {
        QString file;
        int value = 0; ///< ms
    };

    void addSetting(const QString &state, const KeyLine &line, const QString &path)
    {
        const QString before = m_settings[state].value(line.key);
        if (!before.isEmpty() && before != path) {
            Report found(before);
            QByteArray content;
            (void)Core::readRegularFile(before, content);
            found.add(Rule::Overridden,
                      { KeyLines::ofSettings(content).lineOf(line.group, line.key), line.group, line.key },
                      QStringLiteral("%1 does not count here, but in %2").arg(line.key, path));
            m_findings += found.findings();
        }
        m_settings[state].insert(line.key, path);
    }

    void report(const QString &file, Rule rule, const KeyLines &lines, const QString &text)
    {
        Report found(file);
        found.add(rule, { lines.lineOf(QString(), QStringLiteral("ApplyWithDelay")) }, text);
        m_findings += found.findings();
    }

    void checkState(const QString &state, const QMap<QString, QString> &files)
    {
        const Delay &delay = m_delays[state];
        const QString active = QStringLiteral("active");
        Report found(delay.file);
        if (m_delays.contains(active) && m_delays.value(active).value != delay.value) {
            found.add(
                Rule::StateDelay,
                QStringLiteral("the delay is %1, and %2 in the state active: an application can be frozen on "
                               "the screen, or be late to come back")
                    .arg(delay.value)
                    .arg(m_delays.value(active).value));
        }
        for (auto file = files.cbegin(); file != files.cend(); ++file) {
            if (!m_settings.value(state).contains(file.key())) {
                found.add(Rule::StateFiles,
                          QStringLiteral("%1 is not set, but in the state %2: what that has written stays")
                              .arg(file.key(), file.value()));
            }
        }
        m_findings += found.findings();
    }

    QMap<QString, QMap<QString, QString>> m_settings; ///< state -> key -> the file that counts
    QMap<QString, Delay> m_delays; ///< state -> of the file that counts
    QVector<Finding> m_findings;
};

} // namespace

QVector<Target> installedTargets()
{
    QVector<Target> targets;
    const QStringList applications = QStandardPaths::standardLocations(QStandardPaths::ApplicationsLocation);
    for (const QString &directory : applications) {
        targets += targetsIn(directory, QStringLiteral("*.desktop"), Kind::Desktop);
    }
    const QStringList states = serviceDirectories(QStringLiteral("states"));
    for (const QString &directory : states) {
        targets += targetsIn(directory, QStringLiteral("*.config"), Kind::State);
    }
    const QStringList intents = serviceDirectories(QStringLiteral("intents"));
    for (const QString &directory : intents) {
        targets += targetsIn(directory, QStringLiteral("*.intent"), Kind::Intent);
    }
    return targets + fixedTargets();
}

QVector<Finding> checkTogether(const QVector<Target> &targets)
{
    const ReaderLog log;
    StateFiles states;
    for (const Target &target : targets) {
        if (target.kind == Kind::State) {
            states.add(target.path);
        }
    }
    return checkIds(targets) + checkIntentDirectories(targets) + states.check();
}

} // namespace Ctl::Check
