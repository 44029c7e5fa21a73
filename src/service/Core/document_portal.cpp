#include "Core/document_portal.h"

#include "Core/bus_call.h"
#include "Core/document_portal_p.h"

#include <QDBusConnection>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusUnixFileDescriptor>
#include <QDebug>

#include <utility>

namespace Core {

namespace {

// Of the portal's flags: the document of a file that has one already is used again, and one that the
// application can reach by itself is not made into a document.
constexpr uint reuseExisting = 1;
constexpr uint asNeededByApp = 4;

QStringList permissionsOf(QIODevice::OpenMode mode)
{
    QStringList permissions;
    if (mode & QIODevice::ReadOnly) {
        permissions.append(QStringLiteral("read"));
    }
    if (mode & QIODevice::WriteOnly) {
        permissions.append(QStringLiteral("write"));
    }
    return permissions;
}

QString pathOf(const QString &mountPoint, const QString &appId, const QString &id, const QString &name)
{
    if (id.isEmpty()) {
        return name; // the application needs no document
    }
    // In one piece: what stands in a value is not taken for a place marker.
    return mountPoint + QLatin1String("/by-app/") + appId + QLatin1Char('/') + id + QLatin1Char('/')
        + name.mid(name.lastIndexOf(QLatin1Char('/')) + 1);
}

// The path of each document, or an error.
std::pair<QStringList, Error> pathsFromReply(const QDBusPendingReply<QStringList, QVariantMap> &reply,
                                             const QStringList &names, const QString &appId)
{
    if (reply.isError()) {
        qWarning() << "Failed to add file to portal." << reply.error().name() << reply.error().message();
        return { QStringList(), Error(Error::Failed, reply.error().message()) };
    }
    const QStringList ids = reply.argumentAt<0>();
    if (ids.size() != names.size()) {
        qWarning() << "Document portal returned unexpected number of IDs";
        return { QStringList(), Error(Error::Failed, QString()) };
    }
    const QByteArray mountPoint = reply.argumentAt<1>().value(QStringLiteral("mountpoint")).toByteArray();
    QStringList paths;
    for (int i = 0; i < ids.size(); ++i) {
        // As a C string: the portal sends the NUL along.
        paths.append(pathOf(QString::fromUtf8(mountPoint.constData()), appId, ids.at(i), names.at(i)));
    }
    return { paths, Error() };
}

} // namespace

DocumentPortalPrivate::DocumentPortalPrivate()
    : QDBusAbstractInterface(QStringLiteral("org.freedesktop.portal.Documents"),
                             QStringLiteral("/org/freedesktop/portal/documents"),
                             "org.freedesktop.portal.Documents", QDBusConnection::sessionBus(), nullptr)
{
    qDBusRegisterMetaType<QList<QDBusUnixFileDescriptor>>();
}

QDBusPendingCall DocumentPortalPrivate::addFull(const QVector<FileDescriptor> &fds, const QString &appId,
                                                const QStringList &permissions)
{
    if (fds.size() > FileDescriptor::maximumPerMessage) {
        return QDBusPendingCall::fromError(
            QDBusError(QDBusError::LimitsExceeded, QStringLiteral("Too many file descriptors")));
    }
    QList<QDBusUnixFileDescriptor> descriptors;
    for (const FileDescriptor &fd : fds) {
        descriptors.append(QDBusUnixFileDescriptor(fd.fileDescriptor()));
        if (!descriptors.last().isValid()) {
            return QDBusPendingCall::fromError(
                QDBusError(QDBusError::InvalidArgs, QStringLiteral("Invalid file descriptor")));
        }
    }
    return callOverBus(
        *this, QStringLiteral("AddFull"),
        { QVariant::fromValue(descriptors), uint(reuseExisting | asNeededByApp), appId, permissions });
}

DocumentPortal::DocumentPortal(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<DocumentPortalPrivate>())
{
}

DocumentPortal::~DocumentPortal() = default;

void DocumentPortal::shareFiles(const QStringList &names, const QVector<FileDescriptor> &fds,
                                const QString &appId, QIODevice::OpenMode mode,
                                const FilesCompletion &completion)
{
    auto *watcher = new QDBusPendingCallWatcher(d->addFull(fds, appId, permissionsOf(mode)), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [names, appId, completion](QDBusPendingCallWatcher *call) {
                call->deleteLater();
                const auto [paths, error] = pathsFromReply(*call, names, appId);
                if (completion) {
                    completion(paths, error);
                }
            });
}

void DocumentPortal::shareFile(const QString &name, const FileDescriptor &fd, const QString &appId,
                               QIODevice::OpenMode mode, const FileCompletion &completion)
{
    shareFiles({ name }, { fd }, appId, mode, [completion](const QStringList &paths, const Error &error) {
        if (completion) {
            completion(paths.value(0), error);
        }
    });
}

} // namespace Core
