// The input's first byte chooses: JSON text that is written and read again, or a recipe for a value as others
// may send it.
//
// A value passes through a connection to itself, where Qt writes it as a message and reads it back, but
// nothing leaves the process.

#include "fuzz.h"

#include "DBus/json.h"
#include "DBus/types.h"

#include "support/private_bus.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QPoint>

#include <algorithm>
#include <cmath>

using Fuzz::check;

namespace {

class Receiver : public QDBusVirtualObject
{
public:
    QString introspect(const QString & /*path*/) const override { return QString(); }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        arguments = message.arguments();
        connection.send(message.createReply());
        return true;
    }

    QVariantList arguments;
};

class Wire
{
public:
    Wire()
        : m_connection(m_bus.connect())
    {
        Procwarden::registerTypes();
        check(m_connection.registerVirtualObject(QStringLiteral("/"), &m_receiver), "there is an object");
    }

    // What comes out at the other end; invalid if the message could not be made.
    QVariant pass(const QVariant &argument)
    {
        m_receiver.arguments.clear();
        QDBusMessage call =
            QDBusMessage::createMethodCall(m_connection.baseService(), QStringLiteral("/"),
                                           QStringLiteral("org.example.Fuzz"), QStringLiteral("Pass"));
        call.setArguments({ argument });
        m_connection.call(call);
        return m_receiver.arguments.value(0);
    }

private:
    TestSupport::PrivateBus m_bus;
    QDBusConnection m_connection;
    Receiver m_receiver;
};

QVariant pass(const QVariant &argument)
{
    static auto *wire = new Wire;
    return wire->pass(argument);
}

QVariant written(const QJsonValue &value)
{
    QDBusArgument argument;
    argument << value;
    return QVariant::fromValue(argument);
}

// Null for what has no place on the bus.
QJsonValue read(const QVariant &argument)
{
    if (argument.userType() == qMetaTypeId<QDBusArgument>()) {
        return qdbus_cast<QJsonValue>(argument.value<QDBusArgument>());
    }
    return QJsonValue::fromVariant(argument);
}

// Whether the bus has a form for the whole of it: not for null, for arrays of arrays, for texts with a NUL or
// with half of a character, nor for what is nested too deeply. What is not even equal to itself is left out
// too.
bool isPlain(const QJsonValue &value, int depth)
{
    if (depth > 8) {
        return false; // the limit is somewhat above this
    }
    if (value.isArray()) {
        const QJsonArray array = value.toArray();
        return std::all_of(array.begin(), array.end(), [depth](const QJsonValue &element) {
            return !element.isArray() && isPlain(element, depth + 1);
        });
    }
    if (value.isObject()) {
        const QJsonObject object = value.toObject();
        for (auto it = object.begin(); it != object.end(); ++it) {
            if (!isPlain(it.key(), depth) || !isPlain(it.value(), depth + 1)) {
                return false;
            }
        }
        return true;
    }
    if (value.isString()) {
        const QString text = value.toString();
        return !text.contains(QChar(0)) && QString::fromUtf8(text.toUtf8()) == text;
    }
    return !value.isNull() && !value.isUndefined() && !(value.isDouble() && std::isnan(value.toDouble()));
}

// Numbers are equal as the bus has them, as doubles.
bool isEqual(const QJsonValue &one, const QJsonValue &other)
{
    if (one.isArray() && other.isArray()) {
        const QJsonArray array = one.toArray();
        const QJsonArray otherArray = other.toArray();
        return std::equal(array.begin(), array.end(), otherArray.begin(), otherArray.end(), isEqual);
    }
    if (one.isObject() && other.isObject()) {
        const QJsonObject object = one.toObject();
        const QJsonObject otherObject = other.toObject();
        return object.keys() == otherObject.keys()
            && std::equal(object.begin(), object.end(), otherObject.begin(), otherObject.end(), isEqual);
    }
    if (one.isDouble() && other.isDouble()) {
        return one.toDouble() == other.toDouble();
    }
    return one == other;
}

void writeAndRead(const QByteArray &json)
{
    const QJsonObject object = Fuzz::parseObject(json);
    const QVariant received = pass(written(object));
    if (isPlain(object, 0)) {
        check(isEqual(read(received), object), "what is written is read");
    } else if (received.isValid()) {
        (void)read(received);
    }
}

// Bytes of the input as choices and texts; zeros behind its end.
class Recipe
{
public:
    explicit Recipe(const QByteArray &bytes)
        : m_bytes(bytes)
    {
    }

    uint next() { return m_at < m_bytes.size() ? static_cast<uchar>(m_bytes.at(m_at++)) : 0; }

    uint choice(uint count) { return next() % count; }

    // ASCII, which can be sent.
    QString text()
    {
        QString result;
        for (uint i = choice(8); i > 0; --i) {
            result += QLatin1Char(static_cast<char>(1 + next() % 127));
        }
        return result;
    }

    qint64 number()
    {
        quint64 result = 0;
        for (int i = 0; i < 8; ++i) {
            result = result << 8 | next();
        }
        return static_cast<qint64>(result);
    }

private:
    const QByteArray m_bytes;
    int m_at = 0;
};

