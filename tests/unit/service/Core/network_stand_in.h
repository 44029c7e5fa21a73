#pragma once

#include "Core/connection_monitor.h"
#include "Core/network_source.h"

#include <memory>

/// The network as a test has it.
class NetworkStandIn : public Core::NetworkSource
{
public:
    bool isOnline() const override
    {
        ++reads;
        return online;
    }
    int bearerType() const override { return bearer; }

    /// Goes on as announced, however little has changed.
    void set(bool nowOnline, int nowBearer)
    {
        online = nowOnline;
        bearer = nowBearer;
        emit changed();
    }

    mutable int reads = 0;
    bool online = false;
    int bearer = 0;
};

/// A monitor of a network of the test's own; @p source gets the network, which is the monitor's.
inline std::unique_ptr<Core::MonitorSingleton> monitorOf(NetworkStandIn **source)
{
    auto network = std::make_unique<NetworkStandIn>();
    *source = network.get();
    return std::make_unique<Core::MonitorSingleton>(std::move(network));
}
