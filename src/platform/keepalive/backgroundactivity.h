#pragma once

#include <QObject>

#include <memory>

class BackgroundActivityPrivate;

/// Keeps the device from suspending while it runs, through the sleep inhibitor of systemd-logind.
///
/// Where logind does not answer, or refuses, the device may suspend all the same; the object says so once, in
/// a warning, and asks again at the next run(). Main thread only; no operation blocks.
class BackgroundActivity : public QObject
{
    Q_OBJECT

public:
    explicit BackgroundActivity(QObject *parent = nullptr);

    /// Stops.
    ~BackgroundActivity() override;

    /// The device must stay awake from now on. Does nothing if it runs already.
    void run();

    /// The device may suspend again. Does nothing if it does not run.
    void stop();

private:
    const std::unique_ptr<BackgroundActivityPrivate> d;
};
