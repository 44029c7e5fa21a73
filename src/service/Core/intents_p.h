#pragma once

#include "Core/application_instance_id.h"
#include "Core/intent_configuration.h"
#include "Core/intent_resolver.h"
#include "Core/intents.h"

#include <QList>
#include <QUrl>

namespace Core {

struct ApplicationLaunchData;
struct InvocationContext;
class Timeout;

class IntentsPrivate
{
public:
    using IntentCallback = Intents::IntentCallback;
    using HandlerCallback = std::function<void(const QString &handler, const Error &error)>;
    using StartCallback =
        std::function<void(const ApplicationInstanceId &instanceId, bool alreadyRunning, const Error &error)>;

    explicit IntentsPrivate(Intents *owner);

    // Who handles it

    void invokeIntent(const QString &name, const QVariantMap &hints, const QJsonObject &requestData,
                      const ClientInfo &clientInfo, const IntentCallback &callback);
    void handleStart(const QVariantMap &hints, const ClientInfo &clientInfo, const IntentCallback &callback);
    void handleOpenURI(const QVariantMap &hints, const QJsonObject &requestData, const ClientInfo &clientInfo,
                       const IntentCallback &callback);
    void handleGeneric(const QString &name, const QVariantMap &hints, const QJsonObject &requestData,
                       const ClientInfo &clientInfo, const IntentCallback &callback);
    void invokeIntentUri(const QUrl &uri, const ClientInfo &clientInfo, const IntentCallback &callback);

    void findHandler(const QString &name, const QVariantMap &hints, const QJsonObject &requestData,
                     const ClientInfo &clientInfo, const HandlerCallback &callback);

    // Its files. The requestor is the id of the calling application, empty if it is none.

    void dispatchDocumentPortal(const QString &handler, const QVariantMap &hints, const QJsonObject &data,
                                const QString &requestor, const IntentCallback &callback);
    void prepareFilesGeneric(const QString &handler, const QString &name, const QVariantMap &hints,
                             const QJsonObject &requestData, const QString &requestor,
                             const IntentCallback &callback);

    // Delivery: intent_delivery.cpp

    /// Starts the application, or raises the one that runs. A launch or a stop that is under way is waited
    /// for. @p callback may run before this returns.
    void startOrActivate(const ApplicationId &appId, const QVariantMap &hints, const QList<QUrl> &uris,
                         const InvocationContext &context, const StartCallback &callback);
    void retryStartAfterLaunch(const ApplicationId &appId, const QVariantMap &hints, const QList<QUrl> &uris,
                               const InvocationContext &context, const StartCallback &callback);
    void retryStartAfterTermination(const ApplicationId &appId, const QVariantMap &hints,
                                    const QList<QUrl> &uris, const InvocationContext &context,
                                    const StartCallback &callback);

    /// Runs @p function when @p name has no owner, or after a moment.
    void afterNameRelease(const QString &name, const std::function<void()> &function);

    void dispatchOpenURI(const QString &handler, const QUrl &url, const QString &requestor,
                         const IntentCallback &callback);
    void dispatchGeneric(const QString &handler, const QString &name, const QVariantMap &hints,
                         const QJsonObject &data, const QString &requestor, const IntentCallback &callback);

    /// Runs @p ready when @p handlerName has an owner, or gives up after a while.
    void waitForHandler(const QString &handlerName, const IntentCallback &callback,
                        const std::function<void()> &ready);
    void invokeHandlerOpenURI(const QString &handlerName, const QUrl &url, const IntentCallback &callback);
    void activateMaemoService(const ApplicationLaunchData &launchData, const QString &url,
                              const ApplicationInstanceId &instanceId, const IntentCallback &callback);
    void returnFiles(const QJsonObject &data, const QVariantMap &replyHints, const QString &requestor,
                     const IntentCallback &callback);

    IntentConfiguration configuration;
    Intents::HandlerCall handlerCall;
    IntentResolver resolver;
    Intents *const q;
};

} // namespace Core
