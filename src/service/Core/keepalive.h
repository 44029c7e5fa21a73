#pragma once

#include <QtGlobal>

#include <memory>

class BackgroundActivity;

namespace Core {

/// Counts who needs the device awake, and keeps it awake while anybody does.
///
/// One in the process, reached through instance() and never destroyed; the
/// public constructor is for tests. Main thread only. Clients do not count
/// themselves but embed a KeepaliveSwitch.
class KeepaliveSingleton
{
public:
    static KeepaliveSingleton *instance();

    KeepaliveSingleton();
    ~KeepaliveSingleton();

    /// The first hold tells the platform that the device must stay awake.
    void addKeepalive();

    /// The end of the last hold lets the device suspend again. Without a hold it warns and changes nothing.
    void removeKeepalive();

private:
    Q_DISABLE_COPY(KeepaliveSingleton)

    const std::unique_ptr<BackgroundActivity> m_activity;
    qint32 m_count = 0; ///< holds at the moment
};

/// One client's hold on KeepaliveSingleton: at most one, ended at the latest with this object.
class KeepaliveSwitch
{
public:
    KeepaliveSwitch() = default;
    ~KeepaliveSwitch();

    void on();
    void off();

private:
    Q_DISABLE_COPY(KeepaliveSwitch)

    bool held = false;
};

} // namespace Core
