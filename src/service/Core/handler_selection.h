#pragma once

#include "Core/application_id.h"
#include "Core/error.h"

#include <QJsonObject>
#include <QStringList>
#include <QVariantMap>

namespace Core {

struct ClientInfo;

/// Who might handle a request. All are application ids.
struct HandlerSelection
{
    QString handler; ///< needs no further decision; empty: there is none
    QStringList candidates; ///< could handle it: what the user may choose from
    QString defaultHandler; ///< the user's default for the content's MIME type; empty: there is none
    QString desktopFileHandler; ///< whose desktop file the URI is, privileged clients only; empty: nobody's
};

namespace IntentUtils {

/// The id that @p text means: the name or path of a desktop file, or an application id. An installed
/// application's id is read from its desktop file. Empty for a desktop file's name that names nothing.
[[nodiscard]] ApplicationId normaliseHandlerId(const QString &text);

/// Whether @p client may name @p target as the one who handles its intent: `AccessDenied` if not. A client
/// that is not privileged reaches the applications of its own organisation that bear the same certificate.
[[nodiscard]] Error checkStartPermission(const ApplicationId &target, const ClientInfo &client);

/// Finds who might handle the intent @p name, by the wish of the client, what the applications declare and
/// what the user chose as default.
/// @param hints "preferredHandler", "mimeContent", "ignoreHosts" and "ignoreSchemes" are read
/// @returns `AccessDenied` if the client may not have the handler that it wants; @p selection is left as it
///          was then
[[nodiscard]] Error selectHandler(const QString &name, const QVariantMap &hints,
                                  const QJsonObject &requestData, const ClientInfo &client,
                                  HandlerSelection &selection);

} // namespace IntentUtils

} // namespace Core
