#include "Core/types.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

using namespace Core;

namespace {

QJsonArray arrayOf(const char *json)
{
    return QJsonDocument::fromJson(json).array();
}

} // namespace

class TestTypes : public QObject
{
    Q_OBJECT

private slots:
    void emptyArrayIsAVariantList();
    void mixedArrayIsAVariantList();
    void booleansAreNarrowed();
    void numbersAreNarrowed();
    void stringsAreNarrowed();
    void objectsAreNarrowed();
    void arrayOfArraysIsInvalid();
    void arrayOfNullsIsInvalid();
    void objectIsConvertedAtAnyDepth();
    void rootIsTakenFromTheEnvironment();
};

void TestTypes::emptyArrayIsAVariantList()
{
    const QVariant value = Types::jsonArrayToVariant(QJsonArray());
    QCOMPARE(value.userType(), int(QMetaType::QVariantList));
    QVERIFY(value.toList().isEmpty());
}

void TestTypes::mixedArrayIsAVariantList()
{
    const QVariant value = Types::jsonArrayToVariant(arrayOf("[1, \"a\"]"));
    QCOMPARE(value.userType(), int(QMetaType::QVariantList));
    QCOMPARE(value.toList(), (QVariantList { 1.0, QStringLiteral("a") }));
    QCOMPARE(Types::jsonArrayToVariant(arrayOf("[[1], 2]")).userType(), int(QMetaType::QVariantList));
    QCOMPARE(Types::jsonArrayToVariant(arrayOf("[null, true]")).userType(), int(QMetaType::QVariantList));
}

void TestTypes::booleansAreNarrowed()
{
    const QVariant value = Types::jsonArrayToVariant(arrayOf("[true, false]"));
    QCOMPARE(value.userType(), qMetaTypeId<QList<bool>>());
    QCOMPARE(value.value<QList<bool>>(), (QList<bool> { true, false }));
}

void TestTypes::numbersAreNarrowed()
{
    const QVariant value = Types::jsonArrayToVariant(arrayOf("[1, 2.5]"));
    QCOMPARE(value.userType(), qMetaTypeId<QList<double>>());
    QCOMPARE(value.value<QList<double>>(), (QList<double> { 1.0, 2.5 }));
}

void TestTypes::stringsAreNarrowed()
{
    const QVariant value = Types::jsonArrayToVariant(arrayOf("[\"a\", \"\"]"));
    QCOMPARE(value.userType(), int(QMetaType::QStringList));
    QCOMPARE(value.toStringList(), (QStringList { QStringLiteral("a"), QString() }));
}

void TestTypes::objectsAreNarrowed()
{
    const QVariant value = Types::jsonArrayToVariant(arrayOf("[{\"a\": [1, 2]}, {}]"));
    QCOMPARE(value.userType(), qMetaTypeId<QList<QVariantMap>>());
    const auto maps = value.value<QList<QVariantMap>>();
    QCOMPARE(maps.size(), 2);
    // Inside the elements, the plain conversion applies.
    QCOMPARE(maps.at(0).value(QStringLiteral("a")).userType(), int(QMetaType::QVariantList));
    QVERIFY(maps.at(1).isEmpty());
}

void TestTypes::arrayOfArraysIsInvalid()
{
    QTest::ignoreMessage(QtWarningMsg, "JSON array of arrays are not supported");
    QVERIFY(!Types::jsonArrayToVariant(arrayOf("[[1]]")).isValid());
}

void TestTypes::arrayOfNullsIsInvalid()
{
    QTest::ignoreMessage(QtWarningMsg, "Unknown JSON value type");
    QVERIFY(!Types::jsonArrayToVariant(arrayOf("[null, null]")).isValid());
}

void TestTypes::objectIsConvertedAtAnyDepth()
{
    const QJsonObject object =
        QJsonDocument::fromJson("{\"a\": [1], \"o\": {\"b\": [true], \"e\": {}}, \"s\": \"x\", \"n\": null}")
            .object();
    const QVariantMap map = Types::jsonObjectToVariantMap(object);
    QCOMPARE(map.size(), 4);
    QCOMPARE(map.value(QStringLiteral("a")).userType(), qMetaTypeId<QList<double>>());
    const QVariantMap inner = map.value(QStringLiteral("o")).toMap();
    QCOMPARE(inner.value(QStringLiteral("b")).userType(), qMetaTypeId<QList<bool>>());
    QCOMPARE(inner.value(QStringLiteral("e")).userType(), int(QMetaType::QVariantMap));
    QCOMPARE(map.value(QStringLiteral("s")), QVariant(QStringLiteral("x")));
    QCOMPARE(map.value(QStringLiteral("n")), QJsonValue(QJsonValue::Null).toVariant());
    QVERIFY(Types::jsonObjectToVariantMap(QJsonObject()).isEmpty());
}

void TestTypes::rootIsTakenFromTheEnvironment()
{
    qunsetenv("PROCWARDEN_ROOTFS");
    QVERIFY(Types::rootFs().isNull());
    qputenv("PROCWARDEN_ROOTFS", "/tmp/\xc3\xa4");
    QCOMPARE(Types::rootFs(), QString::fromUtf8("/tmp/\xc3\xa4"));
    qputenv("PROCWARDEN_ROOTFS", "");
    QVERIFY(Types::rootFs().isEmpty());
    qunsetenv("PROCWARDEN_ROOTFS");
}

QTEST_GUILESS_MAIN(TestTypes)
#include "tst_types.moc"
