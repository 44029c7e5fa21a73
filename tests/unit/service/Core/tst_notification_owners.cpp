#include "notification_fixture.h"

#include <QSignalSpy>
#include <QtTest>

using namespace Core;

Q_DECLARE_METATYPE(QVector<Core::Id>)

/// Whose a notification is, and what follows from that.
class TestNotificationOwners : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { m_world.install(); }
    void init() { m_world.renew(); }

    void updateByOwnership_data();
    void updateByOwnership();
    void refusedUpdateTellsNobody();
    void updateIsLookedAtBeforeActions();
    void ownerIsKnownWhenTheIdIsTold();
    void unknownIdMayBeUpdated();
    void closeByOwnership_data();
    void closeByOwnership();
    void closeKeepsTheOwner();
    void listsAreFiltered_data();
    void listsAreFiltered();
    void ownersAreThoseAtTheReply();
    void eventsReachTheOwner();
    void eventsWithoutOwnerAreDropped();
    void closedNotificationHasNoOwner();
    void ownerIsForgottenAfterTheEvent();
    void eventBeforeTheReplyIsDropped();
    void latestSenderOwns();
    void highestIdIsOneLikeOthers();

private:
    NotificationFixture m_world;
};

namespace {

void ownershipRows()
{
    QTest::addColumn<ClientInfo>("owner");
    QTest::addColumn<ClientInfo>("client");
    QTest::addColumn<bool>("allowed");
    QTest::newRow("owner") << notes << notes << true;
    QTest::newRow("another instance") << notes << notesInstance << true;
    QTest::newRow("task of the owner") << notesInstance << notesTask << true;
    QTest::newRow("another application") << notes << mail << false;
    QTest::newRow("stranger") << notes << stranger << true;
    QTest::newRow("privileged application") << notes << privilegedApp << true;
    QTest::newRow("application, a stranger's") << stranger << notes << false;
    QTest::newRow("application, a privileged one's") << privilegedApp << notes << false;
}

} // namespace

void TestNotificationOwners::updateByOwnership_data()
{
    ownershipRows();
}

void TestNotificationOwners::updateByOwnership()
{
    QFETCH(ClientInfo, owner);
    QFETCH(ClientInfo, client);
    QFETCH(bool, allowed);
    m_world.give(5, owner);
    if (!allowed) {
        QTest::ignoreMessage(
            QtWarningMsg,
            qPrintable(QStringLiteral("\"%1\" tried to update notification belonging to \"%2\"")
                           .arg(client.appId, owner.appId)));
    }
    const Error error = m_world.notify(client, 5);
    QCOMPARE(error.code(), allowed ? Error::NoError : Error::InvalidArgs);
    if (allowed) {
        QTRY_COMPARE(m_world.ids, QVector<Id> { 5 });
    } else {
        QCOMPARE(error.message(), QStringLiteral("Invalid notification ID"));
        m_world.give(6, owner);
        QVERIFY(!m_world.manager->closeNotification(5, owner)); // it has kept its owner
    }
}

void TestNotificationOwners::refusedUpdateTellsNobody()
{
    m_world.give(5, mail);
    QSignalSpy progress(m_world.manager.get(), &NotificationManager::notificationProgressUpdated);
    QTest::ignoreMessage(
        QtWarningMsg, "\"org.example.Notes\" tried to update notification belonging to \"org.example.Mail\"");
    QVERIFY(bool(m_world.notify(notes, 5, { { progressHint, 0.5 } })));
    QVERIFY(progress.isEmpty());
    // What follows is what the server sees first.
    QVERIFY(!m_world.notify(notes));
    QTRY_COMPARE(m_world.ids.size(), 1);
    QCOMPARE(m_world.server->calls().size(), 1);
    QCOMPARE(m_world.server->calls().first().arguments().at(1).toUInt(), 0U);
}

void TestNotificationOwners::updateIsLookedAtBeforeActions()
{
    m_world.give(5, mail);
    QTest::ignoreMessage(
        QtWarningMsg, "\"org.example.Notes\" tried to update notification belonging to \"org.example.Mail\"");
    const Error error = m_world.notify(
        notes, 5, { { actionHint + QStringLiteral("default"), QStringLiteral("org.example.Mail / i m") } });
    QCOMPARE(error.code(), Error::InvalidArgs);
}

