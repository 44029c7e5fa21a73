#pragma once

#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QVariantList>

namespace TestSupport {

class PrivateBus;

/// Sends arguments through a bus daemon to another connection and shows what comes out there.
class MessageProbe
{
public:
    explicit MessageProbe(PrivateBus &bus);

    struct Result
    {
        bool arrived = false;
        QDBusMessage message; ///< as the receiver got it
        QDBusError error; ///< as the sender got it, if the message was not sent

        QString signature() const { return message.signature(); }
        QVariant argument() const { return message.arguments().value(0); }
    };

    /// Blocks until the message has arrived or has failed.
    Result pass(const QVariantList &arguments);
    Result pass(const QVariant &argument) { return pass(QVariantList { argument }); }

    QDBusConnection sender() const { return m_sender; }

private:
    class Receiver : public QDBusVirtualObject
    {
    public:
        QString introspect(const QString &path) const override;
        bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override;

        QList<QDBusMessage> messages;
    };

    QDBusConnection m_sender;
    QDBusConnection m_connection;
    Receiver m_receiver;
};

} // namespace TestSupport
