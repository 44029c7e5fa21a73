#include "Core/notification_proxy.h"

#include "support/bus_stand_in.h"
#include "support/held_bus.h"
#include "support/message_probe.h"
#include "support/private_bus.h"

#include <QDBusArgument>
#include <QDBusError>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusSignature>
#include <QDBusVariant>
#include <QSignalSpy>
#include <QtTest>

using namespace Core;
using namespace TestSupport;

namespace {

const QString server = QStringLiteral("org.solvaneos.Notifications");
const QString path = QStringLiteral("/org/freedesktop/Notifications");
const QString interface = QStringLiteral("org.freedesktop.Notifications");

// A picture as notifications carry it, "(iiibiiay)".
struct Image
{
    int width = 0;
    int height = 0;
    int rowStride = 0;
    bool hasAlpha = false;
    int bitsPerSample = 8;
    int channels = 4;
    QByteArray data;
};

QDBusArgument &operator<<(QDBusArgument &argument, const Image &image)
{
    argument.beginStructure();
    argument << image.width << image.height << image.rowStride << image.hasAlpha << image.bitsPerSample
             << image.channels << image.data;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, Image &image)
{
    argument.beginStructure();
    argument >> image.width >> image.height >> image.rowStride >> image.hasAlpha >> image.bitsPerSample
        >> image.channels >> image.data;
    argument.endStructure();
    return argument;
}

NotificationData sampleData()
{
    NotificationData data;
    data.appName = QStringLiteral("Mail");
    data.id = 4000000000U;
    data.appIcon = QStringLiteral("icon-mail");
    data.summary = QStringLiteral("One message");
    data.body = QStringLiteral("from \u0436 <b>you</b>");
    data.actions = QStringList { QStringLiteral("default"), QStringLiteral("Open") };
    data.hints = { { QStringLiteral("urgency"), QVariant::fromValue<uchar>(2) } };
    data.expireTimeout = -1;
    return data;
}

} // namespace

Q_DECLARE_METATYPE(Image)

class TestNotificationProxy : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void callsAreSentAsAgreed();
    void resultsAreHandedOver();
    void recordsHaveTheAgreedSignature();
    void failureGivesDefaults_data();
    void failureGivesDefaults();
    void absentServerGivesDefaults();
    void serverThatEndsWhileAskedGivesDefaults();
    void lateAnswerCounts();
    void answersFindTheirCalls();
    void answerAfterTheEndIsDropped();
    void emptyCallbacksAreAllowed();
    void whatWaitsIsBounded();

    void eventsAreForwarded();
    void eventsOfOthersAreNot();
    void eventsOfOtherTypesAreNot();
    void restartedServerIsHeard();
    void eventThatComesWithTheServerIsHeard();

    void hintsPassAsTheyCame_data();
    void hintsPassAsTheyCame();

private:
    void notify(const QVariantMap &hints = {});
    void askAll();
    void signal(const QString &member, const QVariantList &arguments, const QString &receiver = QString());

    PrivateBus m_bus;
    std::unique_ptr<BusStandIn> m_server;
    std::unique_ptr<NotificationProxy> m_proxy;
    QStringList m_results;
};

void TestNotificationProxy::initTestCase()
{
    m_bus.useAsSessionBus();
    qDBusRegisterMetaType<Image>();
    qDBusRegisterMetaType<QVector<Image>>();
    qDBusRegisterMetaType<QMap<int, QString>>();
}

void TestNotificationProxy::init()
{
    m_proxy.reset();
    m_server.reset();
    m_server = std::make_unique<BusStandIn>(m_bus, server, path);
    m_proxy = std::make_unique<NotificationProxy>();
    m_results.clear();
}

void TestNotificationProxy::notify(const QVariantMap &hints)
{
    m_proxy->notify(QStringLiteral("Mail"), 7, QStringLiteral("icon"), QStringLiteral("summary"),
                    QStringLiteral("body"), { QStringLiteral("default"), QStringLiteral("Open") }, hints, -1,
                    [this](Id id) { m_results << QStringLiteral("id %1").arg(id); });
}

