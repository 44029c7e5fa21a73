#include "qbatteryinfo.h"

#include "upowerbattery.h"

QBatteryInfo::QBatteryInfo(QObject *parent)
    : QObject(parent)
    , m_battery(UPowerBattery::shared())
{
    connect(m_battery.get(), &UPowerBattery::levelChanged, this, &QBatteryInfo::levelChanged);
    connect(m_battery.get(), &UPowerBattery::stateChanged, this, &QBatteryInfo::chargingStateChanged);
}

QBatteryInfo::~QBatteryInfo() = default;

int QBatteryInfo::level() const
{
    return m_battery->level();
}

QBatteryInfo::ChargingState QBatteryInfo::chargingState() const
{
    return m_battery->state();
}
