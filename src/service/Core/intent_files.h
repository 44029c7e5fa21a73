#pragma once

#include "Core/error.h"

#include <QJsonObject>
#include <QStringList>
#include <QVariantMap>

#include <functional>

namespace Core {
namespace IntentUtils {

/// The hints of a message as plain values. Nested values come as raw D-Bus arguments: a list of strings
/// becomes a QStringList and an array of descriptors a QVector<FileDescriptor>, each descriptor duplicated.
/// Of more descriptors than the portal can be given, one too many is kept: sharing them fails. Any other raw
/// argument is left out, with a warning.
[[nodiscard]] QVariantMap cleanHints(const QVariantMap &hints);

/// The request data with the names of shared files replaced, the paths of these files, and the last failure.
using ShareCompletion =
    std::function<void(const QJsonObject &data, const QStringList &paths, const Error &error)>;

/// Shares the files of an intent with the application @p target through the document portal.
///
/// Of @p hints: "readFds" and "writeFds" (vectors of FileDescriptor) are the open files, to be read or to be
/// read and written, "readFiles" and "writeFiles" (lists of JSON paths, see JsonPath) are the places in
/// @p data where their names stand, in the same order. Each name is replaced by the path under which the
/// target reaches the file.
///
/// @p completion is called exactly once: before this returns, with the data unchanged, if there is nothing to
/// share. With an error, data and paths are those of the batch that succeeded, if one did:
/// Error::InvalidArgs if there are fewer names than descriptors, else Error::Failed.
void shareFiles(const QJsonObject &data, const QVariantMap &hints, const QString &target,
                const ShareCompletion &completion);

} // namespace IntentUtils
} // namespace Core