void TestNotificationProxy::askAll()
{
    const auto list = [this](const QVector<NotificationData> &notifications) {
        m_results << QStringLiteral("%1 notifications").arg(notifications.size());
    };
    notify();
    m_proxy->getCapabilities([this](const QStringList &capabilities) {
        m_results << QStringLiteral("capabilities ") + capabilities.join(QLatin1Char(','));
    });
    m_proxy->getServerInformation(
        [this](const QString &name, const QString &vendor, const QString &version, const QString &spec) {
            m_results << QStringLiteral("server [%1|%2|%3|%4]").arg(name, vendor, version, spec);
        });
    m_proxy->getNotifications(QStringLiteral("Mail"), list);
    m_proxy->getNotificationsByCategory(QStringLiteral("x-mail"), list);
}

void TestNotificationProxy::signal(const QString &member, const QVariantList &arguments,
                                   const QString &receiver)
{
    auto message = QDBusMessage::createTargetedSignal(receiver, path, interface, member);
    message.setArguments(arguments);
    m_server->send(message);
}

void TestNotificationProxy::callsAreSentAsAgreed()
{
    askAll();
    m_proxy->closeNotification(9);
    QTRY_COMPARE(m_server->calls().size(), 6);
    QStringList calls;
    for (const QDBusMessage &call : m_server->calls()) {
        QCOMPARE(call.interface(), interface);
        calls << call.member() + QLatin1Char(' ') + call.signature();
    }
    const QStringList expected {
        QStringLiteral("Notify susssasa{sv}i"),         QStringLiteral("GetCapabilities "),
        QStringLiteral("GetServerInformation "),        QStringLiteral("GetNotifications s"),
        QStringLiteral("GetNotificationsByCategory s"), QStringLiteral("CloseNotification u"),
    };
    QCOMPARE(calls, expected);
    const QVariantList arguments = m_server->calls().at(0).arguments();
    QCOMPARE(arguments.at(0).toString(), QStringLiteral("Mail"));
    QCOMPARE(arguments.at(1).toUInt(), 7U);
    QCOMPARE(arguments.at(2).toString(), QStringLiteral("icon"));
    QCOMPARE(arguments.at(3).toString(), QStringLiteral("summary"));
    QCOMPARE(arguments.at(4).toString(), QStringLiteral("body"));
    QCOMPARE(arguments.at(5).toStringList(),
             (QStringList { QStringLiteral("default"), QStringLiteral("Open") }));
    QCOMPARE(arguments.at(7).toInt(), -1);
    QCOMPARE(m_server->calls().at(3).arguments(), QVariantList { QStringLiteral("Mail") });
    QCOMPARE(m_server->calls().at(4).arguments(), QVariantList { QStringLiteral("x-mail") });
    QCOMPARE(m_server->calls().at(5).arguments(), QVariantList { 9U });
}

void TestNotificationProxy::resultsAreHandedOver()
{
    m_server->setHandler([](const QDBusMessage &call, const QDBusConnection &connection) {
        const QHash<QString, QVariantList> answers {
            { QStringLiteral("Notify"), { 4294967295U } },
            { QStringLiteral("GetCapabilities"),
              { QStringList { QStringLiteral("body"), QStringLiteral("actions") } } },
            { QStringLiteral("GetServerInformation"),
              { QStringLiteral("n"), QStringLiteral("v"), QStringLiteral("1"), QStringLiteral("1.2") } },
            { QStringLiteral("GetNotifications"),
              { QVariant::fromValue(QVector<NotificationData> { sampleData(), sampleData() }) } },
            { QStringLiteral("GetNotificationsByCategory"),
              { QVariant::fromValue(QVector<NotificationData>()) } },
        };
        connection.send(call.createReply(answers.value(call.member())));
    });
    askAll();
    const QStringList expected {
        QStringLiteral("id 4294967295"),      QStringLiteral("capabilities body,actions"),
        QStringLiteral("server [n|v|1|1.2]"), QStringLiteral("2 notifications"),
        QStringLiteral("0 notifications"),
    };
    QTRY_COMPARE(m_results, expected);
}

