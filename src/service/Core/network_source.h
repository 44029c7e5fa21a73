#pragma once

#include <QObject>

#include <memory>

namespace Core {

/// Where MonitorSingleton has the network's state from: the system, or a test.
class NetworkSource : public QObject
{
    Q_OBJECT

public:
    /// What MonitorSingleton makes of a bearer: 1 ethernet, 2 wireless LAN, 3 cellular, 4 Bluetooth, 0 any
    /// other.
    [[nodiscard]] static int connectionType(int bearerType);

    /// The system's network, as QNetworkConfigurationManager sees it.
    [[nodiscard]] static std::unique_ptr<NetworkSource> system();

    [[nodiscard]] virtual bool isOnline() const = 0;
    /// QNetworkConfiguration::BearerType of the default configuration.
    [[nodiscard]] virtual int bearerType() const = 0;

signals:
    /// Something may have changed. May come many times at once.
    void changed();
};

} // namespace Core
