#include "running_text.h"
#include "session.h"
#include "text_width.h"
#include "wire_value.h"
#include "words.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusServiceWatcher>
#include <QDateTime>
#include <QTimer>

#include <list>
#include <optional>

namespace Ctl {

namespace {

constexpr int defaultIntervalMs =
    1000; // memory levels cannot be listened to without taking an application's place
constexpr uint lookedThrough =
    20; // ends, for the one that a signal tells of: the latest but for a slow reader
constexpr int eventWidth = 10;
constexpr int idWidth = 32;

/// What has happened, on the way to a line of the output.
struct Event
{
    QString name;
    Style style = Style::Plain;
    QString id; ///< empty: it is about no application
    QString text;
    QVariantMap details;
    QDateTime time = QDateTime::currentDateTime();
    bool isWhole = true; ///< false while the service is asked for more about it
};

} // namespace

/// Prints what happens, until the program is ended. Never waits for the service: what has been asked for an
/// event holds back the lines of this and of later ones only, and not for long.
class Monitor : public QObject
{
    Q_OBJECT

public:
    explicit Monitor(const Session &session)
        : m_session(session)
    {
    }

    void begin(int intervalMs);

private slots:
    void onStarted(const QString &id, const QVariantMap &details);
    void onTerminated(const QString &id, const QVariantMap &details);
    void onStateChanged(const QString &id, const QVariantMap &details);
    void onSelectedByOom(const QString &id);
    void onOwnerChanged(const QString &name, const QString &oldOwner, const QString &newOwner);
    void onBusGone();

private:
    void listen();
    Event &add(const Event &event);
    void flush();
    void print(const Event &event) const;
    void askWhy(Event &event, int pid);
    void look();
    void onLevel(const Reply &reply);
    void onSilent();
    void addService(bool isRunning, std::optional<bool> answers, const QString &text);

    const Session &m_session;
    QDBusServiceWatcher m_watcher;
    QTimer m_timer; // from one look at the memory level to the next
    QTimer m_patience; // runs while a look is not answered
    std::list<Event> m_events; // in their order, from the first one on that is not whole
    std::optional<int> m_level;
    bool m_isLooking = false;
    bool m_isSilent = false; // and that has been told
};

void Monitor::listen()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    const auto listen = [this, &bus](const char *signal, const char *slot) {
        bus.connect(Bus::sessionName, Bus::pathOf(QStringLiteral("Control1")),
                    Bus::interfaceOf(QStringLiteral("Control1")), QLatin1String(signal), this, slot);
    };
    listen("Started", SLOT(onStarted(QString, QVariantMap)));
    listen("Terminated", SLOT(onTerminated(QString, QVariantMap)));
    listen("StateChanged", SLOT(onStateChanged(QString, QVariantMap)));
    listen("SelectedByOom", SLOT(onSelectedByOom(QString)));
    bus.connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"),
                QStringLiteral("org.freedesktop.DBus.Local"), QStringLiteral("Disconnected"), this,
                SLOT(onBusGone()));
    m_watcher.setConnection(bus);
    m_watcher.setWatchMode(QDBusServiceWatcher::WatchForOwnerChange);
    m_watcher.addWatchedService(Bus::sessionName);
    connect(&m_watcher, &QDBusServiceWatcher::serviceOwnerChanged, this, &Monitor::onOwnerChanged);
}

void Monitor::begin(int intervalMs)
{
    listen();
    m_patience.setSingleShot(true);
    m_patience.setInterval(Bus::patienceMs);
    connect(&m_patience, &QTimer::timeout, this, &Monitor::onSilent);
    connect(&m_timer, &QTimer::timeout, this, &Monitor::look);
    m_timer.start(intervalMs);
    look();
}

Event &Monitor::add(const Event &event)
{
    m_events.push_back(event);
    return m_events.back();
}

void Monitor::flush()
{
    while (!m_events.empty() && m_events.front().isWhole) {
        print(m_events.front());
        m_events.pop_front();
    }
}

void Monitor::print(const Event &event) const
{
    QVariantMap data = event.details;
    data.insert(QStringLiteral("Event"), event.name);
    data.insert(QStringLiteral("Time"), event.time.toMSecsSinceEpoch());
    if (!event.id.isEmpty()) {
        data.insert(QStringLiteral("Id"), event.id);
    }
    const Output &output = m_session.output;
    const QString blanks = padded(event.name, eventWidth).mid(event.name.size());
    const QString line =
        QStringLiteral("%1  %2%3  %4  %5")
            .arg(output.highlighted(event.time.toString(QStringLiteral("HH:mm:ss.zzz")), Style::Dim),
                 output.highlighted(event.name, event.style), blanks, padded(printable(event.id), idWidth),
                 printable(event.text));
    output.event(data, line);
}

void Monitor::onStarted(const QString &id, const QVariantMap &details)
{
    const QVariantMap plain = plainValue(details).toMap();
    QString text = QStringLiteral("pid %1, %2")
                       .arg(plain.value(QStringLiteral("Pid")).toInt())
                       .arg(startReasonName(plain.value(QStringLiteral("StartReason")).toUInt()));
    const QString requestor = plain.value(QStringLiteral("RequestorId")).toString();
    if (!requestor.isEmpty()) {
        text += QStringLiteral(", by %1").arg(requestor);
    }
    add({ QStringLiteral("started"), Style::Good, id, text, plain });
    flush();
}

void Monitor::onTerminated(const QString &id, const QVariantMap &details)
{
    const QVariantMap plain = plainValue(details).toMap();
    const int pid = plain.value(QStringLiteral("Pid")).toInt();
    const QString text = QStringLiteral("pid %1, %2, %3")
                             .arg(pid)
                             .arg(waitStatusText(plain.value(QStringLiteral("ExitStatus")).toInt()),
                                  stopReasonName(plain.value(QStringLiteral("StopReason")).toUInt()));
    askWhy(add({ QStringLiteral("ended"), Style::Plain, id, text, plain }), pid);
}

