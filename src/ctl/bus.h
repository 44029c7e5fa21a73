#pragma once

#include "exit_status.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QString>
#include <QVariantList>

namespace Ctl {

/// What became of a call.
struct Reply
{
    QVariantList values; ///< plain ones
    QString errorName; ///< empty: it succeeded
    QString errorText;
    ExitStatus status = Done; ///< what the program ends with if it ends for this
    bool isWithoutBus = false; ///< there was no bus to send the call to

    [[nodiscard]] bool failed() const { return !errorName.isEmpty(); }
    [[nodiscard]] QVariant value(int index = 0) const { return values.value(index); }
};

/// The service on its two buses. Blocking calls only: who calls has nothing else to do.
class Bus
{
public:
    static const QString sessionName; ///< "org.kestrix.Procwarden"
    static const QString systemName; ///< "org.kestrix.Procwarden.User", on the system bus

    static constexpr int askTimeoutMs = 25000; ///< the service answers questions at once

    /// Asks; a service that is not there is not started for it. @p object: "Control1" and the like.
    [[nodiscard]] Reply ask(const QString &object, const QString &member, const QVariantList &arguments = {},
                            int timeoutMs = askTimeoutMs) const;
    /// Has something done that may take as long as the user thinks; starts the service if it is not there.
    [[nodiscard]] Reply act(const QString &object, const QString &member,
                            const QVariantList &arguments = {}) const;
    /// The same on the system bus, where nothing starts the service. @p timeoutMs: -1 for no limit.
    [[nodiscard]] Reply actOnSystem(const QString &object, const QString &member,
                                    const QVariantList &arguments = {}, int timeoutMs = -1) const;
    /// Any call on the session bus.
    [[nodiscard]] Reply call(const QDBusMessage &call) const;

    /// What came back of a call that was made by other means.
    [[nodiscard]] static Reply replyOf(const QDBusMessage &answer);

    [[nodiscard]] static QString pathOf(const QString &object);
    [[nodiscard]] static QString interfaceOf(const QString &object);

private:
    [[nodiscard]] static Reply send(const QDBusConnection &connection, const QDBusMessage &call,
                                    int timeoutMs);
};

} // namespace Ctl
