#include "Core/json_path.h"

#include "support/log_capture.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QtTest>

using namespace Core;
using TestSupport::LogCapture;

namespace {

const QString missingBracket = QStringLiteral("JSON path error: missing right bracket");

QString badIndex(const char *text)
{
    return QStringLiteral("JSON path error: could not parse index \"%1\"").arg(QLatin1String(text));
}

QJsonValue parse(const QByteArray &json)
{
    return QJsonDocument::fromJson("[" + json + "]").array().first();
}

QByteArray print(const QJsonValue &value)
{
    if (value.isUndefined()) {
        return "undefined";
    }
    const QByteArray json = QJsonDocument(QJsonArray { value }).toJson(QJsonDocument::Compact);
    return json.mid(1, json.size() - 2);
}

QString randomKey(QRandomGenerator &random)
{
    static const QStringList keys {
        QStringLiteral("a"),    QStringLiteral("b"),   QStringLiteral("files"), QStringLiteral("a]"),
        QStringLiteral("é ü"),  QStringLiteral("**"),  QStringLiteral("0"),     QStringLiteral("-1"),
        QStringLiteral("a.b"),  QStringLiteral("[0]"), QStringLiteral("*"),     QLatin1String(""),
        QStringLiteral("a[*]"), QStringLiteral("."),
    };
    // The last ones have no form in a path.
    return keys.at(random.bounded(random.bounded(4) == 0 ? keys.size() : 8));
}

QJsonValue randomValue(QRandomGenerator &random, int depth)
{
    switch (random.bounded(depth > 0 ? 6 : 4)) {
    case 0:
        return random.bounded(2) == 1;
    case 1:
        return random.bounded(100);
    case 2:
        return QStringLiteral("text %1").arg(random.bounded(100));
    case 3:
        return QJsonValue::Null;
    case 4: {
        QJsonArray array;
        for (int i = random.bounded(4); i > 0; --i) {
            array.append(randomValue(random, depth - 1));
        }
        return array;
    }
    default: {
        QJsonObject object;
        for (int i = random.bounded(5); i > 0; --i) {
            object.insert(randomKey(random), randomValue(random, depth - 1));
        }
        return object;
    }
    }
}

QJsonObject randomObject(QRandomGenerator &random)
{
    QJsonObject object;
    for (int i = 0; i < 4; ++i) {
        object.insert(randomKey(random), randomValue(random, 4));
    }
    return object;
}

QString randomPath(QRandomGenerator &random)
{
    QString path;
    for (int i = random.bounded(6); i > 0; --i) {
        switch (random.bounded(6)) {
        case 0:
            path += QStringLiteral("[%1]").arg(random.bounded(-4, 5));
            break;
        case 1:
            path += QLatin1String("[*]");
            break;
        case 2:
        case 3:
            path += QLatin1String(".*");
            break;
        default:
            path += QLatin1Char('.') + randomKey(random);
            break;
        }
    }
    return path;
}

// Every place of a value and what stands there, by a path of this test's own.
void flatten(const QJsonValue &value, const QString &place, QMap<QString, QByteArray> &places)
{
    if (value.isObject()) {
        const QJsonObject object = value.toObject();
        for (auto it = object.begin(); it != object.end(); ++it) {
            flatten(it.value(), place + QLatin1Char('/') + it.key(), places);
        }
    } else if (value.isArray()) {
        const QJsonArray array = value.toArray();
        for (int i = 0; i < array.size(); ++i) {
            flatten(array.at(i), place + QStringLiteral("#%1").arg(i), places);
        }
    }
    places.insert(place, value.isObject() || value.isArray() ? "container" : print(value));
}

// The place of a concrete path, in the form of flatten().
QString placeOf(const QString &path)
{
    QString place;
    bool inIndex = false;
    for (QChar character : path) {
        if (place.isEmpty() && character != QLatin1Char('[')) {
            place += QLatin1Char('/');
        }
        if (character == QLatin1Char('.')) {
            place += QLatin1Char('/');
        } else if (character == QLatin1Char('[')) {
            place += QLatin1Char('#');
            inIndex = true;
        } else if (character == QLatin1Char(']') && inIndex) {
            inIndex = false;
        } else {
            place += character;
        }
    }
    return place;
}

} // namespace

