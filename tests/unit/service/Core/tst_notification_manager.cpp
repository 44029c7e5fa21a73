#include "Core/notification_manager_p.h"

#include "notification_fixture.h"
#include "support/log_capture.h"

#include <QDBusError>
#include <QDBusVariant>
#include <QSignalSpy>
#include <QtTest>

using namespace Core;
using namespace TestSupport;

/// What of a client reaches the server.
class TestNotificationManager : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { m_world.install(); }
    void init() { m_world.renew(); }

    void senderIsStamped_data();
    void senderIsStamped();
    void restIsForwardedAsGiven();
    void repeatedHintsAreSentOnce();
    void remoteActions_data();
    void remoteActions();
    void firstForeignActionIsNamed();
    void longNameDoesNotFillTheLog();
    void repeatedActionsAreChecked_data();
    void repeatedActionsAreChecked();
    void foreignActionIsRefused();
    void privilegedActionsAreNotChecked();
    void progressIsTold_data();
    void progressIsTold();
    void progressOfAnybodyIsTold_data();
    void progressOfAnybodyIsTold();
    void failedServerGivesIdZero();

private:
    NotificationFixture m_world;
};

void TestNotificationManager::senderIsStamped_data()
{
    QTest::addColumn<ClientInfo>("client");
    QTest::addColumn<QVariant>("claimed"); // the client's own stamp
    QTest::addColumn<QString>("appName");
    QTest::addColumn<QString>("appIcon");
    QTest::addColumn<QVariant>("stamp");
    const QString ownName = QStringLiteral("Own name");
    const QString ownIcon = QStringLiteral("own-icon");
    const QString notesName = QStringLiteral("Notes by Example");
    const QString notesIcon = QStringLiteral("icon-notes");

    QTest::newRow("application") << notes << QVariant() << notesName << notesIcon << QVariant(notes.appId);
    QTest::newRow("instance") << notesInstance << QVariant() << notesName << notesIcon
                              << QVariant(notes.appId);
    QTest::newRow("task") << notesTask << QVariant() << notesName << notesIcon << QVariant(notes.appId);
    QTest::newRow("application without an icon")
        << mail << QVariant() << QStringLiteral("Mail by Example") << QString() << QVariant(mail.appId);
    QTest::newRow("application that is not in the catalogue")
        << unlisted << QVariant() << ownName << ownIcon << QVariant(unlisted.appId);
    QTest::newRow("application that claims to be another")
        << notes << QVariant(mail.appId) << notesName << notesIcon << QVariant(notes.appId);
    QTest::newRow("application with a stamp of another type")
        << notes << QVariant(5) << notesName << notesIcon << QVariant(notes.appId);
    QTest::newRow("no application, and not privileged")
        << ClientInfo { false, QStringLiteral("nobody") } << QVariant(mail.appId) << ownName << ownIcon
        << QVariant(QString());
    QTest::newRow("stranger") << stranger << QVariant() << ownName << ownIcon << QVariant();
    QTest::newRow("stranger that speaks for another")
        << stranger << QVariant(mail.appId) << ownName << ownIcon << QVariant(mail.appId);
    QTest::newRow("privileged application") << privilegedApp << QVariant() << ownName << ownIcon
                                            << QVariant(QStringLiteral("org.example.Settings"));
    QTest::newRow("privileged application that claims to be another")
        << privilegedApp << QVariant(mail.appId) << ownName << ownIcon
        << QVariant(QStringLiteral("org.example.Settings"));
}

void TestNotificationManager::senderIsStamped()
{
    QFETCH(ClientInfo, client);
    QFETCH(QVariant, claimed);
    QFETCH(QString, appName);
    QFETCH(QString, appIcon);
    QFETCH(QVariant, stamp);
    QVariantMap hints { { QStringLiteral("category"), QStringLiteral("x-test") } };
    if (claimed.isValid()) {
        hints.insert(idHint, claimed);
    }
    QVERIFY(!m_world.notify(client, 0, hints));
    QTRY_COMPARE(m_world.server->calls().size(), 1);
    const QVariantList arguments = m_world.server->calls().first().arguments();
    QCOMPARE(arguments.at(0).toString(), appName);
    QCOMPARE(arguments.at(2).toString(), appIcon);
    QCOMPARE(m_world.sentHints().value(idHint), stamp);
    QCOMPARE(m_world.sentHints().value(QStringLiteral("category")).toString(), QStringLiteral("x-test"));
    QCOMPARE(m_world.sentHints().size(), stamp.isValid() ? 2 : 1);
}

