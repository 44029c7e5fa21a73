#pragma once

#include "support/patience.h"
#include "support/private_bus.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QSignalSpy>
#include <QString>
#include <QVariantList>

/// The service's object that the timed daemon calls, and the call.
namespace TimedTrigger {

inline const QString path = QStringLiteral("/org/kestrix/Procwarden/Timed");
inline const QString interface = QStringLiteral("org.kestrix.Procwarden.Timed");

/// Calls it as the daemon does, and returns the answer.
inline QDBusMessage send(TestSupport::PrivateBus &bus, const QVariantList &arguments)
{
    QDBusConnection caller = bus.connect();
    QDBusMessage call = QDBusMessage::createMethodCall(QDBusConnection::sessionBus().baseService(), path,
                                                       interface, QStringLiteral("EventTriggered"));
    call.setArguments(arguments);
    QDBusPendingCallWatcher watcher(caller.asyncCall(call));
    QSignalSpy finished(&watcher, &QDBusPendingCallWatcher::finished);
    finished.wait(patienceMs);
    const QDBusMessage answer = watcher.reply();
    bus.disconnect(caller);
    return answer;
}

} // namespace TimedTrigger
