#include "Core/application_state.h"
#include "DBus/types.h"

#include "support/log_capture.h"
#include "support/message_probe.h"
#include "support/private_bus.h"

#include <QDBusMetaType>
#include <QJsonArray>
#include <QJsonObject>
#include <QtTest>

#include <memory>

using namespace Procwarden;
using TestSupport::LogCapture;
using TestSupport::MessageProbe;
using TestSupport::PrivateBus;

namespace {

// The fields in their order; the structures themselves have no comparison.
QVariantList fields(const RunningApplication &value)
{
    return { value.id, value.pid, value.startReason, value.state, value.details };
}

QVariantList fields(const RunningService &value)
{
    return { value.appId, value.taskName, value.pid, value.startReason, value.details };
}

QVariantList fields(const TaskState &value)
{
    return { value.name, value.active, value.details };
}

QVariantList fields(const AvailableTask &value)
{
    return { value.id, value.details };
}

QVariantList fields(const ActiveTask &value)
{
    return { value.id, value.pid, value.details };
}

const QVariantMap details { { QStringLiteral("Uris"), QStringList { QStringLiteral("file:///a") } },
                            { QStringLiteral("Count"), 3U } };

} // namespace

namespace Procwarden {

// Spells the types as a class in the namespace does; the other spelling is in ListingOutside.
class ListingInside : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.example.Listing")

public slots:
    void List(QVector<RunningApplication> &apps, QVector<RunningService> &services) // NOLINT
    {
        apps = { { QStringLiteral("org.example.App"), 12, 4, 1, details }, {} };
        services = { { QStringLiteral("org.example.App"), QStringLiteral("sync"), 13, 2, {} } };
    }
    RunningApplication Take(const RunningApplication &app) { return app; } // NOLINT
};

} // namespace Procwarden

class ListingOutside : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.example.Listing")
    Q_PROPERTY(QVector<Procwarden::ActiveTask> ActiveTasks READ activeTasks CONSTANT)

public:
    QVector<Procwarden::ActiveTask> activeTasks() const
    {
        return { { QStringLiteral("org.example.App.task_sync"), 7, {} } };
    }

public slots:
    void List(QVector<Procwarden::TaskState> &states, QVector<Procwarden::AvailableTask> &available) // NOLINT
    {
        states = { { QStringLiteral("sync"), 1, {} } };
        available = { { QStringLiteral("org.example.App.task_sync"), details } };
    }
};

class tst_DBusTypes : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void metaTypeName_data();
    void metaTypeName();
    void applicationStateIsANumberWithoutOperators();
    void repeatedRegistrationChangesNothing();
    void filledListsNeverCompareEqual();

    void signatureOnTheWire_data();
    void signatureOnTheWire();
    void fieldsKeepTheirPlaces();
    void defaultMadeStructuresAreZero();
    void emptyArrayKeepsItsSignature();

    void anotherSignatureLeavesTheStructureAsItWas_data();
    void anotherSignatureLeavesTheStructureAsItWas();
    void arrayOfOthersIsReadToItsEnd();

    void outParametersOfASlot();
    void structureAsParameterAndResult();
    void outParametersSpelledInFull();
    void propertyOnTheBus();

private:
    QDBusMessage callListing(QObject *object, const QString &method, const QVariantList &arguments = {});

    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<MessageProbe> m_probe;
};

void tst_DBusTypes::initTestCase()
{
    const LogCapture log;
    registerTypes();
    QCOMPARE(log.messages(), QStringList());
    m_bus = std::make_unique<PrivateBus>();
    m_probe = std::make_unique<MessageProbe>(*m_bus);
}

void tst_DBusTypes::cleanupTestCase()
{
    m_probe.reset();
    m_bus.reset();
}

void tst_DBusTypes::metaTypeName_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<int>("type");

    const auto rows = [](const char *name, int type, int vectorType) {
        const QByteArray plain(name);
        const QByteArray qualified = "Procwarden::" + plain;
        QTest::newRow(plain) << plain << type;
        QTest::newRow(qualified) << qualified << type;
        QTest::newRow("vector of " + plain) << QByteArray("QVector<" + plain + ">") << vectorType;
        QTest::newRow("vector of " + qualified) << QByteArray("QVector<" + qualified + ">") << vectorType;
    };
    rows("RunningApplication", qMetaTypeId<RunningApplication>(), qMetaTypeId<QVector<RunningApplication>>());
    rows("RunningService", qMetaTypeId<RunningService>(), qMetaTypeId<QVector<RunningService>>());
    rows("TaskState", qMetaTypeId<TaskState>(), qMetaTypeId<QVector<TaskState>>());
    rows("AvailableTask", qMetaTypeId<AvailableTask>(), qMetaTypeId<QVector<AvailableTask>>());
    rows("ActiveTask", qMetaTypeId<ActiveTask>(), qMetaTypeId<QVector<ActiveTask>>());
}

void tst_DBusTypes::metaTypeName()
{
    QFETCH(QByteArray, name);
    QFETCH(int, type);

    QCOMPARE(QMetaType::type(name), type);
}

