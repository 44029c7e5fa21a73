#include "Core/application_registry.h"

#include "Core/file_watcher.h"
#include "Core/missing_directories.h"
#include "Core/regular_file.h"
#include "Core/version_overrides.h"

#include <QDebug>
#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QHash>
#include <QMimeDatabase>
#include <QSaveFile>
#include <QSet>
#include <QStandardPaths>
#include <QUrl>
#include <QVersionNumber>

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace Core {

namespace {

bool covers(const QStringList &filter, const QString &value)
{
    return filter.contains(value) || filter.contains(QLatin1String("all"));
}

/// Path of the user's mimeapps.list; empty if there is no place for it.
QString mimeappsListPath()
{
    const QString directory = QStandardPaths::writableLocation(QStandardPaths::ConfigLocation);
    return directory.isEmpty() ? QString() : QStringLiteral("%1/mimeapps.list").arg(directory);
}

/// Paths of the desktop files in a directory, in the order in which the file system gives them.
QStringList desktopFilesIn(const QString &directory)
{
    QStringList paths;
    QDirIterator it(directory, QDir::Files);
    while (it.hasNext()) {
        const QString path = it.next();
        if (path.endsWith(QLatin1String(".desktop"))) {
            paths.append(path);
        }
    }
    return paths;
}

} // namespace

class ApplicationRegistryPrivate
{
public:
    using IdsByFileName = QHash<QString, QString>; // desktop file's name -> id of the application

    void scan();
    void addApplication(const QString &path, IdsByFileName &ids);
    void addHandler(const QString &type, const QString &id, bool foundBefore);
    const QStringList &allMimeTypes();
    void collectMimeParentsIds();

    void parseMimeappsList();
    void chooseDefaultHandlers(const IdsByFileName &ids);
    void writeDefaultHandlersToMimeappsList() const;

    const ApplicationInfo &find(const Identifier &appId) const;
    QMimeType mimeType(const QUrl &uri) const;
    QStringList locationKeys(const QUrl &uri, const HandlerFilters &filters) const;
    template<typename Found>
    void visitHandlers(const QUrl &uri, const HandlerFilters &filters, Found found) const;

    QMimeDatabase mimeDatabase;
    QHash<QString, QStringList> handlers; // MIME type or URI pattern -> ids in the order of finding
    QMap<QString, QString> defaultHandlers; // MIME type -> id of the user's default
    QMap<QString, ApplicationInfo> applications; // id -> what it declares
    FileWatcher watcher; // directories and desktop files
    VersionOverrides versionOverrides;
    QHash<QString, QStringList> mimeappsEntries; // key -> desktop files' names; lives only during a scan
    QStringList knownMimeTypes; // of the database; lives only during a scan

    // What lookups would have to compute each time.
    QSet<QString> mimeParentsIds; // of the applications with supportMimeParents
    int longestHandlerKey = 0;

    MissingDirectories missing; // those of the location list that the last scan did not find
};

void ApplicationRegistryPrivate::scan()
{
    parseMimeappsList();
    handlers.clear();
    longestHandlerKey = 0;
    applications.clear();
    missing.clear();
    IdsByFileName ids;
    const QStringList directories = QStandardPaths::standardLocations(QStandardPaths::ApplicationsLocation);
    for (const QString &directory : directories) {
        if (!missing.await(directory)) {
            continue;
        }
        // Watched before it is listed, and files before they are read, so that no change falls in between.
        watcher.watch({ directory });
        const QStringList paths = desktopFilesIn(directory);
        watcher.watch(paths);
        for (const QString &path : paths) {
            addApplication(path, ids);
        }
    }
    collectMimeParentsIds();
    chooseDefaultHandlers(ids);
    mimeappsEntries.clear();
    knownMimeTypes.clear();
}

void ApplicationRegistryPrivate::addApplication(const QString &path, IdsByFileName &ids)
{
    const ApplicationInfo info(path);
    if (!info.isValid()) {
        return;
    }
    const QString id = info.id().toString();
    ids.insert(path.mid(path.lastIndexOf(QLatin1Char('/')) + 1), id);
    const bool foundBefore = applications.contains(id);
    applications.insert(id, info);
    for (const QString &type : info.mimeTypes()) {
        addHandler(type, id, foundBefore);
    }
}

/// Registers @p id for a MIME type, for all types of a wildcard, or for a pattern of URIs.
/// @param foundBefore whether another file gave the same id: only then may it stand anywhere in a list,
///        otherwise no further than at its end. It spares a search per application.
void ApplicationRegistryPrivate::addHandler(const QString &type, const QString &id, bool foundBefore)
{
    const QLatin1Char star('*');
    const bool isUriPattern = type.startsWith(QLatin1String("x-scheme-handler/"))
        || type.startsWith(QLatin1String("x-url-handler/"));
    if (!isUriPattern && type.endsWith(star)) {
        const QStringRef prefix = type.leftRef(type.length() - 1);
        if (!prefix.contains(star)) {
            const QStringList &types = allMimeTypes();
            auto it = std::lower_bound(types.cbegin(), types.cend(), prefix);
            for (; it != types.cend() && it->startsWith(prefix); ++it) {
                addHandler(*it, id, foundBefore);
            }
        }
        return;
    }
    longestHandlerKey = qMax(longestHandlerKey, type.length());
    QStringList &ids = handlers[type];
    const bool listed = foundBefore ? ids.contains(id) : !ids.isEmpty() && ids.last() == id;
    if (!listed) {
        ids.append(id);
    }
}

/// Sorted. Few applications use wildcards, and without one a scan does without the database.
const QStringList &ApplicationRegistryPrivate::allMimeTypes()
{
    if (knownMimeTypes.isEmpty()) {
        const QList<QMimeType> types = mimeDatabase.allMimeTypes();
        knownMimeTypes.reserve(types.size());
        for (const QMimeType &type : types) {
            knownMimeTypes.append(type.name());
        }
        knownMimeTypes.sort();
    }
    return knownMimeTypes;
}

void ApplicationRegistryPrivate::collectMimeParentsIds()
{
    mimeParentsIds.clear();
    for (auto it = applications.cbegin(); it != applications.cend(); ++it) {
        if (it->supportMimeParents()) {
            mimeParentsIds.insert(it.key());
        }
    }
}

/// Reads the user's choices, without attention to groups: the writer's form and many others.
void ApplicationRegistryPrivate::parseMimeappsList()
{
    mimeappsEntries.clear();
    const QString path = mimeappsListPath();
    QByteArray data;
    const int error = path.isEmpty() ? ENOENT : readRegularFile(path, data);
    if (error == ENOENT || error == ENOTDIR) {
        return;
    }
    if (error != 0) {
        qWarning() << "Failed to open file" << path;
        return;
    }
    const QStringList lines = QString::fromUtf8(data).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString &line : lines) {
        const int equals = line.indexOf(QLatin1Char('='));
        if (equals < 0 || line.startsWith(QLatin1Char('[')) || line.startsWith(QLatin1Char('#'))) {
            continue;
        }
        const QString value = line.mid(equals + 1).trimmed();
        mimeappsEntries[line.left(equals).trimmed()] += value.split(QLatin1Char(';'), Qt::SkipEmptyParts);
    }
    for (QStringList &files : mimeappsEntries) {
        files.removeDuplicates();
    }
}

