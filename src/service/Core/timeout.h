#pragma once

#include <QObject>

#include <functional>
#include <memory>

namespace Core {

class TimeoutPrivate;

/// A time limit with a function, and the object that a wait is bound to.
///
/// Whoever waits makes one, uses it as context of every connection of the wait
/// and as parent of what the wait needs; deleting it ends all of that. Main
/// thread only.
class Timeout : public QObject
{
    Q_OBJECT

public:
    explicit Timeout(QObject *parent = nullptr);
    ~Timeout() override;

    /// Runs @p function from the event loop after @p milliseconds, and again after each further
    /// such interval until stop() or the end of this object. The function may do either itself.
    /// To be called once: a second call adds its function to the first one.
    void start(int milliseconds, const std::function<void()> &function);

    /// No function runs from now on. Harmless when nothing was started.
    void stop();

private:
    const std::unique_ptr<TimeoutPrivate> d;
};

} // namespace Core