class tst_JsonPath : public QObject
{
    Q_OBJECT

private slots:
    void valueIsFound_data();
    void valueIsFound();
    void syntaxErrorEndsThePath_data();
    void syntaxErrorEndsThePath();

    void valueIsWritten_data();
    void valueIsWritten();
    void anyValueCanBeWrittenInto();
    void pathTooDeepIsNotWritten();

    void pathsAreExpanded_data();
    void pathsAreExpanded();

    void expandedPathsAreDefinedAndConcrete();
    void writingAtAnExpandedPathChangesNothingElse();
    void longPathsTakeNoTime();
    void deepValuesAreExpanded();
};

void tst_JsonPath::valueIsFound_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("found");

    const auto row = [](const char *title, const char *json, const char *path, const char *found) {
        QTest::newRow(title) << QByteArray(json) << QString::fromUtf8(path) << QByteArray(found);
    };
    row("empty path", R"({"a":1})", "", R"({"a":1})");
    row("key", R"({"a":1})", "a", "1");
    row("key of a key", R"({"a":{"b":"c"}})", "a.b", R"("c")");
    row("missing key", R"({"a":1})", "b", "undefined");
    row("key of a missing one", R"({"a":1})", "b.c", "undefined");
    row("key of a number", R"({"a":1})", "a.b", "undefined");
    row("key of an array", R"({"a":[1]})", "a.b", "undefined");
    row("null is a value", R"({"a":null})", "a", "null");
    row("index", R"({"a":[1,2,3]})", "a[1]", "2");
    row("negative index", R"({"a":[1,2,3]})", "a[-1]", "3");
    row("most negative index", R"({"a":[1,2,3]})", "a[-3]", "1");
    row("index before the start", R"({"a":[1,2,3]})", "a[-4]", "undefined");
    row("index behind the end", R"({"a":[1,2,3]})", "a[3]", "undefined");
    row("index of an object", R"({"a":{"0":1}})", "a[0]", "undefined");
    row("index of nothing", R"({"a":1})", "b[0]", "undefined");
    row("smallest index", R"({"a":[1]})", "a[-2147483648]", "undefined");
    row("largest index", R"({"a":[1]})", "a[2147483647]", "undefined");
    row("index of an index", R"({"a":[[1,2],[3,4]]})", "a[1][0]", "3");
    row("key of an index", R"({"a":[{"b":1}]})", "a[0].b", "1");
    row("key of an index without a dot", R"({"a":[{"b":1}]})", "a[0]b", "1");
    row("index behind a dot", R"({"a":[1]})", "a.[0]", "1");
    row("index of an array", R"([1,2])", "[1]", "2");
    row("leading dot", R"({"a":1})", ".a", "1");
    row("leading dots", R"({"a":1})", "..a", "1");
    row("dots between", R"({"a":{"b":1}})", "a..b", "1");
    row("dots at the end", R"({"a":{"b":1}})", "a.b..", "1");
    row("only dots", R"({"a":1})", "...", R"({"a":1})");
    row("right bracket in a key", R"({"a]":1})", "a]", "1");
    row("key that is a number", R"({"0":1})", "0", "1");
    row("key with blanks", R"({" a ":1})", " a ", "1");
    row("key of other letters", R"({"äЖ":1})", "äЖ", "1");
    row("star inside a key", R"({"a*":1})", "a*", "1");
    row("any index is passed over", R"({"a":[{"b":1}]})", "a[*].b", "undefined");
    row("any index alone", R"({"a":[1]})", "a[*]", "[1]");
    row("any key is passed over", R"({"a":{"b":1}})", "a.*.b", "1");
    row("any key alone", R"({"a":1})", "*", R"({"a":1})");
    row("any index of an object is passed over", R"({"a":{"b":1}})", "a[*].b", "1");
}

