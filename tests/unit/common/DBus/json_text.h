#pragma once

#include "DBus/json.h"

#include <QDBusArgument>
#include <QJsonDocument>
#include <QVariant>

namespace JsonText {

inline QJsonValue parse(const QByteArray &json)
{
    // A document is an array or an object; any other value is taken out of an array.
    return QJsonDocument::fromJson("[" + json + "]").array().first();
}

inline QByteArray print(const QJsonValue &value)
{
    const QByteArray json = QJsonDocument(QJsonArray { value }).toJson(QJsonDocument::Compact);
    return json.mid(1, json.size() - 2);
}

// Any kind of value, by the operator. As a variant of its own Qt would take it for an argument without
// signature.
inline QVariant written(const QJsonValue &value)
{
    QDBusArgument argument;
    argument << value;
    return QVariant::fromValue(argument);
}

inline QJsonValue read(const QVariant &argument)
{
    if (argument.userType() == qMetaTypeId<QDBusArgument>()) {
        return qdbus_cast<QJsonValue>(argument.value<QDBusArgument>());
    }
    return QJsonValue::fromVariant(argument);
}

inline QJsonValue nested(int levels, const QJsonValue &core, bool objects)
{
    QJsonValue value = core;
    for (int level = 0; level < levels; ++level) {
        value = objects ? QJsonValue(QJsonObject { { QStringLiteral("a"), value } })
                        : QJsonValue(QJsonArray { value, true });
    }
    return value;
}

} // namespace JsonText