void TestNotificationManager::restIsForwardedAsGiven()
{
    QVERIFY(!m_world.notify(notes, 77));
    QVERIFY(m_world.ids.isEmpty());
    QTRY_COMPARE(m_world.ids, QVector<Id> { 1 });
    const QDBusMessage call = m_world.server->calls().first();
    QCOMPARE(call.member(), QStringLiteral("Notify"));
    QCOMPARE(call.arguments().at(1).toUInt(), 77U);
    QCOMPARE(call.arguments().at(3).toString(), QStringLiteral("summary"));
    QCOMPARE(call.arguments().at(4).toString(), QStringLiteral("body"));
    QCOMPARE(call.arguments().at(5).toStringList(),
             (QStringList { QStringLiteral("default"), QStringLiteral("Open") }));
    QCOMPARE(call.arguments().at(7).toInt(), 5000);
}

// On the bus, a map is a list of pairs.
void TestNotificationManager::repeatedHintsAreSentOnce()
{
    QMultiMap<QString, QVariant> hints;
    for (const int number : { 1, 2, 3 }) {
        hints.insert(idHint, QStringLiteral("org.example.App%1").arg(number));
        hints.insert(QStringLiteral("category"), QStringLiteral("x-test.%1").arg(number));
    }
    hints.insert(QStringLiteral("z"), 1);
    const QVariantMap last { { QStringLiteral("category"), QStringLiteral("x-test.3") },
                             { QStringLiteral("z"), 1 } };

    QVERIFY(!m_world.notify(notes, 0, hints));
    QVERIFY(!m_world.notify(stranger, 0, hints));
    QTRY_COMPARE(m_world.ids.size(), 2);
    QVariantMap stamped = last;
    stamped.insert(idHint, notes.appId);
    QCOMPARE(m_world.sentHints(0), stamped);
    stamped.insert(idHint, QStringLiteral("org.example.App3"));
    QCOMPARE(m_world.sentHints(1), stamped);
}

void TestNotificationManager::remoteActions_data()
{
    QTest::addColumn<ClientInfo>("client");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("refused"); // the service, or empty
    const QString key = actionHint + QStringLiteral("default");
    const auto call = [](const QString &service) {
        return QVariant(service + QStringLiteral(" / i m"));
    };
    const auto wrapped = [](const QVariant &value) {
        return QVariant::fromValue(QDBusVariant(value));
    };
    const QString none;

    QTest::newRow("own application") << notesInstance << key << call(notes.appId) << none;
    QTest::newRow("own instance") << notesInstance << key << call(notesInstance.appId) << none;
    QTest::newRow("application itself") << notes << key << call(notes.appId) << none;
    QTest::newRow("no call") << notes << key << QVariant(QStringLiteral("org.example.Mail")) << none;
    QTest::newRow("no text") << notes << key << QVariant() << none;
    QTest::newRow("number") << notes << key << QVariant(5) << none;
    QTest::newRow("another key") << notes << QStringLiteral("x-nemo-remote-actions") << call(mail.appId)
                                 << none;
    QTest::newRow("key in capitals") << notes << QStringLiteral("X-Nemo-Remote-Action-default")
                                     << call(mail.appId) << none;

    QTest::newRow("another application") << notes << key << call(mail.appId) << mail.appId;
    QTest::newRow("other instance of the same")
        << notesInstance << key << call(QStringLiteral("org.example.Notes.instance_8"))
        << QStringLiteral("org.example.Notes.instance_8");
    QTest::newRow("instance, from the application")
        << notes << key << call(notesInstance.appId) << notesInstance.appId;
    QTest::newRow("begins like the own") << notes << key << call(QStringLiteral("org.example.Notes.Evil"))
                                         << QStringLiteral("org.example.Notes.Evil");
    QTest::newRow("other case") << notes << key << call(QStringLiteral("org.example.notes"))
                                << QStringLiteral("org.example.notes");
    QTest::newRow("prefix alone") << notes << actionHint << call(mail.appId) << mail.appId;
    QTest::newRow("any key behind it")
        << notes << actionHint + QStringLiteral("\u0436") << call(mail.appId) << mail.appId;
    QTest::newRow("in variants") << notes << key << wrapped(wrapped(call(mail.appId))) << mail.appId;
    QTest::newRow("as bytes") << notes << key << QVariant(QByteArray("org.example.Mail / i m")) << mail.appId;
}