void tst_JsonPath::valueIsFound()
{
    QFETCH(QByteArray, json);
    QFETCH(QString, path);
    QFETCH(QByteArray, found);

    const LogCapture log;
    QCOMPARE(print(JsonPath::value(parse(json), path)), found);
    QCOMPARE(log.messages(), QStringList());
}

void tst_JsonPath::syntaxErrorEndsThePath_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("message");
    QTest::addColumn<QByteArray>("found");
    QTest::addColumn<QByteArray>("written");
    QTest::addColumn<QStringList>("expanded");

    const QByteArray json = R"({"a":[1,2]})";
    const QByteArray array = "[1,2]";
    const QByteArray newArray = R"({"a":"new"})";
    const QStringList a { QStringLiteral("a") };
    const auto ofArray = [&](const char *path, const QString &message) {
        QTest::newRow(path) << QString::fromLatin1(path) << message << array << newArray << a;
    };
    ofArray("a[3", missingBracket);
    ofArray("a[", missingBracket);
    ofArray("a[*", missingBracket);
    ofArray("a[3[4", missingBracket);
    ofArray("a[x]", badIndex("x"));
    ofArray("a[]", badIndex(""));
    ofArray("a[1.5]", badIndex("1.5"));
    ofArray("a[0x1]", badIndex("0x1"));
    ofArray("a[**]", badIndex("**"));
    ofArray("a[2147483648]", badIndex("2147483648"));
    ofArray("a[x].b[", badIndex("x"));
    // Of the object, the error stands at the start: it is what the empty path gives.
    QTest::newRow("[3") << QStringLiteral("[3") << missingBracket << json << QByteArray("{}")
                        << QStringList { QString() };
    QTest::newRow("[x]") << QStringLiteral("[x]") << badIndex("x") << json << QByteArray("{}")
                         << QStringList { QString() };
    QTest::newRow("..[x]") << QStringLiteral("..[x]") << badIndex("x") << json << QByteArray("{}")
                           << QStringList { QString() };
}

void tst_JsonPath::syntaxErrorEndsThePath()
{
    QFETCH(QString, path);
    QFETCH(QString, message);
    QFETCH(QByteArray, found);
    QFETCH(QByteArray, written);
    QFETCH(QStringList, expanded);

    QJsonObject object = parse(R"({"a":[1,2]})").toObject();
    LogCapture log;
    QCOMPARE(print(JsonPath::value(object, path)), found);
    QCOMPARE(JsonPath::expandPaths(object, path), expanded);
    JsonPath::setValue(object, path, QStringLiteral("new"));
    QCOMPARE(print(object), written);
    QCOMPARE(log.messages(QtDebugMsg), QStringList({ message, message, message }));
    QCOMPARE(log.messages().size(), 3);
}

