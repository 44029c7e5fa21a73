#pragma once

#include "Core/application_id.h"
#include "Core/application_launch_data.h"
#include "Core/application_task_id.h"
#include "Core/manifest.h"

#include <QExplicitlySharedDataPointer>
#include <QMap>
#include <QString>
#include <QStringList>

namespace Core {

class ApplicationInfoPrivate;

/// Everything that is known about one installed application, read from its desktop file and the files
/// around it when it is made. Never changes afterward; copies share their data.
class ApplicationInfo
{
public:
    /// What the application says about an intent that it handles.
    struct IntentEntry
    {
        QString qualifier;
        QStringList items;
    };

    /// A background task or service that the application declares.
    struct TaskInfo
    {
        ApplicationTaskId id; ///< empty in a default-made value, which stands for "no such task"
        QString type;
        QString exec; ///< the task's own command line, or the application's
        QStringList permissions;
        QStringList conditions;
    };

    /// Not valid.
    ApplicationInfo();
    explicit ApplicationInfo(const QString &desktopFile);
    ApplicationInfo(const ApplicationInfo &other);
    ApplicationInfo &operator=(const ApplicationInfo &other);
    ~ApplicationInfo();

    /// Whether the file is a desktop entry that gives an id. A command line is not required.
    [[nodiscard]] bool isValid() const;
    [[nodiscard]] const ApplicationId &id() const;
    /// The path that was given.
    [[nodiscard]] const QString &desktopFile() const;
    /// Name of the intent -> what is said about it.
    [[nodiscard]] const QMap<QString, IntentEntry> &intents() const;
    /// Name of the task, without the application -> the task.
    [[nodiscard]] const QMap<QString, TaskInfo> &tasks() const;
    [[nodiscard]] const ApplicationLaunchData &launchData() const;
    /// In the session's language.
    [[nodiscard]] const QString &name() const;
    [[nodiscard]] const QString &icon() const;
    /// As declared: MIME types, patterns of them, and `x-scheme-handler/` and `x-url-handler/` keys.
    [[nodiscard]] const QStringList &mimeTypes() const;
    /// Whether the application is offered for the children of its MIME types too.
    [[nodiscard]] bool supportMimeParents() const;
    [[nodiscard]] const Manifest &manifest() const;
    /// Who signed the package; empty if the application did not come as one.
    [[nodiscard]] const QString &certificateId() const;

private:
    QExplicitlySharedDataPointer<const ApplicationInfoPrivate> d;
};

} // namespace Core

Q_DECLARE_TYPEINFO(Core::ApplicationInfo, Q_MOVABLE_TYPE);
