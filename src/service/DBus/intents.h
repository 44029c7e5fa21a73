#pragma once

#include "DBus/context.h"
#include "DBus/json.h"

#include <QVariantMap>

#include <memory>

namespace DBus {

class IntentsPrivate;

/// Where clients invoke intents. Session bus only.
///
/// data/interfaces/org.kestrix.Procwarden.Intents1.xml describes the interface, and
/// org.kestrix.Procwarden.IntentHandler1.xml beside it the one that handlers implement.
class Intents : public Context
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kestrix.Procwarden.Intents1")

public:
    explicit Intents(QObject *parent = nullptr);
    ~Intents() override;

public slots:
    /// The reply, one JSON object, comes when the handler has answered. See Core::Intents::invokeIntent().
    void InvokeIntent(const QString &intentName, const QVariantMap &hints, const QJsonObject &requestData);

private:
    const std::unique_ptr<IntentsPrivate> d;
};

} // namespace DBus
