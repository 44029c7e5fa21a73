#include "Core/intent_uri.h"

#include "support/log_capture.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QtTest>

#include <cmath>
#include <limits>

using namespace Core;
using TestSupport::LogCapture;

namespace {

const QString noSemicolons = QStringLiteral("Cannot encode strings with semicolons");
const QString noContainers = QStringLiteral("Intent URI conversion does not support arrays or maps");
const QString invalidValue = QStringLiteral("Intent URI with invalid value");

QJsonObject object(const char *json)
{
    return QJsonDocument::fromJson(json).object();
}

QString textOf(const QUrl &uri)
{
    return uri.toString(QUrl::FullyEncoded);
}

// What travels whole: of a percent sign, a control character and a back quote a URL keeps the encoded form.
// A semicolon ends a value, an equals sign a key.
QString randomText(QRandomGenerator &random, const QString &without)
{
    static const QString alphabet = QString::fromUtf8("abzAZ09 .,:/?#[]@!$&'()*+=-_~\"<>\\^{|}äßЖ中😀");
    QString text;
    for (int i = random.bounded(12); i > 0; --i) {
        // A whole character, also where it takes two units.
        int at = random.bounded(alphabet.size());
        at -= alphabet.at(at).isLowSurrogate() ? 1 : 0;
        const QString character = alphabet.mid(at, alphabet.at(at).isHighSurrogate() ? 2 : 1);
        text += without.contains(character) ? QString() : character;
    }
    return text;
}

QJsonValue randomValue(QRandomGenerator &random, const QString &without)
{
    switch (random.bounded(3)) {
    case 0:
        return random.bounded(2) == 1;
    case 1: {
        // Six digits survive.
        const double mantissa = random.bounded(-999999, 1000000);
        return QString::number(mantissa * std::pow(10, random.bounded(-30, 30)), 'g', 6).toDouble();
    }
    default:
        return randomText(random, without);
    }
}

QJsonObject randomObject(QRandomGenerator &random, const QString &withoutInKeys,
                         const QString &withoutInTexts = QString())
{
    QJsonObject object;
    for (int i = random.bounded(5); i > 0; --i) {
        const QString key = randomText(random, withoutInKeys);
        if (!key.isEmpty()) {
            object.insert(key, randomValue(random, withoutInTexts));
        }
    }
    return object;
}

} // namespace

class tst_IntentUri : public QObject
{
    Q_OBJECT

private slots:
    void intentIsWritten_data();
    void intentIsWritten();
    void valueThatCannotBeEncodedFailsTheWhole_data();
    void valueThatCannotBeEncodedFailsTheWhole();
    void namelessIntentIsNotWritten();

    void uriIsRead_data();
    void uriIsRead();
    void malformedUriIsRefused_data();
    void malformedUriIsRefused();
    void hintThatIsMalformedIsNull_data();
    void hintThatIsMalformedIsNull();
    void numberThatIsNoneIsZero_data();
    void numberThatIsNoneIsZero();

    void whatIsWrittenIsReadBack();
    void uriSurvivesBeingText();
    void whatLooksEncodedDoesNotComeBack_data();
    void whatLooksEncodedDoesNotComeBack();
    void sixDigitsOfANumberAreKept();

    void parameterIsNeverAnIntentUri_data();
    void parameterIsNeverAnIntentUri();
    void wrappingManyTimesStaysOneLevel();
    void hugeUriIsRead();
};