void tst_JsonPath::valueIsWritten_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("newValue");
    QTest::addColumn<QByteArray>("written");

    const auto row = [](const char *title, const char *json, const char *path, const char *newValue,
                        const char *written) {
        QTest::newRow(title) << QByteArray(json) << QString::fromUtf8(path) << QByteArray(newValue)
                             << QByteArray(written);
    };
    row("key", R"({"a":1,"b":2})", "a", R"("x")", R"({"a":"x","b":2})");
    row("new key", R"({"a":1})", "b", "2", R"({"a":1,"b":2})");
    row("inside", R"({"a":{"b":1,"c":2}})", "a.b", "3", R"({"a":{"b":3,"c":2}})");
    row("all objects on the way are made", "{}", "a.b.c", "1", R"({"a":{"b":{"c":1}}})");
    row("an object replaces a number", R"({"a":1})", "a.b", "2", R"({"a":{"b":2}})");
    row("an object replaces an array", R"({"a":[1]})", "a.b", "2", R"({"a":{"b":2}})");
    row("an object replaces a null", R"({"a":null})", "a.b", "2", R"({"a":{"b":2}})");
    row("container as value", R"({"a":1})", "a", R"([1,{"b":2}])", R"({"a":[1,{"b":2}]})");
    row("null as value", R"({"a":1})", "a", "null", R"({"a":null})");
    row("index", R"({"a":[1,2,3]})", "a[1]", "4", R"({"a":[1,4,3]})");
    row("negative index", R"({"a":[1,2,3]})", "a[-1]", "4", R"({"a":[1,2,4]})");
    row("inside an element", R"({"a":[{"b":1},{"b":2}]})", "a[1].b", "3", R"({"a":[{"b":1},{"b":3}]})");
    row("new key of an element", R"({"a":[{"b":1}]})", "a[0].c", "3", R"({"a":[{"b":1,"c":3}]})");
    row("element of an element", R"({"a":[[1],[2]]})", "a[1][0]", "3", R"({"a":[[1],[3]]})");
    row("dots do not count", R"({"a":{"b":1}})", "..a...b.", "2", R"({"a":{"b":2}})");
    row("index behind the end", R"({"a":[1]})", "a[1]", "2", R"({"a":[1]})");
    row("index before the start", R"({"a":[1]})", "a[-2]", "2", R"({"a":[1]})");
    row("index of an empty array", R"({"a":[]})", "a[0]", "2", R"({"a":[]})");
    row("index of a number", R"({"a":1})", "a[0]", "2", R"({"a":1})");
    row("index of a missing key", R"({"a":1})", "b[0]", "2", R"({"a":1})");
    row("nothing is made on the way to a missing element", R"({"a":1})", "a.b.c[0].d", "2", R"({"a":1})");
    row("index of the object", R"({"a":1})", "[0]", "2", R"({"a":1})");
    row("any key", R"({"a":1,"b":2})", "*", "3", R"({"a":1,"b":2})");
    row("any index", R"({"a":[1,2]})", "a[*]", "3", R"({"a":[1,2]})");
    row("any key inside", R"({"a":{"b":1}})", "a.*", "3", R"({"a":{"b":1}})");
    row("behind any index", R"({"a":[{"b":1}]})", "a[*].b", "3", R"({"a":[{"b":1}]})");
    row("nothing is made on the way to a wildcard", "{}", "a.b[*]", "3", "{}");
    row("empty path, an object", R"({"a":1})", "", R"({"b":2})", R"({"b":2})");
    row("empty path, no object", R"({"a":1})", "", "2", "{}");
}

void tst_JsonPath::valueIsWritten()
{
    QFETCH(QByteArray, json);
    QFETCH(QString, path);
    QFETCH(QByteArray, newValue);
    QFETCH(QByteArray, written);

    QJsonObject object = parse(json).toObject();
    JsonPath::setValue(object, path, parse(newValue));
    QCOMPARE(print(object), written);
}

void tst_JsonPath::anyValueCanBeWrittenInto()
{
    QJsonValue array = parse("[1,2]");
    JsonPath::setValue(array, QStringLiteral("[0]"), 3);
    QCOMPARE(print(array), QByteArray("[3,2]"));

    QJsonValue number(1);
    JsonPath::setValue(number, QStringLiteral("a"), 3);
    QCOMPARE(print(number), QByteArray(R"({"a":3})"));

    QJsonValue whole = parse("[1,2]");
    JsonPath::setValue(whole, QString(), QStringLiteral("text"));
    QCOMPARE(print(whole), QByteArray(R"("text")"));
}

void tst_JsonPath::pathTooDeepIsNotWritten()
{
    const auto path = [](int levels) {
        return QStringLiteral("a.").repeated(levels);
    };
    QJsonObject object;
    JsonPath::setValue(object, path(JsonPath::maximumDepth + 1), 1);
    QVERIFY(object.isEmpty());
    JsonPath::setValue(object, path(1000000), 1);
    QVERIFY(object.isEmpty());
    JsonPath::setValue(object, path(JsonPath::maximumDepth), 1);
    QCOMPARE(JsonPath::value(object, path(JsonPath::maximumDepth)), QJsonValue(1));
    QCOMPARE(JsonPath::value(object, path(1000000)), QJsonValue(QJsonValue::Undefined));
}

