#include "upowerbattery.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

namespace {

const QString service = QStringLiteral("org.freedesktop.UPower");
const QString path = QStringLiteral("/org/freedesktop/UPower/devices/DisplayDevice");
const QString deviceInterface = QStringLiteral("org.freedesktop.UPower.Device");
const QString propertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
const QString isPresent = QStringLiteral("IsPresent");

/// Percent, rounded down; -1 for what is no percentage.
int levelOf(const QVariant &percentage)
{
    const double level = percentage.toDouble();
    return percentage.isValid() && level >= 0 && level <= 100 ? static_cast<int>(level) : -1;
}

/// Of UPower's number of a state.
QBatteryInfo::ChargingState stateOf(uint state)
{
    switch (state) {
    case 1: // charging
        return QBatteryInfo::Charging;
    case 4: // fully charged
    case 5: // pending charge: power, but it is not taken
        return QBatteryInfo::IdleChargingState;
    case 2: // discharging
    case 3: // empty
    case 6: // pending discharge
        return QBatteryInfo::Discharging;
    default:
        return QBatteryInfo::UnknownChargingState;
    }
}

} // namespace

std::shared_ptr<UPowerBattery> UPowerBattery::shared()
{
    static std::weak_ptr<UPowerBattery> existing;
    std::shared_ptr<UPowerBattery> battery = existing.lock();
    if (!battery) {
        battery = std::make_shared<UPowerBattery>();
        existing = battery;
    }
    return battery;
}

UPowerBattery::UPowerBattery()
    : m_watcher(service, QDBusConnection::systemBus(), QDBusServiceWatcher::WatchForOwnerChange)
{
    connect(&m_watcher, &QDBusServiceWatcher::serviceOwnerChanged, this,
            [this](const QString &, const QString &, const QString &newOwner) { onOwnerChanged(newOwner); });
    QDBusConnection::systemBus().connect(service, path, propertiesInterface,
                                         QStringLiteral("PropertiesChanged"), this,
                                         SLOT(onPropertiesChanged(QString, QVariantMap, QStringList)));
    ask();
}

void UPowerBattery::onOwnerChanged(const QString &newOwner)
{
    delete m_question;
    m_properties.clear();
    update();
    if (!newOwner.isEmpty()) {
        ask();
    }
}

void UPowerBattery::onPropertiesChanged(const QString &interface, const QVariantMap &changed,
                                        const QStringList &invalidated)
{
    if (interface != deviceInterface) {
        return;
    }
    // What waits for an answer may be told of it only after a change that came later than the answer, and
    // would take the old values for the new ones. And without an answer, all the rest is missing.
    if (m_question || !invalidated.isEmpty() || !m_properties.contains(isPresent)) {
        ask();
    }
    for (auto property = changed.cbegin(); property != changed.cend(); ++property) {
        m_properties.insert(property.key(), property.value());
    }
    update();
}

void UPowerBattery::ask()
{
    delete m_question;
    QDBusMessage call =
        QDBusMessage::createMethodCall(service, path, propertiesInterface, QStringLiteral("GetAll"));
    call << deviceInterface;
    m_question = new QDBusPendingCallWatcher(QDBusConnection::systemBus().asyncCall(call), this);
    connect(m_question, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *question) {
        question->deleteLater();
        const QDBusPendingReply<QVariantMap> reply = *question;
        if (!reply.isError()) {
            m_properties = reply.value();
            update();
        }
    });
}

void UPowerBattery::update()
{
    const bool present = m_properties.value(isPresent).toBool();
    const int level = present ? levelOf(m_properties.value(QStringLiteral("Percentage"))) : -1;
    const QBatteryInfo::ChargingState state = present
        ? stateOf(m_properties.value(QStringLiteral("State")).toUInt())
        : QBatteryInfo::UnknownChargingState;
    const bool levelDiffers = level != m_level;
    const bool stateDiffers = state != m_state;
    // Both first: who is told of one looks at both.
    m_level = level;
    m_state = state;
    if (levelDiffers) {
        emit levelChanged(level);
    }
    if (stateDiffers) {
        emit stateChanged(state);
    }
}
