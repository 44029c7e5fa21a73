#pragma once

#include "Core/error.h"

#include <QJsonObject>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

#include <functional>
#include <memory>

namespace Core {

class IntentResolverPrivate;

/// Client of the intent resolver on the session bus, which lets the user choose who handles an intent and
/// tells of what nobody can handle.
///
/// Its end drops the answers that are still out. Main thread only. The bus activates the resolver.
class IntentResolver : public QObject
{
    Q_OBJECT

public:
    /// @param handler application id of the user's choice; empty on failure
    /// @param replyHints "setAsDefaultHandler" (bool); empty on failure
    using Callback =
        std::function<void(const QString &handler, const QVariantMap &replyHints, const Error &error)>;

    explicit IntentResolver(QObject *parent = nullptr);
    ~IntentResolver() override;

    /// Asks who of @p candidates shall handle the intent; with none of them, the user is told.
    ///
    /// @p callback runs once, from the event loop: within D-Bus's default time limit, in which the user has
    /// to decide. A refusal with D-Bus's `NotSupported` is `HandlerNotFound`, `InvalidArgs` is what it says,
    /// everything else `Failed`; so is an answer of another form, and request data that no message can hold.
    void resolveIntent(const QString &name, const QJsonObject &requestData, const QVariantMap &hints,
                       const QStringList &candidates, const Callback &callback);

private:
    const std::unique_ptr<IntentResolverPrivate> d;
};

} // namespace Core
