#include "trigger.h"

#include "event_samples.h"
#include "manager_stand_in.h"
#include "units.h"

#include "support/patience.h"

#include <QDBusArgument>
#include <QDateTime>
#include <QtTest>

#include <memory>

using namespace Eventd;
using namespace EventSamples;
using namespace TestSupport;
using Maemo::Timed::WireEvent;
using Maemo::Timed::WireRecurrence;

class TestTrigger : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void callBearsTheAttributes();
    void callWithoutAttributesHasNoArgument();
    void singleEventIsGoneAfterwards();
    void recurrentEventStays();
    void lastOneOfARecurrentEventRemovesIt();
    void recurrentEventIsNotFiredBeforeItsStart();
    void whatWasMissedBeforeTheEndIsFired();
    void errorOfTheCalledProgramIsAnArrival();
    void undeliveredCallIsTriedAgain_data();
    void undeliveredCallIsTriedAgain();
    void unknownEventIsCleanedUp();
    void brokenEventIsNotTriedAgain();

private:
    int fire(Cookie cookie);
    Cookie kept(const WireEvent &event);
    QString file(const QString &name) const { return m_directory->filePath(name); }

    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<QTemporaryDir> m_directory;
    std::unique_ptr<ManagerStandIn> m_systemd;
    std::unique_ptr<BusStandIn> m_listener;
    std::unique_ptr<EventStore> m_store;
};

void TestTrigger::init()
{
    m_bus = std::make_unique<PrivateBus>();
    m_directory = std::make_unique<QTemporaryDir>();
    m_systemd = std::make_unique<ManagerStandIn>(*m_bus);
    m_listener = std::make_unique<BusStandIn>(*m_bus, service, QStringLiteral("/org/example/Listener"));
    m_listener->answerWith({});
    m_store = std::make_unique<EventStore>(EventStore::Directories { file(QStringLiteral("data")),
                                                                     file(QStringLiteral("units")),
                                                                     file(QStringLiteral("stamps")) },
                                           QStringLiteral("/bin/true"));
}

void TestTrigger::cleanup()
{
    m_store.reset();
    m_listener.reset();
    m_systemd.reset();
    m_bus.reset();
    m_directory.reset();
}

/// Exit status of the program, or -1 if it would not end.
int TestTrigger::fire(Cookie cookie)
{
    QDBusConnection connection = m_bus->connect();
    UserManager manager(connection);
    Trigger trigger(connection, m_store.get(), &manager);
    QSignalSpy finished(&trigger, &Trigger::finished);
    trigger.fire(cookie);
    if (!finished.isEmpty()) {
        return -2; // never inside the call
    }
    return finished.wait(patienceMs) ? finished.first().first().toInt() : -1;
}

Cookie TestTrigger::kept(const WireEvent &event)
{
    Cookie cookie = 0;
    const Failure failure = m_store->add(event, false, &cookie);
    return failure.isEmpty() ? cookie : 0;
}

void TestTrigger::callBearsTheAttributes()
{
    WireEvent event = recurrent({ daily({ 3 }) });
    event.attributes.insert(QStringLiteral("odd"), QString::fromUtf8("%n \"'\\\n\x01 \u20ac"));
    QCOMPARE(fire(kept(event)), 0);
    QCOMPARE(m_listener->calls().size(), 1);
    const QDBusMessage call = m_listener->calls().first();
    QCOMPARE(call.interface(), QStringLiteral("org.example.Listener1"));
    QCOMPARE(call.member(), QStringLiteral("Due"));
    QCOMPARE(call.signature(), QStringLiteral("a{sv}"));
    const QVariantMap attributes = qdbus_cast<QVariantMap>(call.arguments().first());
    QCOMPARE(attributes.size(), event.attributes.size());
    for (auto attribute = attributes.cbegin(); attribute != attributes.cend(); ++attribute) {
        QCOMPARE(attribute.value().userType(), int(QMetaType::QString));
        QCOMPARE(attribute.value().toString(), event.attributes.value(attribute.key()));
    }
}

void TestTrigger::callWithoutAttributesHasNoArgument()
{
    WireEvent event = recurrent({ daily({ 3 }) });
    event.actions.first().sendAttributes = false;
    QCOMPARE(fire(kept(event)), 0);
    QCOMPARE(m_listener->calls().size(), 1);
    QCOMPARE(m_listener->calls().first().signature(), QString());
}

void TestTrigger::singleEventIsGoneAfterwards()
{
    const Cookie cookie = kept(single(QStringLiteral("2020-01-01T00:00")));
    QCOMPARE(fire(cookie), 0);
    QCOMPARE(m_listener->calls().size(), 1);
    QCOMPARE(m_store->cookies(), QList<Cookie>());
    QCOMPARE(m_store->leftovers(), QList<Cookie>());
    QCOMPARE(m_systemd->calls(),
             QStringList { QStringLiteral("StopUnit %1 replace").arg(Units::timerName(cookie)) });
    // Again, as after two starts at once.
    QCOMPARE(fire(cookie), 0);
    QCOMPARE(m_listener->calls().size(), 1);
}

