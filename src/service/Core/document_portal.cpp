#include "Core/document_portal.h"

#include "Core/document_portal_p.h"

namespace Core {

DocumentPortalPrivate::DocumentPortalPrivate()
    : QDBusAbstractInterface(QStringLiteral("org.freedesktop.portal.Documents"),
                             QStringLiteral("/org/freedesktop/portal/documents"),
                             "org.freedesktop.portal.Documents", QDBusConnection::sessionBus(), nullptr)
{
}

DocumentPortal::DocumentPortal(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<DocumentPortalPrivate>())
{
}

DocumentPortal::~DocumentPortal() = default;

} // namespace Core
