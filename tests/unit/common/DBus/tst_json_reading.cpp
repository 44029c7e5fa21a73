#include "DBus/types.h"
#include "common/DBus/json_text.h"

#include "support/log_capture.h"
#include "support/message_probe.h"
#include "support/private_bus.h"

#include <QDBusUnixFileDescriptor>
#include <QtTest>

#include <memory>

using JsonText::nested;
using JsonText::parse;
using JsonText::print;
using JsonText::read;
using TestSupport::LogCapture;
using TestSupport::MessageProbe;
using TestSupport::PrivateBus;

class Echo : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.example.Echo")

public slots:
    QJsonObject Turn(const QJsonObject &object) // NOLINT: the name is the method's on the bus
    {
        received = object;
        QJsonObject reply = object;
        reply.insert(QStringLiteral("turned"), QJsonArray { 1, 2 });
        return reply;
    }

public:
    QJsonObject received;
};

class tst_JsonReading : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void readsEveryBasicType_data();
    void readsEveryBasicType();
    void readsTypedContainers();
    void readsNestedMaps();
    void readsObjectFromVariant();
    void readsArrayFromVariant();
    void variantInVariantIsNull();
    void structureInVariantIsUnsupported();
    void structureInArrayIsSkipped();
    void mapWithOtherKeysIsUnsupported();
    void unsupportedLeavesTheValueAsItWas();
    void readingPastTheEndStops();
    void wrongKindLeavesObjectAndArrayAsTheyWere();
    void deepestMessageIsRead();

    void exportedSlotTakesAndReturnsObjects();

private:
    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<MessageProbe> m_probe;
};

void tst_JsonReading::initTestCase()
{
    Procwarden::registerTypes();
    m_bus = std::make_unique<PrivateBus>();
    m_probe = std::make_unique<MessageProbe>(*m_bus);
}

void tst_JsonReading::cleanupTestCase()
{
    m_probe.reset();
    m_bus.reset();
}

void tst_JsonReading::readsEveryBasicType_data()
{
    QTest::addColumn<QVariant>("sent");
    QTest::addColumn<QJsonValue>("json");

    QTest::newRow("b") << QVariant(true) << QJsonValue(true);
    QTest::newRow("i") << QVariant(qint32(-7)) << QJsonValue(-7);
    QTest::newRow("u") << QVariant(quint32(4000000000U)) << QJsonValue(4000000000.0);
    QTest::newRow("x") << QVariant(qint64(-70000000000)) << QJsonValue(-70000000000.0);
    QTest::newRow("t") << QVariant(quint64(70000000000U)) << QJsonValue(70000000000.0);
    QTest::newRow("d") << QVariant(0.5) << QJsonValue(0.5);
    QTest::newRow("s") << QVariant(QStringLiteral("text")) << QJsonValue(QStringLiteral("text"));
    QTest::newRow("empty s") << QVariant(QString(QLatin1String("")))
                             << QJsonValue(QString(QLatin1String("")));
    QTest::newRow("as") << QVariant(QStringList { QStringLiteral("a") }) << parse("[\"a\"]");
    // Qt knows no JSON for these: they go through their text, if they have one.
    QTest::newRow("n") << QVariant::fromValue(qint16(-7)) << QJsonValue(QStringLiteral("-7"));
    QTest::newRow("q") << QVariant::fromValue(quint16(7)) << QJsonValue(QStringLiteral("7"));
    QTest::newRow("y") << QVariant::fromValue(uchar('A')) << QJsonValue(QStringLiteral("A"));
    QTest::newRow("ay") << QVariant(QByteArray("abc")) << QJsonValue(QStringLiteral("abc"));
    QTest::newRow("o") << QVariant::fromValue(QDBusObjectPath(QStringLiteral("/a"))) << QJsonValue();
    QTest::newRow("g") << QVariant::fromValue(QDBusSignature(QStringLiteral("s"))) << QJsonValue();
    QTest::newRow("h") << QVariant::fromValue(QDBusUnixFileDescriptor(0)) << QJsonValue();
}

void tst_JsonReading::readsEveryBasicType()
{
    QFETCH(QVariant, sent);
    QFETCH(QJsonValue, json);

    // As a member of a map, and as an element of an array of variants.
    const MessageProbe::Result map = m_probe->pass(QVariantMap { { QStringLiteral("key"), sent } });
    QVERIFY(map.arrived);
    QCOMPARE(read(map.argument()), QJsonValue(QJsonObject { { QStringLiteral("key"), json } }));

    const MessageProbe::Result list = m_probe->pass(QVariantList { QVariant(QVariantList { sent, true }) });
    QVERIFY(list.arrived);
    QCOMPARE(read(list.argument()), QJsonValue(QJsonArray { json, true }));
}