/// For each key, the first of its desktop files that is installed.
void ApplicationRegistryPrivate::chooseDefaultHandlers(const IdsByFileName &ids)
{
    defaultHandlers.clear();
    for (auto it = mimeappsEntries.cbegin(); it != mimeappsEntries.cend(); ++it) {
        const auto file = std::find_if(it->cbegin(), it->cend(),
                                       [&ids](const QString &name) { return ids.contains(name); });
        if (file != it->cend()) {
            defaultHandlers.insert(it.key(), ids.value(*file));
        }
    }
}

void ApplicationRegistryPrivate::writeDefaultHandlersToMimeappsList() const
{
    const QString path = mimeappsListPath();
    if (path.isEmpty()) {
        return;
    }
    const QString directory = QFileInfo(path).path();
    if (!QDir().mkpath(directory)) {
        qWarning() << "Failed to create directory" << directory;
    }
    // The old file stays until the new one is whole, so that neither a full disk nor an empty battery
    // costs the user's choices.
    QSaveFile file(path);
    file.setDirectWriteFallback(true);
    if (!file.open(QIODevice::WriteOnly)) {
        qWarning() << "Failed to open file" << path;
        return;
    }
    file.write("[Default Applications]\n");
    for (auto it = defaultHandlers.cbegin(); it != defaultHandlers.cend(); ++it) {
        const QString desktopFile = applications.value(it.value()).desktopFile();
        if (!desktopFile.isEmpty()) {
            const QString name = desktopFile.mid(desktopFile.lastIndexOf(QLatin1Char('/')) + 1);
            file.write(QStringLiteral("%1=%2\n").arg(it.key(), name).toUtf8());
        }
    }
    // commit() would take a disk that is full at this point for a success, and the cut file would stand.
    const bool isWhole = file.flush();
    if (!isWhole) {
        file.cancelWriting();
    }
    if (!file.commit() || !isWhole) {
        qWarning() << "Failed to write file" << path << file.errorString();
    }
}

