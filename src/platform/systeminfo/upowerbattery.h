#pragma once

#include "qbatteryinfo.h"

#include <QDBusServiceWatcher>
#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QVariantMap>

#include <memory>

class QDBusPendingCallWatcher;

/// What is known of UPower's display device, which sums up the batteries, for all who ask.
///
/// Lives as long as somebody keeps what shared() returned. Main thread only.
class UPowerBattery : public QObject
{
    Q_OBJECT

public:
    static std::shared_ptr<UPowerBattery> shared();

    UPowerBattery();

    [[nodiscard]] int level() const { return m_level; }
    [[nodiscard]] QBatteryInfo::ChargingState state() const { return m_state; }

signals:
    void levelChanged(int level);
    void stateChanged(QBatteryInfo::ChargingState state);

private slots:
    void onPropertiesChanged(const QString &interface, const QVariantMap &changed,
                             const QStringList &invalidated);

private:
    void onOwnerChanged(const QString &newOwner);
    void ask();
    void update();

    QDBusServiceWatcher m_watcher;
    QPointer<QDBusPendingCallWatcher> m_question; ///< under way, to the present owner of the name
    QVariantMap m_properties; ///< the device's, as far as they are known
    int m_level = -1;
    QBatteryInfo::ChargingState m_state = QBatteryInfo::UnknownChargingState;
};
