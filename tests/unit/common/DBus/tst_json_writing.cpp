#include "DBus/types.h"
#include "common/DBus/json_text.h"

#include "support/log_capture.h"
#include "support/message_probe.h"
#include "support/private_bus.h"

#include <QDBusMetaType>
#include <QtTest>

#include <memory>

using JsonText::nested;
using JsonText::parse;
using JsonText::print;
using JsonText::read;
using JsonText::written;
using TestSupport::LogCapture;
using TestSupport::MessageProbe;
using TestSupport::PrivateBus;

namespace {

// Objects and arrays as the interfaces send them.
QVariant asArgument(const QJsonValue &value)
{
    if (value.isObject()) {
        return QVariant::fromValue(value.toObject());
    }
    return value.isArray() ? QVariant::fromValue(value.toArray()) : written(value);
}

// The signature of the variant that a map holds under a key.
QString signatureOf(const QVariant &map, const QString &key)
{
    const QVariantMap members = qdbus_cast<QVariantMap>(map.value<QDBusArgument>());
    const QVariant member = members.value(key);
    if (member.userType() == qMetaTypeId<QDBusArgument>()) {
        return member.value<QDBusArgument>().currentSignature();
    }
    return QString::fromLatin1(QDBusMetaType::typeToSignature(member.userType()));
}

} // namespace

class tst_JsonWriting : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void signatureOnTheWire_data();
    void signatureOnTheWire();
    void signatureInsideAnObject_data();
    void signatureInsideAnObject();
    void everyNumberIsADouble();
    void comesBackAsItWas_data();
    void comesBackAsItWas();

    void arrayOfArraysIsMissing();
    void arrayOfNullsIsMissing();
    void mixedArrayWithNullIsMissing();
    void undefinedIsMissing();
    void nullIsMissing();
    void valueAsAVariantOfItsOwnIsMissing();
    void otherArgumentsStillGoOut();
    void oddTextStillGoesOut_data();
    void oddTextStillGoesOut();
    void memberThatCannotBeWrittenIsLeftOut_data();
    void memberThatCannotBeWrittenIsLeftOut();

    void deepestJsonThatFits_data();
    void deepestJsonThatFits();
    void tooDeepJsonIsMissing_data();
    void tooDeepJsonIsMissing();
    void tooLargeJsonIsMissing();

private:
    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<MessageProbe> m_probe;
};

void tst_JsonWriting::initTestCase()
{
    Procwarden::registerTypes();
    m_bus = std::make_unique<PrivateBus>();
    m_probe = std::make_unique<MessageProbe>(*m_bus);
}

void tst_JsonWriting::cleanupTestCase()
{
    m_probe.reset();
    m_bus.reset();
}

void tst_JsonWriting::signatureOnTheWire_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("signature");

    const auto row = [](const char *json, const char *signature) {
        QTest::newRow(json) << QByteArray(json) << QString::fromLatin1(signature);
    };
    row("true", "b");
    row("1", "d");
    row("2.5", "d");
    row("\"text\"", "s");
    row("\"\"", "s");
    row("{}", "a{sv}");
    row("{\"a\":1,\"b\":[true]}", "a{sv}");
    row("[]", "av");
    row("[true,false]", "ab");
    row("[1,2.5]", "ad");
    row("[1]", "ad");
    row("[\"a\",\"b\"]", "as");
    row("[{},{}]", "aa{sv}");
    row("[{\"a\":1},{\"b\":\"c\"}]", "aa{sv}");
    row("[1,\"a\"]", "av");
    row("[[1],2]", "av");
    row("[{},1]", "av");
    row("[true,1]", "av");
}

void tst_JsonWriting::signatureOnTheWire()
{
    QFETCH(QByteArray, json);
    QFETCH(QString, signature);

    const LogCapture log;
    const MessageProbe::Result result = m_probe->pass(asArgument(parse(json)));
    QVERIFY(result.arrived);
    QCOMPARE(result.signature(), signature);
    // A QJsonValue follows the same rules whatever it holds.
    const MessageProbe::Result asValue = m_probe->pass(written(parse(json)));
    QVERIFY(asValue.arrived);
    QCOMPARE(asValue.signature(), signature);
    QCOMPARE(log.messages(), QStringList());
}

void tst_JsonWriting::signatureInsideAnObject_data()
{
    signatureOnTheWire_data();
}

void tst_JsonWriting::signatureInsideAnObject()
{
    QFETCH(QByteArray, json);
    QFETCH(QString, signature);

    const QJsonObject object { { QStringLiteral("key"), parse(json) } };
    const MessageProbe::Result result = m_probe->pass(QVariant::fromValue(object));
    QVERIFY(result.arrived);
    QCOMPARE(result.signature(), QStringLiteral("a{sv}"));
    QCOMPARE(signatureOf(result.argument(), QStringLiteral("key")), signature);
}