void tst_IntentUri::intentIsWritten_data()
{
    QTest::addColumn<QByteArray>("hints");
    QTest::addColumn<QByteArray>("params");
    QTest::addColumn<QString>("text");

    const QByteArray none("{}");
    QTest::newRow("name only") << none << none << QStringLiteral("intent://#Intent;name=foo;end");
    QTest::newRow("true") << QByteArray(R"({"a": true})") << QByteArray(R"({"b": true})")
                          << QStringLiteral("intent://?a=B.true#Intent;name=foo;b=B.true;end");
    QTest::newRow("false") << QByteArray(R"({"a": false})") << QByteArray(R"({"b": false})")
                           << QStringLiteral("intent://?a=B.false#Intent;name=foo;b=B.false;end");
    QTest::newRow("integer") << QByteArray(R"({"a": 3})") << QByteArray(R"({"b": -3})")
                             << QStringLiteral("intent://?a=d.3#Intent;name=foo;b=d.-3;end");
    QTest::newRow("number") << QByteArray(R"({"a": 0.5})") << QByteArray(R"({"b": 1e30})")
                            << QStringLiteral("intent://?a=d.0.5#Intent;name=foo;b=d.1e+30;end");
    QTest::newRow("text") << QByteArray(R"({"a": "b"})") << QByteArray(R"({"c": "d"})")
                          << QStringLiteral("intent://?a=S.b#Intent;name=foo;c=S.d;end");
    QTest::newRow("empty text") << QByteArray(R"({"a": ""})") << QByteArray(R"({"b": ""})")
                                << QStringLiteral("intent://?a=S.#Intent;name=foo;b=S.;end");
    QTest::newRow("in the order of the keys")
        << QByteArray(R"({"b": "1", "a": "2"})") << QByteArray(R"({"d": "3", "c": "4"})")
        << QStringLiteral("intent://?a=S.2&b=S.1#Intent;name=foo;c=S.4;d=S.3;end");
    QTest::newRow("delimiters") << QByteArray(R"({"a&b": "c=d&e#f"})") << QByteArray(R"({"a&b": "c=d&e#f"})")
                                << QStringLiteral("intent://?a%26b=S.c%3Dd%26e%23f"
                                                  "#Intent;name=foo;a&b=S.c=d&e%23f;end");
    QTest::newRow("other letters") << QByteArray(R"({"ä": "é x"})") << QByteArray(R"({"ä": "é x"})")
                                   << QStringLiteral("intent://?%C3%A4=S.%C3%A9%20x"
                                                     "#Intent;name=foo;%C3%A4=S.%C3%A9%20x;end");
}

void tst_IntentUri::intentIsWritten()
{
    QFETCH(QByteArray, hints);
    QFETCH(QByteArray, params);
    QFETCH(QString, text);

    const QUrl uri = IntentUri::toUri(QStringLiteral("foo"), object(hints), object(params));

    QVERIFY(uri.isValid());
    QCOMPARE(textOf(uri), text);
    QCOMPARE(uri.scheme(), QStringLiteral("intent"));
    QCOMPARE(uri.authority(), QString());
    QVERIFY(uri.path().isEmpty());
}

void tst_IntentUri::valueThatCannotBeEncodedFailsTheWhole_data()
{
    QTest::addColumn<QByteArray>("hints");
    QTest::addColumn<QByteArray>("params");
    QTest::addColumn<QStringList>("warnings");

    const QStringList none;
    const auto row = [](const char *name, const QByteArray &json, const QStringList &warnings) {
        const QByteArray good(R"({"a": "b", "z": 1})");
        QTest::addRow("hint: %s", name) << json << good << warnings;
        QTest::addRow("parameter: %s", name) << good << json << warnings;
    };
    row("semicolon", R"({"k": "a;b"})", { noSemicolons });
    row("only a semicolon", R"({"k": ";"})", { noSemicolons });
    row("semicolon among others", R"({"a": "b", "k": "a;b", "z": "c"})", { noSemicolons });
    row("array", R"({"k": ["a"]})", { noContainers });
    row("empty array", R"({"k": []})", { noContainers });
    row("object", R"({"k": {"a": 1}})", { noContainers });
    row("empty object", R"({"k": {}})", { noContainers });
    row("null", R"({"k": null})", {});
    row("the first one ends it", R"({"k": "a;b", "l": ["a"]})", { noSemicolons });
}

void tst_IntentUri::valueThatCannotBeEncodedFailsTheWhole()
{
    QFETCH(QByteArray, hints);
    QFETCH(QByteArray, params);
    QFETCH(QStringList, warnings);

    const LogCapture log;
    const QUrl uri = IntentUri::toUri(QStringLiteral("foo"), object(hints), object(params));

    QVERIFY(!uri.isValid());
    QCOMPARE(uri, QUrl());
    QCOMPARE(log.messages(), warnings);
}

void tst_IntentUri::namelessIntentIsNotWritten()
{
    const LogCapture log;
    QCOMPARE(IntentUri::toUri(QString(), object(R"({"a": "x;y"})"), {}), QUrl());
    QCOMPARE(log.messages(), QStringList());
}

void tst_IntentUri::uriIsRead_data()
{
    QTest::addColumn<QString>("uri");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("hints");
    QTest::addColumn<QByteArray>("params");

    const auto row = [](const char *title, const char *uri, const char *name, const char *hints,
                        const char *params) {
        QTest::newRow(title) << QString::fromUtf8(uri) << QString::fromUtf8(name) << QByteArray(hints)
                             << QByteArray(params);
    };
    row("of every type", "intent://?a=S.b#Intent;name=foo;x=i.3;y=B.true;end", "foo", R"({"a": "b"})",
        R"({"x": 3, "y": true})");
    row("name only", "intent://#Intent;name=foo;end", "foo", "{}", "{}");
    row("no authority", "intent:?a=S.b#Intent;name=foo;end", "foo", R"({"a": "b"})", "{}");
    row("host and path do not count", "intent://host/path#Intent;name=foo;end", "foo", "{}", "{}");
    row("scheme in capitals", "INTENT://#Intent;name=foo;end", "foo", "{}", "{}");
    row("end without a semicolon", "intent://#Intent;name=fooend", "fooend", "{}", "{}");
    row("parameter that ends in end", "intent://#Intent;name=foo;a=S.bend", "foo", "{}", R"({"a": "bend"})");
    row("only the end", "intent://#Intent;name=end", "end", "{}", "{}");
    row("empty name", "intent://?a=S.b#Intent;name=;c=S.d;end", "", R"({"a": "b"})", R"({"c": "d"})");
    row("what follows an end", "intent://#Intent;name=foo;a=S.b;end;c;d=;=;=e;x=Z.z;end", "foo", "{}",
        R"({"a": "b"})");
    row("end as the name is a name", "intent://#Intent;name=end;a=S.b;end", "end", "{}", R"({"a": "b"})");
    row("last of equal keys counts", "intent://?a=S.1&a=S.2#Intent;name=foo;b=S.3;b=S.4;end", "foo",
        R"({"a": "2"})", R"({"b": "4"})");
    row("equals sign in a value", "intent://?a=S.b=c#Intent;name=foo;d=S.e=f;end", "foo", R"({"a": "b=c"})",
        R"({"d": "e=f"})");
    row("dot in a value", "intent://?a=S..#Intent;name=foo;d=S.e.f;end", "foo", R"({"a": "."})",
        R"({"d": "e.f"})");
    row("semicolon in a hint", "intent://?a=S.b;c#Intent;name=foo;end", "foo", R"({"a": "b;c"})", "{}");
    row("encoded delimiters", "intent://?a%26=S.%3D%26%23#Intent;name=foo;b=S.%3B%23;end", "foo",
        R"({"a&": "=&#"})", R"({"b": "%3B%23"})");
    row("encoded percent sign", "intent://?a=S.%2541#Intent;name=foo;b=S.%2541;end", "foo",
        R"({"a": "%2541"})", R"({"b": "%2541"})");
    row("encoded letters", "intent://?a=S.%41%20%C3%A4#Intent;name=%66oo;b=S.%41%20%C3%A4;end", "foo",
        R"({"a": "A ä"})", R"({"b": "A ä"})");
    row("plus is no blank", "intent://?a=S.b+c#Intent;name=foo;d=S.e+f;end", "foo", R"({"a": "b+c"})",
        R"({"d": "e+f"})");
    row("true", "intent://?a=B.true#Intent;name=foo;end", "foo", R"({"a": true})", "{}");
    row("true in capitals", "intent://?a=B.TRUE#Intent;name=foo;end", "foo", R"({"a": false})", "{}");
    row("true with a blank", "intent://?a=B.%20true#Intent;name=foo;end", "foo", R"({"a": false})", "{}");
    row("true as a number", "intent://?a=B.1#Intent;name=foo;end", "foo", R"({"a": false})", "{}");
    row("no text of a boolean", "intent://?a=B.#Intent;name=foo;end", "foo", R"({"a": false})", "{}");
    row("no text of a string", "intent://?a=S.#Intent;name=foo;b=S.;end", "foo", R"({"a": ""})",
        R"({"b": ""})");
    row("number", "intent://?a=d.-1.5e3#Intent;name=foo;b=d.0.25;end", "foo", R"({"a": -1500})",
        R"({"b": 0.25})");
    row("integer", "intent://?a=i.-7#Intent;name=foo;b=i.2147483647;end", "foo", R"({"a": -7})",
        R"({"b": 2147483647})");
}

void tst_IntentUri::uriIsRead()
{
    QFETCH(QString, uri);
    QFETCH(QString, name);
    QFETCH(QByteArray, hints);
    QFETCH(QByteArray, params);

    const LogCapture log;
    const auto [readName, readHints, readParams] = IntentUri::fromUri(QUrl(uri));

    QCOMPARE(readName, name);
    QCOMPARE(readHints, object(hints));
    QCOMPARE(readParams, object(params));
    QCOMPARE(log.messages(), QStringList());
}

void tst_IntentUri::malformedUriIsRefused_data()
{
    QTest::addColumn<QString>("uri");
    QTest::addColumn<QStringList>("warnings");

    const auto warningOf = [](const char *text, const QString &uri) {
        return QStringLiteral("%1 QUrl(\"%2\")").arg(QLatin1String(text), uri);
    };
    const auto notOne = [&](const char *title, const QString &uri) {
        QTest::newRow(title) << uri << QStringList { warningOf("Not an intent URI:", uri) };
    };
    notOne("scheme", QStringLiteral("intents://#Intent;name=foo;end"));
    notOne("no scheme", QStringLiteral("//#Intent;name=foo;end"));
    notOne("no fragment", QStringLiteral("intent://?a=S.b"));
    notOne("empty fragment", QStringLiteral("intent://#"));
    notOne("other word", QStringLiteral("intent://#intent;name=foo;end"));
    notOne("no name", QStringLiteral("intent://#Intent;foo=name;end"));
    notOne("encoded semicolon", QStringLiteral("intent://#Intent%3Bname=foo;end"));
    notOne("no end", QStringLiteral("intent://#Intent;name=foo;a=S.b"));
    notOne("something behind the end", QStringLiteral("intent://#Intent;name=foo;end;"));
    notOne("end in capitals", QStringLiteral("intent://#Intent;name=foo;END"));

    const auto invalid = [&](const char *title, const QString &uri, const QStringList &before) {
        QTest::newRow(title) << uri << (before + QStringList { warningOf("Invalid intent URI:", uri) });
    };
    invalid("no equals sign", QStringLiteral("intent://#Intent;name=foo;a;end"), {});
    invalid("empty part", QStringLiteral("intent://#Intent;name=foo;;end"), {});
    invalid("no key", QStringLiteral("intent://#Intent;name=foo;=S.a;end"), {});
    invalid("no value", QStringLiteral("intent://#Intent;name=foo;a=;end"), { invalidValue });
    invalid("one letter", QStringLiteral("intent://#Intent;name=foo;a=S;end"), { invalidValue });
    invalid("no dot", QStringLiteral("intent://#Intent;name=foo;a=Sb;end"), { invalidValue });
    invalid("dot first", QStringLiteral("intent://#Intent;name=foo;a=.S;end"), { invalidValue });
    invalid("unknown type", QStringLiteral("intent://#Intent;name=foo;a=x.b;end"),
            { QStringLiteral("Unknown intent value type: 'x'") });
    invalid("small letter", QStringLiteral("intent://#Intent;name=foo;a=s.b;end"),
            { QStringLiteral("Unknown intent value type: 's'") });
    // Its lower byte is that of an "S".
    invalid("other letter",
            QStringLiteral("intent://#Intent;name=foo;a=œ.b;end").replace(QChar(0x153), QChar(0x453)),
            { QStringLiteral("Unknown intent value type: '\\u0453'") });
    invalid("one bad among good ones", QStringLiteral("intent://?a=S.b#Intent;name=foo;c=S.d;e;f=S.g;end"),
            {});
    invalid("with a bad hint", QStringLiteral("intent://?a=b#Intent;name=foo;c;end"), { invalidValue });
    invalid("end inside", QStringLiteral("intent://#Intent;name=foo;END;end"), {});
    invalid("end with a blank", QStringLiteral("intent://#Intent;name=foo; end"), {});

    QTest::newRow("no URI") << QString() << QStringList { QStringLiteral("Invalid intent URI \"\"") };
    QTest::newRow("invalid") << QStringLiteral("intent://[#Intent;name=foo;end")
                             << QStringList { QStringLiteral("Invalid intent URI \"%1\"")
                                                  .arg(QUrl(QStringLiteral("intent://[#Intent;name=foo;end"))
                                                           .errorString()
                                                           .replace(QLatin1Char('"'),
                                                                    QLatin1String("\\\""))) };
}

void tst_IntentUri::malformedUriIsRefused()
{
    QFETCH(QString, uri);
    QFETCH(QStringList, warnings);

    const LogCapture log;
    const auto [name, hints, params] = IntentUri::fromUri(QUrl(uri));

    QCOMPARE(name, QString());
    QCOMPARE(hints, QJsonObject());
    QCOMPARE(params, QJsonObject());
    QCOMPARE(log.messages(QtWarningMsg), warnings);
    QCOMPARE(log.messages(), warnings);
}

void tst_IntentUri::hintThatIsMalformedIsNull_data()
{
    QTest::addColumn<QString>("query");
    QTest::addColumn<QString>("warning");

    QTest::newRow("unknown type") << QStringLiteral("a=x.b")
                                  << QStringLiteral("Unknown intent value type: 'x'");
    QTest::newRow("no dot") << QStringLiteral("a=Sb") << invalidValue;
    QTest::newRow("no value") << QStringLiteral("a=") << invalidValue;
    QTest::newRow("no equals sign") << QStringLiteral("a") << invalidValue;
}

void tst_IntentUri::hintThatIsMalformedIsNull()
{
    QFETCH(QString, query);
    QFETCH(QString, warning);

    const LogCapture log;
    const auto [name, hints, params] =
        IntentUri::fromUri(QUrl(QStringLiteral("intent://?%1&z=S.z#Intent;name=foo;b=S.c;end").arg(query)));

    QCOMPARE(name, QStringLiteral("foo"));
    QCOMPARE(hints, object(R"({"a": null, "z": "z"})"));
    QCOMPARE(params, object(R"({"b": "c"})"));
    QCOMPARE(log.messages(), QStringList { warning });
    QVERIFY(!IntentUri::toUri(name, hints, params).isValid());
}

void tst_IntentUri::numberThatIsNoneIsZero_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<double>("number");

    QTest::newRow("double: nothing") << QStringLiteral("d.") << 0.0;
    QTest::newRow("double: word") << QStringLiteral("d.one") << 0.0;
    QTest::newRow("double: more than a number") << QStringLiteral("d.1x") << 0.0;
    QTest::newRow("double: comma") << QStringLiteral("d.1,5") << 0.0;
    QTest::newRow("double: exponent") << QStringLiteral("d.1e2") << 100.0;
    QTest::newRow("double: infinite") << QStringLiteral("d.inf") << std::numeric_limits<double>::infinity();
    QTest::newRow("integer: nothing") << QStringLiteral("i.") << 0.0;
    QTest::newRow("integer: word") << QStringLiteral("i.one") << 0.0;
    QTest::newRow("integer: fraction") << QStringLiteral("i.1.5") << 0.0;
    QTest::newRow("integer: too large") << QStringLiteral("i.2147483648") << 0.0;
    QTest::newRow("integer: hexadecimal") << QStringLiteral("i.0x10") << 0.0;
    QTest::newRow("integer: leading zero") << QStringLiteral("i.010") << 10.0;
}

void tst_IntentUri::numberThatIsNoneIsZero()
{
    QFETCH(QString, text);
    QFETCH(double, number);

    const auto [name, hints, params] =
        IntentUri::fromUri(QUrl(QStringLiteral("intent://?a=%1#Intent;name=foo;a=%1;end").arg(text)));

    QVERIFY(hints.value(QLatin1String("a")).isDouble());
    QCOMPARE(hints.value(QLatin1String("a")).toDouble(), number);
    QVERIFY(params.value(QLatin1String("a")).isDouble());
    QCOMPARE(params.value(QLatin1String("a")).toDouble(), number);
}

void tst_IntentUri::whatIsWrittenIsReadBack()
{
    QRandomGenerator random(20); // a seed, so that a failure can be looked at
    for (int round = 0; round < 5000; ++round) {
        QString name;
        while (name.isEmpty()) {
            name = randomText(random, QString());
        }
        const QJsonObject hints = randomObject(random, QString());
        const QJsonObject params = randomObject(random, QStringLiteral("="));

        const QUrl uri = IntentUri::toUri(name, hints, params);
        QVERIFY(uri.isValid());
        const auto [readName, readHints, readParams] = IntentUri::fromUri(uri);

        const QByteArray what = textOf(uri).toUtf8();
        QVERIFY2(readName == name, what);
        QVERIFY2(readHints == hints, what);
        QVERIFY2(readParams == params, what);
    }
}

void tst_IntentUri::uriSurvivesBeingText()
{
    QRandomGenerator random(21);
    for (int round = 0; round < 1000; ++round) {
        const QJsonObject hints = randomObject(random, QString());
        // The encoded form of a "#" in a fragment stays as it is.
        const QJsonObject params = randomObject(random, QStringLiteral("=#"), QStringLiteral("#"));
        const QUrl uri = IntentUri::toUri(QStringLiteral("foo"), hints, params);

        for (const QString &text : { textOf(uri), uri.toString() }) {
            const auto [name, readHints, readParams] = IntentUri::fromUri(QUrl(text));
            QCOMPARE(name, QStringLiteral("foo"));
            QVERIFY2(readHints == hints, qUtf8Printable(text));
            QVERIFY2(readParams == params, qUtf8Printable(text));
        }
    }
}

void tst_IntentUri::whatLooksEncodedDoesNotComeBack_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("read");

    QTest::newRow("letter") << QStringLiteral("%41") << QStringLiteral("A");
    QTest::newRow("percent sign") << QStringLiteral("100%") << QStringLiteral("100%25");
    QTest::newRow("encoded percent sign") << QStringLiteral("%25") << QStringLiteral("%25");
    QTest::newRow("control character") << QStringLiteral("a\nb") << QStringLiteral("a%0Ab");
    QTest::newRow("NUL") << QString(QChar(0)) << QStringLiteral("%00");
}

