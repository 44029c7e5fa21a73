#include "Core/file_descriptor.h"
#include "Core/intent_files.h"

#include "support/log_capture.h"
#include "support/message_probe.h"
#include "support/private_bus.h"

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusUnixFileDescriptor>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <QDir>
#include <QTemporaryFile>
#include <QtTest>

#include <sys/stat.h>

#include <memory>

using namespace Core;
using namespace TestSupport;

using DescriptorList = QList<QDBusUnixFileDescriptor>;

namespace {

int openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::AllEntries | QDir::System).size();
}

class Receiver : public QDBusVirtualObject
{
public:
    QString introspect(const QString & /*path*/) const override { return QString(); }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        hints = qdbus_cast<QVariantMap>(message.arguments().value(0).value<QDBusArgument>());
        connection.send(message.createReply());
        return true;
    }

    QVariantMap hints;
};

} // namespace

class tst_IntentHints : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void plainHintsAreCopied();
    void listOfStringsBecomesOne();
    void descriptorsAreDuplicated();
    void complexHintIsDropped_data();
    void complexHintIsDropped();
    void oneDescriptorTooManyIsKept_data();
    void oneDescriptorTooManyIsKept();
    void manyHintsHoldNoMoreThanTheTwoThatCount();
    void cleanedHintsAreClean();

private:
    QVariantMap received(const QVariantMap &hints);
    QVariantMap looped(const QVariantMap &hints);

    PrivateBus m_bus;
    std::unique_ptr<MessageProbe> m_probe;
    std::unique_ptr<QTemporaryFile> m_file;
};

void tst_IntentHints::initTestCase()
{
    qDBusRegisterMetaType<DescriptorList>();
    qDBusRegisterMetaType<QList<QVariantMap>>();
    m_probe = std::make_unique<MessageProbe>(m_bus);
}

void tst_IntentHints::init()
{
    m_file = std::make_unique<QTemporaryFile>();
    QVERIFY(m_file->open());
}

// Hints as the service gets them.
QVariantMap tst_IntentHints::received(const QVariantMap &hints)
{
    return qdbus_cast<QVariantMap>(m_probe->pass(hints).argument().value<QDBusArgument>());
}

// The same without the bus: a connection that calls itself keeps the message.
QVariantMap tst_IntentHints::looped(const QVariantMap &hints)
{
    Receiver receiver;
    QDBusConnection connection = m_bus.connect();
    connection.registerVirtualObject(QStringLiteral("/"), &receiver);
    QDBusMessage call =
        QDBusMessage::createMethodCall(connection.baseService(), QStringLiteral("/"),
                                       QStringLiteral("org.example.Loop"), QStringLiteral("Pass"));
    call.setArguments({ hints });
    connection.call(call);
    connection.unregisterObject(QStringLiteral("/"));
    m_bus.disconnect(connection);
    return receiver.hints;
}

void tst_IntentHints::plainHintsAreCopied()
{
    const QVariantMap hints { { QStringLiteral("text"), QStringLiteral("a") },
                              { QStringLiteral("yes"), true },
                              { QStringLiteral("number"), 5 },
                              { QStringLiteral("double"), 1.5 },
                              { QStringLiteral("path"),
                                QVariant::fromValue(QDBusObjectPath(QStringLiteral("/a"))) },
                              { QStringLiteral("bytes"), QByteArray("abc") } };
    const LogCapture log;
    const QVariantMap clean = IntentUtils::cleanHints(received(hints));
    QCOMPARE(clean.keys(), hints.keys());
    for (auto it = hints.begin(); it != hints.end(); ++it) {
        QCOMPARE(clean.value(it.key()).userType(), it->userType());
        QVERIFY(it.key() == QLatin1String("path") || clean.value(it.key()) == *it); // paths do not compare
    }
    QCOMPARE(IntentUtils::cleanHints({}), QVariantMap());
    QCOMPARE(log.messages(), QStringList());
}

void tst_IntentHints::listOfStringsBecomesOne()
{
    const QStringList list { QStringLiteral("a"), QString(), QStringLiteral("b") };
    // Raw, as it is where a map was walked entry by entry.
    QDBusArgument raw;
    raw << list;
    const QVariant argument =
        m_probe->pass(QVariant::fromValue(QDBusVariant(QVariant::fromValue(raw)))).argument();
    const LogCapture log;
    const QVariantMap clean = IntentUtils::cleanHints(
        { { QStringLiteral("a"), argument.value<QDBusVariant>().variant() }, { QStringLiteral("b"), list } });
    QCOMPARE(clean.value(QStringLiteral("a")), QVariant(list));
    QCOMPARE(clean.value(QStringLiteral("b")), QVariant(list));
    QCOMPARE(log.messages(), QStringList());
}