void tst_JsonWriting::everyNumberIsADouble()
{
    const MessageProbe::Result result = m_probe->pass(asArgument(parse(R"([1,"a",2.5,[3]])")));
    const auto elements = qdbus_cast<QVariantList>(result.argument().value<QDBusArgument>());
    QCOMPARE(elements.size(), 4);
    QCOMPARE(elements.at(0).userType(), int(QMetaType::Double));
    QCOMPARE(elements.at(2).userType(), int(QMetaType::Double));
    const auto inner = qdbus_cast<QVariantList>(elements.at(3).value<QDBusArgument>());
    QCOMPARE(inner.at(0).userType(), int(QMetaType::Double));
    QCOMPARE(signatureOf(m_probe->pass(asArgument(parse(R"({"a":1})"))).argument(), QStringLiteral("a")),
             QStringLiteral("d"));
}

void tst_JsonWriting::comesBackAsItWas_data()
{
    QTest::addColumn<QByteArray>("json");

    for (const char *json : { "true", "false", "1", "-2.5", "1e300", "9007199254740993", "\"text\"", "\"\"",
                              "\"\xc3\xa4\xe2\x82\xac\"", "[]", "[true,false]", "[1,2.5]", "[\"a\",\"\"]",
                              "[{},{}]", "[1,\"a\",true,{\"b\":[1]},[2,[3]]]", "{}",
                              "{\"a\":{\"b\":{\"c\":[{\"d\":1},{\"e\":[]}]}},\"f\":\"g\",\"\":0}" }) {
        QTest::newRow(json) << QByteArray(json);
    }
}

void tst_JsonWriting::comesBackAsItWas()
{
    QFETCH(QByteArray, json);

    const LogCapture log;
    const MessageProbe::Result result = m_probe->pass(asArgument(parse(json)));
    QVERIFY(result.arrived);
    QCOMPARE(print(read(result.argument())),
             print(parse(json).isDouble() ? parse(json).toDouble() : parse(json)));
    QCOMPARE(log.messages(), QStringList());
}

void tst_JsonWriting::arrayOfArraysIsMissing()
{
    QTest::ignoreMessage(QtWarningMsg, "JSON array of arrays are not supported");
    const MessageProbe::Result result = m_probe->pass(asArgument(parse("[[1],[2]]")));
    QVERIFY(result.arrived);
    QCOMPARE(result.signature(), QString());
}

void tst_JsonWriting::arrayOfNullsIsMissing()
{
    QTest::ignoreMessage(QtWarningMsg, "Unknown JSON value type");
    const MessageProbe::Result result = m_probe->pass(asArgument(parse("[null,null]")));
    QVERIFY(result.arrived);
    QCOMPARE(result.signature(), QString());
}

void tst_JsonWriting::mixedArrayWithNullIsMissing()
{
    QTest::ignoreMessage(QtWarningMsg, "Unknown JSON value type");
    const MessageProbe::Result result = m_probe->pass(asArgument(parse("[1,[2,null]]")));
    QVERIFY(result.arrived);
    QCOMPARE(result.signature(), QString());
}

void tst_JsonWriting::undefinedIsMissing()
{
    QTest::ignoreMessage(QtWarningMsg, "Unknown JSON value type");
    const MessageProbe::Result result = m_probe->pass(written(QJsonValue(QJsonValue::Undefined)));
    QVERIFY(result.arrived);
    QCOMPARE(result.signature(), QString());
}

void tst_JsonWriting::nullIsMissing()
{
    QTest::ignoreMessage(QtWarningMsg, "QDBusMarshaller: cannot add a null QDBusVariant");
    const MessageProbe::Result result = m_probe->pass(written(QJsonValue(QJsonValue::Null)));
    QVERIFY(result.arrived);
    QCOMPARE(result.signature(), QString());
}

void tst_JsonWriting::valueAsAVariantOfItsOwnIsMissing()
{
    // Qt takes the signature from a default-made value, a null, which has none.
    const LogCapture log;
    const MessageProbe::Result result = m_probe->pass(QVariant::fromValue(QJsonValue(true)));
    QVERIFY(result.arrived);
    QCOMPARE(result.signature(), QString());
    QVERIFY(!log.warnings().isEmpty());
}

void tst_JsonWriting::otherArgumentsStillGoOut()
{
    QTest::ignoreMessage(QtWarningMsg, "JSON array of arrays are not supported");
    const MessageProbe::Result result =
        m_probe->pass(QVariantList { QStringLiteral("before"), asArgument(parse("[[]]")), true });
    QVERIFY(result.arrived);
    QCOMPARE(result.signature(), QStringLiteral("sb"));
}

void tst_JsonWriting::oddTextStillGoesOut_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("received");

    const QString start = QStringLiteral("a");
    QTest::newRow("zero") << QString(start + QChar(0) + start) << start;
    QTest::newRow("lone surrogate") << QString(start + QChar(0xd800)) << QStringLiteral("a?");
    QTest::newRow("no character") << QString(start + QChar(0xffff)) << QString(start + QChar(0xffff));
    QTest::newRow("outside of the plane")
        << QString::fromUtf8("\xf0\x9f\x98\x80") << QString::fromUtf8("\xf0\x9f\x98\x80");
    QTest::newRow("a million") << QString(1000000, QLatin1Char('a')) << QString(1000000, QLatin1Char('a'));
}

