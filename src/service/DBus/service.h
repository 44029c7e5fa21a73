#pragma once

#include <QObject>

#include <memory>

class QDBusConnection;

namespace DBus {

class ServicePrivate;

/// Owns the exported objects and claims the bus names.
///
/// The loss of a bus ends the process with status 1. Making it brings up the runtime controller with its
/// control groups and tracker; its end kills all that still runs.
class Service : public QObject
{
    Q_OBJECT

public:
    explicit Service(QObject *parent = nullptr);
    ~Service() override;

    /// Exports every object, then claims the names, the session's last: who reaches the service by that name
    /// finds everything in place.
    /// @returns false at the first step that fails, with a warning that names it. What was registered until
    ///          then stays so.
    bool registerObjects();

private slots:
    void onDisconnected();

private:
    void listenForTheEnd(QDBusConnection bus);

    const std::unique_ptr<ServicePrivate> d;
};

} // namespace DBus