void TestNotificationOwners::ownerIsKnownWhenTheIdIsTold()
{
    m_world.server->answerWith({ 5U });
    bool told = false;
    QVERIFY(!m_world.manager->notify({}, 0, {}, {}, {}, {}, {}, 0, notes, [&](Id id) {
        told = true;
        QCOMPARE(id, Id(5));
        QVERIFY(!m_world.manager->closeNotification(id, notes));
    }));
    QTRY_VERIFY(told);
}

void TestNotificationOwners::unknownIdMayBeUpdated()
{
    QVERIFY(!m_world.notify(notes, 123));
    QTRY_COMPARE(m_world.server->calls().size(), 1);
    QCOMPARE(m_world.server->calls().first().arguments().at(1).toUInt(), 123U);
}

void TestNotificationOwners::closeByOwnership_data()
{
    ownershipRows();
}

void TestNotificationOwners::closeByOwnership()
{
    QFETCH(ClientInfo, owner);
    QFETCH(ClientInfo, client);
    QFETCH(bool, allowed);
    m_world.give(5, owner);
    const Error error = m_world.manager->closeNotification(5, client);
    QCOMPARE(error.code(), allowed ? Error::NoError : Error::InvalidArgs);
    QCOMPARE(error.message(), allowed ? QString() : QStringLiteral("Invalid notification ID"));

    // One that was never given out is nobody's.
    const Error unknown = m_world.manager->closeNotification(99, client);
    QCOMPARE(unknown.code(), client.privileged ? Error::NoError : Error::InvalidArgs);

    QVERIFY(
        !m_world.manager->closeNotification(1000, stranger)); // after which the server has seen the others
    QTRY_VERIFY(!m_world.server->calls().isEmpty()
                && m_world.server->calls().last().arguments().first().toUInt() == 1000);
    QVector<uint> closed;
    for (const QDBusMessage &call : m_world.server->calls()) {
        QCOMPARE(call.member(), QStringLiteral("CloseNotification"));
        closed << call.arguments().first().toUInt();
    }
    QCOMPARE(closed.contains(5), allowed);
    QCOMPARE(closed.contains(99), client.privileged);
}

void TestNotificationOwners::closeKeepsTheOwner()
{
    m_world.give(5, notes);
    QVERIFY(!m_world.manager->closeNotification(5, notes));
    QVERIFY(!m_world.manager->closeNotification(5, notes));
    QSignalSpy closed(m_world.manager.get(), &NotificationManager::notificationClosed);
    m_world.signal(QStringLiteral("NotificationClosed"), { 5U, 3U });
    QTRY_COMPARE(closed.size(), 1);
    QCOMPARE(m_world.manager->closeNotification(5, notes).code(), Error::InvalidArgs);
}

void TestNotificationOwners::listsAreFiltered_data()
{
    QTest::addColumn<ClientInfo>("client");
    QTest::addColumn<QVector<Id>>("ids");
    QTest::newRow("application") << notes << QVector<Id> { 4, 1 };
    QTest::newRow("instance") << notesInstance << QVector<Id> { 4, 1 };
    QTest::newRow("another application") << mail << QVector<Id> { 2 };
    QTest::newRow("application without any") << unlisted << QVector<Id>();
    QTest::newRow("stranger") << stranger << QVector<Id> { 9, 4, 3, 2, 1 };
    QTest::newRow("privileged application") << privilegedApp << QVector<Id> { 9, 4, 3, 2, 1 };
}

