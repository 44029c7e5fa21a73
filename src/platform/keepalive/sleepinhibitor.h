#pragma once

#include <QDBusPendingReply>
#include <QDBusUnixFileDescriptor>
#include <QObject>

#include <memory>

/// The one sleep inhibitor that all activities of the process share, and the count of those who need it.
///
/// Many may run at once, and each inhibitor is a descriptor of this process and an entry in logind's table.
/// Lives as long as somebody keeps what shared() returned. Main thread only; no operation blocks.
class SleepInhibitor : public QObject
{
    Q_OBJECT

public:
    static std::shared_ptr<SleepInhibitor> shared();

    /// The device must stay awake. Asks logind, unless it has agreed or is being asked.
    void hold();
    /// Ends one hold(). With the last one the device may suspend.
    void release();

private:
    void finish(const QDBusPendingReply<QDBusUnixFileDescriptor> &reply);

    int m_holds = 0; ///< whether logind agrees or not
    bool m_pending = false; ///< a call is under way
    bool m_warned = false;
    QDBusUnixFileDescriptor m_inhibitor; ///< valid while logind holds the device awake
};