void tst_JsonPath::pathsAreExpanded_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QStringList>("paths");

    const auto row = [](const char *title, const char *json, const char *path, const QString &paths) {
        QTest::newRow(title) << QByteArray(json) << QString::fromUtf8(path)
                             << (paths.isNull() ? QStringList() : paths.split(QLatin1Char(' ')));
    };
    const QString nothing;
    row("empty path", R"({"a":1})", "", QLatin1String(""));
    row("only dots", R"({"a":1})", "..", QLatin1String(""));
    row("key", R"({"a":1})", "a", QStringLiteral("a"));
    row("missing key", R"({"a":[1,2]})", "b", nothing);
    row("null is there", R"({"a":null})", "a", QStringLiteral("a"));
    row("normal form", R"({"a":{"b":[[1]]}})", "..a..b.[0].[-1].", QStringLiteral("a.b[0][0]"));
    row("any index", R"({"a":[1,2]})", "a[*]", QStringLiteral("a[0] a[1]"));
    row("negative index", R"({"a":[1,2]})", "a[-1]", QStringLiteral("a[1]"));
    row("most negative index", R"({"a":[1,2]})", "a[-2]", QStringLiteral("a[0]"));
    row("index before the start", R"({"a":[1,2]})", "a[-3]", nothing);
    row("index behind the end", R"({"a":[1,2]})", "a[5]", nothing);
    row("index at the end", R"({"a":[1,2]})", "a[2]", nothing);
    row("index of an object", R"({"a":{"0":1}})", "a[0]", nothing);
    row("key of an array", R"({"a":[1]})", "a.b", nothing);
    row("any index of no array", R"({"a":{"b":1}})", "a[*]", nothing);
    row("any key of no object", R"({"a":[1]})", "a.*", nothing);
    row("any index of an empty array", R"({"a":[]})", "a[*]", nothing);
    row("any key of an empty object", "{}", "*", nothing);
    row("elements that lack the key are left out", R"({"a":[{"b":1},{"c":1},{"b":2}]})", "a[*].b",
        QStringLiteral("a[0].b a[2].b"));
    row("any key", R"({"b":1,"a":2})", "*", QStringLiteral("a b"));
    row("any key inside", R"({"a":{"c":1,"b":2}})", "a.*", QStringLiteral("a.b a.c"));
    row("key of any key", R"({"a":{"x":1},"b":{"y":1},"c":{"x":2}})", "*.x", QStringLiteral("a.x c.x"));
    row("index of any key", R"({"a":[1,2],"b":[],"c":3,"d":[4]})", "*[0]", QStringLiteral("a[0] d[0]"));
    row("any of any key", R"({"a":{"x":1,"y":2},"b":{"z":3}})", "*.*", QStringLiteral("a.x a.y b.z"));
    row("any index of any key", R"({"a":[1,2],"b":[3]})", "*[*]", QStringLiteral("a[0] a[1] b[0]"));
    row("any of any index", R"({"a":[[1,2],[3]]})", "a[*][*]", QStringLiteral("a[0][0] a[0][1] a[1][0]"));
    row("any key of any index", R"({"a":[{"x":1},{"y":2}]})", "a[*].*", QStringLiteral("a[0].x a[1].y"));
    row("key of any key of an index", R"({"a":[{"x":{"y":1}}]})", "a[0].*.y", QStringLiteral("a[0].x.y"));
    row("key that Qt does not find", R"({"ä":{"x":1},"😀":{"x":1},"\uffff":{"x":1}})", "*.x",
        QString::fromUtf8("ä.x \uffff.x"));
    row("keys without a form", R"({"":{"x":1},"*":{"x":1},"a.b":{"x":1},"c[0]":{"x":1},"d]":{"x":1}})", "*.x",
        QStringLiteral("d].x"));
}

void tst_JsonPath::pathsAreExpanded()
{
    QFETCH(QByteArray, json);
    QFETCH(QString, path);
    QFETCH(QStringList, paths);

    const LogCapture log;
    QCOMPARE(JsonPath::expandPaths(parse(json).toObject(), path), paths);
    QCOMPARE(log.messages(), QStringList());
}