void TestNotificationOwners::listsAreFiltered()
{
    QFETCH(ClientInfo, client);
    QFETCH(QVector<Id>, ids);
    m_world.give(1, notes);
    m_world.give(2, mail);
    m_world.give(3, stranger);
    m_world.give(4, notesInstance);

    QVector<NotificationData> all; // 9 is from before the start
    for (const Id id : { 9, 4, 3, 2, 1 }) {
        NotificationData data;
        data.id = id;
        data.summary = QString::number(id);
        all << data;
    }
    m_world.server->answerWith({ QVariant::fromValue(all) });

    int answers = 0;
    const auto check = [&](const QVector<NotificationData> &list) {
        ++answers;
        QVector<Id> got;
        for (const NotificationData &data : list) {
            QCOMPARE(data.summary, QString::number(data.id));
            got << data.id;
        }
        QCOMPARE(got, ids);
    };
    m_world.manager->getNotifications(QStringLiteral("Any name"), client, check);
    m_world.manager->getNotificationsByCategory(QStringLiteral("x-any"), client, check);
    QTRY_COMPARE(answers, 2);
    QCOMPARE(m_world.server->calls().at(0).arguments(), QVariantList { QStringLiteral("Any name") });
    QCOMPARE(m_world.server->calls().at(1).arguments(), QVariantList { QStringLiteral("x-any") });
}

void TestNotificationOwners::ownersAreThoseAtTheReply()
{
    m_world.give(1, notes);
    m_world.server->setHandler(nullptr);
    QVector<NotificationData> got;
    bool told = false;
    m_world.manager->getNotifications(QString(), notes, [&](const QVector<NotificationData> &list) {
        told = true;
        got = list;
    });
    QVERIFY(!m_world.notify(notes));
    QTRY_COMPARE(m_world.server->calls().size(), 2);
    const QDBusMessage question = m_world.server->calls().at(0);
    // The server answers the second call first, and closes the other notification.
    m_world.server->send(m_world.server->calls().at(1).createReply(2U));
    m_world.signal(QStringLiteral("NotificationClosed"), { 1U, 1U });
    NotificationData one;
    one.id = 1;
    NotificationData two;
    two.id = 2;
    m_world.server->send(question.createReply(QVariant::fromValue(QVector<NotificationData> { one, two })));
    QTRY_VERIFY(told);
    QCOMPARE(got.size(), 1);
    QCOMPARE(got.first().id, Id(2));
}

void TestNotificationOwners::eventsReachTheOwner()
{
    m_world.give(1, notesInstance);
    m_world.give(2, stranger);
    m_world.give(3, privilegedApp);
    QStringList events;
    const auto add = [&](const QString &text, const ClientInfo &owner) {
        events << text + QLatin1Char(' ') + owner.appId
                + (owner.privileged ? QLatin1String("!") : QLatin1String());
    };
    connect(m_world.manager.get(), &NotificationManager::actionInvoked, this,
            [&](Id id, const QString &key, const ClientInfo &owner) {
                add(QStringLiteral("action %1 %2").arg(id).arg(key), owner);
            });
    connect(m_world.manager.get(), &NotificationManager::inputTextSet, this,
            [&](Id id, const QString &text, const ClientInfo &owner) {
                add(QStringLiteral("input %1 %2").arg(id).arg(text), owner);
            });
    connect(m_world.manager.get(), &NotificationManager::notificationClosed, this,
            [&](Id id, uint reason, const ClientInfo &owner) {
                add(QStringLiteral("closed %1 %2").arg(id).arg(reason), owner);
            });
    m_world.signal(QStringLiteral("ActionInvoked"), { 1U, QStringLiteral("default") });
    m_world.signal(QStringLiteral("InputTextSet"), { 1U, QStringLiteral("text") });
    m_world.signal(QStringLiteral("NotificationClosed"), { 1U, 2U });
    m_world.signal(QStringLiteral("NotificationClosed"), { 2U, 1U });
    m_world.signal(QStringLiteral("NotificationClosed"), { 3U, 4294967295U });
    const QStringList expected {
        QStringLiteral("action 1 default org.example.Notes.instance_7"),
        QStringLiteral("input 1 text org.example.Notes.instance_7"),
        QStringLiteral("closed 1 2 org.example.Notes.instance_7"),
        QStringLiteral("closed 2 1 !"),
        QStringLiteral("closed 3 4294967295 org.example.Settings.instance_1!"),
    };
    QTRY_COMPARE(events, expected);
}

