#include "Core/handler_selection.h"

#include "Core/intent_hints.h"

#include "Core/application_info.h"
#include "Core/application_registry.h"
#include "Core/client_info.h"
#include "Core/json_path.h"
#include "Core/process_id.h"

#include <QUrl>

#include <algorithm>

namespace Core {

namespace {

/// What the request is about: the first text that is found at one of the places that "mimeContent" names.
QUrl contentUrl(const QVariantMap &hints, const QJsonObject &requestData)
{
    const QStringList places = hints.value(IntentHints::mimeContent).toStringList();
    for (const QString &place : places) {
        const QStringList paths = JsonPath::expandPaths(requestData, place);
        for (const QString &path : paths) {
            const QString text = JsonPath::value(requestData, path).toString();
            if (!text.isEmpty()) {
                return QUrl(text, QUrl::TolerantMode);
            }
        }
    }
    return QUrl();
}

QStringList inBoth(const QStringList &some, const QStringList &others)
{
    QStringList both;
    std::copy_if(some.begin(), some.end(), std::back_inserter(both),
                 [&others](const QString &id) { return others.contains(id); });
    both.sort(Qt::CaseSensitive);
    return both;
}

} // namespace

namespace IntentUtils {

ApplicationId normaliseHandlerId(const QString &text)
{
    if (text.endsWith(QLatin1String(".desktop"))) {
        return ApplicationId::fromDesktopFile(text);
    }
    const ApplicationId id(text);
    const ApplicationInfo info(ApplicationRegistry::instance()->desktopFile(id));
    return info.isValid() ? info.id() : id;
}

Error checkStartPermission(const ApplicationId &target, const ClientInfo &client)
{
    if (client.privileged) {
        return Error();
    }
    const ApplicationId caller = ProcessId(client.appId).applicationId();
    const ApplicationRegistry *registry = ApplicationRegistry::instance();
    if (target.organisation() == caller.organisation()
        && registry->certificateId(target) == registry->certificateId(caller)) {
        return Error();
    }
    return Error(Error::AccessDenied, QStringLiteral("Client not allowed to start ") + target.text());
}

Error selectHandler(const QString &name, const QVariantMap &hints, const QJsonObject &requestData,
                    const ClientInfo &client, HandlerSelection &selection)
{
    const ApplicationId preferred = normaliseHandlerId(hints.value(IntentHints::preferredHandler).toString());
    if (!preferred.isEmpty()) {
        if (const Error refusal = checkStartPermission(preferred, client)) {
            return refusal;
        }
    }

    const ApplicationRegistry *registry = ApplicationRegistry::instance();
    const bool isOpenUri = name == IntentHints::openUri;
    const QUrl url = contentUrl(hints, requestData);
    QStringList candidates = registry->handlersForIntent(name);
    selection.handler = preferred.text();
    selection.defaultHandler = registry->defaultHandlerForUrl(url);

    if (!url.isEmpty()) {
        if (client.privileged && isOpenUri && url.isLocalFile()) {
            // How the home screen opens an application: by its desktop file.
            selection.desktopFileHandler = registry->applicationForDesktopFile(url.toLocalFile()).text();
        }
        if (selection.handler.isEmpty()) {
            selection.handler = selection.defaultHandler;
        }
        HandlerFilters filters;
        filters.ignoreHosts = hints.value(IntentHints::ignoreHosts).toStringList();
        filters.ignoreSchemes = hints.value(IntentHints::ignoreSchemes).toStringList();
        const QStringList forUri = registry->handlersForUri(url, filters);
        candidates = isOpenUri ? forUri : inBoth(candidates, forUri);
    }

    selection.candidates = candidates;
    if (selection.handler.isEmpty() && candidates.size() == 1) {
        selection.handler = candidates.first();
    }
    return Error();
}

} // namespace IntentUtils

} // namespace Core
