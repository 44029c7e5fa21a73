#include "Core/user_settings.h"

#include "Core/task_hints.h"
#include "Core/user_settings_p.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>
#include <QStandardPaths>

// The layout of the file:
//
//   {
//       "autostartedTasks": {
//           "org.example.Notes.task_sync": {
//               "conditionData": { "<condition>": null or an object },
//               "environment": [ "NAME=value" ],
//               "hints": { "<hint>": any value; "CGroups": an object of strings },
//               "params": [ "--full" ]
//           }
//       }
//   }

namespace Core {

namespace {

const QLatin1String tasksKey("autostartedTasks");
const QLatin1String paramsKey("params");
const QLatin1String environmentKey("environment");
const QLatin1String hintsKey("hints");
const QLatin1String conditionDataKey("conditionData");

QStringList toStringList(const QJsonArray &array)
{
    QStringList list;
    list.reserve(array.size());
    for (const QJsonValue &value : array) {
        list.append(value.toString());
    }
    return list;
}

QJsonObject cgroupsToJson(const TaskCGroups &cgroups)
{
    QJsonObject object;
    for (auto it = cgroups.cbegin(); it != cgroups.cend(); ++it) {
        object.insert(it.key(), QString::fromUtf8(it.value().constData())); // to the first NUL
    }
    return object;
}

TaskCGroups cgroupsFromJson(const QJsonObject &object)
{
    TaskCGroups cgroups;
    for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
        cgroups.insert(it.key(), it.value().toString().toUtf8());
    }
    return cgroups;
}

QJsonObject hintsToJson(const QVariantMap &hints)
{
    QJsonObject object;
    for (auto it = hints.cbegin(); it != hints.cend(); ++it) {
        object.insert(it.key(),
                      it.key() == TaskHints::cgroups
                          ? QJsonValue(cgroupsToJson(it.value().value<TaskCGroups>()))
                          : QJsonValue::fromVariant(it.value()));
    }
    return object;
}

QVariantMap hintsFromJson(const QJsonObject &object)
{
    QVariantMap hints;
    for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
        hints.insert(it.key(),
                     it.key() == TaskHints::cgroups
                         ? QVariant::fromValue(cgroupsFromJson(it.value().toObject()))
                         : it.value().toVariant());
    }
    return hints;
}

} // namespace

UserSettingsPrivate::UserSettingsPrivate()
    : path(QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation)
           + QStringLiteral("/user-settings.json"))
{
    readFile();
    // In the service nothing destroys it.
    if (QCoreApplication::instance()) {
        connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, this,
                &UserSettingsPrivate::saveIfDirty);
    }
}

UserSettingsPrivate::~UserSettingsPrivate()
{
    saveIfDirty();
}

void UserSettingsPrivate::readFile()
{
    QFile file(path);
    // The test of the kind keeps the service from waiting for a writer of a FIFO.
    if (!QFileInfo(file).isFile() || !file.open(QIODevice::ReadOnly)) {
        qWarning() << "Couldn't read config file" << path;
        return;
    }
    root = QJsonDocument::fromJson(file.readAll()).object();
}

void UserSettingsPrivate::writeFile() const
{
    QDir().mkpath(QFileInfo(path).path());
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        qWarning() << "Couldn't create config file" << path;
        return;
    }
    const QByteArray content = QJsonDocument(root).toJson();
    for (qint64 done = 0; done < content.size();) {
        const qint64 written = file.write(content.constData() + done, content.size() - done);
        if (written < 0) {
            file.cancelWriting();
            break;
        }
        done += written;
    }
    // commit() would take a disk that is full at this point for a success, and the cut file would stand.
    if (!file.flush()) {
        file.cancelWriting();
    }
    file.commit();
}

void UserSettingsPrivate::markDirty()
{
    if (dirty) {
        return;
    }
    dirty = true;
    QMetaObject::invokeMethod(this, &UserSettingsPrivate::saveIfDirty, Qt::QueuedConnection);
}

void UserSettingsPrivate::saveIfDirty()
{
    if (dirty) {
        writeFile();
        dirty = false;
    }
}

UserSettings::UserSettings()
    : d(std::make_unique<UserSettingsPrivate>())
{
}

UserSettings::~UserSettings() = default;

QMap<QString, AutostartEntry> UserSettings::autostartEntries() const
{
    QMap<QString, AutostartEntry> entries;
    const QJsonObject tasks = d->root.value(tasksKey).toObject();
    for (auto it = tasks.constBegin(); it != tasks.constEnd(); ++it) {
        const QJsonObject task = it.value().toObject();
        entries.insert(it.key(),
                       { toStringList(task.value(paramsKey).toArray()),
                         toStringList(task.value(environmentKey).toArray()),
                         hintsFromJson(task.value(hintsKey).toObject()),
                         task.value(conditionDataKey).toObject().toVariantMap() });
    }
    return entries;
}

void UserSettings::setAutostartEntry(const QString &id, const AutostartEntry &entry)
{
    QJsonObject task;
    task.insert(paramsKey, QJsonArray::fromStringList(entry.params));
    task.insert(environmentKey, QJsonArray::fromStringList(entry.environment));
    task.insert(hintsKey, hintsToJson(entry.hints));
    task.insert(conditionDataKey, QJsonObject::fromVariantMap(entry.conditionData));
    // Taken out and put back, so that there is never a second holder for whom all of it would be copied.
    QJsonObject tasks = d->root.take(tasksKey).toObject();
    tasks.insert(id, task);
    d->root.insert(tasksKey, tasks);
    d->markDirty();
}

void UserSettings::removeAutostartEntry(const QString &id)
{
    if (!d->root.value(tasksKey).toObject().contains(id)) {
        return;
    }
    QJsonObject tasks = d->root.take(tasksKey).toObject();
    tasks.remove(id);
    d->root.insert(tasksKey, tasks);
    d->markDirty();
}

} // namespace Core
