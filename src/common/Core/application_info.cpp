#include "Core/application_info.h"

#include "Core/application_info_p.h"
#include "Core/regular_file.h"
#include "Core/types.h"

#include <QDebug>
#include <QSettings>

namespace Core {

namespace {

/// The declared id, or one made from the file's name. Organisation and name are believed as they are, with
/// two exceptions: both must be there, and there must be no "/" in them, since the id becomes a part of
/// paths.
ApplicationId idOf(const MyDesktopEntry &entry, const QString &path)
{
    const QString name = entry.appName();
    const ApplicationId id(entry.appOrgname(), name);
    if (id.isValid() && !name.isEmpty() && !id.text().contains(QLatin1Char('/'))) {
        return id;
    }
    return ApplicationId::fromDesktopFile(path);
}

ApplicationLaunchData launchDataOf(const MyDesktopEntry &entry)
{
    ApplicationLaunchData data;
    data.exec = entry.exec();
    data.execDBus = entry.sailjailValue(QStringLiteral("ExecDBus"));
    data.maemoService = entry.xMaemoService();
    data.maemoObjectPath = entry.value(QStringLiteral("X-Maemo-Object-Path"));
    if (data.maemoObjectPath.isEmpty() && !data.maemoService.isEmpty()) {
        data.maemoObjectPath = QStringLiteral("/");
    }
    data.maemoMethod = entry.value(QStringLiteral("X-Maemo-Method"));
    data.maemoFixedArgs = entry.value(QStringLiteral("X-Maemo-Fixed-Args"));
    data.dataDirectory = entry.sailjailValue(QStringLiteral("DataDirectory"));
    data.sandboxed = entry.sailjailValue(QStringLiteral("Sandboxing")) != QLatin1String("Disabled");
    data.singleInstance = entry.value(QStringLiteral("X-Nemo-Single-Instance")) != QLatin1String("no");
    data.singleCover = entry.value(QStringLiteral("X-Solvane-Single-Cover")) == QLatin1String("yes");
    const QString mode = entry.value(QStringLiteral("Mode"));
    data.compatibilityMode = !mode.isEmpty() && mode != QLatin1String("Normal");
    return data;
}

QString certificateIdOf(const ApplicationId &id)
{
    const QString path =
        QStringLiteral("%1/opt/app/%2/current/solvane.pkg").arg(Types::rootFs(), id.toString());
    if (!isRegularFile(path)) {
        return QString();
    }
    const QSettings package(path, QSettings::IniFormat);
    // An id with commas in it comes as a list. It must not read as empty: applications without an id count
    // as signed by the same hand.
    return package.value(QStringLiteral("certificate/id")).toStringList().join(QLatin1Char(','));
}

/// What follows "X-Task " or "X-Service " in the group's name; a null string for any other group.
QString taskNameOf(const QString &group)
{
    for (const QLatin1String prefix : { QLatin1String("X-Task "), QLatin1String("X-Service ") }) {
        if (group.startsWith(prefix)) {
            return group.mid(prefix.size());
        }
    }
    return QString();
}

} // namespace

QString MyDesktopEntry::sailjailValue(const QString &key) const
{
    for (const QString &group :
         { QStringLiteral("X-Application"), QStringLiteral("X-Sailjail"), QStringLiteral("Sailjail") }) {
        const QString found = value(group, key);
        if (!found.isEmpty()) {
            return found;
        }
    }
    return QString();
}

ApplicationInfoPrivate::ApplicationInfoPrivate(const QString &path)
    : desktopFile(path)
{
    if (path.isEmpty()) {
        return;
    }
    const MyDesktopEntry entry(path);
    if (!entry.isValid()) {
        return;
    }
    id = idOf(entry, path);
    if (!id.isValid()) {
        qWarning() << "Invalid app ID in" << path;
        return;
    }
    intents = parseIntents(entry.sailjailValue(QStringLiteral("Intents")));
    tasks = parseTasks(id, entry);
    launchData = launchDataOf(entry);
    name = entry.name();
    icon = entry.icon();
    mimeTypes = entry.mimeType();
    supportMimeParents = entry.supportMimeParents();
    manifest = Manifest(id);
    certificateId = certificateIdOf(id);
    valid = true;
}

QMap<QString, ApplicationInfo::TaskInfo> ApplicationInfoPrivate::parseTasks(const ApplicationId &id,
                                                                            const MyDesktopEntry &entry)
{
    QMap<QString, ApplicationInfo::TaskInfo> tasks;
    const QStringList groups = entry.groups();
    for (const QString &group : groups) {
        const QString name = taskNameOf(group);
        if (name.isEmpty()) {
            continue;
        }
        if (!ApplicationTaskId::isValidTaskName(name)) {
            qWarning() << "Invalid task name:" << name;
            continue;
        }
        ApplicationInfo::TaskInfo task;
        task.id = ApplicationTaskId(id, name);
        task.type = entry.value(group, QStringLiteral("Type"));
        task.exec = entry.value(group, QStringLiteral("Exec"));
        if (task.exec.isEmpty()) {
            task.exec = entry.exec();
        }
        task.permissions = entry.stringListValue(group, QStringLiteral("Permissions"));
        task.conditions = entry.stringListValue(group, QStringLiteral("Conditions"));
        tasks.insert(name, task);
    }
    return tasks;
}

QMap<QString, ApplicationInfo::IntentEntry> ApplicationInfoPrivate::parseIntents(const QString &value)
{
    QMap<QString, ApplicationInfo::IntentEntry> intents;
    const QStringList parts = value.split(QLatin1Char(';'), Qt::SkipEmptyParts);
    for (const QString &part : parts) {
        const QStringList headAndTail = part.split(QLatin1Char(':'));
        const QStringList head = headAndTail.first().split(QLatin1Char('/'));
        ApplicationInfo::IntentEntry intent;
        intent.qualifier = head.value(1);
        intent.items = headAndTail.value(1).split(QLatin1Char('|'), Qt::SkipEmptyParts);
        intents.insert(head.first(), intent);
    }
    return intents;
}

ApplicationInfo::ApplicationInfo()
{
    // One for all of them: it is never anything but invalid.
    static const QExplicitlySharedDataPointer<const ApplicationInfoPrivate> invalid(
        new ApplicationInfoPrivate(QString()));
    d = invalid;
}

ApplicationInfo::ApplicationInfo(const QString &desktopFile)
    : d(new ApplicationInfoPrivate(desktopFile))
{
}

ApplicationInfo::ApplicationInfo(const ApplicationInfo &other) = default;
ApplicationInfo &ApplicationInfo::operator=(const ApplicationInfo &other) = default;
ApplicationInfo::~ApplicationInfo() = default;

bool ApplicationInfo::isValid() const
{
    return d->valid;
}

const ApplicationId &ApplicationInfo::id() const
{
    return d->id;
}

const QString &ApplicationInfo::desktopFile() const
{
    return d->desktopFile;
}

const QMap<QString, ApplicationInfo::IntentEntry> &ApplicationInfo::intents() const
{
    return d->intents;
}

const QMap<QString, ApplicationInfo::TaskInfo> &ApplicationInfo::tasks() const
{
    return d->tasks;
}

const ApplicationLaunchData &ApplicationInfo::launchData() const
{
    return d->launchData;
}

const QString &ApplicationInfo::name() const
{
    return d->name;
}

const QString &ApplicationInfo::icon() const
{
    return d->icon;
}

const QStringList &ApplicationInfo::mimeTypes() const
{
    return d->mimeTypes;
}

bool ApplicationInfo::supportMimeParents() const
{
    return d->supportMimeParents;
}

const Manifest &ApplicationInfo::manifest() const
{
    return d->manifest;
}

const QString &ApplicationInfo::certificateId() const
{
    return d->certificateId;
}

} // namespace Core