void tst_DBusTypes::applicationStateIsANumberWithoutOperators()
{
    const int type = QMetaType::type("ApplicationState");
    QCOMPARE(type, qMetaTypeId<Core::ApplicationState>());
    QCOMPARE(QMetaType::sizeOf(type), 4);
    QCOMPARE(QDBusMetaType::typeToSignature(type), static_cast<const char *>(nullptr));
}

void tst_DBusTypes::repeatedRegistrationChangesNothing()
{
    const int type = qMetaTypeId<QVector<ActiveTask>>();
    const LogCapture log;
    registerTypes();
    registerTypes();
    QCOMPARE(log.messages(), QStringList());
    QCOMPARE(QMetaType::type("QVector<ActiveTask>"), type);
}

void tst_DBusTypes::filledListsNeverCompareEqual()
{
    // What tells a changed property from an unchanged one relies on it.
    QVERIFY(QVariant::fromValue(QVector<TaskState>(1)) != QVariant::fromValue(QVector<TaskState>(1)));
    QVERIFY(QVariant::fromValue(QVector<AvailableTask>(1)) != QVariant::fromValue(QVector<AvailableTask>(1)));
    QVERIFY(QVariant::fromValue(QVector<ActiveTask>(1)) != QVariant::fromValue(QVector<ActiveTask>(1)));
    // Qt finds two empty ones to be the same list.
    QVERIFY(QVariant::fromValue(QVector<ActiveTask>()) == QVariant::fromValue(QVector<ActiveTask>()));
}

void tst_DBusTypes::signatureOnTheWire_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("signature");

    const auto rows = [](const char *name, const auto &value, const char *signature) {
        const QString text = QString::fromLatin1(signature);
        QTest::newRow(name) << QVariant::fromValue(value) << text;
        QTest::addRow("vector of %s", name)
            << QVariant::fromValue(QVector { value, value }) << QString(QLatin1Char('a') + text);
    };
    rows("RunningApplication", RunningApplication { QStringLiteral("a"), 1, 2, 3, details }, "(siuua{sv})");
    rows("RunningService", RunningService { QStringLiteral("a"), QStringLiteral("b"), 1, 2, details },
         "(ssiua{sv})");
    rows("TaskState", TaskState { QStringLiteral("a"), 1, details }, "(sua{sv})");
    rows("AvailableTask", AvailableTask { QStringLiteral("a"), details }, "(sa{sv})");
    rows("ActiveTask", ActiveTask { QStringLiteral("a"), 1, details }, "(sia{sv})");
}

void tst_DBusTypes::signatureOnTheWire()
{
    QFETCH(QVariant, value);
    QFETCH(QString, signature);

    const MessageProbe::Result result = m_probe->pass(value);
    QVERIFY(result.arrived);
    QCOMPARE(result.signature(), signature);

    // A variant announces the same signature before it holds the value.
    const MessageProbe::Result inMap = m_probe->pass(QVariantMap { { QStringLiteral("key"), value } });
    QVERIFY(inMap.arrived);
    const auto map = qdbus_cast<QVariantMap>(inMap.argument().value<QDBusArgument>());
    QCOMPARE(map.value(QStringLiteral("key")).value<QDBusArgument>().currentSignature(), signature);
}

void tst_DBusTypes::fieldsKeepTheirPlaces()
{
    const auto check = [this](const auto &value) {
        using Structure = std::decay_t<decltype(value)>;
        const MessageProbe::Result one = m_probe->pass(QVariant::fromValue(value));
        const MessageProbe::Result many = m_probe->pass(QVariant::fromValue(QVector { Structure(), value }));
        const auto back = qdbus_cast<Structure>(one.argument().value<QDBusArgument>());
        const auto list = qdbus_cast<QVector<Structure>>(many.argument().value<QDBusArgument>());
        QCOMPARE(fields(back), fields(value));
        QCOMPARE(list.size(), 2);
        QCOMPARE(fields(list.at(0)), fields(Structure()));
        QCOMPARE(fields(list.at(1)), fields(value));
    };
    const QString a = QStringLiteral("a");
    const QString b = QStringLiteral("b");
    check(RunningApplication { a, -5, 4000000001U, 4000000002U, details });
    check(RunningService { a, b, -5, 4000000001U, details });
    check(TaskState { a, 4000000001U, details });
    check(AvailableTask { a, details });
    check(ActiveTask { a, -5, details });
}

void tst_DBusTypes::defaultMadeStructuresAreZero()
{
    QCOMPARE(fields(RunningApplication()), (QVariantList { QString(), 0, 0U, 0U, QVariantMap() }));
    QCOMPARE(fields(RunningService()), (QVariantList { QString(), QString(), 0, 0U, QVariantMap() }));
    QCOMPARE(fields(TaskState()), (QVariantList { QString(), 0U, QVariantMap() }));
    QCOMPARE(fields(AvailableTask()), (QVariantList { QString(), QVariantMap() }));
    QCOMPARE(fields(ActiveTask()), (QVariantList { QString(), 0, QVariantMap() }));
}

