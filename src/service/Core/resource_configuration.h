#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <memory>

namespace Core {

class ResourceConfigurationPrivate;

/// What the installed state files say about the resources of a process in each state.
///
/// A state file is an INI file "<state>.config" in a directory "states" of the application data directories.
/// It is read once, at construction. Where several directories have a file for the same state, the least
/// local one wins for each value, and values that only another one holds survive.
class ResourceConfiguration : public QObject
{
    Q_OBJECT

public:
    explicit ResourceConfiguration(QObject *parent = nullptr);
    ~ResourceConfiguration() override;

    /// How long after entering @p state its settings are to be applied, in ms; 0 for an unknown state.
    int applyDelay(const QString &state) const;

    /// The states that have a file, in ascending order.
    QStringList stateNames() const;

    /// Setting name, for example "cpu.shares" -> value as the file has it, of one @p backend, for example
    /// "cgroup1". Empty if the state or the backend is not known.
    QVariantMap settingsFor(const QString &state, const QString &backend) const;

private:
    const std::unique_ptr<ResourceConfigurationPrivate> d;
};

} // namespace Core
