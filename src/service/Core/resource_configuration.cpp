#include "Core/resource_configuration.h"

#include "Core/regular_file.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QMap>
#include <QSettings>
#include <QStandardPaths>

namespace Core {

class ResourceConfigurationPrivate
{
public:
    ResourceConfigurationPrivate();

    void loadStateDirectory(const QString &path);
    void loadStateFile(const QString &state, const QString &path);

    QMap<QString, QMap<QString, QVariantMap>> stateSettings; ///< state -> backend -> setting -> value
    QMap<QString, int> stateDelays; ///< state -> ms; every state that has a file is in it
};

ResourceConfigurationPrivate::ResourceConfigurationPrivate()
{
    const QStringList directories = QStandardPaths::locateAll(
        QStandardPaths::AppLocalDataLocation, QStringLiteral("states"), QStandardPaths::LocateDirectory);
    for (const QString &directory : directories) {
        loadStateDirectory(directory);
    }
}

void ResourceConfigurationPrivate::loadStateDirectory(const QString &path)
{
    const QDir directory(path);
    const QStringList files = directory.entryList({ QStringLiteral("*.config") }, QDir::Files);
    for (const QString &file : files) {
        loadStateFile(QFileInfo(file).baseName(), directory.filePath(file));
    }
}

void ResourceConfigurationPrivate::loadStateFile(const QString &state, const QString &path)
{
    stateDelays.insert(state, 0);
    // The listing lets links to anything through.
    if (!isRegularFile(path)) {
        return;
    }
    QSettings file(path, QSettings::IniFormat);
    stateDelays.insert(state, file.value(QStringLiteral("ApplyWithDelay"), 0).toInt());

    file.beginGroup(QStringLiteral("Backend settings"));
    const QStringList keys = file.allKeys();
    for (const QString &key : keys) {
        const int dot = key.indexOf(QLatin1Char('.'));
        if (dot < 0) {
            qWarning() << "Invalid key in state file:" << key;
            continue;
        }
        stateSettings[state][key.left(dot)].insert(key.mid(dot + 1), file.value(key));
    }
    file.endGroup();
}

ResourceConfiguration::ResourceConfiguration(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<ResourceConfigurationPrivate>())
{
}

ResourceConfiguration::~ResourceConfiguration() = default;

int ResourceConfiguration::applyDelay(const QString &state) const
{
    return d->stateDelays.value(state, 0);
}

QStringList ResourceConfiguration::stateNames() const
{
    return d->stateDelays.keys();
}

QVariantMap ResourceConfiguration::settingsFor(const QString &state, const QString &backend) const
{
    return d->stateSettings.value(state).value(backend);
}

} // namespace Core