/// An invalid one, whose values are all empty or default-made, for an unknown application.
const ApplicationInfo &ApplicationRegistryPrivate::find(const Identifier &appId) const
{
    static const ApplicationInfo unknown;
    const auto found = applications.constFind(appId.toString());
    return found == applications.cend() ? unknown : *found;
}

/// By the name alone: a file is neither opened nor looked at. A name with a "/" at its end is a directory's
/// only where the path is one of the file system.
QMimeType ApplicationRegistryPrivate::mimeType(const QUrl &uri) const
{
    const QString name = uri.isLocalFile() ? uri.toLocalFile() : uri.fileName(QUrl::FullyDecoded);
    return mimeDatabase.mimeTypeForFile(name, QMimeDatabase::MatchExtension);
}

/// Keys for the scheme and then for the host with the path, general patterns before specific ones.
QStringList ApplicationRegistryPrivate::locationKeys(const QUrl &uri, const HandlerFilters &filters) const
{
    QStringList keys;
    const QString scheme = uri.scheme();
    if (!scheme.isEmpty() && !covers(filters.ignoreSchemes, scheme)) {
        keys.append(QStringLiteral("x-scheme-handler/") + scheme);
    }
    const QString host = uri.host(QUrl::FullyDecoded);
    if (host.isEmpty() || covers(filters.ignoreHosts, host)) {
        return keys;
    }
    QString key = QStringLiteral("x-url-handler/") + host;
    if (uri.port() != -1) {
        key += QLatin1Char(':') + QString::number(uri.port());
    }
    const QString path = uri.path(QUrl::FullyDecoded);
    if (path.startsWith(QLatin1Char('/')) && path.length() > 1) {
        const QVector<QStringRef> segments = path.splitRef(QLatin1Char('/'), Qt::SkipEmptyParts);
        for (const QStringRef &segment : segments) {
            if (key.length() > longestHandlerKey) {
                break; // nothing that follows is registered, and a path may be as long as its sender likes
            }
            keys.append(key + QStringLiteral("/*"));
            key += QLatin1Char('/') + segment;
        }
    }
    keys.append(key);
    return keys;
}

/// Calls @p found with the id, the key and whether that is an ancestor of the type, for each match in order.
template<typename Found>
void ApplicationRegistryPrivate::visitHandlers(const QUrl &uri, const HandlerFilters &filters,
                                               Found found) const
{
    const auto visit = [this, &found](const QString &key, bool isAncestor) {
        const QStringList ids = handlers.value(key);
        for (const QString &id : ids) {
            if (!isAncestor || mimeParentsIds.contains(id)) {
                found(id, key, isAncestor);
            }
        }
    };
    if (!uri.isLocalFile()) {
        const QStringList keys = locationKeys(uri, filters);
        for (const QString &key : keys) {
            visit(key, false);
        }
    }
    const QMimeType type = mimeType(uri);
    visit(type.name(), false);
    const QStringList ancestors = type.allAncestors();
    for (const QString &ancestor : ancestors) {
        visit(ancestor, true);
    }
}

ApplicationRegistry *ApplicationRegistry::instance()
{
    static auto *const registry = new ApplicationRegistry;
    return registry;
}

ApplicationRegistry::ApplicationRegistry(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<ApplicationRegistryPrivate>())
{
    connect(&d->watcher, &FileWatcher::fileChanged, this, &ApplicationRegistry::reload);
    connect(&d->watcher, &FileWatcher::directoryChanged, this, &ApplicationRegistry::reload);
    connect(&d->missing, &MissingDirectories::appeared, this, &ApplicationRegistry::reload);
    reload();
}

ApplicationRegistry::~ApplicationRegistry() = default;

void ApplicationRegistry::reload()
{
    d->scan();
    emit manifestsChanged();
}

QStringList ApplicationRegistry::applicationIds() const
{
    return d->applications.keys();
}

QString ApplicationRegistry::desktopFile(const Identifier &appId) const
{
    return d->find(appId).desktopFile();
}

ApplicationId ApplicationRegistry::applicationForDesktopFile(const QString &path) const
{
    for (const ApplicationInfo &info : qAsConst(d->applications)) {
        if (info.desktopFile() == path) {
            return info.id();
        }
    }
    return ApplicationId();
}

const ApplicationLaunchData &ApplicationRegistry::launchData(const Identifier &appId) const
{
    return d->find(appId).launchData();
}

