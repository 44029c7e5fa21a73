#include "Core/intent_uri.h"

#include <QDebug>
#include <QJsonValue>
#include <QStringList>
#include <QUrlQuery>

namespace Core {
namespace IntentUri {

namespace {

const QLatin1String scheme("intent");
const QLatin1String prefix("Intent;name=");
const QLatin1String terminator("end");

// A null string if there is no text for the value.
QString valueToString(const QJsonValue &value)
{
    switch (value.type()) {
    case QJsonValue::Bool:
        return value.toBool() ? QStringLiteral("B.true") : QStringLiteral("B.false");
    case QJsonValue::Double:
        return QStringLiteral("d.%1").arg(value.toDouble());
    case QJsonValue::String: {
        const QString text = value.toString();
        if (text.contains(QLatin1Char(';'))) {
            qWarning() << "Cannot encode strings with semicolons";
            return QString();
        }
        return QLatin1String("S.") + text;
    }
    case QJsonValue::Array:
    case QJsonValue::Object:
        qWarning() << "Intent URI conversion does not support arrays or maps";
        return QString();
    case QJsonValue::Null:
    case QJsonValue::Undefined:
        break;
    }
    return QString();
}

// Null if the text stands for no value.
QJsonValue valueFromString(const QString &text)
{
    if (text.size() < 2 || text.at(1) != QLatin1Char('.')) {
        qWarning() << "Intent URI with invalid value";
        return QJsonValue();
    }
    const QString contents = text.mid(2);
    switch (text.at(0).toLatin1()) {
    case 'B':
        return contents == QLatin1String("true");
    case 'S':
        return contents;
    case 'd':
        return contents.toDouble();
    case 'i':
        return contents.toInt();
    default:
        qWarning() << "Unknown intent value type:" << text.at(0);
        return QJsonValue();
    }
}

} // namespace

QUrl toUri(const QString &name, const QJsonObject &hints, const QJsonObject &params)
{
    if (name.isEmpty()) {
        return QUrl();
    }
    QUrlQuery query;
    for (auto it = hints.begin(); it != hints.end(); ++it) {
        const QString text = valueToString(it.value());
        if (text.isEmpty()) {
            return QUrl();
        }
        query.addQueryItem(it.key(), text);
    }
    QStringList parts { name };
    for (auto it = params.begin(); it != params.end(); ++it) {
        const QString text = valueToString(it.value());
        if (text.isEmpty()) {
            return QUrl();
        }
        parts.append(it.key() + QLatin1Char('=') + text);
    }
    parts.append(terminator);

    QUrl url;
    url.setScheme(scheme);
    url.setQuery(query);
    url.setFragment(prefix + parts.join(QLatin1Char(';')), QUrl::TolerantMode);
    url.setAuthority(QLatin1String("")); // present, though empty, which is what gives the "//"
    return url;
}

std::tuple<QString, QJsonObject, QJsonObject> fromUri(const QUrl &url)
{
    if (!url.isValid()) {
        qWarning() << "Invalid intent URI" << url.errorString();
        return {};
    }
    const QString fragment = url.fragment();
    if (url.scheme() != scheme || !fragment.startsWith(prefix) || !fragment.endsWith(terminator)) {
        qWarning() << "Not an intent URI:" << url;
        return {};
    }
    QJsonObject hints;
    const auto items = QUrlQuery(url).queryItems();
    for (const auto &[key, text] : items) {
        hints.insert(key, valueFromString(text));
    }

    const QStringList parts = fragment.mid(prefix.size()).split(QLatin1Char(';'));
    QJsonObject params;
    for (int i = 1; i < parts.size() && parts.at(i) != terminator; ++i) {
        const QString &part = parts.at(i);
        const int equals = part.indexOf(QLatin1Char('='));
        const QJsonValue value = equals > 0 ? valueFromString(part.mid(equals + 1)) : QJsonValue();
        if (value.isNull()) {
            qWarning() << "Invalid intent URI:" << url;
            return {};
        }
        params.insert(part.left(equals), value);
    }
    return { parts.first(), hints, params };
}

} // namespace IntentUri
} // namespace Core
