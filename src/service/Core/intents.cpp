#include "Core/intents.h"

#include "Core/handler_selection.h"
#include "Core/intent_files.h"
#include "Core/intent_hints.h"
#include "Core/intents_p.h"
#include "Core/message_size.h"

#include "Core/application_registry.h"
#include "Core/client_info.h"
#include "Core/intent_uri.h"
#include "Core/invocation_context.h"
#include "Core/process_id.h"

#include <QJsonArray>
#include <QPointer>

// The road of an intent. Each stage ends with a callback, which may run before the stage returns: nothing
// that a stage holds is touched after its callback.
//
//   invokeIntent -> handleStart ------------------------------------------------------------> startOrActivate
//                -> handleOpenURI -> findHandler -> dispatchDocumentPortal -> dispatchOpenURI
//                   (an intent URI: invokeIntent once more)
//                -> handleGeneric -> findHandler -> prepareFilesGeneric ----> dispatchGeneric

namespace Core {

namespace {

/// What a client that is not privileged may know of a failure: what it did wrong, but not what others did,
/// nor whether they exist.
Error masked(const Error &error)
{
    switch (error.code()) {
    case Error::NoError:
    case Error::InvalidArgs:
    case Error::AccessDenied:
    case Error::TaskNotFound:
        return error;
    case Error::Failed:
    case Error::HandlerNotFound:
    case Error::HandlerFailed:
    case Error::NotSupported:
    case Error::ProcessNotHandled:
    case Error::NotRunning:
    case Error::ApplicationAlreadyRunning:
    case Error::ApplicationTerminating:
    case Error::SpawnFailed:
    case Error::ApplicationBlocked:
    case Error::TooManyTasks:
    case Error::ApplicationAlreadyLaunching:
        break;
    }
    return Error(Error::Failed, QStringLiteral("Operation failed"));
}

QString requestorOf(const ClientInfo &client)
{
    return ProcessId(client.appId).toString();
}

/// The one URI of a request: the first, where it names several.
QString requestedUri(const QJsonObject &requestData)
{
    const QJsonValue uri = requestData.value(IntentHints::uri);
    return uri.isArray() ? uri.toArray().first().toString() : uri.toString();
}

} // namespace

IntentsPrivate::IntentsPrivate(Intents *owner)
    : q(owner)
{
}

void IntentsPrivate::invokeIntent(const QString &name, const QVariantMap &hints,
                                  const QJsonObject &requestData, const ClientInfo &clientInfo,
                                  const IntentCallback &callback)
{
    const auto reply = [privileged = clientInfo.privileged, callback](const QJsonObject &data,
                                                                      const Error &error) {
        callback(data, privileged ? error : masked(error));
    };

    if (name == IntentHints::start) {
        handleStart(hints, clientInfo, reply);
        return;
    }
    IntentConfiguration::Configuration definition;
    if (configuration.loadForIntent(name, definition)) {
        QVariantMap merged = hints;
        for (auto hint = definition.hints.cbegin(); hint != definition.hints.cend(); ++hint) {
            merged.insert(hint.key(), hint.value());
        }
        if (name == IntentHints::openUri) {
            handleOpenURI(merged, requestData, clientInfo, reply);
        } else {
            handleGeneric(name, merged, requestData, clientInfo, reply);
        }
    } else if (name.startsWith(IntentHints::ownPrefix)) {
        handleGeneric(name, hints, requestData, clientInfo, reply);
    } else {
        reply(QJsonObject(), Error(Error::NotSupported, QString()));
    }
}

void IntentsPrivate::handleStart(const QVariantMap &hints, const ClientInfo &clientInfo,
                                 const IntentCallback &callback)
{
    const ApplicationId appId =
        IntentUtils::normaliseHandlerId(hints.value(IntentHints::preferredHandler).toString());
    if (appId.isEmpty()) {
        callback(QJsonObject(), Error(Error::InvalidArgs, QStringLiteral("Missing application ID")));
        return;
    }
    if (const Error refusal = IntentUtils::checkStartPermission(appId, clientInfo)) {
        callback(QJsonObject(), refusal);
        return;
    }

    InvocationContext context;
    context.reason = hints.value(IntentHints::startDBus).toBool() ? InvocationContext::DBusStart
                                                                  : InvocationContext::StartIntent;
    context.requestor = ProcessId(clientInfo.appId);
    startOrActivate(
        appId, hints, {}, context,
        [callback](const ApplicationInstanceId &instanceId, bool /*alreadyRunning*/, const Error &error) {
            if (error) {
                callback(QJsonObject(), error);
            } else {
                callback({ { IntentHints::instanceId, instanceId.text() } }, Error());
            }
        });
}

void IntentsPrivate::handleOpenURI(const QVariantMap &hints, const QJsonObject &requestData,
                                   const ClientInfo &clientInfo, const IntentCallback &callback)
{
    QString text = requestedUri(requestData);
    if (text.isEmpty()) {
        callback(QJsonObject(), Error(Error::InvalidArgs, QStringLiteral("Missing URI")));
        return;
    }
    if (text.startsWith(QLatin1Char('/'))) {
        text.prepend(QLatin1String("file://"));
    }
    QJsonObject data = requestData;
    data.insert(IntentHints::uri, text);

    const QUrl url(text, QUrl::TolerantMode);
    if (!url.isValid()) {
        callback(QJsonObject(), Error(Error::InvalidArgs, QStringLiteral("Invalid URI: ") + text));
        return;
    }
    if (url.scheme() == QLatin1String("intent")) {
        invokeIntentUri(url, clientInfo, callback);
        return;
    }
    // As a URI it may be three times as long as its text was.
    if (!fitsIntoMessage({ url.toString() })) {
        callback(QJsonObject(), Error(Error::Failed, QStringLiteral("Message is too large")));
        return;
    }
    findHandler(IntentHints::openUri, hints, data, clientInfo,
                [this, hints, data, requestor = requestorOf(clientInfo), callback](const QString &handler,
                                                                                   const Error &error) {
                    if (error) {
                        callback(QJsonObject(), error);
                    } else {
                        dispatchDocumentPortal(handler, hints, data, requestor, callback);
                    }
                });
}

// The URI says all about the intent that it names: nothing of the call that brought it counts, and the answer
// is not for whoever only opened a URI. One that names no intent is of no kind that there is.
void IntentsPrivate::invokeIntentUri(const QUrl &uri, const ClientInfo &clientInfo,
                                     const IntentCallback &callback)
{
    const auto [name, hints, params] = IntentUri::fromUri(uri);
    invokeIntent(
        name, hints.toVariantMap(), params, clientInfo,
        [callback](const QJsonObject & /*data*/, const Error &error) { callback(QJsonObject(), error); });
}

void IntentsPrivate::handleGeneric(const QString &name, const QVariantMap &hints,
                                   const QJsonObject &requestData, const ClientInfo &clientInfo,
                                   const IntentCallback &callback)
{
    findHandler(name, hints, requestData, clientInfo,
                [this, name, hints, requestData, requestor = requestorOf(clientInfo),
                 callback](const QString &handler, const Error &error) {
                    if (error) {
                        callback(QJsonObject(), error);
                    } else {
                        prepareFilesGeneric(handler, name, hints, requestData, requestor, callback);
                    }
                });
}

void IntentsPrivate::findHandler(const QString &name, const QVariantMap &hints,
                                 const QJsonObject &requestData, const ClientInfo &clientInfo,
                                 const HandlerCallback &callback)
{
    HandlerSelection selection;
    if (const Error error = IntentUtils::selectHandler(name, hints, requestData, clientInfo, selection)) {
        callback(QString(), error);
        return;
    }

    const bool isOpenUri = name == IntentHints::openUri;
    const QString uri = requestData.value(IntentHints::uri).toString();
    if (!isOpenUri || !hints.value(IntentHints::showDialog).toBool()) {
        if (!selection.desktopFileHandler.isEmpty()) {
            callback(selection.desktopFileHandler, Error());
            return;
        }
        if (!selection.handler.isEmpty()) {
            callback(selection.handler, Error());
            return;
        }
        if (selection.candidates.isEmpty() && hints.value(IntentHints::suppressErrorDialog).toBool()) {
            callback(QString(), Error(Error::HandlerNotFound, QString()));
            return;
        }
    }

    QVariantMap resolverHints;
    if (isOpenUri && !selection.defaultHandler.isEmpty()) {
        resolverHints.insert(IntentHints::defaultCandidate, selection.defaultHandler);
    }
    // With no candidates too: it is the resolver that tells the user so.
    resolver.resolveIntent(name, requestData, resolverHints, selection.candidates,
                           [isOpenUri, uri, callback](const QString &handler, const QVariantMap &replyHints,
                                                      const Error &error) {
                               if (!error && isOpenUri && !uri.isEmpty()
                                   && replyHints.value(IntentHints::setAsDefaultHandler).toBool()) {
                                   ApplicationRegistry::instance()->setDefaultHandlerForUri(
                                       QUrl(uri), ApplicationId(handler));
                               }
                               callback(handler, error);
                           });
}

void IntentsPrivate::dispatchDocumentPortal(const QString &handler, const QVariantMap &hints,
                                            const QJsonObject &data, const QString &requestor,
                                            const IntentCallback &callback)
{
    IntentUtils::shareFiles(data, hints, handler,
                            [this, alive = QPointer<Intents>(q), handler, requestor, callback](
                                const QJsonObject &shared, const QStringList &paths, const Error &error) {
                                if (!alive) {
                                    return;
                                }
                                if (error) {
                                    callback(QJsonObject(), error);
                                    return;
                                }
                                const QString text = shared.value(IntentHints::uri).toString();
                                // What was shared has become a path inside the portal.
                                const QUrl url = paths.isEmpty() ? QUrl(text, QUrl::TolerantMode)
                                                                 : QUrl::fromLocalFile(text);
                                dispatchOpenURI(handler, url, requestor, callback);
                            });
}

void IntentsPrivate::prepareFilesGeneric(const QString &handler, const QString &name,
                                         const QVariantMap &hints, const QJsonObject &requestData,
                                         const QString &requestor, const IntentCallback &callback)
{
    IntentUtils::shareFiles(
        requestData, hints, handler,
        [this, alive = QPointer<Intents>(q), handler, name, hints, requestor,
         callback](const QJsonObject &shared, const QStringList & /*paths*/, const Error &error) {
            if (!alive) {
                return;
            }
            if (error) {
                callback(QJsonObject(), error);
            } else {
                dispatchGeneric(handler, name, hints, shared, requestor, callback);
            }
        });
}

Intents::Intents(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<IntentsPrivate>(this))
{
}

Intents::~Intents() = default;

void Intents::setHandlerCall(const HandlerCall &call)
{
    d->handlerCall = call;
}

void Intents::invokeIntent(const QString &name, const QVariantMap &hints, const QJsonObject &requestData,
                           const ClientInfo &clientInfo, const IntentCallback &callback)
{
    d->invokeIntent(name, IntentUtils::cleanHints(hints), requestData, clientInfo, callback);
}

} // namespace Core
