#include "Core/types.h"

#include <QDebug>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>

#include <algorithm>

namespace Core {
namespace Types {

namespace {

template<class T>
QVariant typedList(const QJsonArray &array)
{
    QList<T> list;
    list.reserve(array.size());
    for (const QJsonValue &value : array) {
        list.append(value.toVariant().value<T>());
    }
    return QVariant::fromValue(list);
}

QVariant stringList(const QJsonArray &array)
{
    QStringList list;
    list.reserve(array.size());
    for (const QJsonValue &value : array) {
        list.append(value.toString());
    }
    return list;
}

} // namespace

QVariant jsonArrayToVariant(const QJsonArray &array)
{
    if (array.isEmpty()) {
        return QVariantList();
    }
    const QJsonValue::Type type = array.first().type();
    if (!std::all_of(array.begin(), array.end(),
                     [type](const QJsonValue &value) { return value.type() == type; })) {
        return array.toVariantList();
    }
    switch (type) {
    case QJsonValue::Bool:
        return typedList<bool>(array);
    case QJsonValue::Double:
        return typedList<double>(array);
    case QJsonValue::String:
        return stringList(array);
    case QJsonValue::Object:
        return typedList<QVariantMap>(array);
    case QJsonValue::Array:
        qWarning() << "JSON array of arrays are not supported";
        return QVariant();
    case QJsonValue::Null:
    case QJsonValue::Undefined:
        qWarning() << "Unknown JSON value type";
        return QVariant();
    }
    return QVariant();
}

QVariantMap jsonObjectToVariantMap(const QJsonObject &object)
{
    QVariantMap map;
    for (auto it = object.begin(); it != object.end(); ++it) {
        const QJsonValue value = it.value();
        if (value.isArray()) {
            map.insert(it.key(), jsonArrayToVariant(value.toArray()));
        } else if (value.isObject()) {
            map.insert(it.key(), jsonObjectToVariantMap(value.toObject()));
        } else {
            map.insert(it.key(), value.toVariant());
        }
    }
    return map;
}

QString rootFs()
{
    return QString::fromUtf8(qgetenv("PROCWARDEN_ROOTFS"));
}

} // namespace Types
} // namespace Core
