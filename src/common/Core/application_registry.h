#pragma once

#include "Core/application_info.h"

#include <QList>
#include <QObject>
#include <QStringList>
#include <QVector>

#include <memory>

class QUrl;

namespace Core {

class ApplicationRegistryPrivate;

/// What a lookup of handlers leaves out. The word "all" in a list stands for every value.
struct HandlerFilters
{
    QStringList ignoreHosts;
    QStringList ignoreSchemes;
};

/// One reason why an application is among the handlers of a URI.
struct HandlerMatch
{
    QString id;
    QString key; ///< what fits: a MIME type, or a key that begins with x-scheme-handler/ or x-url-handler/
    bool isAncestor = false; ///< key is an ancestor of the URI's own MIME type
};

/// The catalogue of installed applications: what each one declares, which of them handle a URI, and which
/// one the user chose.
///
/// Reads all desktop files of the system's application directories when it is made, and again whenever one
/// of the files or directories changes. Main thread only. Every lookup goes by Identifier::toString(), so
/// that the id of an instance or of a task finds its application.
///
/// References are valid only until the next scan: do not keep them over a return to the event loop.
class ApplicationRegistry : public QObject
{
    Q_OBJECT

public:
    /// Made at first use, never destroyed.
    static ApplicationRegistry *instance();

    explicit ApplicationRegistry(QObject *parent = nullptr);
    ~ApplicationRegistry() override;

    /// Scans again; done when it returns.
    void reload();

    /// Ids of all applications, in their order.
    [[nodiscard]] QStringList applicationIds() const;

    // One application. Unknown ids give empty or default-made values.

    /// Path of its desktop file.
    [[nodiscard]] QString desktopFile(const Identifier &appId) const;
    /// The application whose desktop file is exactly @p path.
    [[nodiscard]] ApplicationId applicationForDesktopFile(const QString &path) const;
    [[nodiscard]] const ApplicationLaunchData &launchData(const Identifier &appId) const;
    [[nodiscard]] const QString &name(const Identifier &appId) const;
    [[nodiscard]] const QString &icon(const Identifier &appId) const;
    [[nodiscard]] QString certificateId(const Identifier &appId) const;
    [[nodiscard]] const Manifest &manifest(const Identifier &appId) const;

    /// How strictly the application is treated in the background: 0 (least) to 2, by the version of the
    /// operating system that it is made for.
    [[nodiscard]] int backgroundPolicy(const Identifier &appId) const;
    /// The version that the system's configuration says it is made for, whatever its manifest says; empty if
    /// it says none.
    [[nodiscard]] QString versionOverride(const Identifier &appId) const;

    // Intents

    [[nodiscard]] bool handlesIntent(const Identifier &appId, const QString &intentName) const;
    /// Ids of all applications that declare the intent, in the order of the ids.
    [[nodiscard]] QStringList handlersForIntent(const QString &intentName) const;

    // Tasks

    /// A default-made value, with an empty id, for an unknown task.
    [[nodiscard]] const ApplicationInfo::TaskInfo &taskInfo(const ApplicationTaskId &taskId) const;
    /// In the order of the names.
    [[nodiscard]] QList<ApplicationInfo::TaskInfo> tasks(const Identifier &appId) const;
    /// Tasks of all applications, in the order of the ids and then of the names.
    [[nodiscard]] QList<ApplicationInfo::TaskInfo> tasksOfType(const QString &type) const;

    // Handlers of URIs

    /// Ids of the applications that handle @p uri, without duplicates: first those for its scheme, then
    /// those for its host and path, general patterns before specific ones, then those for its MIME type,
    /// last those for the type's ancestors. The ranking is left to the caller.
    [[nodiscard]] QStringList handlersForUri(const QUrl &uri, const HandlerFilters &filters) const;
    /// The same with the first reason of each.
    [[nodiscard]] QVector<HandlerMatch> handlerMatches(const QUrl &uri, const HandlerFilters &filters) const;
    /// Id of the user's default for the MIME type of @p uri; empty if none was chosen.
    [[nodiscard]] QString defaultHandlerForUrl(const QUrl &uri) const;
    /// Makes @p appId the user's default for the MIME type of @p uri and writes mimeapps.list anew. An
    /// unknown application changes nothing.
    void setDefaultHandlerForUri(const QUrl &uri, const Identifier &appId);
    /// Takes @p appId out of the user's defaults and writes mimeapps.list anew.
    void clearDefaultHandlers(const Identifier &appId);

signals:
    /// A scan has ended. The first one, in the constructor, has been signalled before anybody can listen.
    void manifestsChanged();

private:
    const std::unique_ptr<ApplicationRegistryPrivate> d;
};

} // namespace Core
