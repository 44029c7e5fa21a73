#include "Core/intent_configuration.h"

#include "Core/regular_file.h"
#include "Core/types.h"

#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>

namespace Core {

class IntentConfigurationPrivate
{
public:
    IntentConfigurationPrivate();

    bool loadForIntent(const QString &name, IntentConfiguration::Configuration &configuration) const;

    const QString directory; ///< empty if there is none
};

IntentConfigurationPrivate::IntentConfigurationPrivate()
    : directory(QStandardPaths::locate(QStandardPaths::AppDataLocation, QStringLiteral("intents"),
                                       QStandardPaths::LocateDirectory))
{
}

bool IntentConfigurationPrivate::loadForIntent(const QString &name,
                                               IntentConfiguration::Configuration &configuration) const
{
    QByteArray contents;
    const QString path = directory + QLatin1Char('/') + name + QLatin1String(".intent");
    if (directory.isEmpty() || readRegularFile(path, contents) != 0) {
        qDebug() << "Standard intent not defined:" << name;
        return false;
    }
    const QJsonDocument document = QJsonDocument::fromJson(contents);
    if (document.isNull()) {
        qWarning() << "Malformed intent configuration for" << name;
        return false;
    }
    const QJsonObject definition = document.object();

    const QVariant params =
        Types::jsonArrayToVariant(definition.value(QLatin1String("requiredParams")).toArray());
    const bool isEmptyList = params.type() == QVariant::List && params.toList().isEmpty();
    if (params.type() != QVariant::StringList && !isEmptyList) {
        qWarning() << "requiredParams must be a list of strings";
        return false;
    }
    configuration.requiredParams = params.toStringList();
    configuration.hints = Types::jsonObjectToVariantMap(definition.value(QLatin1String("hints")).toObject());
    return true;
}

IntentConfiguration::IntentConfiguration()
    : d(std::make_unique<IntentConfigurationPrivate>())
{
}

IntentConfiguration::~IntentConfiguration() = default;

bool IntentConfiguration::loadForIntent(const QString &name, Configuration &configuration) const
{
    return d->loadForIntent(name, configuration);
}

} // namespace Core
