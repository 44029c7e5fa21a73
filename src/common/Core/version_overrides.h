#pragma once

#include <QObject>
#include <QString>

#include <memory>

namespace Core {

class Identifier;
class VersionOverridesPrivate;

/// Applications that the system pins to a version of the operating system, whatever their manifests say:
/// the group Applications of /etc/procwarden/os-version-support.cfg. A key is the id of an application or a
/// pattern for several, `org.example.*` or `*`. Read once, when it is made.
class VersionOverrides : public QObject
{
    Q_OBJECT

public:
    explicit VersionOverrides(QObject *parent = nullptr);
    ~VersionOverrides() override;

    /// The version of the most specific key that covers @p appId; empty if none does.
    [[nodiscard]] QString version(const Identifier &appId) const;

private:
    const std::unique_ptr<VersionOverridesPrivate> d;
};

} // namespace Core