void tst_IntentHints::descriptorsAreDuplicated()
{
    const int before = openDescriptors();
    {
        const QVariantMap clean = IntentUtils::cleanHints(
            received({ { QStringLiteral("readFds"),
                         QVariant::fromValue(DescriptorList({ QDBusUnixFileDescriptor(m_file->handle()),
                                                              QDBusUnixFileDescriptor(0) })) } }));
        const auto descriptors = clean.value(QStringLiteral("readFds")).value<QVector<FileDescriptor>>();
        QCOMPARE(descriptors.size(), 2);
        struct stat sent
        {
        };
        struct stat got
        {
        };
        QCOMPARE(fstat(m_file->handle(), &sent), 0);
        QCOMPARE(fstat(descriptors.at(0).fileDescriptor(), &got), 0);
        QCOMPARE(got.st_ino, sent.st_ino);
        QVERIFY(descriptors.at(1).isValid());
    }
    // The probe keeps the last message.
    m_probe->pass(QString());
    QTRY_VERIFY(openDescriptors() <= before);
}

void tst_IntentHints::complexHintIsDropped_data()
{
    QTest::addColumn<QVariant>("value");

    QTest::newRow("map") << QVariant(QVariantMap { { QStringLiteral("a"), 1 } });
    QTest::newRow("empty map") << QVariant(QVariantMap());
    QTest::newRow("list of variants") << QVariant(QVariantList { 1, QStringLiteral("a") });
    QTest::newRow("list of doubles") << QVariant::fromValue(QList<double> { 1 });
    QTest::newRow("list of booleans") << QVariant::fromValue(QList<bool> { true });
    QTest::newRow("list of maps") << QVariant::fromValue(QList<QVariantMap> { {} });
    QTest::newRow("list of paths") << QVariant::fromValue(QList<QDBusObjectPath> {});
    QTest::newRow("structure") << QVariant(QPoint(1, 2));
}

void tst_IntentHints::complexHintIsDropped()
{
    QFETCH(QVariant, value);

    const QVariantMap hints =
        received({ { QStringLiteral("k"), value }, { QStringLiteral("other"), QStringLiteral("a") } });
    QCOMPARE(hints.value(QStringLiteral("k")).userType(), qMetaTypeId<QDBusArgument>());
    QTest::ignoreMessage(QtWarningMsg, "Unexpected complex D-Bus type for hint \"k\"");
    QCOMPARE(IntentUtils::cleanHints(hints),
             (QVariantMap { { QStringLiteral("other"), QStringLiteral("a") } }));
}

void tst_IntentHints::oneDescriptorTooManyIsKept_data()
{
    QTest::addColumn<int>("sent");
    QTest::addColumn<int>("kept");
    QTest::newRow("none") << 0 << 0;
    QTest::newRow("as many as can be passed on") << 16 << 16;
    QTest::newRow("one more") << 17 << 17;
    QTest::newRow("two more") << 18 << 17;
    QTest::newRow("hundreds") << 200 << 17;
}

void tst_IntentHints::oneDescriptorTooManyIsKept()
{
    QFETCH(int, sent);
    QFETCH(int, kept);

    // No more than 16 come through the bus, though each may be named several times: what does not leave the
    // process can have as many.
    const auto array = QVariant::fromValue(DescriptorList(
        QVector<QDBusUnixFileDescriptor>(sent, QDBusUnixFileDescriptor(m_file->handle())).toList()));
    const QVariantMap hints =
        looped({ { QStringLiteral("readFds"), array }, { QStringLiteral("writeFds"), array } });
    const int before = openDescriptors();
    {
        const QVariantMap clean = IntentUtils::cleanHints(hints);
        for (const char *key : { "readFds", "writeFds" }) {
            QCOMPARE(clean.value(QLatin1String(key)).value<QVector<FileDescriptor>>().size(), kept);
        }
        QCOMPARE(openDescriptors(), before + 2 * kept);
    }
    QCOMPARE(openDescriptors(), before);
}

void tst_IntentHints::manyHintsHoldNoMoreThanTheTwoThatCount()
{
    const auto array = QVariant::fromValue(DescriptorList(
        QVector<QDBusUnixFileDescriptor>(2, QDBusUnixFileDescriptor(m_file->handle())).toList()));
    QVariantMap sent;
    for (int i = 0; i < 100; ++i) {
        sent.insert(QString::number(i), array);
    }
    const QVariantMap hints = looped(sent);
    const int before = openDescriptors();
    {
        const QVariantMap clean = IntentUtils::cleanHints(hints);
        QCOMPARE(clean.size(), 100);
        QCOMPARE(openDescriptors(), before + 2 * (FileDescriptor::maximumPerMessage + 1));
    }
    QCOMPARE(openDescriptors(), before);
}

void tst_IntentHints::cleanedHintsAreClean()
{
    const QVariantMap clean = IntentUtils::cleanHints(
        received({ { QStringLiteral("readFds"),
                     QVariant::fromValue(DescriptorList { QDBusUnixFileDescriptor(m_file->handle()) }) },
                   { QStringLiteral("readFiles"), QStringList { QStringLiteral("a") } } }));
    const QVariantMap again = IntentUtils::cleanHints(clean);
    QCOMPARE(again.keys(), clean.keys());
    QCOMPARE(again.value(QStringLiteral("readFiles")), clean.value(QStringLiteral("readFiles")));
    QCOMPARE(again.value(QStringLiteral("readFds")).value<QVector<FileDescriptor>>().size(), 1);
}

QTEST_GUILESS_MAIN(tst_IntentHints)
#include "tst_intent_hints.moc"
