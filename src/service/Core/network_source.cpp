#include "Core/network_source.h"

#include <QNetworkConfigurationManager>

// Qt names no successor for the classes that it calls deprecated, and has none in this release.
QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED

namespace Core {

namespace {

class SystemNetwork : public NetworkSource
{
public:
    SystemNetwork();

    bool isOnline() const override { return m_manager.isOnline(); }
    int bearerType() const override { return m_manager.defaultConfiguration().bearerType(); }

private:
    const QNetworkConfigurationManager m_manager;
};

SystemNetwork::SystemNetwork()
{
    using Manager = QNetworkConfigurationManager;
    connect(&m_manager, &Manager::onlineStateChanged, this, &NetworkSource::changed);
    connect(&m_manager, &Manager::configurationAdded, this, &NetworkSource::changed);
    connect(&m_manager, &Manager::configurationChanged, this, &NetworkSource::changed);
    connect(&m_manager, &Manager::configurationRemoved, this, &NetworkSource::changed);
}

} // namespace

int NetworkSource::connectionType(int bearerType)
{
    switch (bearerType) {
    case QNetworkConfiguration::BearerEthernet:
        return 1;
    case QNetworkConfiguration::BearerWLAN:
    case QNetworkConfiguration::BearerWiMAX:
        return 2;
    case QNetworkConfiguration::Bearer2G:
    case QNetworkConfiguration::BearerCDMA2000:
    case QNetworkConfiguration::BearerWCDMA:
    case QNetworkConfiguration::BearerHSPA:
    case QNetworkConfiguration::BearerEVDO:
    case QNetworkConfiguration::BearerLTE:
    case QNetworkConfiguration::Bearer3G:
    case QNetworkConfiguration::Bearer4G:
        return 3;
    case QNetworkConfiguration::BearerBluetooth:
        return 4;
    case QNetworkConfiguration::BearerUnknown:
    default:
        return 0;
    }
}

std::unique_ptr<NetworkSource> NetworkSource::system()
{
    return std::make_unique<SystemNetwork>();
}

} // namespace Core

QT_WARNING_POP