const QString &ApplicationRegistry::name(const Identifier &appId) const
{
    return d->find(appId).name();
}

const QString &ApplicationRegistry::icon(const Identifier &appId) const
{
    return d->find(appId).icon();
}

QString ApplicationRegistry::certificateId(const Identifier &appId) const
{
    return d->find(appId).certificateId();
}

const Manifest &ApplicationRegistry::manifest(const Identifier &appId) const
{
    return d->find(appId).manifest();
}

int ApplicationRegistry::backgroundPolicy(const Identifier &appId) const
{
    const Manifest &appManifest = manifest(appId);
    QVersionNumber target = appManifest.isValid() ? QVersionNumber(5, 2, 0) : QVersionNumber(4, 0, 0);
    const QString override = d->versionOverrides.version(appId);
    if (!override.isEmpty()) {
        target = QVersionNumber::fromString(override);
    }
    if (QVersionNumber::compare(target, QVersionNumber(4, 2, 0)) < 0) {
        return 0;
    }
    if (QVersionNumber::compare(target, QVersionNumber(5, 2, 0)) < 0) {
        return 1;
    }
    return appManifest.isValid() && appManifest.keepMediaActiveInBackground() ? 1 : 2;
}

QString ApplicationRegistry::versionOverride(const Identifier &appId) const
{
    return d->versionOverrides.version(appId);
}

bool ApplicationRegistry::handlesIntent(const Identifier &appId, const QString &intentName) const
{
    return d->find(appId).intents().contains(intentName);
}

QStringList ApplicationRegistry::handlersForIntent(const QString &intentName) const
{
    QStringList ids;
    for (auto it = d->applications.cbegin(); it != d->applications.cend(); ++it) {
        if (it->intents().contains(intentName)) {
            ids.append(it.key());
        }
    }
    return ids;
}

const ApplicationInfo::TaskInfo &ApplicationRegistry::taskInfo(const ApplicationTaskId &taskId) const
{
    static const ApplicationInfo::TaskInfo unknown;
    const auto &appTasks = d->find(taskId).tasks();
    const auto found = appTasks.constFind(taskId.taskName());
    return found == appTasks.cend() ? unknown : *found;
}

QList<ApplicationInfo::TaskInfo> ApplicationRegistry::tasks(const Identifier &appId) const
{
    return d->find(appId).tasks().values();
}

QList<ApplicationInfo::TaskInfo> ApplicationRegistry::tasksOfType(const QString &type) const
{
    QList<ApplicationInfo::TaskInfo> found;
    for (const ApplicationInfo &info : qAsConst(d->applications)) {
        for (const ApplicationInfo::TaskInfo &task : info.tasks()) {
            if (task.type == type) {
                found.append(task);
            }
        }
    }
    return found;
}

QStringList ApplicationRegistry::handlersForUri(const QUrl &uri, const HandlerFilters &filters) const
{
    QStringList ids;
    d->visitHandlers(uri, filters, [&ids](const QString &id, const QString &, bool) { ids.append(id); });
    ids.removeDuplicates();
    return ids;
}

QVector<HandlerMatch> ApplicationRegistry::handlerMatches(const QUrl &uri,
                                                          const HandlerFilters &filters) const
{
    QVector<HandlerMatch> matches;
    QSet<QString> seen;
    d->visitHandlers(uri, filters, [&matches, &seen](const QString &id, const QString &key, bool isAncestor) {
        if (!seen.contains(id)) {
            seen.insert(id);
            matches.append({ id, key, isAncestor });
        }
    });
    return matches;
}

QString ApplicationRegistry::defaultHandlerForUrl(const QUrl &uri) const
{
    return d->defaultHandlers.value(d->mimeType(uri).name());
}

void ApplicationRegistry::setDefaultHandlerForUri(const QUrl &uri, const Identifier &appId)
{
    const QString id = appId.toString();
    if (!d->applications.contains(id)) {
        qWarning() << "Failed to set" << id << "as default handler for" << uri.toString()
                   << "uri (application doesn't exists in the application registry)";
        return;
    }
    d->defaultHandlers.insert(d->mimeType(uri).name(), id);
    d->writeDefaultHandlersToMimeappsList();
}

void ApplicationRegistry::clearDefaultHandlers(const Identifier &appId)
{
    const QString id = appId.toString();
    for (auto it = d->defaultHandlers.begin(); it != d->defaultHandlers.end();) {
        it = it.value() == id ? d->defaultHandlers.erase(it) : std::next(it);
    }
    d->writeDefaultHandlersToMimeappsList();
}

} // namespace Core
