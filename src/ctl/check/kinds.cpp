#include "check/kinds.h"

#include "check/desktop_file.h"
#include "check/json_file.h"
#include "check/key_lines.h"
#include "check/settings_file.h"

#include "Core/regular_file.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

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
        { Kind::Manifest, "manifest", "manifest.json", checkManifest },
        { Kind::Package, "package", "solvane.pkg", checkPackageFile },
        { Kind::State, "state", "*.config", checkStateFile },
        { Kind::Intent, "intent", "*.intent", checkIntentDefinition },
        { Kind::Oom, "oom", "oom.cfg", checkOomConfiguration },
        { Kind::Tasks, "tasks", "tasks.cfg", checkTaskConfiguration },
        { Kind::Versions, "os-version", "os-version-support.cfg", checkVersionOverrides },
    };
    return all;
}

const KindInfo &infoOf(Kind kind)
{
    return *std::find_if(kinds().cbegin(), kinds().cend(),
                         [kind](const KindInfo &info) { return info.kind == kind; });
}

std::optional<Kind> kindOfSettings(const QByteArray &content)
{
    const KeyLines lines = KeyLines::ofSettings(content);
    if (lines.hasGroup(QStringLiteral("Backend settings"))
        || lines.find(QString(), QStringLiteral("ApplyWithDelay"))) {
        return Kind::State;
    }
    if (lines.hasGroup(QStringLiteral("Applications"))) {
        return Kind::Versions;
    }
    if (lines.hasGroup(QStringLiteral("certificate"))) {
        return Kind::Package;
    }
    if (lines.find(QString(), QStringLiteral("MaxTasksPerApp"))) {
        return Kind::Tasks;
    }
    for (const KeyLine &line : lines.keys) {
        if (line.key.contains(QLatin1String("Msec")) || line.key.contains(QLatin1String("MemoryTerm"))) {
            return Kind::Oom;
        }
    }
    return std::nullopt;
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
    const QJsonDocument document = QJsonDocument::fromJson(content);
    if (!document.isNull()) {
        const QJsonObject object = document.object();
        const bool isIntent =
            object.contains(QLatin1String("requiredParams")) || object.contains(QLatin1String("hints"));
        const bool isManifest = object.contains(QLatin1String("keepMediaActiveInBackground"));
        return isIntent  ? std::make_optional(Kind::Intent)
            : isManifest ? std::make_optional(Kind::Manifest)
                         : std::nullopt;
    }
    return kindOfSettings(content);
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

} // namespace Ctl::Check
