#pragma once

#include "Core/error.h"

#include <QJsonObject>
#include <QObject>
#include <QVariantMap>

#include <functional>
#include <memory>

namespace Core {

class IntentsPrivate;
struct ClientInfo;

/// Carries intents: who asks for what, who handles it, and the answer back.
///
/// Three kinds exist. "Start" starts or raises one application. "OpenURI" opens a URI or a file in the
/// application that handles it. Any other is generic: the handler gets the name and the request data, and its
/// data come back. A generic intent has a definition, or a name that begins with "X-".
///
/// Owned by the exported object, main thread only. What is under way when it ends is dropped: those callbacks
/// are never called.
class Intents : public QObject
{
    Q_OBJECT

public:
    /// Runs exactly once, perhaps before the call that was given it returns.
    /// @param data what the handler answered; {"instanceId": text} of "Start" and "OpenURI"; empty on failure
    using IntentCallback = std::function<void(const QJsonObject &data, const Error &error)>;

    /// What a handler answered. Its hints may hold raw D-Bus arguments.
    using HandlerReply =
        std::function<void(const QJsonObject &data, const QVariantMap &replyHints, const Error &error)>;

    /// Calls the handler that owns @p handlerName on the bus.
    using HandlerCall = std::function<void(const QString &handlerName, const QString &intentName,
                                           const QJsonObject &data, const HandlerReply &reply)>;

    explicit Intents(QObject *parent = nullptr);
    ~Intents() override;

    /// How handlers are reached from now on. To be set before the first intent.
    void setHandlerCall(const HandlerCall &call);

    /// Finds the handler, brings it up, hands the files and the intent over, and passes its answer on.
    ///
    /// A client that is not privileged learns of a failure no more than that the operation failed, unless it
    /// is `InvalidArgs`, `AccessDenied` or `TaskNotFound`.
    /// @param hints as they came over the bus: see Core/intent_hints.h
    void invokeIntent(const QString &name, const QVariantMap &hints, const QJsonObject &requestData,
                      const ClientInfo &clientInfo, const IntentCallback &callback);

private:
    const std::unique_ptr<IntentsPrivate> d;
};

} // namespace Core
