#include "Core/notification_manager.h"
#include "Core/notification_manager_p.h"

#include "support/bus_stand_in.h"
#include "support/log_capture.h"
#include "support/private_bus.h"

#include <QDBusArgument>
#include <QDBusError>
#include <QDBusVariant>
#include <QSignalSpy>
#include <QtTest>

using namespace Core;
using namespace TestSupport;

namespace {

const QString server = QStringLiteral("org.solvaneos.Notifications");
const QString path = QStringLiteral("/org/freedesktop/Notifications");
const QString interface = QStringLiteral("org.freedesktop.Notifications");
const QString idHint = QStringLiteral("x-solvane-application-id");
const QString progressHint = QStringLiteral("x-nemo-progress");
const QString actionHint = QStringLiteral("x-nemo-remote-action-");

const ClientInfo notes { false, QStringLiteral("org.example.Notes") };
const ClientInfo notesInstance { false, QStringLiteral("org.example.Notes.instance_7") };
const ClientInfo notesTask { false, QStringLiteral("org.example.Notes.task_sync") };
const ClientInfo mail { false, QStringLiteral("org.example.Mail") };
const ClientInfo unlisted { false, QStringLiteral("org.example.Unlisted") };
const ClientInfo stranger { true, QString() };
const ClientInfo privilegedApp { true, QStringLiteral("org.example.Settings.instance_1") };

} // namespace

Q_DECLARE_METATYPE(QVector<Core::Id>)

class TestNotificationManager : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void senderIsStamped_data();
    void senderIsStamped();
    void restIsForwardedAsGiven();
    void remoteActions_data();
    void remoteActions();
    void firstForeignActionIsNamed();
    void foreignActionIsRefused();
    void privilegedActionsAreNotChecked();

    void updateByOwnership_data();
    void updateByOwnership();
    void refusedUpdateTellsNobody();
    void unknownIdMayBeUpdated();
    void closeByOwnership_data();
    void closeByOwnership();
    void closeKeepsTheOwner();
    void listsAreFiltered_data();
    void listsAreFiltered();

    void progressIsTold_data();
    void progressIsTold();
    void eventsReachTheOwner();
    void eventsWithoutOwnerAreDropped();
    void closedNotificationHasNoOwner();
    void eventBeforeTheReplyIsDropped();
    void failedServerGivesIdZero();
    void latestSenderOwns();
    void highestIdIsOneLikeOthers();

private:
    Error notify(const ClientInfo &client, Id replacesId = 0, const QVariantMap &hints = {});
    /// Sends one as @p client, which the server gives @p id.
    void give(Id id, const ClientInfo &client);
    QVariantMap sentHints(int call = 0) const;
    void signal(const QString &member, const QVariantList &arguments);

    QTemporaryDir m_directory;
    PrivateBus m_bus;
    std::unique_ptr<BusStandIn> m_server;
    std::unique_ptr<NotificationManager> m_manager;
    QVector<Id> m_ids;
};

void TestNotificationManager::initTestCase()
{
    m_bus.useAsSessionBus();
    qputenv("PROCWARDEN_ROOTFS", QFile::encodeName(m_directory.path()));
    qputenv("XDG_DATA_DIRS", QFile::encodeName(m_directory.path()));
    qputenv("XDG_DATA_HOME", QFile::encodeName(m_directory.filePath(QStringLiteral("home"))));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_directory.filePath(QStringLiteral("config"))));
    QVERIFY(QDir(m_directory.path()).mkpath(QStringLiteral("applications")));
    const auto install = [this](const char *name, const char *icon) {
        QFile file(m_directory.filePath(
            QStringLiteral("applications/org.example.%1.desktop").arg(QLatin1String(name))));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QByteArray("[Desktop Entry]\nType=Application\nExec=/bin/true\nName=") + name
                   + " by Example\n" + icon
                   + "[X-Sailjail]\nOrganizationName=org.example\nApplicationName=" + name + '\n');
    };
    install("Notes", "Icon=icon-notes\n");
    install("Mail", "");
    install("Settings", "Icon=icon-settings\n");
}

