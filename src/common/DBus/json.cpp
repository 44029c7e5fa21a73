#include "DBus/json.h"

#include <QDBusVariant>
#include <QDebug>
#include <QVariant>

#include <algorithm>
#include <optional>

namespace {

// A bus daemon closes the connection of a client that sends a message beyond its limits, so what comes from
// outside must not lead there. An object takes three of the bus's levels and an element of a mixed array two,
// and bus messages have room for 64; the rest is for what the argument itself stands in.
constexpr int maximumDepth = 64 - 4;
constexpr qint64 maximumBytes = 64 * 1024 * 1024; // of an array, which an object is as well
constexpr int valueBytes = 32; // at most, with its padding, its signature and its place in a map
constexpr int characterBytes = 3; // at most, of a UTF-16 unit in UTF-8

// Takes what the value needs from the budget.
bool fits(const QJsonValue &value, int depth, qint64 &budget)
{
    budget -= valueBytes;
    if (value.isString()) {
        budget -= qint64(characterBytes) * value.toString().size();
    }
    if (depth > maximumDepth || budget < 0) {
        return false;
    }
    if (value.isArray()) {
        const QJsonArray array = value.toArray();
        return std::all_of(array.begin(), array.end(),
                           [&](const QJsonValue &element) { return fits(element, depth + 2, budget); });
    }
    if (value.isObject()) {
        const QJsonObject object = value.toObject();
        for (auto it = object.begin(); it != object.end(); ++it) {
            budget -= qint64(characterBytes) * it.key().size();
            if (!fits(it.value(), depth + 3, budget)) {
                return false;
            }
        }
    }
    return true;
}

bool fits(const QJsonValue &value)
{
    qint64 budget = maximumBytes;
    if (fits(value, 0, budget)) {
        return true;
    }
    qWarning() << "JSON value is nested too deeply or too large for D-Bus";
    return false;
}

void warnUnknownType()
{
    qWarning() << "Unknown JSON value type";
}

// The contents of a variant. Nothing for a null, and for an array that holds one, since leaving it out would
// move the elements behind it; an object does without the member.
std::optional<QVariant> variantContents(const QJsonValue &value)
{
    switch (value.type()) {
    case QJsonValue::Bool:
        return value.toBool();
    case QJsonValue::Double:
        return value.toDouble(); // toVariant() would make an integer of a whole number
    case QJsonValue::String:
        return value.toString();
    case QJsonValue::Array: {
        QVariantList list;
        const QJsonArray array = value.toArray();
        for (const QJsonValue &element : array) {
            const std::optional<QVariant> contents = variantContents(element);
            if (!contents) {
                return std::nullopt;
            }
            list.append(*contents);
        }
        return list;
    }
    case QJsonValue::Object: {
        QVariantMap map;
        const QJsonObject object = value.toObject();
        for (auto it = object.begin(); it != object.end(); ++it) {
            if (const std::optional<QVariant> contents = variantContents(it.value())) {
                map.insert(it.key(), *contents);
            }
        }
        return map;
    }
    case QJsonValue::Null:
    case QJsonValue::Undefined:
        break;
    }
    return std::nullopt;
}

bool writeObject(QDBusArgument &argument, const QJsonObject &object);
bool writeArray(QDBusArgument &argument, const QJsonArray &array);

// False if nothing was written. A null never is: Qt takes a variant that holds nothing for an error of the
// whole argument.
bool writeValue(QDBusArgument &argument, const QJsonValue &value)
{
    switch (value.type()) {
    case QJsonValue::Null:
        return false;
    case QJsonValue::Bool:
        argument << value.toBool();
        return true;
    case QJsonValue::Double:
        argument << value.toDouble();
        return true;
    case QJsonValue::String:
        argument << value.toString();
        return true;
    case QJsonValue::Array:
        return writeArray(argument, value.toArray());
    case QJsonValue::Object:
        return writeObject(argument, value.toObject());
    case QJsonValue::Undefined:
        break;
    }
    warnUnknownType();
    return false;
}

bool writeObject(QDBusArgument &argument, const QJsonObject &object)
{
    argument.beginMap(QMetaType::QString, qMetaTypeId<QDBusVariant>());
    for (auto it = object.begin(); it != object.end(); ++it) {
        // A variant takes its signature from what it holds: an argument knows it, a QJsonArray does not. One
        // with nothing in it must not get there, the bus library ends the program then.
        QDBusArgument contents;
        if (writeValue(contents, it.value())) {
            argument.beginMapEntry();
            argument << it.key() << QDBusVariant(QVariant::fromValue(contents));
            argument.endMapEntry();
        }
    }
    argument.endMap();
    return true;
}

bool writeMixedArray(QDBusArgument &argument, const QJsonArray &array)
{
    const std::optional<QVariant> list = variantContents(array);
    if (!list) {
        warnUnknownType();
        return false;
    }
    argument << list->toList();
    return true;
}

bool writeElements(QDBusArgument &argument, const QJsonArray &array, int elementType)
{
    argument.beginArray(elementType);
    for (const QJsonValue &element : array) {
        writeValue(argument, element);
    }
    argument.endArray();
    return true;
}

bool writeArray(QDBusArgument &argument, const QJsonArray &array)
{
    if (array.isEmpty()) {
        argument << QVariantList();
        return true;
    }
    const QJsonValue::Type kind = array.first().type();
    const auto differs = [kind](const QJsonValue &element) {
        return element.type() != kind;
    };
    if (std::any_of(array.begin(), array.end(), differs)) {
        return writeMixedArray(argument, array);
    }
    switch (kind) {
    case QJsonValue::Bool:
        return writeElements(argument, array, QMetaType::Bool);
    case QJsonValue::Double:
        return writeElements(argument, array, QMetaType::Double);
    case QJsonValue::String:
        return writeElements(argument, array, QMetaType::QString);
    case QJsonValue::Object:
        return writeElements(argument, array, qMetaTypeId<QJsonObject>());
    case QJsonValue::Array:
        qWarning() << "JSON array of arrays are not supported";
        return false;
    case QJsonValue::Null:
    case QJsonValue::Undefined:
        break;
    }
    warnUnknownType();
    return false;
}

// Leaves the element behind, so that whoever reads on does not meet it again.
void skip(const QDBusArgument &argument)
{
    qWarning() << "Unsupported type: " << argument.currentSignature();
    argument.asVariant();
}

QJsonValue readContents(const QVariant &contents, const QJsonValue &fallback)
{
    if (!contents.canConvert<QDBusArgument>()) {
        return QJsonValue::fromVariant(contents);
    }
    QJsonValue value = fallback;
    contents.value<QDBusArgument>() >> value;
    return value;
}

QJsonArray readArray(const QDBusArgument &argument)
{
    QJsonArray array;
    argument.beginArray();
    while (!argument.atEnd()) {
        QJsonValue element;
        argument >> element;
        array.append(element);
    }
    argument.endArray();
    return array;
}

bool hasStringKeys(const QDBusArgument &map)
{
    return map.currentSignature().startsWith(QLatin1String("a{s"));
}

QJsonObject readMap(const QDBusArgument &argument)
{
    QJsonObject object;
    argument.beginMap();
    while (!argument.atEnd()) {
        QString key;
        QJsonValue value;
        argument.beginMapEntry();
        argument >> key >> value;
        argument.endMapEntry();
        object.insert(key, value);
    }
    argument.endMap();
    return object;
}

} // namespace

