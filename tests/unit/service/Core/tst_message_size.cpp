#include "Core/message_size.h"

#include "support/message_probe.h"
#include "support/private_bus.h"

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusVariant>
#include <QtTest>

using namespace Core;
using namespace TestSupport;

using Numbers = QList<int>;
using Blobs = QMap<QString, QList<QByteArray>>;

Q_DECLARE_METATYPE(Numbers)
Q_DECLARE_METATYPE(Blobs)

class TestMessageSize : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void sizeDecides_data();
    void sizeDecides();

private:
    PrivateBus m_bus;
};

void TestMessageSize::initTestCase()
{
    qDBusRegisterMetaType<Numbers>();
    qDBusRegisterMetaType<Blobs>();
    qDBusRegisterMetaType<QList<QByteArray>>();
}

void TestMessageSize::sizeDecides_data()
{
    QTest::addColumn<QVariant>("argument");
    QTest::addColumn<bool>("fits");
    const int megabyte = 1024 * 1024;
    const auto bytes = [](int size) {
        return QByteArray(size, 'x');
    };
    const auto wrapped = [](const QVariant &value) {
        return QVariant::fromValue(QDBusVariant(value));
    };
    const QString name = QStringLiteral("name");

    QTest::newRow("number") << QVariant(5) << true;
    QTest::newRow("bytes") << QVariant(bytes(23 * megabyte)) << true;
    QTest::newRow("many bytes") << QVariant(bytes(25 * megabyte)) << false;
    QTest::newRow("text") << QVariant(QString(7 * megabyte, QLatin1Char('x'))) << true;
    QTest::newRow("long text") << QVariant(QString(9 * megabyte, QChar(0x20ac))) << false;
    QTest::newRow("texts") << QVariant(QStringList { name, QString(11 * megabyte, QLatin1Char('x')) })
                           << false;
    QTest::newRow("map") << QVariant(QVariantMap { { name, bytes(20 * megabyte) } }) << true;
    QTest::newRow("map of two") << QVariant(
        QVariantMap { { name, bytes(13 * megabyte) }, { name + name, bytes(13 * megabyte) } })
                                << false;
    QTest::newRow("variants in variants")
        << QVariant(QVariantList { wrapped(wrapped(bytes(25 * megabyte))) }) << false;
    QTest::newRow("numbers") << QVariant::fromValue(Numbers { 1, 2, 3 }) << true;
    Numbers many;
    many.reserve(5 * megabyte);
    for (int i = 0; i < 5 * megabyte; ++i) {
        many << i;
    }
    QTest::newRow("many numbers") << QVariant::fromValue(many) << false;
    QTest::newRow("blobs") << QVariant::fromValue(Blobs { { name, { bytes(megabyte), bytes(megabyte) } } })
                           << true;
    QTest::newRow("large blobs") << QVariant::fromValue(
        Blobs { { name, { bytes(13 * megabyte), bytes(13 * megabyte) } } })
                                 << false;
}

void TestMessageSize::sizeDecides()
{
    QFETCH(QVariant, argument);
    QFETCH(bool, fits);
    MessageProbe probe(m_bus);
    const auto arrived = probe.pass(QVariant(QVariantMap { { QStringLiteral("key"), argument } }));
    QVERIFY(arrived.arrived);
    const QVariantMap hints = qdbus_cast<QVariantMap>(arrived.argument());
    const qint64 size = estimatedMessageSize({ hints, 5 });
    QCOMPARE(size <= maximumMessageSize, fits);
    // Once more: the first look has not used it up.
    QCOMPARE(estimatedMessageSize({ hints, 5 }), size);
}

QTEST_GUILESS_MAIN(TestMessageSize)
#include "tst_message_size.moc"