void tst_IntentUri::whatLooksEncodedDoesNotComeBack()
{
    QFETCH(QString, text);
    QFETCH(QString, read);

    const QJsonObject object { { QStringLiteral("a"), text } };
    const auto [name, hints, params] =
        IntentUri::fromUri(IntentUri::toUri(QStringLiteral("foo"), object, object));

    QCOMPARE(hints.value(QLatin1String("a")).toString(), read);
    QCOMPARE(params.value(QLatin1String("a")).toString(), read);
}

void tst_IntentUri::sixDigitsOfANumberAreKept()
{
    const QJsonObject object { { QStringLiteral("a"), 1234567.0 } };
    const auto [name, hints, params] =
        IntentUri::fromUri(IntentUri::toUri(QStringLiteral("foo"), object, object));
    QCOMPARE(hints.value(QLatin1String("a")).toDouble(), 1234570.0);
    QCOMPARE(params.value(QLatin1String("a")).toDouble(), 1234570.0);
}

// Percent-encodes the delimiters of a text, as somebody does who wraps it in a URI.
static QString wrapped(const QString &text, const char *encoded)
{
    const QByteArray inner =
        QUrl::toPercentEncoding(text, QByteArrayLiteral(";/?:@&=+$,#%<>\"{}|\\^[]`"), encoded);
    return QStringLiteral("intent://#Intent;name=OpenURI;uri=S.%1;end").arg(QString::fromLatin1(inner));
}

