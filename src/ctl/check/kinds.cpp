#include "check/kinds.h"

#include "check/desktop_file.h"
#include "check/key_lines.h"
#include "check/reader_log.h"

#include "Core/application_info.h"
#include "Core/regular_file.h"
#include "Core/types.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

#include <algorithm>

namespace Ctl::Check {

namespace {

struct KindInfo
{
    Kind kind;
    const char *name;
    const char *pattern; ///< of the file's name
    void (*check)(const QString &path, Report &report);
};

const QVector<KindInfo> &kinds()
{
    static const QVector<KindInfo> all = {
        { Kind::Desktop, "desktop", "*.desktop", checkDesktopFile },
    };
    return all;
}

const KindInfo &infoOf(Kind kind)
{
    return *std::find_if(kinds().cbegin(), kinds().cend(),
                         [kind](const KindInfo &info) { return info.kind == kind; });
}

std::optional<Kind> kindOfContent(const QString &path)
{
    QByteArray content;
    if (Core::readRegularFile(path, content) != 0) {
        return std::nullopt;
    }
    if (KeyLines::ofDesktopFile(content).hasGroup(QStringLiteral("Desktop Entry"))) {
        return Kind::Desktop;
    }
    return std::nullopt;
}

/// All files of a directory whose names match, in the order of the names.
QVector<Target> targetsIn(const QString &directory, Kind kind)
{
    QVector<Target> targets;
    const QDir dir(directory);
    const QStringList names = dir.entryList({ QLatin1String(infoOf(kind).pattern) },
                                            QDir::Files | QDir::System | QDir::Hidden, QDir::Name);
    for (const QString &name : names) {
        targets.append({ dir.filePath(name), kind });
    }
    return targets;
}

} // namespace

QString kindName(Kind kind)
{
    return QLatin1String(infoOf(kind).name);
}

QStringList kindNames()
{
    QStringList names;
    for (const KindInfo &info : kinds()) {
        names.append(QLatin1String(info.name));
    }
    return names;
}

std::optional<Kind> kindOfName(const QString &name)
{
    for (const KindInfo &info : kinds()) {
        if (name == QLatin1String(info.name)) {
            return info.kind;
        }
    }
    return std::nullopt;
}

std::optional<Kind> kindOf(const QString &path)
{
    const QString name = QFileInfo(path).fileName();
    for (const KindInfo &info : kinds()) {
        if (QDir::match(QLatin1String(info.pattern), name)) {
            return info.kind;
        }
    }
    return kindOfContent(path);
}

QVector<Target> installedTargets()
{
    QVector<Target> targets;
    const QStringList directories = QStandardPaths::standardLocations(QStandardPaths::ApplicationsLocation);
    for (const QString &directory : directories) {
        targets += targetsIn(directory, Kind::Desktop);
    }
    return targets;
}

QVector<Finding> checkFile(const QString &path, std::optional<Kind> kind)
{
    Report report(path);
    if (!kind) {
        kind = kindOf(path);
    }
    if (!kind) {
        QByteArray content;
        const int error = Core::readRegularFile(path, content);
        report.add(error == 0 ? Rule::UnknownKind : Rule::Unreadable,
                   error == 0 ? QStringLiteral("neither name nor contents tell what it is (see --type)")
                              : QStringLiteral("cannot be read: ") + qt_error_string(error));
        return report.findings();
    }
    infoOf(*kind).check(path, report);
    return report.findings();
}

QVector<Finding> checkTogether(const QVector<Target> &targets)
{
    QVector<Finding> findings;
    const ReaderLog log;
    QMap<QString, QString> files; // id -> the desktop file that counts so far
    for (const Target &target : targets) {
        const Core::ApplicationInfo info(target.kind == Kind::Desktop ? target.path : QString());
        if (!info.isValid()) {
            continue;
        }
        QString &file = files[info.id().toString()];
        if (!file.isEmpty()) {
            Report report(file);
            report.add(Rule::DuplicateId,
                       QStringLiteral("%1 has the same id, %2, and counts in its place")
                           .arg(target.path, info.id().toString()));
            findings += report.findings();
        }
        file = target.path;
    }
    return findings;
}

} // namespace Ctl::Check
