#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QTimer>

#include <functional>

namespace Eventd {

/// Tells when a program that the bus starts on demand may end: once nobody has called for a while.
///
/// The name goes first, so that the bus starts the program anew for later calls; those that were on their way
/// by then are still answered.
class IdleEnd : public QObject
{
    Q_OBJECT

public:
    static constexpr int idleMs = 60000; // without a call
    static constexpr int lingerMs = 1000; // for calls that came before the name went

    /// @p isBusy: whether somebody waits for an answer. @p name: what to give back, owned on @p bus.
    IdleEnd(const QDBusConnection &bus, const QString &name, const std::function<bool()> &isBusy,
            int idleTimeoutMs = idleMs, int lingerTimeoutMs = lingerMs);

    /// Something has happened: the time begins again.
    void restart();

signals:
    void over();

private:
    void onTimeout();

    QDBusConnection m_bus;
    const QString m_name;
    const std::function<bool()> m_isBusy;
    const int m_idleMs;
    const int m_lingerMs;
    QTimer m_timer;
    bool m_nameIsGone = false;
};

} // namespace Eventd
