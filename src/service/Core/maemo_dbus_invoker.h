#pragma once

#include <QObject>
#include <QStringList>

#include <memory>

namespace Core {

class MaemoDBusInvokerPrivate;

/// Calls one method of a legacy application's D-Bus service, once, on the session bus.
///
/// Its end drops the answer. Main thread only. A slot of replyReceived() may delete the object.
class MaemoDBusInvoker : public QObject
{
    Q_OBJECT

public:
    /// @param interfaceMethod what a desktop file gives as method: "interface.method", split at
    ///        the last dot. Without a dot, or with nothing behind it, this warns and no call
    ///        will ever be made.
    MaemoDBusInvoker(const QString &service, const QString &objectPath, const QString &interfaceMethod,
                     QObject *parent = nullptr);
    ~MaemoDBusInvoker() override;

    /// Sends the call with @p arguments as its one argument, an array of strings, and returns.
    /// The answer has D-Bus's default time limit. Where there is no method to call,
    /// replyReceived(false) is emitted before this returns.
    void invoke(const QStringList &arguments);

signals:
    /// @p ok is false when the service answered with an error, or not at all.
    void replyReceived(bool ok);

private:
    const std::unique_ptr<MaemoDBusInvokerPrivate> d;
};

} // namespace Core