void TestNotificationProxy::recordsHaveTheAgreedSignature()
{
    const NotificationData sent = sampleData();
    m_server->answerWith({ QVariant::fromValue(QVector<NotificationData> { sent }) });
    QVector<NotificationData> got;
    m_proxy->getNotifications(QString(), [&got](const QVector<NotificationData> &list) { got = list; });
    QTRY_COMPARE(got.size(), 1);
    QCOMPARE(got.first().appName, sent.appName);
    QCOMPARE(got.first().id, sent.id);
    QCOMPARE(got.first().appIcon, sent.appIcon);
    QCOMPARE(got.first().summary, sent.summary);
    QCOMPARE(got.first().body, sent.body);
    QCOMPARE(got.first().actions, sent.actions);
    QCOMPARE(got.first().hints, sent.hints);
    QCOMPARE(got.first().hints.first().userType(), int(QMetaType::UChar));
    QCOMPARE(got.first().expireTimeout, sent.expireTimeout);

    QCOMPARE(QByteArray(QDBusMetaType::typeToSignature(qMetaTypeId<NotificationData>())),
             QByteArray("(susssasa{sv}i)"));
    QCOMPARE(QByteArray(QDBusMetaType::typeToSignature(qMetaTypeId<QVector<NotificationData>>())),
             QByteArray("a(susssasa{sv}i)"));
    QCOMPARE(QMetaType::type("Id"), int(QMetaType::UInt));
}

namespace {

const QStringList defaults { QStringLiteral("id 0"), QStringLiteral("capabilities "),
                             QStringLiteral("server [|||]"), QStringLiteral("0 notifications"),
                             QStringLiteral("0 notifications") };

QStringList sorted(QStringList list)
{
    list.sort();
    return list;
}

} // namespace

void TestNotificationProxy::failureGivesDefaults_data()
{
    QTest::addColumn<QVariantList>("answer"); // none: an error
    QTest::newRow("error") << QVariantList();
    QTest::newRow("another type") << QVariantList { 1.5 };
    QTest::newRow("signed id") << QVariantList { 5 };
    QTest::newRow("records of another signature")
        << QVariantList { QVariant::fromValue(QVector<Image> { Image() }) };
    QTest::newRow("too few strings") << QVariantList { QStringLiteral("a"), QStringLiteral("b") };
    QTest::newRow("a variant") << QVariantList { QVariant::fromValue(QDBusVariant(5U)) };
}

void TestNotificationProxy::failureGivesDefaults()
{
    QFETCH(QVariantList, answer);
    if (answer.isEmpty()) {
        m_server->setHandler([](const QDBusMessage &call, const QDBusConnection &connection) {
            connection.send(call.createErrorReply(QDBusError::Failed, QStringLiteral("no")));
        });
    } else {
        m_server->answerWith(answer);
    }
    askAll();
    QTRY_COMPARE(m_results, defaults);
}

void TestNotificationProxy::absentServerGivesDefaults()
{
    m_server->leave();
    askAll();
    m_proxy->closeNotification(1);
    QVERIFY(m_results.isEmpty());
    QTRY_COMPARE(sorted(m_results), sorted(defaults));
}

void TestNotificationProxy::serverThatEndsWhileAskedGivesDefaults()
{
    askAll();
    QTRY_COMPARE(m_server->calls().size(), 5);
    QVERIFY(m_results.isEmpty());
    m_server->leave();
    QTRY_COMPARE(sorted(m_results), sorted(defaults));
}

void TestNotificationProxy::lateAnswerCounts()
{
    notify();
    QTRY_COMPARE(m_server->calls().size(), 1);
    QTest::qWait(100);
    QVERIFY(m_results.isEmpty());
    m_server->send(m_server->calls().first().createReply(3U));
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("id 3") });
}

void TestNotificationProxy::answersFindTheirCalls()
{
    notify();
    notify();
    QTRY_COMPARE(m_server->calls().size(), 2);
    m_server->send(m_server->calls().at(1).createReply(2U));
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("id 2") });
    m_server->send(m_server->calls().at(0).createReply(1U));
    QTRY_COMPARE(m_results, (QStringList { QStringLiteral("id 2"), QStringLiteral("id 1") }));
}

