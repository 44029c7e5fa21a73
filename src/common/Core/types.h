#pragma once

#include <QString>
#include <QVariant>

class QJsonArray;
class QJsonObject;

namespace Core {
namespace Types {

/// A JSON array as a variant whose D-Bus signature is as narrow as its elements allow: elements of one type
/// give a `QList<bool>`, `QList<double>`, `QStringList` or `QList<QVariantMap>` (`ab`, `ad`, `as`, `aa{sv}`),
/// an empty or a mixed array gives a `QVariantList` (`av`). An array of arrays or of nulls gives an invalid
/// variant and a warning.
[[nodiscard]] QVariant jsonArrayToVariant(const QJsonArray &array);

/// A JSON object as a map, with every array inside it, at any depth of objects, as above.
[[nodiscard]] QVariantMap jsonObjectToVariantMap(const QJsonObject &object);

/// What stands before every path of /proc, /sys, /etc and application data: the environment variable
/// PROCWARDEN_ROOTFS, so that the whole service can be pointed at another root. A null string if it is not
/// set. Read afresh at each call.
[[nodiscard]] QString rootFs();

} // namespace Types
} // namespace Core