void tst_IntentUri::parameterIsNeverAnIntentUri_data()
{
    QTest::addColumn<QString>("uri");

    const QString inner = QStringLiteral("intent://#Intent;name=OpenURI;uri=S.x:y;end");
    QTest::newRow("semicolons encoded") << wrapped(inner, ";");
    QTest::newRow("percent signs too") << wrapped(inner, ";%");
    QTest::newRow("everything encoded") << wrapped(inner, ";/?:@&=+$,#%");
    QTest::newRow("encoded twice") << wrapped(wrapped(inner, ";#"), ";%");
    QTest::newRow("another semicolon")
        << QStringLiteral("intent://#Intent;name=OpenURI;uri=S.intent://#Intent\u037ename=foo\u037eend;end");
}

void tst_IntentUri::parameterIsNeverAnIntentUri()
{
    QFETCH(QString, uri);

    const auto [name, hints, params] = IntentUri::fromUri(QUrl(uri));
    QCOMPARE(name, QStringLiteral("OpenURI"));
    const QString inner = params.value(QLatin1String("uri")).toString();
    QVERIFY2(inner.startsWith(QLatin1String("intent")), qUtf8Printable(inner));

    const LogCapture log;
    QCOMPARE(std::get<0>(IntentUri::fromUri(QUrl(inner, QUrl::TolerantMode))), QString());
    QCOMPARE(log.warnings().size(), 1);
}