void TestNotificationManager::remoteActions()
{
    QFETCH(ClientInfo, client);
    QFETCH(QString, key);
    QFETCH(QVariant, value);
    QFETCH(QString, refused);
    if (!refused.isEmpty()) {
        QTest::ignoreMessage(
            QtWarningMsg,
            qPrintable(
                QStringLiteral("\"%1\" not allowed to invoke actions on \"%2\"").arg(client.appId, refused)));
    }
    const QVariantMap hints { { key, value }, { QStringLiteral("a"), 1 }, { QStringLiteral("z"), 1 } };
    QCOMPARE(NotificationManagerPrivate::checkActions(hints, client), refused.isEmpty());
    QVERIFY(NotificationManagerPrivate::checkActions({}, client));
}

void TestNotificationManager::firstForeignActionIsNamed()
{
    const QVariantMap hints { { actionHint + QLatin1Char('a'), notes.appId + QStringLiteral(" / i m") },
                              { actionHint + QLatin1Char('b'), QStringLiteral("org.example.One / i m") },
                              { actionHint + QLatin1Char('c'), QStringLiteral("org.example.Two / i m") } };
    const LogCapture log;
    QVERIFY(!NotificationManagerPrivate::checkActions(hints, notes));
    QCOMPARE(log.warnings(),
             QStringList { QStringLiteral(
                 "\"org.example.Notes\" not allowed to invoke actions on \"org.example.One\"") });
}

void TestNotificationManager::longNameDoesNotFillTheLog()
{
    const QString name(1024 * 1024, QLatin1Char('x'));
    const LogCapture log;
    QVERIFY(
        !NotificationManagerPrivate::checkActions({ { actionHint, name + QLatin1String(" / i m") } }, notes));
    QCOMPARE(log.warnings(),
             QStringList { QStringLiteral("\"org.example.Notes\" not allowed to invoke actions on \"%1\"")
                               .arg(name.left(255)) });
}

void TestNotificationManager::repeatedActionsAreChecked_data()
{
    QTest::addColumn<QStringList>("services");
    QTest::addColumn<QString>("sent"); // empty: refused
    const QString own = notes.appId;
    const QString other = mail.appId;
    QTest::newRow("own") << QStringList { own, own } << own;
    QTest::newRow("the last one is another's") << QStringList { own, other } << QString();
    QTest::newRow("the first one is another's, and is not sent") << QStringList { other, own } << own;
}

void TestNotificationManager::repeatedActionsAreChecked()
{
    QFETCH(QStringList, services);
    QFETCH(QString, sent);
    const QString key = actionHint + QStringLiteral("default");
    const QString rest = QStringLiteral(" / i m");
    QMultiMap<QString, QVariant> hints;
    for (const QString &service : services) {
        hints.insert(key, service + rest);
    }
    if (sent.isEmpty()) {
        QTest::ignoreMessage(QtWarningMsg,
                             "\"org.example.Notes\" not allowed to invoke actions on \"org.example.Mail\"");
        QCOMPARE(m_world.notify(notes, 0, hints).code(), Error::AccessDenied);
        return;
    }
    QVERIFY(!m_world.notify(notes, 0, hints));
    QTRY_COMPARE(m_world.ids.size(), 1);
    const QVariantMap expected { { key, sent + rest }, { idHint, notes.appId } };
    QCOMPARE(m_world.sentHints(), expected);
}

void TestNotificationManager::foreignActionIsRefused()
{
    QSignalSpy progress(m_world.manager.get(), &NotificationManager::notificationProgressUpdated);
    QTest::ignoreMessage(QtWarningMsg,
                         "\"org.example.Notes\" not allowed to invoke actions on \"org.example.Mail\"");
    const Error error = m_world.notify(notes, 0,
                                       { { actionHint + QStringLiteral("default"),
                                           QStringLiteral("org.example.Mail /  org.example.Mail open") },
                                         { progressHint, 0.5 } });
    QCOMPARE(error.code(), Error::AccessDenied);
    QCOMPARE(error.message(), QStringLiteral("Cannot invoke actions on other services"));
    QVERIFY(progress.isEmpty());
    m_world.give(2, notes); // the next call is the first one to reach the server
    QCOMPARE(m_world.ids, QVector<Id>());
}

