#pragma once

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QObject>
#include <QSemaphore>
#include <QThread>

#include <systemd/sd-bus.h>

namespace TestSupport {

/// Holds up Qt's one thread for all its bus connections while it exists: whatever comes in the meantime is
/// then handled in one go. Nothing of Qt may be sent, called or connected until then.
class HeldBus
{
public:
    explicit HeldBus(const QDBusConnection &anyConnection)
    {
        m_holder.moveToThread(anyConnection.interface()->thread());
        QMetaObject::invokeMethod(
            &m_holder,
            [this, thread = QThread::currentThread()] {
                m_held.release();
                m_goOn.acquire();
                m_holder.moveToThread(thread);
                m_held.release();
            },
            Qt::QueuedConnection);
        m_held.acquire();
    }

    ~HeldBus()
    {
        m_goOn.release();
        m_held.acquire();
    }

    HeldBus(const HeldBus &) = delete;
    HeldBus &operator=(const HeldBus &) = delete;

private:
    QObject m_holder;
    QSemaphore m_held;
    QSemaphore m_goOn;
};

/// A program on a bus, without Qt.
class OtherProgram
{
public:
    explicit OtherProgram(const QString &address)
    {
        const bool connected = sd_bus_new(&m_bus) >= 0
            && sd_bus_set_address(m_bus, address.toUtf8().constData()) >= 0
            && sd_bus_set_bus_client(m_bus, 1) >= 0 && sd_bus_start(m_bus) >= 0;
        if (!connected) {
            qFatal("no connection to the bus");
        }
    }

    ~OtherProgram() { sd_bus_flush_close_unref(m_bus); }

    OtherProgram(const OtherProgram &) = delete;
    OtherProgram &operator=(const OtherProgram &) = delete;

    bool own(const char *name) const { return sd_bus_request_name(m_bus, name, 0) >= 0; }

    /// @p types and @p values are those of sd_bus_message_append(3).
    template<typename... Values>
    bool signal(const char *path, const char *interface, const char *member, const char *types,
                Values... values) const
    {
        return sd_bus_emit_signal(m_bus, path, interface, member, types, values...) >= 0;
    }

    /// Returns when the bus has passed on what was sent before.
    bool finish() const
    {
        return sd_bus_call_method(m_bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                  "org.freedesktop.DBus", "GetId", nullptr, nullptr, "")
            >= 0;
    }

private:
    sd_bus *m_bus = nullptr;
};

} // namespace TestSupport
