#pragma once

#include "timed/wire.h"

#include <QByteArray>
#include <QString>

namespace Eventd {

/// Number that stands for an event, from 1 to the largest one.
using Cookie = quint32;

/// Largest cookie. The one after it is what clients say who have none.
constexpr Cookie largestCookie = 0xfffffffe;

/// What one event may hold. Ample for what events are: one call with a handful of texts.
constexpr int maximumAttributes = 64;
constexpr int maximumAttributeText = 65536; ///< characters of all names and values together
constexpr int maximumRecurrences = 8;

/// What a caller is told of an event that cannot be kept, or an empty text. Nothing is said about when it is
/// due: see Calendar.
QString whatIsWrongWith(const Maemo::Timed::WireEvent &event);

/// Sorts the lists of values and takes out what is there twice. The event must be right.
void tidy(Maemo::Timed::WireEvent *event);

/// The form in which an event is kept, JSON.
QByteArray toJson(Cookie cookie, const Maemo::Timed::WireEvent &event);

/// Reads the same. @returns whether it is the event of @p cookie and nothing is wrong with it.
[[nodiscard]] bool fromJson(const QByteArray &json, Cookie cookie, Maemo::Timed::WireEvent *event);

} // namespace Eventd
