#pragma once

#include "DBus/context.h"

#include <QList>
#include <QVariantMap>

namespace DBus {

/// Tells what runs, what ended and why, and what a start would do. Session bus only; changes nothing.
///
/// An application learns of itself only. data/interfaces/org.kestrix.Procwarden.Introspect1.xml has the keys
/// of the maps.
class Introspect : public Context
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kestrix.Procwarden.Introspect1")

public:
    explicit Introspect(QObject *parent = nullptr);

public slots:
    QList<QVariantMap> ListRunning();
    QVariantMap GetStatus(const QString &id);
    QList<QVariantMap> GetHistory(const QString &id, uint limit);
    QVariantMap GetMemory();
    QVariantMap Explain(const QString &id);
};

} // namespace DBus