void TestTrigger::recurrentEventStays()
{
    const Cookie cookie = kept(recurrent({ daily({ 3 }) }));
    QCOMPARE(fire(cookie), 0);
    QCOMPARE(fire(cookie), 0);
    QCOMPARE(m_listener->calls().size(), 2);
    QCOMPARE(m_store->cookies(), QList<Cookie> { cookie });
    QVERIFY(m_systemd->calls().isEmpty());
}

void TestTrigger::lastOneOfARecurrentEventRemovesIt()
{
    WireRecurrence recurrence = daily({ 3 });
    recurrence.end = QDateTime::currentDateTimeUtc().toString(Qt::ISODate); // no other 3 o'clock before it
    const Cookie cookie = kept(recurrent({ recurrence }));
    QCOMPARE(fire(cookie), 0);
    QCOMPARE(m_listener->calls().size(), 1);
    QCOMPARE(m_store->cookies(), QList<Cookie>());
}

void TestTrigger::recurrentEventIsNotFiredBeforeItsStart()
{
    WireRecurrence recurrence = daily({ 3 });
    recurrence.start = QDateTime::currentDateTimeUtc().addDays(3).toString(Qt::ISODate);
    const Cookie cookie = kept(recurrent({ recurrence }));
    QCOMPARE(fire(cookie), 0);
    QVERIFY(m_listener->calls().isEmpty());
    QCOMPARE(m_store->cookies(), QList<Cookie> { cookie });
}

void TestTrigger::whatWasMissedBeforeTheEndIsFired()
{
    WireRecurrence recurrence = daily({ 3 });
    recurrence.start = QDateTime::currentDateTimeUtc().addDays(-5).toString(Qt::ISODate);
    recurrence.end = QDateTime::currentDateTimeUtc().addDays(-2).toString(Qt::ISODate);
    QCOMPARE(fire(kept(recurrent({ recurrence }))), 0);
    QCOMPARE(m_listener->calls().size(), 1);
    QCOMPARE(m_store->cookies(), QList<Cookie>());
}

void TestTrigger::errorOfTheCalledProgramIsAnArrival()
{
    m_listener->setHandler([](const QDBusMessage &call, const QDBusConnection &connection) {
        connection.send(call.createErrorReply(QDBusError::NoReply, QStringLiteral("busy")));
    });
    QTest::ignoreMessage(
        QtWarningMsg,
        QRegularExpression(QStringLiteral("^The call of event [0-9]+ has failed: QDBusError\\(.*busy")));
    QCOMPARE(fire(kept(single(QStringLiteral("2020-01-01T00:00")))), 0);
    QCOMPARE(m_store->cookies(), QList<Cookie>());
}

void TestTrigger::undeliveredCallIsTriedAgain_data()
{
    QTest::addColumn<bool>("vanishes");
    QTest::newRow("nobody there") << false;
    QTest::newRow("gone before it answered") << true;
}

void TestTrigger::undeliveredCallIsTriedAgain()
{
    QFETCH(bool, vanishes);
    const Cookie cookie = kept(single(QStringLiteral("2020-01-01T00:00")));
    if (vanishes) {
        m_listener->setHandler([this](const QDBusMessage &, const QDBusConnection &) {
            QTimer::singleShot(0, this, [this] { m_listener->leave(); });
        });
    } else {
        m_listener->leave();
    }
    QTest::ignoreMessage(QtWarningMsg,
                         QRegularExpression(QStringLiteral("^The call of event [0-9]+ has failed: ")));
    QCOMPARE(fire(cookie), 1);
    QCOMPARE(m_store->cookies(), QList<Cookie> { cookie });
}

void TestTrigger::unknownEventIsCleanedUp()
{
    const Cookie cookie = kept(recurrent({ daily({ 3 }) }));
    QVERIFY(QFile::remove(file(QStringLiteral("data/events/%1.json").arg(cookie))));
    QCOMPARE(fire(cookie), 0);
    QVERIFY(m_listener->calls().isEmpty());
    QCOMPARE(m_store->leftovers(), QList<Cookie>());
    QCOMPARE(m_systemd->calls(),
             QStringList { QStringLiteral("StopUnit %1 replace").arg(Units::timerName(cookie)) });
}

void TestTrigger::brokenEventIsNotTriedAgain()
{
    const Cookie cookie = kept(recurrent({ daily({ 3 }) }));
    QFile record(file(QStringLiteral("data/events/%1.json").arg(cookie)));
    QVERIFY(record.open(QIODevice::WriteOnly | QIODevice::Truncate));
    record.close();
    QTest::ignoreMessage(
        QtWarningMsg,
        qUtf8Printable(QStringLiteral("The record of this event makes no sense: %1").arg(cookie)));
    QCOMPARE(fire(cookie), brokenEventStatus);
    QVERIFY(m_listener->calls().isEmpty());
    QCOMPARE(m_store->cookies(), QList<Cookie> { cookie });
}

QTEST_GUILESS_MAIN(TestTrigger)

#include "tst_trigger.moc"
