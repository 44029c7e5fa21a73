#include "key_value.h"

#include <QJsonDocument>
#include <QTest>

using Ctl::KeyValues;
using Ctl::ValueKind;

/// Arguments that make an object.
class KeyValueTest : public QObject
{
    Q_OBJECT

private slots:
    void argumentsMakeAnObject_data();
    void argumentsMakeAnObject();
    void faultsAreTold_data();
    void faultsAreTold();
    void placeIsThatOfTheLastOne();
    void faultsLeaveTheObject();
};

namespace {

QHash<QString, ValueKind> kinds()
{
    return { { QStringLiteral("flag"), ValueKind::Boolean },
             { QStringLiteral("count"), ValueKind::Integer },
             { QStringLiteral("names"), ValueKind::Texts } };
}

} // namespace

void KeyValueTest::argumentsMakeAnObject_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("json");
    QTest::newRow("none") << ""
                          << "{}";
    QTest::newRow("text") << "a=1"
                          << R"({"a":"1"})";
    QTest::newRow("empty text") << "a="
                                << R"({"a":""})";
    QTest::newRow("further sign") << "a=b=c"
                                  << R"({"a":"b=c"})";
    QTest::newRow("last wins") << "a=1 a=2"
                               << R"({"a":"2"})";
    QTest::newRow("number as JSON") << "a:=1"
                                    << R"({"a":1})";
    QTest::newRow("object as JSON") << R"(a:={"b":[1,null]})"
                                    << R"({"a":{"b":[1,null]}})";
    QTest::newRow("colon in the value") << "a=b:=c"
                                        << R"({"a":"b:=c"})";
    QTest::newRow("array") << "a[]=1 a[]=2"
                           << R"({"a":["1","2"]})";
    QTest::newRow("array of JSON") << "a[]:=1 a[]:=true"
                                   << R"({"a":[1,true]})";
    QTest::newRow("boolean") << "flag=yes"
                             << R"({"flag":true})";
    QTest::newRow("false boolean") << "flag=0"
                                   << R"({"flag":false})";
    QTest::newRow("number") << "count=-3"
                            << R"({"count":-3})";
    QTest::newRow("texts") << "names=a names=b"
                           << R"({"names":["a","b"]})";
    QTest::newRow("texts as JSON") << R"(names:=["a"])"
                                   << R"({"names":["a"]})";
}

void KeyValueTest::argumentsMakeAnObject()
{
    QFETCH(QString, arguments);
    QFETCH(QString, json);
    KeyValues values(kinds());
    QCOMPARE(values.add(arguments.split(QLatin1Char(' '), Qt::SkipEmptyParts)), QString());
    QCOMPARE(QString::fromUtf8(QJsonDocument(values.object()).toJson(QJsonDocument::Compact)), json);
}

void KeyValueTest::faultsAreTold_data()
{
    QTest::addColumn<QString>("argument");
    QTest::addColumn<QString>("fault");
    QTest::newRow("no sign") << "a"
                             << "Not KEY=VALUE: a";
    QTest::newRow("no key") << "=a"
                            << "Not KEY=VALUE: =a";
    QTest::newRow("no key before JSON") << ":=1"
                                        << "Not KEY=VALUE: :=1";
    QTest::newRow("no key of an array") << "[]=1"
                                        << "Not KEY=VALUE: []=1";
    QTest::newRow("bad JSON") << "a:={"
                              << "Not JSON: {";
    QTest::newRow("two JSON values") << "a:=1,2"
                                     << "Not JSON: 1,2";
    QTest::newRow("no JSON") << "a:="
                             << "Not JSON: ";
    QTest::newRow("no boolean") << "flag=perhaps"
                                << "Neither true nor false: flag=perhaps";
    QTest::newRow("no number") << "count=2x"
                               << "Not a number: count=2x";
    QTest::newRow("no array") << "old[]=1"
                              << "Not an array: old";
}

void KeyValueTest::faultsAreTold()
{
    QFETCH(QString, argument);
    QFETCH(QString, fault);
    KeyValues values(kinds());
    QCOMPARE(values.add(QStringLiteral("old=1")), QString());
    QCOMPARE(values.add(argument), fault);
}

void KeyValueTest::placeIsThatOfTheLastOne()
{
    KeyValues values(kinds());
    QCOMPARE(values.add(QStringLiteral("a=1")), QString());
    QCOMPARE(values.lastPlace(), QStringLiteral("a"));
    QCOMPARE(values.add({ QStringLiteral("b[]=1"), QStringLiteral("b[]=2") }), QString());
    QCOMPARE(values.lastPlace(), QStringLiteral("b[1]"));
}

void KeyValueTest::faultsLeaveTheObject()
{
    KeyValues values(kinds());
    QCOMPARE(values.add({ QStringLiteral("a=1"), QStringLiteral("b"), QStringLiteral("c=1") }),
             QStringLiteral("Not KEY=VALUE: b"));
    QCOMPARE(values.object().keys(), QStringList(QStringLiteral("a")));
}

QTEST_APPLESS_MAIN(KeyValueTest)

#include "tst_key_value.moc"