void tst_JsonPath::expandedPathsAreDefinedAndConcrete()
{
    QRandomGenerator random(61);
    int expanded = 0;
    for (int round = 0; round < 5000; ++round) {
        const QJsonObject object = randomObject(random);
        const QString path = randomPath(random);
        const LogCapture log; // some of the paths are malformed
        const QStringList paths = JsonPath::expandPaths(object, path);
        for (const QString &concrete : paths) {
            const QByteArray what = print(object) + ' ' + path.toUtf8() + ' ' + concrete.toUtf8();
            QVERIFY2(!JsonPath::value(object, concrete).isUndefined(), what);
            QVERIFY2(JsonPath::expandPaths(object, concrete) == QStringList { concrete }, what);
            expanded += concrete.isEmpty() ? 0 : 1;
        }
        QCOMPARE(QSet<QString>(paths.begin(), paths.end()).size(), paths.size());
    }
    QVERIFY2(expanded > 1000, qPrintable(QString::number(expanded)));
}

void tst_JsonPath::writingAtAnExpandedPathChangesNothingElse()
{
    QRandomGenerator random(62);
    int written = 0;
    for (int round = 0; round < 3000; ++round) {
        const QJsonObject object = randomObject(random);
        QMap<QString, QByteArray> before;
        flatten(object, QString(), before);
        const LogCapture log;
        const QStringList paths = JsonPath::expandPaths(object, randomPath(random));
        for (const QString &path : paths) {
            if (path.isEmpty()) {
                continue;
            }
            const QString place = placeOf(path);
            const QByteArray what = print(object) + ' ' + path.toUtf8();
            QVERIFY2(before.contains(place), what);

            QJsonObject changed = object;
            JsonPath::setValue(changed, path, QStringLiteral("written"));
            QVERIFY2(JsonPath::value(changed, path) == QStringLiteral("written"), what);
            QMap<QString, QByteArray> after;
            flatten(changed, QString(), after);

            QMap<QString, QByteArray> expected;
            for (auto it = before.cbegin(); it != before.cend(); ++it) {
                const QString below = it.key().mid(place.size());
                if (!it.key().startsWith(place)
                    || !(below.startsWith(QLatin1Char('/')) || below.startsWith(QLatin1Char('#')))) {
                    expected.insert(it.key(), it.value());
                }
            }
            expected.insert(place, "\"written\"");
            QVERIFY2(after == expected, what);
            ++written;
        }
    }
    QVERIFY2(written > 500, qPrintable(QString::number(written)));
}

void tst_JsonPath::longPathsTakeNoTime()
{
    // Were each element cut off by moving the rest of the path, this would take minutes.
    const QJsonObject object = parse(R"({"a":1})").toObject();
    const int count = 2000000;
    QCOMPARE(JsonPath::value(object, QStringLiteral(".").repeated(count) + QLatin1Char('a')), QJsonValue(1));
    QCOMPARE(JsonPath::value(object, QStringLiteral("*.").repeated(count) + QLatin1Char('a')), QJsonValue(1));
    QCOMPARE(JsonPath::value(object, QStringLiteral("b.").repeated(count)),
             QJsonValue(QJsonValue::Undefined));
    QCOMPARE(JsonPath::expandPaths(object, QStringLiteral("*").repeated(count)), QStringList());
    QCOMPARE(JsonPath::expandPaths(object, QStringLiteral("*.").repeated(count)), QStringList());
}

void tst_JsonPath::deepValuesAreExpanded()
{
    // The deepest that Qt reads.
    const int depth = 1000;
    const QJsonObject object = QJsonDocument::fromJson(QByteArray(R"({"a":)").repeated(depth) + "1"
                                                       + QByteArray("}").repeated(depth))
                                   .object();
    QVERIFY(!object.isEmpty());
    const QString path = QStringLiteral("*.").repeated(depth);
    QCOMPARE(JsonPath::expandPaths(object, path).size(), 1);
    QCOMPARE(JsonPath::value(object, JsonPath::expandPaths(object, path).first()), QJsonValue(1));
    QCOMPARE(JsonPath::expandPaths(object, QStringLiteral("*.").repeated(1000000)), QStringList());
}

QTEST_APPLESS_MAIN(tst_JsonPath)
#include "tst_json_path.moc"