void writeBasic(QDBusArgument &argument, Recipe &recipe)
{
    switch (recipe.choice(12)) {
    case 0:
        argument << static_cast<uchar>(recipe.next());
        break;
    case 1:
        argument << (recipe.choice(2) == 1);
        break;
    case 2:
        argument << static_cast<qint16>(recipe.number());
        break;
    case 3:
        argument << static_cast<quint16>(recipe.number());
        break;
    case 4:
        argument << static_cast<qint32>(recipe.number());
        break;
    case 5:
        argument << static_cast<quint32>(recipe.number());
        break;
    case 6:
        argument << recipe.number();
        break;
    case 7:
        argument << static_cast<quint64>(recipe.number());
        break;
    case 8: {
        const qint64 bits = recipe.number();
        double number = 0;
        static_assert(sizeof(number) == sizeof(bits));
        std::copy_n(reinterpret_cast<const char *>(&bits), sizeof(bits), reinterpret_cast<char *>(&number));
        argument << number;
        break;
    }
    case 9:
        argument << recipe.text();
        break;
    case 10:
        argument << QDBusObjectPath(QStringLiteral("/a/b"));
        break;
    default:
        argument << QDBusSignature(QStringLiteral("a{sv}"));
        break;
    }
}

void writeAny(QDBusArgument &argument, Recipe &recipe, int depth, int structures = 0);

QDBusVariant variantOf(Recipe &recipe, int depth)
{
    QDBusArgument contents;
    writeAny(contents, recipe, depth + 1);
    return QDBusVariant(QVariant::fromValue(contents));
}

void writeMap(QDBusArgument &argument, Recipe &recipe, int depth)
{
    const bool withStrings = recipe.choice(4) != 0;
    argument.beginMap(withStrings ? QMetaType::QString : QMetaType::Int, qMetaTypeId<QDBusVariant>());
    for (uint i = recipe.choice(5); i > 0; --i) {
        argument.beginMapEntry();
        if (withStrings) {
            argument << recipe.text();
        } else {
            argument << static_cast<int>(recipe.next());
        }
        argument << variantOf(recipe, depth);
        argument.endMapEntry();
    }
    argument.endMap();
}

void writeArray(QDBusArgument &argument, Recipe &recipe, int depth)
{
    const uint count = recipe.choice(5);
    switch (recipe.choice(7)) {
    case 0:
        argument << QStringList(QVector<QString>(static_cast<int>(count), recipe.text()).toList());
        break;
    case 1:
        argument << QByteArray(static_cast<int>(count), static_cast<char>(recipe.next()));
        break;
    case 2:
        argument << QList<double>(QVector<double>(static_cast<int>(count), 1.5).toList());
        break;
    case 3: // structures
        argument.beginArray(qMetaTypeId<QPoint>());
        for (uint i = 0; i < count; ++i) {
            argument << QPoint(static_cast<int>(recipe.next()), 1);
        }
        argument.endArray();
        break;
    case 4: // arrays
        argument.beginArray(qMetaTypeId<QStringList>());
        for (uint i = 0; i < count; ++i) {
            argument << QStringList(recipe.text());
        }
        argument.endArray();
        break;
    case 5: // maps
        argument.beginArray(qMetaTypeId<QVariantMap>());
        for (uint i = 0; i < count; ++i) {
            argument << QVariantMap { { recipe.text(), recipe.text() } };
        }
        argument.endArray();
        break;
    default:
        argument.beginArray(qMetaTypeId<QDBusVariant>());
        for (uint i = 0; i < count; ++i) {
            argument << variantOf(recipe, depth);
        }
        argument.endArray();
        break;
    }
}

// A signature that is too long breaks libdbus on the sender's side: no structure is in the third one.
void writeAny(QDBusArgument &argument, Recipe &recipe, int depth, int structures)
{
    const uint kind = depth > 20 ? 0 : recipe.choice(structures < 3 ? 6 : 4);
    switch (kind) {
    case 1:
        writeMap(argument, recipe, depth);
        break;
    case 2:
        writeArray(argument, recipe, depth);
        break;
    case 3:
        argument << variantOf(recipe, depth);
        break;
    case 4:
        argument.beginStructure();
        for (uint i = recipe.choice(3) + 1; i > 0; --i) {
            writeAny(argument, recipe, depth + 1, structures + 1);
        }
        argument.endStructure();
        break;
    default:
        writeBasic(argument, recipe);
        break;
    }
}

void readAny(const QByteArray &bytes)
{
    Recipe recipe(bytes);
    QDBusArgument argument;
    writeAny(argument, recipe, 0);
    const QVariant received = pass(QVariant::fromValue(argument));
    check(received.isValid(), "the value arrives");
    const QJsonValue value = read(received);

    // What was read can be sent on.
    const QJsonObject object { { QStringLiteral("value"), value } };
    const QVariant again = pass(written(object));
    check(!isPlain(object, 0) || isEqual(read(again), object), "what is read can be written");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray input = Fuzz::bytes(data, size);
    if (input.startsWith('{')) {
        writeAndRead(input);
    } else {
        readAny(input);
    }
    return 0;
}
