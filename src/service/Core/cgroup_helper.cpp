#include "Core/cgroup_helper.h"

#include "Core/bus_call.h"
#include "Core/error.h"

#include <QDBusAbstractInterface>
#include <QDBusConnection>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

#include <utility>

namespace Core {

namespace {

Error toCoreError(const QDBusError &error)
{
    switch (error.type()) {
    case QDBusError::AccessDenied:
        return { Error::AccessDenied, error.message() };
    case QDBusError::InvalidArgs:
        return { Error::InvalidArgs, error.message() };
    default:
        return { Error::Failed, error.message() };
    }
}

} // namespace

class CGroupHelperPrivate : public QDBusAbstractInterface
{
    Q_OBJECT

public:
    CGroupHelperPrivate();

    Q_INVOKABLE void createUserHierarchies(uint userId,
                                           const Core::CGroupHelper::CreateUserHierarchiesCb &callback);
};

CGroupHelperPrivate::CGroupHelperPrivate()
    : QDBusAbstractInterface(QStringLiteral("org.kestrix.Procwarden.Helper"),
                             QStringLiteral("/org/kestrix/Procwarden/Helper"),
                             "org.kestrix.Procwarden.Helper", QDBusConnection::systemBus(), nullptr)
{
}

void CGroupHelperPrivate::createUserHierarchies(uint userId,
                                                const CGroupHelper::CreateUserHierarchiesCb &callback)
{
    // The bus's own time-out holds: a helper that never answers comes back as an error.
    auto *watcher = new QDBusPendingCallWatcher(
        callOverBus(*this, QStringLiteral("CreateUserHierarchies"), { userId }), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [callback](QDBusPendingCallWatcher *call) {
        call->deleteLater();
        // A reply whose first argument is no string counts as an error here.
        const QDBusPendingReply<QString> reply = *call;
        if (reply.isError()) {
            callback(QString(), toCoreError(reply.error()));
        } else {
            callback(reply.value(), Error());
        }
    });
}

CGroupHelper::CGroupHelper(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<CGroupHelperPrivate>())
{
}

CGroupHelper::~CGroupHelper() = default;

void CGroupHelper::createUserHierarchies(uint userId, CreateUserHierarchiesCb callback)
{
    QMetaObject::invokeMethod(
        d.get(),
        [helper = d.get(), userId, callback = std::move(callback)] {
            helper->createUserHierarchies(userId, callback);
        },
        Qt::QueuedConnection);
}

} // namespace Core

#include "cgroup_helper.moc"