/// The signal does not tell why. Who may not ask, or gets no answer, sees what it tells.
void Monitor::askWhy(Event &event, int pid)
{
    event.isWhole = false;
    QDBusMessage question = Bus::question(QStringLiteral("Introspect1"), QStringLiteral("GetHistory"));
    question << event.id << lookedThrough;
    // A list's elements stay where they are.
    Bus::callLater(question, Bus::answerTimeoutMs, this, [this, &event, pid](const Reply &reply) {
        event.isWhole = true;
        const QVariantList ends = reply.value().toList();
        for (const QVariant &entry : ends) {
            const QVariantMap end = entry.toMap();
            if (end.value(QStringLiteral("Pid")).toInt() != pid) {
                continue; // it has been started and ended again since
            }
            const QString decision = end.value(QStringLiteral("Decision")).toString();
            event.style = decisionStyle(decision);
            event.text = QStringLiteral("pid %1, %2").arg(pid).arg(decisionText(end));
            event.details.insert(QStringLiteral("Decision"), decision);
            for (const char *key : { "Detail", "RequestorId", "RequestorBus", "RequestorUid", "RequestorPid",
                                     "RequestorProgram" }) {
                if (end.contains(QLatin1String(key))) {
                    event.details.insert(QLatin1String(key), end.value(QLatin1String(key)));
                }
            }
            break;
        }
        flush();
    });
}

void Monitor::onStateChanged(const QString &id, const QVariantMap &details)
{
    const QVariantMap plain = plainValue(details).toMap();
    const uint state = plain.value(QStringLiteral("State")).toUInt();
    add({ QStringLiteral("state"), stateStyle(state), id, stateName(state), plain });
    flush();
}

void Monitor::onSelectedByOom(const QString &id)
{
    add({ QStringLiteral("oom"), Style::Bad, id, QStringLiteral("is killed for lack of memory"), {} });
    flush();
}

void Monitor::look()
{
    if (m_isLooking) {
        return;
    }
    m_isLooking = true;
    m_patience.start();
    auto call = QDBusMessage::createMethodCall(
        Bus::sessionName, Bus::pathOf(QStringLiteral("MemoryPressure1")),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    call << Bus::interfaceOf(QStringLiteral("MemoryPressure1")) << QStringLiteral("Level");
    call.setAutoStartService(false);
    Bus::callLater(call, Bus::answerTimeoutMs, this, [this](const Reply &reply) { onLevel(reply); });
}

void Monitor::onLevel(const Reply &reply)
{
    m_isLooking = false;
    m_patience.stop();
    if (reply.isSilent) {
        return; // onSilent() has told so
    }
    if (reply.failed()) {
        if (!m_level) {
            QCoreApplication::exit(m_session.fail(reply)); // there is nothing to watch
        }
        return; // onOwnerChanged() tells of a service that has gone
    }
    if (m_isSilent) {
        m_isSilent = false;
        addService(true, true, QStringLiteral("answers again"));
    }
    const int level = reply.value().toInt();
    if (m_level != level) {
        m_level = level;
        add({ QStringLiteral("memory"),
              memoryLevelStyle(level),
              QString(),
              memoryLevelName(level),
              { { QStringLiteral("Level"), level } } });
    }
    flush();
}

void Monitor::onSilent()
{
    if (!m_isSilent) {
        m_isSilent = true;
        addService(true, false, QStringLiteral("does not answer"));
        flush();
    }
}

void Monitor::addService(bool isRunning, std::optional<bool> answers, const QString &text)
{
    QVariantMap details = { { QStringLiteral("Running"), isRunning } };
    if (answers) {
        details.insert(QStringLiteral("Answers"), *answers);
    }
    const bool isFine = isRunning && answers.value_or(true);
    add({ QStringLiteral("service"), isFine ? Style::Good : Style::Bad, QString(), text, details });
}

void Monitor::onOwnerChanged(const QString & /*name*/, const QString & /*oldOwner*/, const QString &newOwner)
{
    const bool isThere = !newOwner.isEmpty();
    m_isSilent = false; // another one answers, or nobody
    addService(isThere, std::nullopt, isThere ? QStringLiteral("runs again") : QStringLiteral("has gone"));
    flush();
}

void Monitor::onBusGone()
{
    Output::error(QStringLiteral("The bus has gone"));
    QCoreApplication::exit(NotThere);
}

int monitorCommand(Session &session)
{
    session.arguments.addOption(
        { QStringLiteral("i"), QStringLiteral("interval") },
        QStringLiteral("Look at the memory level every MS milliseconds: 10 to 3600000, 1000 by default"),
        QStringLiteral("MS"));
    if (const auto end = session.begin(0, 0)) {
        return *end;
    }
    int intervalMs = defaultIntervalMs;
    if (session.arguments.isSet(QStringLiteral("interval"))) {
        constexpr uint shortest = 10;
        constexpr uint longest = 3600000;
        const auto number = session.arguments.number(QStringLiteral("interval"));
        if (!number) {
            return WrongUsage;
        }
        if (*number < shortest || *number > longest) {
            return session.arguments.wrong(
                QStringLiteral("Not from %1 to %2: %3").arg(shortest).arg(longest).arg(*number));
        }
        intervalMs = int(*number);
    }
    if (const auto reply = Bus::whyNoBus()) {
        return session.fail(*reply);
    }
    Monitor monitor(session);
    monitor.begin(intervalMs);
    return QCoreApplication::exec();
}

} // namespace Ctl

#include "monitor_command.moc"
