#pragma once

#include "event_record.h"

#include <QByteArray>
#include <QString>

namespace Eventd {

/// The two systemd units of an event: the timer that waits, and what it starts. See systemd.timer(5),
/// systemd.service(5).
///
/// Nothing of what a caller says gets into them but its times: the service is told the cookie and looks up
/// the rest.
namespace Units {

QString timerName(Cookie cookie);
QString serviceName(Cookie cookie);

/// The cookie of a unit of either kind, or 0 if @p fileName is not one.
Cookie cookieOf(const QString &fileName);

/// @p wake: the timer wakes the device from suspend. A manager that may not do this fails such a timer.
QByteArray timer(Cookie cookie, const Maemo::Timed::WireEvent &event, bool wake);

/// @p program: path of this program, any text.
QByteArray service(Cookie cookie, const Maemo::Timed::WireEvent &event, const QString &program);

/// @p path as the first word of a command line in a unit, where a `$` has no meaning.
QString programWord(const QString &path);

} // namespace Units

/// Exit status of a service whose event can never be fired: it is not tried again.
constexpr int brokenEventStatus = 65;

} // namespace Eventd