QDBusArgument &operator<<(QDBusArgument &argument, const QJsonValue &value)
{
    if (value.isNull()) {
        argument << QDBusVariant();
    } else if (fits(value)) {
        writeValue(argument, value);
    }
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, QJsonValue &value)
{
    switch (argument.currentType()) {
    case QDBusArgument::BasicType:
        value = QJsonValue::fromVariant(argument.asVariant());
        return argument;
    case QDBusArgument::VariantType: {
        QDBusVariant variant;
        argument >> variant;
        value = readContents(variant.variant(), value);
        return argument;
    }
    case QDBusArgument::ArrayType:
        value = readArray(argument);
        return argument;
    case QDBusArgument::MapType:
        if (!hasStringKeys(argument)) {
            break;
        }
        value = readMap(argument);
        return argument;
    case QDBusArgument::StructureType:
    case QDBusArgument::MapEntryType:
    case QDBusArgument::UnknownType:
        break;
    }
    skip(argument);
    return argument;
}

QDBusArgument &operator<<(QDBusArgument &argument, const QJsonObject &object)
{
    if (fits(object)) {
        writeObject(argument, object);
    }
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, QJsonObject &object)
{
    // Also an object in a variant, as a reply may bring it.
    QJsonValue value;
    argument >> value;
    if (value.isObject()) {
        object = value.toObject();
    }
    return argument;
}

QDBusArgument &operator<<(QDBusArgument &argument, const QJsonArray &array)
{
    if (fits(array)) {
        writeArray(argument, array);
    }
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, QJsonArray &array)
{
    QJsonValue value;
    argument >> value;
    if (value.isArray()) {
        array = value.toArray();
    }
    return argument;
}

namespace DBus {

std::optional<QVariantMap> toBusMap(const QJsonObject &object)
{
    if (!fits(object)) {
        return std::nullopt;
    }
    return variantContents(object)->toMap();
}

} // namespace DBus