void TestNotificationManager::init()
{
    m_manager.reset();
    m_server.reset();
    m_server = std::make_unique<BusStandIn>(m_bus, server, path);
    m_server->answerWith({ 1U });
    m_manager = std::make_unique<NotificationManager>();
    m_ids.clear();
}

Error TestNotificationManager::notify(const ClientInfo &client, Id replacesId, const QVariantMap &hints)
{
    return m_manager->notify(QStringLiteral("Own name"), replacesId, QStringLiteral("own-icon"),
                             QStringLiteral("summary"), QStringLiteral("body"),
                             { QStringLiteral("default"), QStringLiteral("Open") }, hints, 5000, client,
                             [this](Id id) { m_ids << id; });
}

void TestNotificationManager::give(Id id, const ClientInfo &client)
{
    m_server->answerWith({ id });
    m_ids.clear();
    QVERIFY(!notify(client));
    QTRY_COMPARE(m_ids, QVector<Id> { id });
    m_ids.clear();
    m_server->clearCalls();
}

QVariantMap TestNotificationManager::sentHints(int call) const
{
    return qdbus_cast<QVariantMap>(m_server->calls().at(call).arguments().at(6));
}

void TestNotificationManager::signal(const QString &member, const QVariantList &arguments)
{
    auto message = QDBusMessage::createSignal(path, interface, member);
    message.setArguments(arguments);
    m_server->send(message);
}

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
    QVERIFY(!notify(client, 0, hints));
    QTRY_COMPARE(m_server->calls().size(), 1);
    const QVariantList arguments = m_server->calls().first().arguments();
    QCOMPARE(arguments.at(0).toString(), appName);
    QCOMPARE(arguments.at(2).toString(), appIcon);
    QCOMPARE(sentHints().value(idHint), stamp);
    QCOMPARE(sentHints().value(QStringLiteral("category")).toString(), QStringLiteral("x-test"));
    QCOMPARE(sentHints().size(), stamp.isValid() ? 2 : 1);
}

