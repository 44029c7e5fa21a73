#pragma once

#include <QDBusAbstractInterface>

namespace Maemo {
namespace Timed {

/// The timed daemon, as it is seen on the session bus; the bus starts it at the first call.
///
/// Its methods are "add_event", which takes what Event::dbus_output() gives and returns a cookie, an unsigned
/// 32-bit number other than 0, and "cancel", which takes a cookie. Stands in for the platform's class of the
/// same name.
class Interface : public QDBusAbstractInterface
{
    Q_OBJECT

public:
    explicit Interface(QObject *parent = nullptr);
};

} // namespace Timed
} // namespace Maemo
