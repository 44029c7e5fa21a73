#pragma once

#include "Core/application_info.h"

#include <QSharedData>

#include <mdesktopentry.h>

namespace Core {

/// A desktop file with the groups that describe the sandbox.
class MyDesktopEntry : public MDesktopEntry
{
public:
    using MDesktopEntry::MDesktopEntry;

    /// The first non-empty value of @p key in the groups X-Application, X-Sailjail and Sailjail.
    QString sailjailValue(const QString &key) const;
};

class ApplicationInfoPrivate : public QSharedData
{
public:
    explicit ApplicationInfoPrivate(const QString &path);

    /// The tasks and services that the entry declares for the application. Of two groups with the same
    /// task name, the last one counts.
    static QMap<QString, ApplicationInfo::TaskInfo> parseTasks(const ApplicationId &id,
                                                               const MyDesktopEntry &entry);
    /// The value of the key `Intents`: `NAME/QUALIFIER:ITEM|ITEM;NAME...`, where all but the name may be
    /// missing.
    static QMap<QString, ApplicationInfo::IntentEntry> parseIntents(const QString &value);

    QString desktopFile;
    ApplicationId id;
    QMap<QString, ApplicationInfo::IntentEntry> intents;
    QMap<QString, ApplicationInfo::TaskInfo> tasks;
    ApplicationLaunchData launchData;
    QString name;
    QString icon;
    QStringList mimeTypes;
    bool supportMimeParents = false;
    Manifest manifest;
    QString certificateId;
    bool valid = false;
};

} // namespace Core
