#pragma once

#include "timed/interface.h"

#include <QDBusConnection>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

namespace Core {

class TimedProxy;

/// The object that the timed daemon calls, beside the daemon's own.
class TimedProxyPrivate : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kestrix.Procwarden.Timed")

public:
    TimedProxyPrivate(TimedProxy *owner, const QDBusConnection &bus);
    ~TimedProxyPrivate() override;

    Maemo::Timed::Interface timed;
    bool ready = false;
    QStringList pending; ///< event ids, in the order of arrival; emptied once ready

public slots:
    void EventTriggered(const QVariantMap &attributes);

private:
    TimedProxy *const q;
    QDBusConnection m_bus; ///< where this object is offered
};

} // namespace Core