void TestNotificationOwners::eventsWithoutOwnerAreDropped()
{
    m_world.give(1, notes);
    QSignalSpy action(m_world.manager.get(), &NotificationManager::actionInvoked);
    QSignalSpy input(m_world.manager.get(), &NotificationManager::inputTextSet);
    QSignalSpy closed(m_world.manager.get(), &NotificationManager::notificationClosed);
    m_world.signal(QStringLiteral("ActionInvoked"), { 2U, QStringLiteral("default") });
    m_world.signal(QStringLiteral("InputTextSet"), { 2U, QStringLiteral("text") });
    m_world.signal(QStringLiteral("NotificationClosed"), { 2U, 2U });
    m_world.signal(QStringLiteral("NotificationClosed"), { 0U, 2U });
    m_world.signal(QStringLiteral("NotificationClosed"), { 1U, 2U });
    QTRY_COMPARE(closed.size(), 1);
    QCOMPARE(closed.first().first().toUInt(), 1U);
    QVERIFY(action.isEmpty() && input.isEmpty());
}

void TestNotificationOwners::closedNotificationHasNoOwner()
{
    m_world.give(1, notes);
    m_world.give(2, notes);
    QSignalSpy action(m_world.manager.get(), &NotificationManager::actionInvoked);
    m_world.signal(QStringLiteral("NotificationClosed"), { 1U, 2U });
    m_world.signal(QStringLiteral("ActionInvoked"), { 1U, QStringLiteral("default") });
    m_world.signal(QStringLiteral("ActionInvoked"), { 2U, QStringLiteral("default") });
    QTRY_COMPARE(action.size(), 1);
    QCOMPARE(action.first().first().toUInt(), 2U);
    QCOMPARE(m_world.manager->closeNotification(1, notes).code(), Error::InvalidArgs);
    // The number may be given out again.
    m_world.give(1, mail);
    QCOMPARE(m_world.manager->closeNotification(1, notes).code(), Error::InvalidArgs);
    QVERIFY(!m_world.manager->closeNotification(1, mail));
}

void TestNotificationOwners::ownerIsForgottenAfterTheEvent()
{
    m_world.give(1, notes);
    bool told = false;
    connect(m_world.manager.get(), &NotificationManager::notificationClosed, this, [&](Id id) {
        told = true;
        QVERIFY(!m_world.manager->closeNotification(id, notes));
    });
    m_world.signal(QStringLiteral("NotificationClosed"), { 1U, 2U });
    QTRY_VERIFY(told);
    QCOMPARE(m_world.manager->closeNotification(1, notes).code(), Error::InvalidArgs);
}

void TestNotificationOwners::eventBeforeTheReplyIsDropped()
{
    QSignalSpy closed(m_world.manager.get(), &NotificationManager::notificationClosed);
    m_world.server->setHandler(nullptr);
    QVERIFY(!m_world.notify(notes));
    QTRY_COMPARE(m_world.server->calls().size(), 1);
    const QDBusMessage call = m_world.server->calls().first();
    m_world.signal(QStringLiteral("NotificationClosed"), { 5U, 2U });
    m_world.server->send(call.createReply(5U));
    m_world.signal(QStringLiteral("NotificationClosed"), { 5U, 3U });
    QTRY_COMPARE(closed.size(), 1);
    QCOMPARE(closed.first().at(1).toUInt(), 3U);
    QCOMPARE(m_world.ids, QVector<Id> { 5 });
}

void TestNotificationOwners::latestSenderOwns()
{
    m_world.give(5, notes);
    m_world.give(5, stranger);
    QCOMPARE(m_world.manager->closeNotification(5, notes).code(), Error::InvalidArgs);
}

void TestNotificationOwners::highestIdIsOneLikeOthers()
{
    m_world.give(4294967295U, notes);
    m_world.give(1, mail);
    QVERIFY(!m_world.manager->closeNotification(4294967295U, notes));
    QCOMPARE(m_world.manager->closeNotification(4294967295U, mail).code(), Error::InvalidArgs);
    QTRY_COMPARE(m_world.server->calls().size(), 1);
    QCOMPARE(m_world.server->calls().first().arguments().first().toUInt(), 4294967295U);
}

QTEST_GUILESS_MAIN(TestNotificationOwners)
#include "tst_notification_owners.moc"
