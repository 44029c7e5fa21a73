#include "Core/intents_p.h"

#include "Core/dbus_name_watcher.h"
#include "Core/intent_files.h"
#include "Core/intent_hints.h"
#include "Core/maemo_dbus_invoker.h"
#include "Core/runtime_controller.h"
#include "Core/timeout.h"
#include "Core/window_model.h"

#include "Core/application_registry.h"
#include "Core/invocation_context.h"

#include <QPointer>

// How an intent reaches its handler: the handler is brought up, or raised if it runs; then it gets the intent
// over the bus, unless the URI went with its command line or by the method of a legacy service.
//
// Each wait belongs to a Timeout, which is the context of its connections. It ends in one way only, by the
// limit or by what is awaited; whichever comes first deletes it, and with it the other.

namespace Core {

namespace {

constexpr int launchMs = 25000; // as long as a launch under way may take
constexpr int terminationMs = 5000; // more than the kill time-out, after which it is forced
constexpr int nameReleaseMs = 1000; // for the bus to notice what the kernel has told already
constexpr int readyMs = 10000; // for a process to come up and take its name
constexpr int maemoReplyMs = 10000;

InvocationContext deliveryContext(const QString &requestor)
{
    InvocationContext context;
    context.reason = InvocationContext::IntentDelivery;
    context.requestor = ProcessId(requestor);
    return context;
}

bool isMaemoService(const ApplicationLaunchData &launchData)
{
    return !launchData.maemoService.isEmpty() && !launchData.maemoObjectPath.isEmpty()
        && !launchData.maemoMethod.isEmpty();
}

QJsonObject instanceAnswer(const QString &instanceId)
{
    return { { IntentHints::instanceId, instanceId } };
}

/// Starts the limit of a wait, at which the wait ends and @p expired runs.
Timeout *startWait(QObject *owner, int milliseconds, const std::function<void()> &expired)
{
    auto *wait = new Timeout(owner);
    wait->start(milliseconds, [wait, expired] {
        delete wait; // not what is captured here: a slot that runs is kept until it has returned
        expired();
    });
    return wait;
}

} // namespace

void IntentsPrivate::startOrActivate(const ApplicationId &appId, const QVariantMap &hints,
                                     const QList<QUrl> &uris, const InvocationContext &context,
                                     const StartCallback &callback)
{
    const auto started = [this, alive = QPointer<Intents>(q), appId, hints, uris, context,
                          callback](const ApplicationInstanceId &instanceId, const Error &error) {
        if (!alive) {
            return;
        }
        switch (error.code()) {
        case Error::NoError:
            callback(instanceId, false, Error());
            break;
        case Error::ApplicationAlreadyRunning:
            raiseApplication(appId.text());
            callback(ApplicationInstanceId(appId.text()), true, Error());
            break;
        case Error::ApplicationTerminating:
            qDebug() << "Application is terminating" << appId;
            retryStartAfterTermination(appId, hints, uris, context, callback);
            break;
        case Error::ApplicationAlreadyLaunching:
            qDebug() << "Application is already launching" << appId;
            retryStartAfterLaunch(appId, hints, uris, context, callback);
            break;
        case Error::Failed:
        case Error::HandlerNotFound:
        case Error::HandlerFailed:
        case Error::InvalidArgs:
        case Error::NotSupported:
        case Error::AccessDenied:
        case Error::ProcessNotHandled:
        case Error::NotRunning:
        case Error::TaskNotFound:
        case Error::SpawnFailed:
        case Error::ApplicationBlocked:
        case Error::TooManyTasks:
            callback(ApplicationInstanceId(), false, error);
            break;
        }
    };
    RuntimeController::instance()->startApplication(appId, hints, uris, context, started);
}

void IntentsPrivate::retryStartAfterLaunch(const ApplicationId &appId, const QVariantMap &hints,
                                           const QList<QUrl> &uris, const InvocationContext &context,
                                           const StartCallback &callback)
{
    Timeout *const wait = startWait(q, launchMs, [callback] {
        callback(ApplicationInstanceId(), false,
                 Error(Error::ApplicationAlreadyLaunching, QStringLiteral("Application launch timeout")));
    });
    const auto retry = [this, wait, appId, hints, uris, context, callback](const ApplicationRecord &record) {
        if (ApplicationInstanceId(record.id).applicationId() == appId) {
            delete wait;
            startOrActivate(appId, hints, uris, context, callback);
        }
    };
    QObject::connect(RuntimeController::instance(), &RuntimeController::applicationStarted, wait, retry,
                     Qt::DirectConnection);
}

void IntentsPrivate::retryStartAfterTermination(const ApplicationId &appId, const QVariantMap &hints,
                                                const QList<QUrl> &uris, const InvocationContext &context,
                                                const StartCallback &callback)
{
    Timeout *const wait = startWait(q, terminationMs, [callback] {
        callback(ApplicationInstanceId(), false,
                 Error(Error::ApplicationTerminating, QStringLiteral("Application termination timeout")));
    });
    const auto retry = [this, wait, appId, hints, uris, context, callback](const QString &terminated) {
        if (terminated == appId.text()) {
            delete wait;
            afterNameRelease(appId.text(), [this, appId, hints, uris, context, callback] {
                startOrActivate(appId, hints, uris, context, callback);
            });
        }
    };
    // Queued: the controller tells of the end while it still has the record.
    QObject::connect(RuntimeController::instance(), &RuntimeController::applicationTerminated, wait, retry,
                     Qt::QueuedConnection);
}

// The bus may tell later than the kernel that a process is gone. Until then its name would pass for that of
// the next process. What else holds the name, a child that was left behind for one, does not keep the start
// waiting.
void IntentsPrivate::afterNameRelease(const QString &name, const std::function<void()> &function)
{
    Timeout *const wait = startWait(q, nameReleaseMs, function);
    DBusNameWatcher::instance()->onNameDisappeared(name, wait, [wait, function] {
        delete wait;
        function();
    });
}

void IntentsPrivate::dispatchOpenURI(const QString &handler, const QUrl &url, const QString &requestor,
                                     const IntentCallback &callback)
{
    const ApplicationId appId(handler);
    const ApplicationRegistry *registry = ApplicationRegistry::instance();
    const ApplicationLaunchData launchData = registry->launchData(appId);
    const bool handlesOpenURI = registry->handlesIntent(appId, IntentHints::openUri);
    // Who doesn't declare the intent finds the URI on its command line.
    const QList<QUrl> uris = handlesOpenURI ? QList<QUrl>() : QList<QUrl> { url };

    const auto started = [this, launchData, handlesOpenURI, url,
                          callback](const ApplicationInstanceId &instanceId, bool alreadyRunning,
                                    const Error &error) {
        if (error) {
            callback(QJsonObject(), error);
        } else if (isMaemoService(launchData) && alreadyRunning) {
            activateMaemoService(launchData, url.toString(), instanceId, callback);
        } else if (!handlesOpenURI && !alreadyRunning) {
            callback(instanceAnswer(instanceId.text()), Error());
        } else {
            const QString handlerName = instanceId.text();
            waitForHandler(handlerName, callback, [this, handlerName, url, callback] {
                invokeHandlerOpenURI(handlerName, url, callback);
            });
        }
    };
    startOrActivate(appId, QVariantMap(), uris, deliveryContext(requestor), started);
}

void IntentsPrivate::dispatchGeneric(const QString &handler, const QString &name, const QVariantMap &hints,
                                     const QJsonObject &data, const QString &requestor,
                                     const IntentCallback &callback)
{
    const bool refocus = hints.value(IntentHints::refocusOnReturn).toBool();
    const auto answered = [this, alive = QPointer<Intents>(q), refocus, requestor, callback](
                              const QJsonObject &reply, const QVariantMap &replyHints, const Error &error) {
        if (!alive) {
            return;
        }
        if (refocus) {
            raiseApplication(requestor);
        }
        if (!replyHints.isEmpty() && !requestor.isEmpty()) {
            returnFiles(reply, replyHints, requestor, callback);
        } else {
            callback(reply, error);
        }
    };
    const auto started = [this, name, data, answered, callback](const ApplicationInstanceId &instanceId,
                                                                bool /*alreadyRunning*/, const Error &error) {
        if (error) {
            callback(QJsonObject(), error);
            return;
        }
        const QString handlerName = instanceId.text();
        waitForHandler(handlerName, callback, [this, handlerName, name, data, answered] {
            handlerCall(handlerName, name, data, answered);
        });
    };
    startOrActivate(ApplicationId(handler), QVariantMap(), {}, deliveryContext(requestor), started);
}

void IntentsPrivate::waitForHandler(const QString &handlerName, const IntentCallback &callback,
                                    const std::function<void()> &ready)
{
    Timeout *const wait = startWait(q, readyMs, [callback] {
        callback(QJsonObject(),
                 Error(Error::HandlerFailed, QStringLiteral("Application not ready within 10 seconds")));
    });
    DBusNameWatcher::instance()->onNameAppeared(handlerName, wait, [wait, ready] {
        delete wait;
        ready();
    });
}

void IntentsPrivate::invokeHandlerOpenURI(const QString &handlerName, const QUrl &url,
                                          const IntentCallback &callback)
{
    handlerCall(
        handlerName, IntentHints::openUri, { { IntentHints::uri, url.toString() } },
        [handlerName, callback](const QJsonObject & /*data*/, const QVariantMap & /*replyHints*/,
                                const Error &error) { callback(instanceAnswer(handlerName), error); });
}

void IntentsPrivate::activateMaemoService(const ApplicationLaunchData &launchData, const QString &url,
                                          const ApplicationInstanceId &instanceId,
                                          const IntentCallback &callback)
{
    const QString service = launchData.maemoService;
    Timeout *const wait = startWait(q, maemoReplyMs, [service, callback] {
        const QString text = QStringLiteral("Failed to invoke D-Bus method on ") + service
            + QStringLiteral(" within 10 seconds");
        callback(QJsonObject(), Error(Error::HandlerFailed, text));
    });
    auto *invoker = new MaemoDBusInvoker(service, launchData.maemoObjectPath, launchData.maemoMethod, wait);
    const auto replied = [wait, service, instanceId, callback](bool ok) {
        delete wait;
        if (ok) {
            callback(instanceAnswer(instanceId.text()), Error());
        } else {
            callback(
                QJsonObject(),
                Error(Error::HandlerFailed, QStringLiteral("Failed to invoke D-Bus method on") + service));
        }
    };
    QObject::connect(invoker, &MaemoDBusInvoker::replyReceived, wait, replied, Qt::DirectConnection);

    QStringList arguments;
    if (!launchData.maemoFixedArgs.isEmpty()) {
        arguments = launchData.maemoFixedArgs.split(QLatin1Char(';'));
    }
    arguments.append(url);
    invoker->invoke(arguments);
}

// Files travel back as they came. What the sharing says is the outcome then, also of an answer that is an
// error.
void IntentsPrivate::returnFiles(const QJsonObject &data, const QVariantMap &replyHints,
                                 const QString &requestor, const IntentCallback &callback)
{
    IntentUtils::shareFiles(data, IntentUtils::cleanHints(replyHints), requestor,
                            [callback](const QJsonObject &shared, const QStringList & /*paths*/,
                                       const Error &error) { callback(shared, error); });
}

} // namespace Core
