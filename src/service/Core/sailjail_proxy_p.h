#pragma once

#include <QDBusAbstractInterface>

namespace Core {

/// The daemon's object, as it is seen on the bus.
class SailjailProxyPrivate : public QDBusAbstractInterface
{
public:
    SailjailProxyPrivate();
};

} // namespace Core
