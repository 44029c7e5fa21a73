#include "session.h"

namespace Ctl {

namespace {

/// One notification as its structure has it, under the names of the arguments of Notify.
QVariantMap notificationMap(const QVariant &structure)
{
    static const char *const keys[] = { "AppName", "Id",      "AppIcon", "Summary",
                                        "Body",    "Actions", "Hints",   "ExpireTimeout" };
    const QVariantList fields = structure.toList();
    QVariantMap map;
    for (int i = 0; i < fields.size() && i < int(std::size(keys)); ++i) {
        map.insert(QLatin1String(keys[i]), fields.at(i));
    }
    return map;
}

QVector<Output::Column> notificationColumns()
{
    return {
        { { QStringLiteral("NUMBER"), Table::Align::Right },
          [](const QVariantMap &entry) {
              return Table::Cell { entry.value(QStringLiteral("Id")).toString() };
          } },
        { { QStringLiteral("OWNER"), Table::Align::Left, true },
          [](const QVariantMap &entry) {
              const QVariantMap hints = entry.value(QStringLiteral("Hints")).toMap();
              return Table::Cell { hints.value(QStringLiteral("x-solvane-application-id")).toString() };
          } },
        keyColumn(QStringLiteral("APPLICATION"), QStringLiteral("AppName"), true),
        keyColumn(QStringLiteral("SUMMARY"), QStringLiteral("Summary"), true),
        keyColumn(QStringLiteral("BODY"), QStringLiteral("Body"), true),
    };
}

} // namespace

int notificationsCommand(Session &session)
{
    if (const auto end = session.begin(0, 0)) {
        return *end;
    }
    const QString interface = QStringLiteral("org.freedesktop.Notifications");
    auto call =
        QDBusMessage::createMethodCall(Bus::sessionName, QStringLiteral("/org/freedesktop/Notifications"),
                                       interface, QStringLiteral("GetNotifications"));
    call << QString();
    call.setAutoStartService(false);
    const Reply reply = session.bus.call(call);
    if (reply.failed()) {
        return session.fail(reply);
    }
    QVariantList notifications;
    const QVariantList structures = reply.value().toList();
    for (const QVariant &structure : structures) {
        notifications.append(notificationMap(structure));
    }
    session.output.rows(notifications, notificationColumns(), QStringLiteral("No notifications."));
    return Done;
}

} // namespace Ctl