void TestNotificationProxy::answerAfterTheEndIsDropped()
{
    askAll();
    QTRY_COMPARE(m_server->calls().size(), 5);
    m_server->send(m_server->calls().first().createReply(3U));
    m_proxy = std::make_unique<NotificationProxy>();
    m_server->answerWith({ 4U });
    notify();
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("id 4") });
}

void TestNotificationProxy::emptyCallbacksAreAllowed()
{
    m_server->answerWith({ 4U });
    m_proxy->notify({}, 0, {}, {}, {}, {}, {}, 0, nullptr);
    m_proxy->getCapabilities(nullptr);
    m_proxy->getServerInformation(nullptr);
    m_proxy->getNotifications({}, nullptr);
    notify();
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("id 4") });
}

// A server that has stopped, and clients that have not.
void TestNotificationProxy::whatWaitsIsBounded()
{
    m_proxy = std::make_unique<NotificationProxy>(nullptr, 2 * 1024 * 1024);
    const QVariantMap large { { QStringLiteral("data"), QByteArray(400'000, 'x') } };
    for (int i = 0; i < 5; ++i) {
        notify(large);
    }
    // Two fit, and the others are answered at once.
    QTRY_COMPARE(m_results,
                 (QStringList { QStringLiteral("id 0"), QStringLiteral("id 0"), QStringLiteral("id 0") }));
    QTRY_COMPARE(m_server->calls().size(), 2);

    // Small ones still fit, in room that is theirs alone.
    notify();
    QTRY_COMPARE(m_server->calls().size(), 3);
    for (int i = 0; i < 50; ++i) {
        m_proxy->closeNotification(7);
    }
    QTRY_COMPARE(m_server->calls().size(), 53);
    for (int i = 3; i < 53; ++i) {
        QCOMPARE(m_server->calls().at(i).member(), QStringLiteral("CloseNotification"));
        m_server->send(m_server->calls().at(i).createReply());
    }

    // An answer makes room.
    m_server->send(m_server->calls().at(0).createReply(1U));
    QTRY_COMPARE(m_results.last(), QStringLiteral("id 1"));
    notify(large);
    QTRY_COMPARE(m_server->calls().size(), 54);
    notify(large);
    QTRY_COMPARE(m_results.size(), 5);
    QCOMPARE(m_results.last(), QStringLiteral("id 0"));

    // So does an error. In the end nothing waits.
    for (const int i : { 1, 2, 53 }) {
        m_server->send(m_server->calls().at(i).createErrorReply(QDBusError::Failed, QStringLiteral("no")));
    }
    QTRY_COMPARE(m_results.size(), 8);
    m_server->clearCalls();
    notify(large);
    notify(large);
    QTRY_COMPARE(m_server->calls().size(), 2);

    // However small: each takes memory.
    m_server->clearCalls();
    m_proxy = std::make_unique<NotificationProxy>(nullptr, 64 * 1024);
    m_results.clear();
    for (int i = 0; i < 40; ++i) {
        notify();
    }
    QTRY_COMPARE(m_results.size() + m_server->calls().size(), 40);
    QVERIFY(m_server->calls().size() > 10);
    QVERIFY(m_server->calls().size() < 16);
}

void TestNotificationProxy::eventsAreForwarded()
{
    QStringList events;
    connect(m_proxy.get(), &NotificationProxy::notificationClosed, this,
            [&](Id id, uint reason) { events << QStringLiteral("closed %1 %2").arg(id).arg(reason); });
    connect(m_proxy.get(), &NotificationProxy::actionInvoked, this,
            [&](Id id, const QString &key) { events << QStringLiteral("action %1 %2").arg(id).arg(key); });
    connect(m_proxy.get(), &NotificationProxy::inputTextSet, this,
            [&](Id id, const QString &text) { events << QStringLiteral("input %1 %2").arg(id).arg(text); });
    signal(QStringLiteral("ActionInvoked"), { 4294967295U, QStringLiteral("default") });
    signal(QStringLiteral("InputTextSet"), { 2U, QStringLiteral("hello") });
    signal(QStringLiteral("NotificationClosed"), { 3U, 4U });
    const QStringList expected { QStringLiteral("action 4294967295 default"), QStringLiteral("input 2 hello"),
                                 QStringLiteral("closed 3 4") };
    QTRY_COMPARE(events, expected);
}

void TestNotificationProxy::eventsOfOthersAreNot()
{
    QSignalSpy closed(m_proxy.get(), &NotificationProxy::notificationClosed);
    // Sent straight to this process, since it would not hear it otherwise.
    BusStandIn other(m_bus, QString(), path);
    auto message = QDBusMessage::createTargetedSignal(QDBusConnection::sessionBus().baseService(), path,
                                                      interface, QStringLiteral("NotificationClosed"));
    message << 1U << 2U;
    other.send(message);
    // The bus keeps the order of one sender only: its name shows that it has been served.
    other.own(QStringLiteral("org.example.Sent"));
    signal(QStringLiteral("NotificationClosed"), { 5U, 1U });
    QTRY_VERIFY(!closed.isEmpty());
    QCOMPARE(closed.size(), 1);
    QCOMPARE(closed.first().first().toUInt(), 5U);
}

void TestNotificationProxy::eventsOfOtherTypesAreNot()
{
    QSignalSpy closed(m_proxy.get(), &NotificationProxy::notificationClosed);
    QSignalSpy action(m_proxy.get(), &NotificationProxy::actionInvoked);
    signal(QStringLiteral("NotificationClosed"), { 1U });
    signal(QStringLiteral("NotificationClosed"), { 1, 2 });
    signal(QStringLiteral("NotificationClosed"), { QStringLiteral("1"), 2U });
    signal(QStringLiteral("ActionInvoked"), { 1U, 2U });
    signal(QStringLiteral("ActionInvoked"), {});
    signal(QStringLiteral("ActionInvoked"), { 1U, QStringLiteral("a"), QStringLiteral("b") });
    signal(QStringLiteral("NotificationClosed"), { 1U, 2U, 3U });
    signal(QStringLiteral("NotificationClosed"), { 5U, 1U });
    QTRY_VERIFY(!closed.isEmpty());
    QCOMPARE(closed.size(), 1);
    QCOMPARE(closed.first().first().toUInt(), 5U);
    QVERIFY(action.isEmpty());
}

void TestNotificationProxy::restartedServerIsHeard()
{
    m_server->leave();
    m_server = std::make_unique<BusStandIn>(m_bus, server, path);
    m_server->answerWith({ 1U });
    notify();
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("id 1") });
    QSignalSpy closed(m_proxy.get(), &NotificationProxy::notificationClosed);
    signal(QStringLiteral("NotificationClosed"), { 1U, 1U });
    QTRY_COMPARE(closed.size(), 1);
}

// What a server has kept over a restart may be out of date when it is back.
void TestNotificationProxy::eventThatComesWithTheServerIsHeard()
{
    m_server->answerWith({ 7U });
    notify();
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("id 7") });
    m_server->leave();
    QSignalSpy closed(m_proxy.get(), &NotificationProxy::notificationClosed);
    QSignalSpy invoked(m_proxy.get(), &NotificationProxy::actionInvoked);
    QSignalSpy input(m_proxy.get(), &NotificationProxy::inputTextSet);
    bool sent = false;
    {
        const HeldBus held(QDBusConnection::sessionBus());
        const OtherProgram restarted(m_bus.address());
        const char *const object = "/org/freedesktop/Notifications";
        const char *const events = "org.freedesktop.Notifications";
        sent = restarted.own("org.solvaneos.Notifications")
            && restarted.signal(object, events, "ActionInvoked", "us", 7U, "default")
            && restarted.signal(object, events, "InputTextSet", "us", 7U, "text")
            && restarted.signal(object, events, "NotificationClosed", "uu", 7U, 1U) && restarted.finish();
    }
    QVERIFY(sent);
    QTRY_COMPARE(closed.size(), 1);
    QCOMPARE(invoked.size(), 1);
    QCOMPARE(input.size(), 1);
}

