#pragma once

#include "Core/notification_manager.h"

#include "support/bus_stand_in.h"
#include "support/private_bus.h"

#include <QDBusArgument>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

// What the tests of the manager share: a few clients, a catalogue that has some of them, and a server behind
// a private bus.

const QString serverName = QStringLiteral("org.solvaneos.Notifications");
const QString serverPath = QStringLiteral("/org/freedesktop/Notifications");
const QString serverInterface = QStringLiteral("org.freedesktop.Notifications");

const QString idHint = QStringLiteral("x-solvane-application-id");
const QString progressHint = QStringLiteral("x-nemo-progress");
const QString actionHint = QStringLiteral("x-nemo-remote-action-");

const Core::ClientInfo notes { false, QStringLiteral("org.example.Notes") };
const Core::ClientInfo notesInstance { false, QStringLiteral("org.example.Notes.instance_7") };
const Core::ClientInfo notesTask { false, QStringLiteral("org.example.Notes.task_sync") };
const Core::ClientInfo mail { false, QStringLiteral("org.example.Mail") };
const Core::ClientInfo unlisted { false, QStringLiteral("org.example.Unlisted") };
const Core::ClientInfo stranger { true, QString() };
const Core::ClientInfo privilegedApp { true, QStringLiteral("org.example.Settings.instance_1") };

class NotificationFixture
{
    // The others end before these.
    QTemporaryDir m_directory;
    TestSupport::PrivateBus m_bus;

public:
    /// Before anything uses the bus or the catalogue: once in a process.
    void install();
    /// Before each test: a server that gives every notification the id 1, and a manager that knows none.
    void renew();

    Core::Error notify(const Core::ClientInfo &client, Core::Id replacesId = 0,
                       const QVariantMap &hints = {});
    /// Sends one as @p client, which the server gives @p id.
    void give(Core::Id id, const Core::ClientInfo &client);
    /// Of a call that the server got.
    QVariantMap sentHints(int call = 0) const;
    /// An event of the server.
    void signal(const QString &member, const QVariantList &arguments);

    std::unique_ptr<TestSupport::BusStandIn> server;
    std::unique_ptr<Core::NotificationManager> manager;
    QVector<Core::Id> ids; ///< with which notify() was answered
};

inline void NotificationFixture::install()
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

inline void NotificationFixture::renew()
{
    manager.reset();
    server.reset();
    server = std::make_unique<TestSupport::BusStandIn>(m_bus, serverName, serverPath);
    server->answerWith({ 1U });
    manager = std::make_unique<Core::NotificationManager>();
    ids.clear();
}

inline Core::Error NotificationFixture::notify(const Core::ClientInfo &client, Core::Id replacesId,
                                               const QVariantMap &hints)
{
    return manager->notify(QStringLiteral("Own name"), replacesId, QStringLiteral("own-icon"),
                           QStringLiteral("summary"), QStringLiteral("body"),
                           { QStringLiteral("default"), QStringLiteral("Open") }, hints, 5000, client,
                           [this](Core::Id id) { ids << id; });
}

inline void NotificationFixture::give(Core::Id id, const Core::ClientInfo &client)
{
    server->answerWith({ id });
    ids.clear();
    QVERIFY(!notify(client));
    QTRY_COMPARE(ids, QVector<Core::Id> { id });
    ids.clear();
    server->clearCalls();
}

inline QVariantMap NotificationFixture::sentHints(int call) const
{
    return qdbus_cast<QVariantMap>(server->calls().at(call).arguments().at(6));
}

inline void NotificationFixture::signal(const QString &member, const QVariantList &arguments)
{
    auto message = QDBusMessage::createSignal(serverPath, serverInterface, member);
    message.setArguments(arguments);
    server->send(message);
}
