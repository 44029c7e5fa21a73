#include "Core/version_overrides.h"

#include "Core/identifier.h"
#include "Core/regular_file.h"
#include "Core/types.h"

#include <QDebug>
#include <QHash>
#include <QSettings>

namespace Core {

namespace {

/// A key without "*" names one application. A pattern is "*" itself, or its only "*" ends it, after a dot.
bool isValidKey(const QString &key)
{
    const int star = key.indexOf(QLatin1Char('*'));
    if (star < 0 || key == QLatin1String("*")) {
        return true;
    }
    return star == key.length() - 1 && star > 0 && key.at(star - 1) == QLatin1Char('.');
}

/// The next more general key: `org.example.App` -> `org.example.*` -> `org.*` -> `*`.
QString generalized(QString key)
{
    if (key.endsWith(QLatin1String(".*"))) {
        key.chop(2);
    }
    key.truncate(key.lastIndexOf(QLatin1Char('.')) + 1);
    return key + QLatin1Char('*');
}

} // namespace

class VersionOverridesPrivate
{
public:
    void load();

    QHash<QString, QString> versions; // key of the file -> version text
};

void VersionOverridesPrivate::load()
{
    const QString path = Types::rootFs() + QStringLiteral("/etc/procwarden/os-version-support.cfg");
    if (!isRegularFile(path)) {
        return;
    }
    QSettings settings(path, QSettings::IniFormat);
    settings.beginGroup(QStringLiteral("Applications"));
    const QStringList keys = settings.allKeys();
    for (const QString &key : keys) {
        if (isValidKey(key)) {
            versions.insert(key, settings.value(key).toString().trimmed());
        } else {
            qWarning() << "Invalid version override:" << key;
        }
    }
}

VersionOverrides::VersionOverrides(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<VersionOverridesPrivate>())
{
    d->load();
}

VersionOverrides::~VersionOverrides() = default;

QString VersionOverrides::version(const Identifier &appId) const
{
    if (appId.isEmpty() || d->versions.isEmpty()) {
        return QString();
    }
    for (QString key = appId.toString();; key = generalized(key)) {
        const auto found = d->versions.constFind(key);
        if (found != d->versions.cend()) {
            return found.value();
        }
        if (key == QLatin1String("*")) {
            return QString();
        }
    }
}

} // namespace Core
