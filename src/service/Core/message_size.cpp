#include "Core/message_size.h"

#include <QDBusArgument>
#include <QDBusVariant>

namespace Core {

namespace {

constexpr qint64 bytesPerCharacter = 3; // of a UTF-16 unit in UTF-8, at most
constexpr qint64 bytesPerValue = 8; // a number, or what a container needs for itself

/// Counts down what is left of the limit.
class Budget
{
public:
    explicit Budget(qint64 limit)
        : m_left(limit)
    {
    }

    bool isOver() const { return m_left < 0; }
    qint64 left() const { return m_left; }
    void take(const QVariant &value);

private:
    void take(const QString &text) { m_left -= bytesPerValue + bytesPerCharacter * text.size(); }
    void takeAll(const QDBusArgument &argument);
    void takeNext(const QDBusArgument &argument);

    qint64 m_left;
};

void Budget::take(const QVariant &value)
{
    const int type = value.userType();
    if (isOver()) {
        return;
    }
    if (type == qMetaTypeId<QDBusVariant>()) {
        take(value.value<QDBusVariant>().variant());
    } else if (type == qMetaTypeId<QDBusArgument>()) {
        takeAll(value.value<QDBusArgument>());
    } else if (type == QMetaType::QByteArray) {
        m_left -= bytesPerValue + value.toByteArray().size();
    } else if (type == QMetaType::QString) {
        take(value.toString());
    } else if (type == QMetaType::QStringList) {
        const QStringList texts = value.toStringList();
        for (const QString &text : texts) {
            take(text);
        }
    } else if (type == QMetaType::QVariantList) {
        const QVariantList values = value.toList();
        for (const QVariant &element : values) {
            take(element);
        }
    } else if (type == QMetaType::QVariantMap) {
        const QVariantMap values = value.toMap();
        for (auto entry = values.cbegin(); entry != values.cend(); ++entry) {
            take(entry.key());
            take(entry.value());
        }
    }
    m_left -= bytesPerValue;
}

void Budget::takeAll(const QDBusArgument &argument)
{
    while (!isOver() && !argument.atEnd()) {
        takeNext(argument);
    }
}

void Budget::takeNext(const QDBusArgument &argument)
{
    switch (argument.currentType()) {
    case QDBusArgument::StructureType:
        argument.beginStructure();
        takeAll(argument);
        argument.endStructure();
        break;
    case QDBusArgument::MapType:
        argument.beginMap();
        while (!isOver() && !argument.atEnd()) {
            argument.beginMapEntry();
            takeAll(argument);
            argument.endMapEntry();
        }
        argument.endMap();
        break;
    case QDBusArgument::ArrayType:
        if (argument.currentSignature() == QLatin1String("ay")) {
            take(argument.asVariant());
            break;
        }
        argument.beginArray();
        takeAll(argument);
        argument.endArray();
        break;
    case QDBusArgument::BasicType:
    case QDBusArgument::VariantType:
    case QDBusArgument::MapEntryType:
    case QDBusArgument::UnknownType:
        take(argument.asVariant());
        break;
    }
    m_left -= bytesPerValue;
}

} // namespace

qint64 estimatedMessageSize(const QVariantList &arguments)
{
    Budget budget(maximumMessageSize);
    budget.take(arguments);
    return maximumMessageSize - budget.left();
}

} // namespace Core