void tst_IntentUri::wrappingManyTimesStaysOneLevel()
{
    QString uri = QStringLiteral("intent://#Intent;name=OpenURI;uri=S.x:y;end");
    for (int level = 0; level < 1000; ++level) {
        uri = wrapped(uri, ";#");
        // Whatever makes the text larger at each level would soon be too much for any message.
        QVERIFY(uri.size() < 1000 * 100);
    }
    int levels = 0;
    const LogCapture log;
    while (uri.startsWith(QLatin1String("intent:"))) {
        ++levels;
        const auto [name, hints, params] = IntentUri::fromUri(QUrl(uri, QUrl::TolerantMode));
        uri = name.isEmpty() ? QString() : params.value(QLatin1String("uri")).toString();
    }
    QCOMPARE(levels, 2); // the second one is refused
}

void tst_IntentUri::hugeUriIsRead()
{
    QString text = QStringLiteral("intent://?");
    for (int i = 0; i < 20000; ++i) {
        text += QStringLiteral("h%1=S.%1&").arg(i);
    }
    text += QLatin1String("#Intent;name=foo");
    for (int i = 0; i < 20000; ++i) {
        text += QStringLiteral(";p%1=S.%1").arg(i);
    }
    text += QLatin1String(";end");

    const auto [name, hints, params] = IntentUri::fromUri(QUrl(text));
    QCOMPARE(name, QStringLiteral("foo"));
    QCOMPARE(hints.size(), 20000);
    QCOMPARE(params.size(), 20000);
}

QTEST_APPLESS_MAIN(tst_IntentUri)
#include "tst_intent_uri.moc"