void tst_DBusTypes::emptyArrayKeepsItsSignature()
{
    const MessageProbe::Result result = m_probe->pass(QVariantList {
        QVariant::fromValue(QVector<RunningApplication>()), QVariant::fromValue(QVector<RunningService>()) });
    QVERIFY(result.arrived);
    QCOMPARE(result.signature(), QStringLiteral("a(siuua{sv})a(ssiua{sv})"));
}

void tst_DBusTypes::anotherSignatureLeavesTheStructureAsItWas_data()
{
    QTest::addColumn<QVariant>("sent");

    const auto structure = [](const QVariantList &members) {
        QDBusArgument argument;
        argument.beginStructure();
        for (const QVariant &member : members) {
            member.userType() == QMetaType::Int ? argument << member.toInt() : argument << member.toString();
        }
        argument.endStructure();
        return QVariant::fromValue(argument);
    };
    const QString a = QStringLiteral("a");
    QTest::newRow("map") << QVariant(details);
    QTest::newRow("too short") << structure({ a });
    QTest::newRow("other types") << structure({ 1, a, 2 });
    QTest::newRow("too long") << structure({ a, a, 1, 2, a, a });
    QTest::newRow("other structure") << QVariant::fromValue(RunningApplication());
}

void tst_DBusTypes::anotherSignatureLeavesTheStructureAsItWas()
{
    QFETCH(QVariant, sent);

    const MessageProbe::Result result = m_probe->pass(sent);
    QVERIFY(result.arrived);
    RunningService service { QStringLiteral("before"), {}, 1, 2, {} };
    const auto argument = result.argument().value<QDBusArgument>();
    argument >> service;
    QCOMPARE(service.appId, QStringLiteral("before"));
    QCOMPARE(service.pid, 1);
    QVERIFY(argument.atEnd());
}

void tst_DBusTypes::arrayOfOthersIsReadToItsEnd()
{
    QDBusArgument ints;
    ints << QList<int> { 1, 2, 3 };
    const MessageProbe::Result array = m_probe->pass(QVariant::fromValue(ints));
    const auto list = qdbus_cast<QVector<TaskState>>(array.argument().value<QDBusArgument>());
    QCOMPARE(list.size(), 3);
    QCOMPARE(fields(list.at(2)), fields(TaskState()));
}

QDBusMessage tst_DBusTypes::callListing(QObject *object, const QString &method, const QVariantList &arguments)
{
    QDBusConnection service = m_bus->connect();
    service.registerObject(QStringLiteral("/"), object,
                           QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllProperties);
    QDBusMessage call = QDBusMessage::createMethodCall(service.baseService(), QStringLiteral("/"),
                                                       QStringLiteral("org.example.Listing"), method);
    if (method == QLatin1String("Get")) {
        call = QDBusMessage::createMethodCall(service.baseService(), QStringLiteral("/"),
                                              QStringLiteral("org.freedesktop.DBus.Properties"), method);
    }
    call.setArguments(arguments);
    return m_probe->sender().call(call, QDBus::BlockWithGui);
}

void tst_DBusTypes::outParametersOfASlot()
{
    ListingInside listing;
    const QDBusMessage reply = callListing(&listing, QStringLiteral("List"));
    QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
    QCOMPARE(reply.signature(), QStringLiteral("a(siuua{sv})a(ssiua{sv})"));
    const auto apps = qdbus_cast<QVector<RunningApplication>>(reply.arguments().at(0));
    QCOMPARE(apps.size(), 2);
    QCOMPARE(apps.at(0).details.value(QStringLiteral("Uris")).toStringList(),
             QStringList { QStringLiteral("file:///a") });
}

void tst_DBusTypes::structureAsParameterAndResult()
{
    ListingInside listing;
    const RunningApplication application { QStringLiteral("a"), 1, 2, 3, details };
    const QDBusMessage reply =
        callListing(&listing, QStringLiteral("Take"), { QVariant::fromValue(application) });
    QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
    QCOMPARE(reply.signature(), QStringLiteral("(siuua{sv})"));
    QCOMPARE(fields(qdbus_cast<RunningApplication>(reply.arguments().at(0))), fields(application));
}

void tst_DBusTypes::outParametersSpelledInFull()
{
    ListingOutside listing;
    const QDBusMessage reply = callListing(&listing, QStringLiteral("List"));
    QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
    QCOMPARE(reply.signature(), QStringLiteral("a(sua{sv})a(sa{sv})"));
}

void tst_DBusTypes::propertyOnTheBus()
{
    ListingOutside listing;
    const QDBusMessage reply =
        callListing(&listing, QStringLiteral("Get"),
                    { QStringLiteral("org.example.Listing"), QStringLiteral("ActiveTasks") });
    QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
    const QVariant value = reply.arguments().at(0).value<QDBusVariant>().variant();
    QCOMPARE(value.value<QDBusArgument>().currentSignature(), QStringLiteral("a(sia{sv})"));
}

QTEST_GUILESS_MAIN(tst_DBusTypes)
#include "tst_dbus_types.moc"
