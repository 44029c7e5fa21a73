#pragma once

#include <QObject>

#include <memory>

namespace Core {

class NetworkSource;

/// The state of the network, as far as a condition tests it. Offline until the event loop has run once.
///
/// One in the process, reached through instance() and never destroyed; the public constructor is for tests.
/// Main thread only.
class MonitorSingleton : public QObject
{
    Q_OBJECT

public:
    static MonitorSingleton *instance();

    explicit MonitorSingleton(std::unique_ptr<NetworkSource> source);
    ~MonitorSingleton() override;

    [[nodiscard]] bool isOnline() const { return m_online; }
    /// 1 ethernet, 2 wireless LAN, 3 cellular, 4 Bluetooth; 0 any other one, or offline.
    [[nodiscard]] int connectionType() const { return m_connectionType; }

    /// Reads the source, and says so if the state has changed.
    Q_INVOKABLE void update();

signals:
    void stateChanged();

private:
    void scheduleUpdate();

    const std::unique_ptr<NetworkSource> m_source;
    bool m_updatePending = false;
    bool m_online = false;
    int m_connectionType = 0;
};

/// One user's view of MonitorSingleton.
class ConnectionMonitor : public QObject
{
    Q_OBJECT

public:
    explicit ConnectionMonitor(QObject *parent = nullptr);
    /// Of another network than the system's, for tests.
    explicit ConnectionMonitor(MonitorSingleton *network, QObject *parent = nullptr);

    [[nodiscard]] bool isOnline() const;
    [[nodiscard]] int connectionType() const;

signals:
    void stateChanged();

private:
    MonitorSingleton *const m_network;
};

} // namespace Core
