#pragma once

#include "Core/file_descriptor.h"

#include <QDBusAbstractInterface>
#include <QStringList>
#include <QVector>

namespace Core {

/// The portal's object, as it is seen on the bus.
class DocumentPortalPrivate : public QDBusAbstractInterface
{
    Q_OBJECT

public:
    DocumentPortalPrivate();

    /// Calls "AddFull". The call always finishes.
    QDBusPendingCall addFull(const QVector<FileDescriptor> &fds, const QString &appId,
                             const QStringList &permissions);

signals:
    void fileAdded(const QString &path);
};

} // namespace Core
