#pragma once

#include <QtGlobal>

namespace Core {

/// The limits of background tasks that hold for the whole system: what `/etc/procwarden/tasks.cfg` says.
///
/// Read once, at construction. A file that cannot be read, or a value that is no number, gives the default,
/// and nothing is reported.
class TaskConfig
{
public:
    TaskConfig();
    virtual ~TaskConfig();

    /// How many task records one application may have at a time. Negative: any number; 0: none at all.
    [[nodiscard]] qint32 maxTasksPerApp() const { return m_maxTasksPerApp; }

private:
    qint32 m_maxTasksPerApp;
};

} // namespace Core
