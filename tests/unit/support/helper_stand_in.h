#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>

#include <functional>

namespace TestSupport {

/// Takes the place of the privileged helper on a bus, and keeps the calls that it gets.
class HelperStandIn : public QDBusVirtualObject
{
public:
    /// Makes the reply to a call; an invalid message means that there is none yet.
    using Answer = std::function<QDBusMessage(const QDBusMessage &call)>;

    /// Owns the helper's name on @p bus until it is destroyed.
    HelperStandIn(const QDBusConnection &bus, Answer answer);
    ~HelperStandIn() override;

    /// What gives @p path as the subtree.
    static Answer path(const QString &path);

    QString introspect(const QString &path) const override;
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override;

    /// Replies to a call that had none yet.
    void reply(const QDBusMessage &reply) { m_bus.send(reply); }

    QList<QDBusMessage> calls;

private:
    QDBusConnection m_bus;
    const Answer m_answer;
};

} // namespace TestSupport
