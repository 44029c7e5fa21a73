#include "top/source.h"

#include <QDBusConnection>
#include <QDateTime>

#include <algorithm>

namespace Ctl::Top {

namespace {

constexpr int shortestPauseMs = 100; // between an answer and a question, however much happens

} // namespace

Source::Source(QObject *parent)
    : QObject(parent)
{
    m_clock.start();
    m_patience.setSingleShot(true);
    m_soon.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &Source::ask);
    connect(&m_soon, &QTimer::timeout, this, &Source::ask);
    connect(&m_patience, &QTimer::timeout, this, &Source::silent);
    QDBusConnection::sessionBus().connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"),
                                          QStringLiteral("org.freedesktop.DBus.Local"),
                                          QStringLiteral("Disconnected"), this, SLOT(onBusGone()));
}

void Source::start(int intervalMs, bool mustFollow)
{
    if (mustFollow) {
        follow();
    }
    m_timer.start(intervalMs);
    ask();
}

void Source::follow()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    for (const char *signal : { "Started", "Terminated", "StateChanged", "SelectedByOom" }) {
        bus.connect(Bus::sessionName, Bus::pathOf(QStringLiteral("Control1")),
                    Bus::interfaceOf(QStringLiteral("Control1")), QLatin1String(signal), this,
                    SLOT(onChanged()));
    }
    m_watcher.setConnection(bus);
    m_watcher.setWatchMode(QDBusServiceWatcher::WatchForOwnerChange);
    m_watcher.addWatchedService(Bus::sessionName);
    connect(&m_watcher, &QDBusServiceWatcher::serviceOwnerChanged, this, &Source::onChanged);
}

void Source::ask()
{
    if (m_openCalls > 0) {
        return;
    }
    m_openCalls = 2;
    m_mustAskAgain = false;
    m_patience.start(Bus::patienceMs);
    const QString object = QStringLiteral("Introspect1");
    const auto ask = [this, object](const QString &member, Reply &answer) {
        Bus::callLater(Bus::question(object, member), Bus::answerTimeoutMs, this,
                       [this, &answer](const Reply &reply) {
                           answer = reply;
                           onAnswered();
                       });
    };
    ask(QStringLiteral("ListRunning"), m_running);
    ask(QStringLiteral("GetMemory"), m_memory);
}

void Source::onAnswered()
{
    if (--m_openCalls > 0) {
        return;
    }
    m_patience.stop();
    Sample sample;
    sample.steadyMs = m_clock.elapsed();
    sample.timeMs = QDateTime::currentMSecsSinceEpoch();
    if (m_running.failed()) {
        sample.service = m_running.status == NotThere ? Service::Gone
            : m_running.status == TimedOut            ? Service::Silent
                                                      : Service::Refuses;
        sample.failure = m_running;
    } else {
        sample.service = Service::Answers;
        sample.processes = m_running.value().toList();
        sample.memory = m_memory.value().toMap();
    }
    emit sampled(sample);
    m_sinceAnswer.start();
    if (m_mustAskAgain) {
        m_soon.start(shortestPauseMs);
    }
}

void Source::onChanged()
{
    m_mustAskAgain = true; // what is being answered may be from before
    if (m_openCalls == 0 && !m_soon.isActive()) {
        const qint64 pause = m_sinceAnswer.isValid() ? m_sinceAnswer.elapsed() : shortestPauseMs;
        m_soon.start(int(std::clamp<qint64>(shortestPauseMs - pause, 0, shortestPauseMs)));
    }
}

void Source::onBusGone()
{
    m_timer.stop();
    m_soon.stop();
    m_patience.stop();
    emit busGone();
}

void Source::stop(const Row &row)
{
    QDBusMessage message = row.isTask
        ? Bus::question(QStringLiteral("Tasks1"), QStringLiteral("Stop"))
        : Bus::question(QStringLiteral("Control1"), QStringLiteral("Terminate"));
    message << row.id;
    if (row.isTask) {
        message << false; // it is not forgotten
    }
    Bus::callLater(message, Bus::askTimeoutMs, this,
                   [this, row](const Reply &reply) { emit stopAnswered(row, reply); });
}

} // namespace Ctl::Top
