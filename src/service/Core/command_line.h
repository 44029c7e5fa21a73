#pragma once

#include <QByteArrayList>
#include <QList>
#include <QString>
#include <QUrl>

namespace Core {

/// Splits an Exec line at every single blank, after the blanks around the whole were dropped.
///
/// There is no quoting of any kind: two blanks in a row give an empty element, and an empty line
/// gives one. So the result is never empty.
QByteArrayList splitCommandLine(const QString &line);

/// @p program as it is executed: one without a leading "/" lies in /usr/bin.
QByteArray programPath(const QByteArray &program);

/// @p uri as an argument: the path of a local file, else the text of QUrl::toString(), the form in
/// which the service shows URIs on the bus too. Empty for an invalid URI.
QString uriArgument(const QUrl &uri);

/// Puts @p uris in the place of the field code of @p argv.
///
/// Codes are whole elements only. "%u" and "%U" take any URI, as uriArgument(); "%f" and "%F" take
/// local files only, as paths, and count only where no URI code stands; of each kind the last one in
/// @p argv counts. Where any capital code stands, all URIs go in, one element each, else the first
/// that fits. What nothing was found for stays in the vector as it stands.
QByteArrayList expandFieldCodes(const QByteArrayList &argv, const QList<QUrl> &uris);

} // namespace Core
