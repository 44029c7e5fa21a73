#include "wire_value.h"

#include <QDBusArgument>
#include <QDBusObjectPath>
#include <QDBusSignature>
#include <QDBusUnixFileDescriptor>
#include <QDBusVariant>
#include <QVariantMap>

namespace Ctl {

namespace {

QVariant plainArgument(const QDBusArgument &argument)
{
    switch (argument.currentType()) {
    case QDBusArgument::BasicType:
    case QDBusArgument::VariantType:
        return plainValue(argument.asVariant());
    case QDBusArgument::ArrayType: {
        QVariantList list;
        argument.beginArray();
        while (!argument.atEnd()) {
            list.append(plainArgument(argument));
        }
        argument.endArray();
        return list;
    }
    case QDBusArgument::StructureType: {
        QVariantList list;
        argument.beginStructure();
        while (!argument.atEnd()) {
            list.append(plainArgument(argument));
        }
        argument.endStructure();
        return list;
    }
    case QDBusArgument::MapType: {
        QVariantMap map;
        argument.beginMap();
        while (!argument.atEnd()) {
            argument.beginMapEntry();
            const QString key = plainArgument(argument).toString();
            map.insert(key, plainArgument(argument));
            argument.endMapEntry();
        }
        argument.endMap();
        return map;
    }
    case QDBusArgument::MapEntryType:
    case QDBusArgument::UnknownType:
        break;
    }
    return QVariant();
}

} // namespace

QVariant plainValue(const QVariant &value)
{
    const int type = value.userType();
    if (type == qMetaTypeId<QDBusArgument>()) {
        return plainArgument(value.value<QDBusArgument>());
    }
    if (type == qMetaTypeId<QDBusVariant>()) {
        return plainValue(value.value<QDBusVariant>().variant());
    }
    if (type == qMetaTypeId<QDBusObjectPath>()) {
        return value.value<QDBusObjectPath>().path();
    }
    if (type == qMetaTypeId<QDBusSignature>()) {
        return value.value<QDBusSignature>().signature();
    }
    if (type == qMetaTypeId<QDBusUnixFileDescriptor>()) {
        return QStringLiteral("fd");
    }
    if (type == QMetaType::UChar || type == QMetaType::Short || type == QMetaType::UShort) {
        return value.toInt(); // JSON would have them as texts
    }
    if (type == QMetaType::QVariantMap) {
        QVariantMap map = value.toMap();
        for (auto entry = map.begin(); entry != map.end(); ++entry) {
            *entry = plainValue(*entry);
        }
        return map;
    }
    if (type == QMetaType::QVariantList) {
        QVariantList list = value.toList();
        for (QVariant &entry : list) {
            entry = plainValue(entry);
        }
        return list;
    }
    return value;
}

} // namespace Ctl
