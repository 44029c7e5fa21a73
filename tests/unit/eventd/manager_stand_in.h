#pragma once

#include "support/bus_stand_in.h"
#include "support/private_bus.h"

#include <QDBusObjectPath>
#include <QHash>
#include <QSet>
#include <QStringList>

/// Stands in for the user manager: starts and stops what it is asked to, or fails as it is told.
class ManagerStandIn
{
public:
    explicit ManagerStandIn(TestSupport::PrivateBus &bus)
        : daemon(bus, QStringLiteral("org.freedesktop.systemd1"), QStringLiteral("/org/freedesktop/systemd1"))
    {
        daemon.setHandler([this](const QDBusMessage &call, const QDBusConnection &connection) {
            answer(call, connection);
        });
    }

    /// What it has been asked, "StartUnit a.timer replace" for example.
    QStringList calls() const
    {
        QStringList texts;
        for (const QDBusMessage &call : daemon.calls()) {
            QStringList words { call.member() };
            for (const QVariant &argument : call.arguments()) {
                words << argument.toString();
            }
            texts << words.join(QLatin1Char(' '));
        }
        return texts;
    }

    TestSupport::BusStandIn daemon;
    QString jobResult = QStringLiteral("done"); ///< of each start; empty: it never ends
    QString error; ///< name of the error with which everything is refused
    bool isSilent = false;

private:
    void answer(const QDBusMessage &call, const QDBusConnection &connection)
    {
        if (isSilent) {
            return;
        }
        if (!error.isEmpty()) {
            connection.send(call.createErrorReply(error, QStringLiteral("not today")));
            return;
        }
        if (call.member() == QLatin1String("Reload")) {
            connection.send(call.createReply());
            return;
        }
        const QDBusObjectPath job(QStringLiteral("/org/freedesktop/systemd1/job/%1").arg(++m_jobs));
        connection.send(call.createReply(QVariant::fromValue(job)));
        if (!jobResult.isEmpty()) {
            QDBusMessage removed = QDBusMessage::createSignal(
                QStringLiteral("/org/freedesktop/systemd1"),
                QStringLiteral("org.freedesktop.systemd1.Manager"), QStringLiteral("JobRemoved"));
            removed << m_jobs << QVariant::fromValue(job) << call.arguments().value(0) << jobResult;
            connection.send(removed);
        }
    }

    uint m_jobs = 0;
};
