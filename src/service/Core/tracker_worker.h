#pragma once

#include <QObject>

#include <sys/types.h>

namespace Core {

/// Waits for every child of the process, on a thread of its own.
///
/// It holds no data: what it finds out leaves as the arguments of a signal.
class TrackerWorker : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

public slots:
    /// Blocks and reports each child that ends, until there is none left.
    void waitForChildren();

signals:
    /// @param exitStatus the status word of wait(2), not decoded.
    void processExited(pid_t pid, int exitStatus);
};

} // namespace Core
