#pragma once

#include "support/bus_stand_in.h"
#include "support/private_bus.h"

#include <QDBusUnixFileDescriptor>
#include <QList>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace TestSupport {

/// The login daemon: hands out inhibitors and sees which of them are still held.
class LoginDaemon
{
public:
    explicit LoginDaemon(PrivateBus &bus)
        : m_object(bus, QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"))
    {
        m_object.setHandler([this](const QDBusMessage &call, const QDBusConnection &connection) {
            int ends[2];
            if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
                qFatal("pipe2: %d", errno);
            }
            m_readEnds << ends[0];
            const QDBusUnixFileDescriptor descriptor(ends[1]);
            close(ends[1]);
            connection.send(call.createReply(QVariant::fromValue(descriptor)));
        });
    }
    ~LoginDaemon()
    {
        for (const int end : qAsConst(m_readEnds)) {
            close(end);
        }
    }
    Q_DISABLE_COPY(LoginDaemon)

    int given() const { return m_readEnds.size(); }
    int held() const
    {
        int result = 0;
        for (const int end : m_readEnds) {
            char byte = 0;
            // At the end of the pipe once nobody holds the other end.
            result += read(end, &byte, 1) < 0 && errno == EAGAIN ? 1 : 0;
        }
        return result;
    }

private:
    BusStandIn m_object;
    QList<int> m_readEnds;
};

} // namespace TestSupport