void tst_JsonWriting::oddTextStillGoesOut()
{
    QFETCH(QString, text);
    QFETCH(QString, received);

    const MessageProbe::Result result =
        m_probe->pass(QVariant::fromValue(QJsonObject { { text, QJsonArray { text, true } } }));
    QVERIFY(result.arrived);
    QVERIFY(read(result.argument()) == (QJsonObject { { received, QJsonArray { received, true } } }));
    QVERIFY(m_probe->pass(true).arrived);
}

void tst_JsonWriting::memberThatCannotBeWrittenIsLeftOut_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QByteArray>("received");
    QTest::addColumn<QStringList>("warnings");

    const QString arrays = QStringLiteral("JSON array of arrays are not supported");
    const QString unknown = QStringLiteral("Unknown JSON value type");
    QTest::newRow("null") << QByteArray(R"({"a":null,"b":1})") << QByteArray(R"({"b":1})") << QStringList();
    QTest::newRow("only null") << QByteArray(R"({"a":null})") << QByteArray("{}") << QStringList();
    QTest::newRow("nested null") << QByteArray(R"({"a":{"b":null}})") << QByteArray(R"({"a":{}})")
                                 << QStringList();
    QTest::newRow("null in an array's object") << QByteArray(R"({"a":[{"b":null},{"c":1}]})")
                                               << QByteArray(R"({"a":[{},{"c":1}]})") << QStringList();
    QTest::newRow("null in a mixed array's object")
        << QByteArray(R"({"a":[1,{"b":null}]})") << QByteArray(R"({"a":[1,{}]})") << QStringList();
    QTest::newRow("array of arrays") << QByteArray(R"({"a":[[1]],"b":1})") << QByteArray(R"({"b":1})")
                                     << QStringList { arrays };
    QTest::newRow("array of nulls") << QByteArray(R"({"a":[null],"b":1})") << QByteArray(R"({"b":1})")
                                    << QStringList { unknown };
    QTest::newRow("mixed array with null")
        << QByteArray(R"({"a":[1,null],"b":1})") << QByteArray(R"({"b":1})") << QStringList { unknown };
}

void tst_JsonWriting::memberThatCannotBeWrittenIsLeftOut()
{
    QFETCH(QByteArray, json);
    QFETCH(QByteArray, received);
    QFETCH(QStringList, warnings);

    const LogCapture log;
    const MessageProbe::Result result = m_probe->pass(asArgument(parse(json)));
    QVERIFY(result.arrived);
    QCOMPARE(print(read(result.argument())), received);
    QCOMPARE(log.messages(), warnings);
}

void tst_JsonWriting::deepestJsonThatFits_data()
{
    QTest::addColumn<QJsonValue>("json");

    // The last variant still has room for an array.
    QTest::newRow("objects") << nested(20, QStringLiteral("core"), true);
    QTest::newRow("mixed arrays") << nested(30, QStringLiteral("core"), false);
}

void tst_JsonWriting::deepestJsonThatFits()
{
    QFETCH(QJsonValue, json);

    // Also where it is in a variant of a map, as among the hints.
    const QVariant alone = asArgument(json);
    const QVariant inMap = QVariantMap { { QStringLiteral("key"), alone } };
    for (const QVariant &argument : { alone, inMap }) {
        const MessageProbe::Result result = m_probe->pass(argument);
        QVERIFY(result.arrived);
    }
    QCOMPARE(print(read(m_probe->pass(alone).argument())), print(json));
}

void tst_JsonWriting::tooDeepJsonIsMissing_data()
{
    QTest::addColumn<QJsonValue>("json");

    QTest::newRow("objects") << nested(21, QStringLiteral("core"), true);
    QTest::newRow("mixed arrays") << nested(31, QStringLiteral("core"), false);
    QTest::newRow("far too deep") << nested(2000, QStringLiteral("core"), true);
}

void tst_JsonWriting::tooDeepJsonIsMissing()
{
    QFETCH(QJsonValue, json);

    QTest::ignoreMessage(QtWarningMsg, "JSON value is nested too deeply or too large for D-Bus");
    const MessageProbe::Result result = m_probe->pass(asArgument(json));
    QVERIFY(result.arrived);
    QCOMPARE(result.signature(), QString());
    // The bus has not thrown the sender out.
    QVERIFY(m_probe->pass(true).arrived);
}

void tst_JsonWriting::tooLargeJsonIsMissing()
{
    QJsonArray numbers;
    for (int index = 0; index < 3 * 1024 * 1024; ++index) {
        numbers.append(index);
    }
    QTest::ignoreMessage(QtWarningMsg, "JSON value is nested too deeply or too large for D-Bus");
    const MessageProbe::Result result = m_probe->pass(QVariant::fromValue(numbers));
    QVERIFY(result.arrived);
    QCOMPARE(result.signature(), QString());
}

QTEST_GUILESS_MAIN(tst_JsonWriting)
#include "tst_json_writing.moc"