void TestNotificationProxy::hintsPassAsTheyCame_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("signature");
    Image image;
    image.width = 512;
    image.height = 512;
    image.data = QByteArray(512 * 512 * 4, '\xfe');
    const auto wrapped = [](const QVariant &value) {
        return QVariant::fromValue(QDBusVariant(value));
    };

    QTest::newRow("byte") << QVariant::fromValue<uchar>(2) << QStringLiteral("y");
    QTest::newRow("bool") << QVariant(true) << QStringLiteral("b");
    QTest::newRow("int16") << QVariant::fromValue<short>(-3) << QStringLiteral("n");
    QTest::newRow("int64") << QVariant::fromValue<qlonglong>(-3) << QStringLiteral("x");
    QTest::newRow("double") << QVariant(0.25) << QStringLiteral("d");
    QTest::newRow("path") << QVariant::fromValue(QDBusObjectPath("/a")) << QStringLiteral("o");
    QTest::newRow("signature") << QVariant::fromValue(QDBusSignature(QStringLiteral("a{sv}")))
                               << QStringLiteral("g");
    QTest::newRow("every control character")
        << QVariant(QStringLiteral("\x01\x02\x03\x07\x08\t\n\x0b\x0c\r\x1b\x1f\x7f\u0085\u200f\u202e\ufeff"))
        << QStringLiteral("s");
    QTest::newRow("a megabyte") << QVariant(QByteArray(1024 * 1024, '\0')) << QStringLiteral("ay");
    QTest::newRow("no bytes") << QVariant(QByteArray()) << QStringLiteral("ay");
    QTest::newRow("image") << QVariant::fromValue(image) << QStringLiteral("(iiibiiay)");
    QTest::newRow("images") << QVariant::fromValue(QVector<Image> { image, Image() })
                            << QStringLiteral("a(iiibiiay)");
    QTest::newRow("no images") << QVariant::fromValue(QVector<Image>()) << QStringLiteral("a(iiibiiay)");
    QTest::newRow("strings") << QVariant(QStringList { QString(), QStringLiteral("a") })
                             << QStringLiteral("as");
    QTest::newRow("no strings") << QVariant(QStringList()) << QStringLiteral("as");
    QTest::newRow("variants") << QVariant(QVariantList { 1, QStringLiteral("a") }) << QStringLiteral("av");
    QTest::newRow("no variants") << QVariant(QVariantList()) << QStringLiteral("av");
    QTest::newRow("map") << QVariant(QVariantMap { { QStringLiteral("a"), QVariantMap() } })
                         << QStringLiteral("a{sv}");
    QTest::newRow("empty map") << QVariant(QVariantMap()) << QStringLiteral("a{sv}");
    QTest::newRow("map by number") << QVariant::fromValue(QMap<int, QString> { { 1, QStringLiteral("a") } })
                                   << QStringLiteral("a{is}");
    QTest::newRow("empty map by number")
        << QVariant::fromValue(QMap<int, QString>()) << QStringLiteral("a{is}");
    QTest::newRow("variant") << wrapped(5) << QStringLiteral("v");
    QTest::newRow("variants in variants") << wrapped(wrapped(wrapped(QVariantList()))) << QStringLiteral("v");
}

