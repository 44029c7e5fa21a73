#pragma once

#include <QDBusArgument>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QVariantMap>

#include <optional>

// How JSON travels over D-Bus. The operators are global, where Qt's type registration finds them.
//
// Written: a boolean as b, every number as d, a string as s, an object as a{sv}. An array whose elements are
// of one kind is ab, ad, as or aa{sv}; a mixed array, and an empty one, is av.
//
// The bus has no null, and there is no signature for JSON's arrays of arrays. Nothing of this fails; it is
// logged and leaves a gap: an argument that cannot be written is missing from the message, and a member of an
// object that cannot be written is left out of the map, a null silently. The same goes for what is nested
// more deeply, or is larger, than the bus lets through.
//
// Read: each basic type as QJsonValue::fromVariant() converts it, arrays as arrays, maps with string keys as
// objects, the contents of a variant as themselves. Anything else is logged and skipped, and the value that
// was to be read stays as it was.

QDBusArgument &operator<<(QDBusArgument &argument, const QJsonValue &value);
const QDBusArgument &operator>>(const QDBusArgument &argument, QJsonValue &value);

QDBusArgument &operator<<(QDBusArgument &argument, const QJsonObject &object);
const QDBusArgument &operator>>(const QDBusArgument &argument, QJsonObject &object);

QDBusArgument &operator<<(QDBusArgument &argument, const QJsonArray &array);
const QDBusArgument &operator>>(const QDBusArgument &argument, QJsonArray &array);

namespace DBus {

/// @p object as a map for the bus, where every array is one of variants (av) and every number a double.
/// @returns nothing, after a warning, if a message cannot hold the object: where one is an argument of a
///          message, the message would be sent without it.
[[nodiscard]] std::optional<QVariantMap> toBusMap(const QJsonObject &object);

} // namespace DBus
