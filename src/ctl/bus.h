#pragma once

#include "exit_status.h"

#include <QDBusMessage>
#include <QString>
#include <QVariantList>

#include <functional>
#include <optional>

namespace Ctl {

/// What became of a call.
struct Reply
{
    QVariantList values; ///< plain ones
    QString errorName; ///< empty: it succeeded
    QString errorText;
    ExitStatus status = Done; ///< what the program ends with if it ends for this
    bool isWithoutBus = false; ///< there was no bus to send the call to
    bool isSilent = false; ///< the service is there, and did not answer

    [[nodiscard]] bool failed() const { return !errorName.isEmpty(); }
    [[nodiscard]] QVariant value(int index = 0) const { return values.value(index); }
};

/// The service on its two buses. The calls return when they are answered, or will not be.
class Bus
{
public:
    static const QString sessionName; ///< "org.kestrix.Procwarden"
    static const QString systemName; ///< "org.kestrix.Procwarden.User", on the system bus

    static constexpr int askTimeoutMs = 25000; ///< the service answers questions at once

    // For commands that go on while the service does not answer:
    static constexpr int patienceMs = 2000; ///< then they say so
    static constexpr int answerTimeoutMs = 5000; ///< then they ask anew

    /// Asks; a service that is not there is not started for it. @p object: "Control1" and the like.
    [[nodiscard]] Reply ask(const QString &object, const QString &member, const QVariantList &arguments = {},
                            int timeoutMs = askTimeoutMs) const;
    /// Has something done that may take as long as the user thinks; starts the service if it is not there.
    /// The service is asked meanwhile whether it still answers; if it does not for askTimeoutMs, the reply is
    /// silent.
    [[nodiscard]] Reply act(const QString &object, const QString &member,
                            const QVariantList &arguments = {}) const;
    /// The same on the system bus, where nothing starts the service. @p timeoutMs: -1 for no limit.
    [[nodiscard]] Reply actOnSystem(const QString &object, const QString &member,
                                    const QVariantList &arguments = {}, int timeoutMs = -1) const;
    /// Any question on the session bus.
    [[nodiscard]] Reply call(const QDBusMessage &call) const;

    /// Calls @p then with the answer, from the event loop, unless @p context has gone by then. There has to
    /// be a session bus.
    static void callLater(const QDBusMessage &call, int timeoutMs, QObject *context,
                          const std::function<void(const Reply &)> &then);

    /// A call without arguments that does not start the service.
    [[nodiscard]] static QDBusMessage question(const QString &object, const QString &member);

    /// Why there is no session bus; nothing if there is one.
    [[nodiscard]] static std::optional<Reply> whyNoBus();

    /// What came back of a call that was made by other means.
    [[nodiscard]] static Reply replyOf(const QDBusMessage &answer);

    [[nodiscard]] static QString pathOf(const QString &object);
    [[nodiscard]] static QString interfaceOf(const QString &object);
};

} // namespace Ctl
