#pragma once

#include "user_hierarchies.h"

#include <QDBusContext>
#include <QObject>

namespace Helper {

/// The helper's object on the system bus: finds out who calls, and lets only root ask for others.
///
/// Whom a call is from is asked of the bus without waiting, so that a slow answer holds up nobody else.
class HelperObject : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kestrix.Procwarden.Helper")

public:
    explicit HelperObject(const UserHierarchies &hierarchies, QObject *parent = nullptr);

public slots:
    /// Makes the control group subtrees of @p userId and replies with the path that is theirs below each
    /// hierarchy. Errors: InvalidArgs for an id that no user can have, AccessDenied for somebody else's,
    /// Failed with what is missing or went wrong.
    QString CreateUserHierarchies(uint userId);

private:
    const UserHierarchies m_hierarchies;
};

} // namespace Helper
