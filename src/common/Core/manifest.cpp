#include "Core/manifest.h"

#include "Core/identifier.h"
#include "Core/regular_file.h"
#include "Core/types.h"

#include <QDebug>
#include <QJsonDocument>
#include <QJsonObject>

#include <cerrno>

namespace Core {

class ManifestPrivate
{
public:
    void parseManifest(const QString &path);

    QJsonObject object; // the whole file; empty if there is none
    bool valid = false;
};

void ManifestPrivate::parseManifest(const QString &path)
{
    QByteArray data;
    const int error = readRegularFile(path, data);
    if (error == ENOENT || error == ENOTDIR) {
        return; // not installed as a package
    }
    if (error != 0) {
        qDebug() << "Failed to open file:" << path << "reason:" << qt_error_string(error);
        return;
    }
    QJsonParseError parseError {};
    const QJsonDocument document = QJsonDocument::fromJson(data, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        qWarning() << "Could not parse manifest.json";
        qWarning() << "Parse error at " << parseError.offset << ":" << parseError.errorString();
        return;
    }
    if (document.isObject()) {
        object = document.object();
        valid = true;
    }
}

Manifest::Manifest()
    : d(std::make_unique<ManifestPrivate>())
{
}

Manifest::Manifest(const Identifier &id)
    : Manifest()
{
    if (id.isValid()) {
        d->parseManifest(
            QStringLiteral("%1/opt/app/%2/current/manifest.json").arg(Types::rootFs(), id.toString()));
    }
}

Manifest::Manifest(const Manifest &other)
    : d(std::make_unique<ManifestPrivate>(*other.d))
{
}

Manifest &Manifest::operator=(const Manifest &other)
{
    *d = *other.d;
    return *this;
}

Manifest::~Manifest() = default;

bool Manifest::isValid() const
{
    return d->valid;
}

const QJsonObject &Manifest::object() const
{
    return d->object;
}

bool Manifest::keepMediaActiveInBackground() const
{
    return d->object.value(QLatin1String("keepMediaActiveInBackground")).toBool();
}

} // namespace Core
