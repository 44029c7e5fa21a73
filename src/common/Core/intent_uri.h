#pragma once

#include <QJsonObject>
#include <QString>
#include <QUrl>

#include <tuple>

namespace Core {

/// An intent as a URI, so that it can travel wherever a URI travels:
///
///     intent://?<hint>=<value>&<hint>=<value>#Intent;name=<name>;<parameter>=<value>;end
///
/// A value is a letter for its type, a dot and its text: "S.text", "B.true", "B.false", "d.1.5", and, which
/// is understood but never written, "i.3". There is no form for null, arrays and objects.
///
/// Texts are what QUrl shows of a component in its pretty form: a percent-encoded delimiter, control
/// character or percent sign is not decoded. So a value can hold no ";", since that ends it, and "%3B" stays
/// these three characters. It follows that no parameter can be an intent URI in its turn, whose fragment
/// needs a ";": an intent URI leads to an intent that can do anything but name a further one, however often
/// one is wrapped in another, and whoever follows them descends one level and no more.
namespace IntentUri {

/// The URI of the intent @p name.
/// @returns an invalid URL if the name is empty or one of the values cannot be encoded: a text with a
///          semicolon, an array or an object, each with a warning, or a null.
///
/// A number keeps six digits. A ";" in the name, a ";" or "=" in a parameter's key, and whatever looks
/// percent-encoded are not refused, but do not come back as they were.
[[nodiscard]] QUrl toUri(const QString &name, const QJsonObject &hints, const QJsonObject &params);

/// The name, hints and parameters that @p url stands for. A hint whose value is malformed is null; a
/// parameter whose value is makes the URI malformed.
/// @returns an empty name and two empty objects, after a warning, if it is no well-formed intent URI.
///          The name is also empty, with whatever else the URI holds, where the URI gives an empty one.
[[nodiscard]] std::tuple<QString, QJsonObject, QJsonObject> fromUri(const QUrl &url);

} // namespace IntentUri
} // namespace Core
