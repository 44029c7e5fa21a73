#pragma once

#include "Core/condition.h"

#include <memory>

namespace Core {

class MonitorSingleton;
class ConditionInternetPrivate;

/// "internet": true while there is a connection, of one of the wanted kinds.
class ConditionInternet : public Condition
{
    Q_OBJECT

public:
    enum Bearer : quint32 { Ethernet = 1, Wifi = 2, Cellular = 4 };

    /// @p mask is the bearers wanted, or 0 for any connection, of an unknown kind too.
    explicit ConditionInternet(quint32 mask, QObject *parent = nullptr);
    /// With a network of another origin than the system, for tests. @p network must outlive the condition.
    ConditionInternet(quint32 mask, MonitorSingleton *network, QObject *parent = nullptr);
    ~ConditionInternet() override;

private:
    const std::unique_ptr<ConditionInternetPrivate> d;
};

} // namespace Core
