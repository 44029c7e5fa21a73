#pragma once

#include <QDBusConnection>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

namespace TestSupport {

/// A bus daemon of the test's own, open to every user and every name.
///
/// It is no child of the test, so that a test may wait for any child; it ends with this object, and also when
/// the test's process ends in any other way. A failure to start ends the test program with a message.
class PrivateBus
{
public:
    PrivateBus();
    ~PrivateBus();

    PrivateBus(const PrivateBus &) = delete;
    PrivateBus &operator=(const PrivateBus &) = delete;

    QString address() const { return m_address; }

    /// Makes it the bus that QDBusConnection::sessionBus() means, in this process and its children. To be
    /// called before the first use of that connection: Qt keeps it for good.
    void useAsSessionBus() const;

    /// The same for QDBusConnection::systemBus().
    void useAsSystemBus() const;

    /// A new connection, with a unique name of its own, which is closed at the end of this object at the
    /// latest.
    QDBusConnection connect();

    /// Closes a connection made by connect(). The bus drops its names once the last copy of it is gone.
    void disconnect(const QDBusConnection &connection);

    /// Ends the daemon and waits until it is gone; connections notice on their own.
    void stop();

private:
    QTemporaryDir m_directory; ///< configuration and socket
    QString m_address;
    QStringList m_connectionNames; ///< of Qt, those made by connect()
    int m_lifeline = -1; ///< the daemon's keeper ends it when this end is closed
    int m_output = -1; ///< at its end once the daemon is gone
};

} // namespace TestSupport
