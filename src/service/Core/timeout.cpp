#include "Core/timeout.h"

#include <QTimer>

namespace Core {

class TimeoutPrivate : public QTimer
{
};

Timeout::Timeout(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<TimeoutPrivate>())
{
}

Timeout::~Timeout() = default;

void Timeout::start(int milliseconds, const std::function<void()> &function)
{
    QObject::connect(d.get(), &QTimer::timeout, d.get(), function, Qt::DirectConnection);
    d->start(milliseconds);
}

void Timeout::stop()
{
    d->stop();
}

} // namespace Core