void TestNotificationManager::privilegedActionsAreNotChecked()
{
    QVERIFY(!m_world.notify(
        privilegedApp, 0,
        { { actionHint + QStringLiteral("default"), QStringLiteral("org.example.Mail / i m") } }));
    QTRY_COMPARE(m_world.ids.size(), 1);
}

void TestNotificationManager::progressIsTold_data()
{
    QTest::addColumn<QVariant>("hint");
    QTest::addColumn<float>("progress");
    QTest::newRow("real") << QVariant(0.5) << 0.5F;
    QTest::newRow("third") << QVariant(1.0 / 3) << float(1.0 / 3);
    QTest::newRow("integer") << QVariant(1) << 1.0F;
    QTest::newRow("byte") << QVariant::fromValue<uchar>(1) << 1.0F;
    QTest::newRow("text") << QVariant(QStringLiteral("0.25")) << 0.25F;
    QTest::newRow("no number") << QVariant(QStringLiteral("half")) << 0.0F;
    QTest::newRow("list") << QVariant(QStringList { QStringLiteral("a"), QStringLiteral("b") }) << 0.0F;
    QTest::newRow("below") << QVariant(-1.0) << -1.0F;
    QTest::newRow("too large for 32 bits") << QVariant(1e300) << std::numeric_limits<float>::infinity();
}

void TestNotificationManager::progressIsTold()
{
    QFETCH(QVariant, hint);
    QFETCH(float, progress);
    QVector<float> told;
    QVector<ClientInfo> clients;
    connect(m_world.manager.get(), &NotificationManager::notificationProgressUpdated, this,
            [&](float value, const ClientInfo &client) {
                told << value;
                clients << client;
            });
    QVERIFY(!m_world.notify(notesTask, 0, { { progressHint, hint } }));
    // Before the server can have had it.
    QCOMPARE(told, QVector<float> { progress });
    QCOMPARE(clients, QVector<ClientInfo> { notesTask });
    QTRY_COMPARE(m_world.ids.size(), 1);
    QVERIFY(m_world.sentHints().contains(progressHint));

    QVERIFY(!m_world.notify(notesTask, 0, {}));
    QCOMPARE(told.size(), 1);
}

void TestNotificationManager::progressOfAnybodyIsTold_data()
{
    QTest::addColumn<ClientInfo>("client");
    QTest::newRow("instance") << notesInstance;
    QTest::newRow("stranger") << stranger;
    QTest::newRow("privileged application") << privilegedApp;
}

void TestNotificationManager::progressOfAnybodyIsTold()
{
    QFETCH(ClientInfo, client);
    QSignalSpy progress(m_world.manager.get(), &NotificationManager::notificationProgressUpdated);
    QVERIFY(!m_world.notify(client, 0, { { progressHint, 0.5 } }));
    QCOMPARE(progress.size(), 1);
    QCOMPARE(progress.first().at(0).toFloat(), 0.5F);
    QCOMPARE(progress.first().at(1).value<ClientInfo>(), client);
}

void TestNotificationManager::failedServerGivesIdZero()
{
    m_world.server->setHandler([](const QDBusMessage &call, const QDBusConnection &connection) {
        connection.send(call.createErrorReply(QDBusError::LimitsExceeded, QStringLiteral("too many")));
    });
    QVERIFY(!m_world.notify(notes));
    QTRY_COMPARE(m_world.ids, QVector<Id> { 0 });
    // Like any other number, it has an owner then.
    QVERIFY(!m_world.manager->closeNotification(0, notes));
    QCOMPARE(m_world.manager->closeNotification(0, mail).code(), Error::InvalidArgs);
    // And yet 0 replaces nothing.
    QVERIFY(!m_world.notify(mail, 0));
}

QTEST_GUILESS_MAIN(TestNotificationManager)
#include "tst_notification_manager.moc"