void tst_JsonReading::readsTypedContainers()
{
    const auto roundTrip = [this](const QVariant &sent, const char *signature) {
        const MessageProbe::Result result = m_probe->pass(sent);
        return result.arrived && result.signature() == QLatin1String(signature)
            ? print(read(result.argument()))
            : QByteArray("not sent so");
    };
    QDBusArgument ints;
    ints << QList<int> { 1, -2 };
    QCOMPARE(roundTrip(QVariant::fromValue(ints), "ai"), QByteArray("[1,-2]"));

    QDBusArgument arrays;
    arrays << QList<QList<int>> { { 1 }, {}, { 2, 3 } };
    QCOMPARE(roundTrip(QVariant::fromValue(arrays), "aai"), QByteArray("[[1],[],[2,3]]"));

    QDBusArgument strings;
    strings << QMap<QString, QString> { { QStringLiteral("a"), QStringLiteral("b") } };
    QCOMPARE(roundTrip(QVariant::fromValue(strings), "a{ss}"), QByteArray("{\"a\":\"b\"}"));

    QDBusArgument lists;
    lists << QMap<QString, QStringList> { { QStringLiteral("a"), { QStringLiteral("b") } } };
    QCOMPARE(roundTrip(QVariant::fromValue(lists), "a{sas}"), QByteArray("{\"a\":[\"b\"]}"));
}

void tst_JsonReading::readsNestedMaps()
{
    const QVariantMap inner { { QStringLiteral("b"), QVariantMap { { QStringLiteral("c"), 1 } } } };
    const MessageProbe::Result result = m_probe->pass(QVariantMap { { QStringLiteral("a"), inner } });
    QVERIFY(result.arrived);
    QCOMPARE(print(read(result.argument())), QByteArray(R"({"a":{"b":{"c":1}}})"));
}

void tst_JsonReading::readsObjectFromVariant()
{
    const QVariantMap map { { QStringLiteral("a"), 1 } };
    const MessageProbe::Result result = m_probe->pass(QVariant::fromValue(QDBusVariant(map)));
    QCOMPARE(result.signature(), QStringLiteral("v"));
    const QVariant contents = result.argument().value<QDBusVariant>().variant();
    QCOMPARE(qdbus_cast<QJsonObject>(contents), parse(R"({"a":1})").toObject());
}

void tst_JsonReading::readsArrayFromVariant()
{
    const QVariant contents = QVariant(QVariantList { 1, QStringLiteral("a") });
    const MessageProbe::Result result = m_probe->pass(QVariantList { QVariant(QVariantList { contents }) });
    QCOMPARE(result.signature(), QStringLiteral("av"));
    const auto argument = result.argument().value<QDBusArgument>();
    QJsonArray array;
    argument.beginArray();
    argument >> array;
    argument.endArray();
    QCOMPARE(array, parse(R"([1,"a"])").toArray());
}

void tst_JsonReading::variantInVariantIsNull()
{
    const QVariant inner = QVariant::fromValue(QDBusVariant(1));
    const MessageProbe::Result result = m_probe->pass(QVariantMap { { QStringLiteral("a"), inner } });
    QVERIFY(result.arrived);
    QCOMPARE(print(read(result.argument())), QByteArray(R"({"a":null})"));
}

void tst_JsonReading::structureInVariantIsUnsupported()
{
    QDBusArgument structure;
    structure.beginStructure();
    structure << 1 << QStringLiteral("a");
    structure.endStructure();
    const MessageProbe::Result result = m_probe->pass(
        QVariantMap { { QStringLiteral("a"), QVariant::fromValue(structure) }, { QStringLiteral("b"), 2 } });
    QVERIFY(result.arrived);
    QTest::ignoreMessage(QtWarningMsg, "Unsupported type:  \"(is)\"");
    QCOMPARE(print(read(result.argument())), QByteArray(R"({"a":null,"b":2})"));
}

void tst_JsonReading::structureInArrayIsSkipped()
{
    QDBusArgument array;
    array << QVector<Procwarden::ActiveTask>(2);
    const MessageProbe::Result result = m_probe->pass(
        QVariantMap { { QStringLiteral("a"), QVariant::fromValue(array) }, { QStringLiteral("b"), 2 } });
    QVERIFY(result.arrived);
    QTest::ignoreMessage(QtWarningMsg, "Unsupported type:  \"(sia{sv})\"");
    QTest::ignoreMessage(QtWarningMsg, "Unsupported type:  \"(sia{sv})\"");
    QCOMPARE(print(read(result.argument())), QByteArray(R"({"a":[null,null],"b":2})"));
}

