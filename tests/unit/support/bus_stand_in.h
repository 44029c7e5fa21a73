#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QList>
#include <QString>
#include <QStringList>

#include <functional>

namespace TestSupport {

class PrivateBus;

/// Stands in for one object of another program: owns a name on a private bus through a connection of its own,
/// keeps every call that reaches the object, and answers by a function.
///
/// It is served by the event loop of its thread: blocking calls need one in another thread.
class BusStandIn : public QDBusVirtualObject
{
public:
    /// Answers @p call, by `connection.send(call.createReply(...))`, now, later or never.
    using Handler = std::function<void(const QDBusMessage &call, const QDBusConnection &connection)>;

    /// Owns @p service, if it is not empty, from now on.
    BusStandIn(PrivateBus &bus, const QString &service, const QString &path);
    ~BusStandIn() override;

    void setHandler(const Handler &handler) { m_handler = handler; }

    /// Answers every call with @p arguments.
    void answerWith(const QVariantList &arguments);

    /// Sends an answer that the handler did not give.
    void send(const QDBusMessage &answer) { m_connection.send(answer); }

    /// Owns another, or the first, name.
    void own(const QString &service);

    /// Leaves the bus, as if the program had ended; calls still unanswered get their error from the bus.
    void leave();

    /// Calls so far, but those of the standard interfaces.
    const QList<QDBusMessage> &calls() const { return m_calls; }
    void clearCalls() { m_calls.clear(); }

    QString introspect(const QString &path) const override;
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override;

private:
    PrivateBus &m_bus;
    QDBusConnection m_connection;
    QString m_path;
    QStringList m_services; ///< owned
    Handler m_handler; ///< without one, no call is answered
    QList<QDBusMessage> m_calls;
    bool m_left = false;
};

} // namespace TestSupport
