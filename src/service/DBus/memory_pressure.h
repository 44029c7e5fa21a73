#pragma once

#include "DBus/context.h"

#include <memory>

namespace DBus {

class MemoryPressurePrivate;

/// Tells applications that have subscribed how short the memory is. Session bus only.
///
/// Each hears it in a "PropertiesChanged" of the standard properties interface that is sent to it alone; a
/// hidden one may run for a moment to act on it. data/interfaces/org.kestrix.Procwarden.MemoryPressure1.xml
/// describes every member.
class MemoryPressure : public Context
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kestrix.Procwarden.MemoryPressure1")
    Q_PROPERTY(int Level READ level)

public:
    explicit MemoryPressure(QObject *parent = nullptr);
    ~MemoryPressure() override;

    /// 0 when all is well or nothing is known, 100 when memory is low, 200 when it is critical.
    int level() const;

public slots:
    /// There is no way to unsubscribe. The subscription is the application's, by its id: when it runs again
    /// it hears the level as soon as it has asked the service for anything that remembers its bus name.
    void Subscribe();

private:
    const std::unique_ptr<MemoryPressurePrivate> d;
};

} // namespace DBus