void TestNotificationManager::restIsForwardedAsGiven()
{
    QVERIFY(!notify(notes, 77));
    QVERIFY(m_ids.isEmpty());
    QTRY_COMPARE(m_ids, QVector<Id> { 1 });
    const QDBusMessage call = m_server->calls().first();
    QCOMPARE(call.member(), QStringLiteral("Notify"));
    QCOMPARE(call.arguments().at(1).toUInt(), 77U);
    QCOMPARE(call.arguments().at(3).toString(), QStringLiteral("summary"));
    QCOMPARE(call.arguments().at(4).toString(), QStringLiteral("body"));
    QCOMPARE(call.arguments().at(5).toStringList(),
             (QStringList { QStringLiteral("default"), QStringLiteral("Open") }));
    QCOMPARE(call.arguments().at(7).toInt(), 5000);
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

void TestNotificationManager::foreignActionIsRefused()
{
    QSignalSpy progress(m_manager.get(), &NotificationManager::notificationProgressUpdated);
    QTest::ignoreMessage(QtWarningMsg,
                         "\"org.example.Notes\" not allowed to invoke actions on \"org.example.Mail\"");
    const Error error = notify(notes, 0,
                               { { actionHint + QStringLiteral("default"),
                                   QStringLiteral("org.example.Mail /  org.example.Mail open") },
                                 { progressHint, 0.5 } });
    QCOMPARE(error.code(), Error::AccessDenied);
    QCOMPARE(error.message(), QStringLiteral("Cannot invoke actions on other services"));
    QVERIFY(progress.isEmpty());
    give(2, notes); // the next call is the first one to reach the server
    QCOMPARE(m_ids, QVector<Id>());
}

void TestNotificationManager::privilegedActionsAreNotChecked()
{
    QVERIFY(
        !notify(privilegedApp, 0,
                { { actionHint + QStringLiteral("default"), QStringLiteral("org.example.Mail / i m") } }));
    QTRY_COMPARE(m_ids.size(), 1);
}

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

void TestNotificationManager::updateByOwnership_data()
{
    ownershipRows();
}

void TestNotificationManager::updateByOwnership()
{
    QFETCH(ClientInfo, owner);
    QFETCH(ClientInfo, client);
    QFETCH(bool, allowed);
    give(5, owner);
    if (!allowed) {
        QTest::ignoreMessage(
            QtWarningMsg,
            qPrintable(QStringLiteral("\"%1\" tried to update notification belonging to \"%2\"")
                           .arg(client.appId, owner.appId)));
    }
    const Error error = notify(client, 5);
    QCOMPARE(error.code(), allowed ? Error::NoError : Error::InvalidArgs);
    if (allowed) {
        QTRY_COMPARE(m_ids, QVector<Id> { 5 });
    } else {
        QCOMPARE(error.message(), QStringLiteral("Invalid notification ID"));
        give(6, owner);
        QVERIFY(!m_manager->closeNotification(5, owner)); // it has kept its owner
    }
}

void TestNotificationManager::refusedUpdateTellsNobody()
{
    give(5, mail);
    QSignalSpy progress(m_manager.get(), &NotificationManager::notificationProgressUpdated);
    QTest::ignoreMessage(
        QtWarningMsg, "\"org.example.Notes\" tried to update notification belonging to \"org.example.Mail\"");
    QVERIFY(bool(notify(notes, 5, { { progressHint, 0.5 } })));
    QVERIFY(progress.isEmpty());
    // What follows is what the server sees first.
    QVERIFY(!notify(notes));
    QTRY_COMPARE(m_ids.size(), 1);
    QCOMPARE(m_server->calls().size(), 1);
    QCOMPARE(m_server->calls().first().arguments().at(1).toUInt(), 0U);
}

void TestNotificationManager::unknownIdMayBeUpdated()
{
    QVERIFY(!notify(notes, 123));
    QTRY_COMPARE(m_server->calls().size(), 1);
    QCOMPARE(m_server->calls().first().arguments().at(1).toUInt(), 123U);
}

void TestNotificationManager::closeByOwnership_data()
{
    ownershipRows();
}

void TestNotificationManager::closeByOwnership()
{
    QFETCH(ClientInfo, owner);
    QFETCH(ClientInfo, client);
    QFETCH(bool, allowed);
    give(5, owner);
    const Error error = m_manager->closeNotification(5, client);
    QCOMPARE(error.code(), allowed ? Error::NoError : Error::InvalidArgs);
    QCOMPARE(error.message(), allowed ? QString() : QStringLiteral("Invalid notification ID"));

    // One that was never given out is nobody's.
    const Error unknown = m_manager->closeNotification(99, client);
    QCOMPARE(unknown.code(), client.privileged ? Error::NoError : Error::InvalidArgs);

    QVERIFY(!m_manager->closeNotification(1000, stranger)); // after which the server has seen the others
    QTRY_VERIFY(!m_server->calls().isEmpty()
                && m_server->calls().last().arguments().first().toUInt() == 1000);
    QVector<uint> closed;
    for (const QDBusMessage &call : m_server->calls()) {
        QCOMPARE(call.member(), QStringLiteral("CloseNotification"));
        closed << call.arguments().first().toUInt();
    }
    QCOMPARE(closed.contains(5), allowed);
    QCOMPARE(closed.contains(99), client.privileged);
}

void TestNotificationManager::closeKeepsTheOwner()
{
    give(5, notes);
    QVERIFY(!m_manager->closeNotification(5, notes));
    QVERIFY(!m_manager->closeNotification(5, notes));
    QSignalSpy closed(m_manager.get(), &NotificationManager::notificationClosed);
    signal(QStringLiteral("NotificationClosed"), { 5U, 3U });
    QTRY_COMPARE(closed.size(), 1);
    QCOMPARE(m_manager->closeNotification(5, notes).code(), Error::InvalidArgs);
}

void TestNotificationManager::listsAreFiltered_data()
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

void TestNotificationManager::listsAreFiltered()
{
    QFETCH(ClientInfo, client);
    QFETCH(QVector<Id>, ids);
    give(1, notes);
    give(2, mail);
    give(3, stranger);
    give(4, notesInstance);

    QVector<NotificationData> all; // 9 is from before the start
    for (const Id id : { 9, 4, 3, 2, 1 }) {
        NotificationData data;
        data.id = id;
        data.summary = QString::number(id);
        all << data;
    }
    m_server->answerWith({ QVariant::fromValue(all) });

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
    m_manager->getNotifications(QStringLiteral("Any name"), client, check);
    m_manager->getNotificationsByCategory(QStringLiteral("x-any"), client, check);
    QTRY_COMPARE(answers, 2);
    QCOMPARE(m_server->calls().at(0).arguments(), QVariantList { QStringLiteral("Any name") });
    QCOMPARE(m_server->calls().at(1).arguments(), QVariantList { QStringLiteral("x-any") });
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
    connect(m_manager.get(), &NotificationManager::notificationProgressUpdated, this,
            [&](float value, const ClientInfo &client) {
                told << value;
                clients << client;
            });
    QVERIFY(!notify(notesTask, 0, { { progressHint, hint } }));
    // Before the server can have had it.
    QCOMPARE(told, QVector<float> { progress });
    QCOMPARE(clients, QVector<ClientInfo> { notesTask });
    QTRY_COMPARE(m_ids.size(), 1);
    QVERIFY(sentHints().contains(progressHint));

    QVERIFY(!notify(notesTask, 0, {}));
    QCOMPARE(told.size(), 1);
}

void TestNotificationManager::eventsReachTheOwner()
{
    give(1, notesInstance);
    give(2, stranger);
    give(3, privilegedApp);
    QStringList events;
    const auto add = [&](const QString &text, const ClientInfo &owner) {
        events << text + QLatin1Char(' ') + owner.appId
                + (owner.privileged ? QLatin1String("!") : QLatin1String());
    };
    connect(m_manager.get(), &NotificationManager::actionInvoked, this,
            [&](Id id, const QString &key, const ClientInfo &owner) {
                add(QStringLiteral("action %1 %2").arg(id).arg(key), owner);
            });
    connect(m_manager.get(), &NotificationManager::inputTextSet, this,
            [&](Id id, const QString &text, const ClientInfo &owner) {
                add(QStringLiteral("input %1 %2").arg(id).arg(text), owner);
            });
    connect(m_manager.get(), &NotificationManager::notificationClosed, this,
            [&](Id id, uint reason, const ClientInfo &owner) {
                add(QStringLiteral("closed %1 %2").arg(id).arg(reason), owner);
            });
    signal(QStringLiteral("ActionInvoked"), { 1U, QStringLiteral("default") });
    signal(QStringLiteral("InputTextSet"), { 1U, QStringLiteral("text") });
    signal(QStringLiteral("NotificationClosed"), { 1U, 2U });
    signal(QStringLiteral("NotificationClosed"), { 2U, 1U });
    signal(QStringLiteral("NotificationClosed"), { 3U, 4294967295U });
    const QStringList expected {
        QStringLiteral("action 1 default org.example.Notes.instance_7"),
        QStringLiteral("input 1 text org.example.Notes.instance_7"),
        QStringLiteral("closed 1 2 org.example.Notes.instance_7"),
        QStringLiteral("closed 2 1 !"),
        QStringLiteral("closed 3 4294967295 org.example.Settings.instance_1!"),
    };
    QTRY_COMPARE(events, expected);
}

void TestNotificationManager::eventsWithoutOwnerAreDropped()
{
    give(1, notes);
    QSignalSpy action(m_manager.get(), &NotificationManager::actionInvoked);
    QSignalSpy input(m_manager.get(), &NotificationManager::inputTextSet);
    QSignalSpy closed(m_manager.get(), &NotificationManager::notificationClosed);
    signal(QStringLiteral("ActionInvoked"), { 2U, QStringLiteral("default") });
    signal(QStringLiteral("InputTextSet"), { 2U, QStringLiteral("text") });
    signal(QStringLiteral("NotificationClosed"), { 2U, 2U });
    signal(QStringLiteral("NotificationClosed"), { 0U, 2U });
    signal(QStringLiteral("NotificationClosed"), { 1U, 2U });
    QTRY_COMPARE(closed.size(), 1);
    QCOMPARE(closed.first().first().toUInt(), 1U);
    QVERIFY(action.isEmpty() && input.isEmpty());
}

void TestNotificationManager::closedNotificationHasNoOwner()
{
    give(1, notes);
    give(2, notes);
    QSignalSpy action(m_manager.get(), &NotificationManager::actionInvoked);
    signal(QStringLiteral("NotificationClosed"), { 1U, 2U });
    signal(QStringLiteral("ActionInvoked"), { 1U, QStringLiteral("default") });
    signal(QStringLiteral("ActionInvoked"), { 2U, QStringLiteral("default") });
    QTRY_COMPARE(action.size(), 1);
    QCOMPARE(action.first().first().toUInt(), 2U);
    QCOMPARE(m_manager->closeNotification(1, notes).code(), Error::InvalidArgs);
    // The number may be given out again.
    give(1, mail);
    QCOMPARE(m_manager->closeNotification(1, notes).code(), Error::InvalidArgs);
    QVERIFY(!m_manager->closeNotification(1, mail));
}

void TestNotificationManager::eventBeforeTheReplyIsDropped()
{
    QSignalSpy closed(m_manager.get(), &NotificationManager::notificationClosed);
    m_server->setHandler(nullptr);
    QVERIFY(!notify(notes));
    QTRY_COMPARE(m_server->calls().size(), 1);
    const QDBusMessage call = m_server->calls().first();
    signal(QStringLiteral("NotificationClosed"), { 5U, 2U });
    m_server->send(call.createReply(5U));
    signal(QStringLiteral("NotificationClosed"), { 5U, 3U });
    QTRY_COMPARE(closed.size(), 1);
    QCOMPARE(closed.first().at(1).toUInt(), 3U);
    QCOMPARE(m_ids, QVector<Id> { 5 });
}

void TestNotificationManager::failedServerGivesIdZero()
{
    m_server->setHandler([](const QDBusMessage &call, const QDBusConnection &connection) {
        connection.send(call.createErrorReply(QDBusError::LimitsExceeded, QStringLiteral("too many")));
    });
    QVERIFY(!notify(notes));
    QTRY_COMPARE(m_ids, QVector<Id> { 0 });
    // Like any other number, it has an owner then.
    QVERIFY(!m_manager->closeNotification(0, notes));
    QCOMPARE(m_manager->closeNotification(0, mail).code(), Error::InvalidArgs);
    // And yet 0 replaces nothing.
    QVERIFY(!notify(mail, 0));
}

void TestNotificationManager::latestSenderOwns()
{
    give(5, notes);
    give(5, stranger);
    QCOMPARE(m_manager->closeNotification(5, notes).code(), Error::InvalidArgs);
}

void TestNotificationManager::highestIdIsOneLikeOthers()
{
    give(4294967295U, notes);
    give(1, mail);
    QVERIFY(!m_manager->closeNotification(4294967295U, notes));
    QCOMPARE(m_manager->closeNotification(4294967295U, mail).code(), Error::InvalidArgs);
    QTRY_COMPARE(m_server->calls().size(), 1);
    QCOMPARE(m_server->calls().first().arguments().first().toUInt(), 4294967295U);
}

QTEST_GUILESS_MAIN(TestNotificationManager)
#include "tst_notification_manager.moc"
