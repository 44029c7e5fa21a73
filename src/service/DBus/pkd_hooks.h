#pragma once

#include "DBus/context.h"

namespace DBus {

/// Hears from the package manager what has gone. Session bus only.
/// data/interfaces/org.kestrix.PKD.Hooks.xml describes every member.
class PkdHooks : public Context
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kestrix.PKD.Hooks")

public:
    explicit PkdHooks(QObject *parent = nullptr);
    ~PkdHooks() override;

public slots:
    /// The application is no longer anybody's default handler.
    void OnRemove(const QString &appId);
};

} // namespace DBus
