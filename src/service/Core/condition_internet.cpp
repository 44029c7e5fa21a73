#include "Core/condition_internet.h"

#include "Core/connection_monitor.h"

namespace Core {

class ConditionInternetPrivate
{
public:
    ConditionInternetPrivate(ConditionInternet *condition, quint32 wanted, MonitorSingleton *network)
        : mask(wanted)
        , monitor(network)
        , q(condition)
    {
    }

    [[nodiscard]] bool isWanted() const;

    const quint32 mask;
    ConnectionMonitor monitor;
    ConditionInternet *const q;
};

bool ConditionInternetPrivate::isWanted() const
{
    if (!monitor.isOnline()) {
        return false;
    }
    if (mask == 0) {
        return true;
    }
    switch (monitor.connectionType()) {
    case 1:
        return (mask & ConditionInternet::Ethernet) != 0;
    case 2:
        return (mask & ConditionInternet::Wifi) != 0;
    case 3:
        return (mask & ConditionInternet::Cellular) != 0;
    default:
        return false;
    }
}

ConditionInternet::ConditionInternet(quint32 mask, QObject *parent)
    : ConditionInternet(mask, MonitorSingleton::instance(), parent)
{
}

ConditionInternet::ConditionInternet(quint32 mask, MonitorSingleton *network, QObject *parent)
    : Condition(QStringLiteral("internet"), parent)
    , d(new ConditionInternetPrivate(this, mask, network))
{
    connect(&d->monitor, &ConnectionMonitor::stateChanged, this, [this] { setSatisfied(d->isWanted()); });
    setSatisfied(d->isWanted());
}

ConditionInternet::~ConditionInternet() = default;

} // namespace Core