void TestNotificationProxy::hintsPassAsTheyCame()
{
    QFETCH(QVariant, value);
    QFETCH(QString, signature);
    const QString key = QStringLiteral("key");

    MessageProbe probe(m_bus);
    const auto arrived = probe.pass(QVariant(QVariantMap { { key, value } }));
    QVERIFY(arrived.arrived);
    const auto hints = qdbus_cast<QVariantMap>(arrived.argument());
    notify(hints);
    QTRY_COMPARE(m_server->calls().size(), 1);

    // Both as one more message: what the server got is the same as what was sent to the service.
    const auto type = [&probe](const QVariant &hint) {
        return probe.pass(hint).signature();
    };
    const auto got = qdbus_cast<QVariantMap>(m_server->calls().first().arguments().at(6));
    QCOMPARE(got.keys(), QStringList { key });
    QCOMPARE(type(got.value(key)), signature);
    if (signature == QLatin1String("(iiibiiay)")) {
        QCOMPARE(qdbus_cast<Image>(got.value(key)).data, value.value<Image>().data);
    } else if (got.value(key).userType() != qMetaTypeId<QDBusArgument>()
               && got.value(key).userType() < int(QMetaType::User)) {
        QCOMPARE(got.value(key), value);
    }
}

QTEST_GUILESS_MAIN(TestNotificationProxy)
#include "tst_notification_proxy.moc"
