#pragma once

#include <QDBusConnection>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QVariantList>

namespace TestSupport {

class PrivateBus;

/// An outer service as python-dbusmock plays it, in a process of its own on a private bus.
///
/// It ends with this object. A failure to start or to call ends the test program with a message.
class DbusMock
{
public:
    /// @p arguments are those of the dbusmock program; returns once it owns @p service.
    DbusMock(PrivateBus &bus, const QString &service, const QStringList &arguments);
    ~DbusMock();

    DbusMock(const DbusMock &) = delete;
    DbusMock &operator=(const DbusMock &) = delete;

    static bool isInstalled();

    /// Calls a method of its object at @p path; by default one of those that steer the mock.
    QVariantList call(const QString &path, const QString &method, const QVariantList &arguments,
                      const QString &interface = QStringLiteral("org.freedesktop.DBus.Mock"));

    /// It keeps its name, and answers nothing until it goes on.
    void suspend();
    void resume();

private:
    QDBusConnection m_connection;
    QString m_service;
    QProcess m_process;
};

} // namespace TestSupport