void tst_JsonReading::mapWithOtherKeysIsUnsupported()
{
    QDBusArgument map;
    map << QMap<int, QString> { { 1, QStringLiteral("a") } };
    const MessageProbe::Result result = m_probe->pass(
        QVariantMap { { QStringLiteral("a"), QVariant::fromValue(map) }, { QStringLiteral("b"), 2 } });
    QVERIFY(result.arrived);
    QTest::ignoreMessage(QtWarningMsg, "Unsupported type:  \"a{is}\"");
    QCOMPARE(print(read(result.argument())), QByteArray(R"({"a":null,"b":2})"));
}

void tst_JsonReading::unsupportedLeavesTheValueAsItWas()
{
    QDBusArgument structure;
    structure.beginStructure();
    structure << 1;
    structure.endStructure();
    const MessageProbe::Result result = m_probe->pass(QVariant::fromValue(structure));
    QVERIFY(result.arrived);

    QJsonValue value(QStringLiteral("before"));
    QTest::ignoreMessage(QtWarningMsg, "Unsupported type:  \"(i)\"");
    const auto argument = result.argument().value<QDBusArgument>();
    argument >> value;
    QCOMPARE(value, QJsonValue(QStringLiteral("before")));
    QVERIFY(argument.atEnd());
}

void tst_JsonReading::readingPastTheEndStops()
{
    const MessageProbe::Result result = m_probe->pass(QVariantMap());
    const auto argument = result.argument().value<QDBusArgument>();
    QJsonValue value;
    argument >> value;
    QCOMPARE(print(value), QByteArray("{}"));

    const LogCapture log;
    argument >> value;
    QCOMPARE(print(value), QByteArray("{}"));
    QCOMPARE(log.warnings(), QStringList { QStringLiteral("Unsupported type:  \"\"") });
}

void tst_JsonReading::wrongKindLeavesObjectAndArrayAsTheyWere()
{
    QDBusArgument ints;
    ints << QList<int> { 1 };
    const MessageProbe::Result array = m_probe->pass(QVariant::fromValue(ints));
    QJsonObject object { { QStringLiteral("a"), 1 } };
    array.argument().value<QDBusArgument>() >> object;
    QCOMPARE(object.size(), 1);

    const MessageProbe::Result map = m_probe->pass(QVariantMap());
    QJsonArray list { 1 };
    map.argument().value<QDBusArgument>() >> list;
    QCOMPARE(list.size(), 1);
}

void tst_JsonReading::deepestMessageIsRead()
{
    // The bus ends its clients' connections beyond 64 levels, so this is the worst that can arrive.
    QVariant variant = QVariantMap { { QStringLiteral("a"), true } };
    for (int level = 1; level < 21; ++level) {
        variant = QVariantMap { { QStringLiteral("a"), variant } };
    }
    const MessageProbe::Result result = m_probe->pass(variant);
    QVERIFY(result.arrived);
    QCOMPARE(read(result.argument()), nested(21, true, true));

    PrivateBus bus;
    MessageProbe probe(bus);
    QVERIFY(!probe.pass(QVariantMap { { QStringLiteral("a"), variant } }).arrived);
    QTRY_VERIFY(!probe.sender().isConnected());
}

void tst_JsonReading::exportedSlotTakesAndReturnsObjects()
{
    Echo echo;
    QDBusConnection service = m_bus->connect();
    QVERIFY(service.registerObject(QStringLiteral("/"), &echo, QDBusConnection::ExportAllSlots));

    QDBusMessage call =
        QDBusMessage::createMethodCall(service.baseService(), QStringLiteral("/"),
                                       QStringLiteral("org.example.Echo"), QStringLiteral("Turn"));
    call << QVariantMap { { QStringLiteral("text"), QStringLiteral("a") },
                          { QStringLiteral("map"), QVariantMap { { QStringLiteral("b"), 1 } } } };
    const QDBusMessage reply = m_probe->sender().call(call, QDBus::BlockWithGui);
    QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
    QCOMPARE(reply.signature(), QStringLiteral("a{sv}"));
    QCOMPARE(print(echo.received), QByteArray(R"({"map":{"b":1},"text":"a"})"));
    QCOMPARE(print(read(reply.arguments().first())),
             QByteArray(R"({"map":{"b":1},"text":"a","turned":[1,2]})"));
}

QTEST_GUILESS_MAIN(tst_JsonReading)
#include "tst_json_reading.moc"
