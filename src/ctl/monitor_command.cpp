#include "running_text.h"
#include "session.h"
#include "text_width.h"
#include "wire_value.h"
#include "words.h"

#include <QCoreApplication>
#include <QDBusServiceWatcher>
#include <QDateTime>
#include <QTimer>

namespace Ctl {

namespace {

constexpr int defaultIntervalMs =
    1000; // memory levels cannot be listened to without taking an application's place
constexpr uint lookedThrough =
    20; // ends, for the one that a signal tells of: the latest but for a slow reader
constexpr int eventWidth = 10;
constexpr int idWidth = 32;

} // namespace

/// Prints what happens, until the program is ended.
class Monitor : public QObject
{
    Q_OBJECT

public:
    explicit Monitor(const Session &session)
        : m_session(session)
    {
    }

    /// @returns the exit status if there is nothing to watch.
    std::optional<int> begin(int intervalMs);

private slots:
    void onStarted(const QString &id, const QVariantMap &details);
    void onTerminated(const QString &id, const QVariantMap &details);
    void onStateChanged(const QString &id, const QVariantMap &details);
    void onSelectedByOom(const QString &id);
    void onLevelChecked();
    void onOwnerChanged(const QString &name, const QString &oldOwner, const QString &newOwner);
    void onBusGone();

private:
    void print(const QString &event, Style style, const QString &id, const QString &text,
               const QVariantMap &details);
    Reply readLevel() const;

    const Session &m_session;
    QDBusServiceWatcher m_watcher;
    QTimer m_timer;
    int m_level = 0;
};

std::optional<int> Monitor::begin(int intervalMs)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    const auto listen = [this, &bus](const char *signal, const char *slot) {
        return bus.connect(Bus::sessionName, Bus::pathOf(QStringLiteral("Control1")),
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

    const Reply level = readLevel();
    if (level.failed()) {
        return m_session.fail(level);
    }
    m_level = level.value().toInt();
    print(QStringLiteral("memory"), memoryLevelStyle(m_level), QString(), memoryLevelName(m_level),
          { { QStringLiteral("Level"), m_level } });
    connect(&m_timer, &QTimer::timeout, this, &Monitor::onLevelChecked);
    m_timer.start(intervalMs);
    return std::nullopt;
}

void Monitor::print(const QString &event, Style style, const QString &id, const QString &text,
                    const QVariantMap &details)
{
    const QDateTime now = QDateTime::currentDateTime();
    QVariantMap data = details;
    data.insert(QStringLiteral("Event"), event);
    data.insert(QStringLiteral("Time"), now.toMSecsSinceEpoch());
    if (!id.isEmpty()) {
        data.insert(QStringLiteral("Id"), id);
    }
    const Output &output = m_session.output;
    const QString blanks = padded(event, eventWidth).mid(event.size());
    const QString line =
        QStringLiteral("%1  %2%3  %4  %5")
            .arg(output.highlighted(now.toString(QStringLiteral("HH:mm:ss.zzz")), Style::Dim),
                 output.highlighted(event, style), blanks, padded(printable(id), idWidth), printable(text));
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
    print(QStringLiteral("started"), Style::Good, id, text, plain);
}

void Monitor::onTerminated(const QString &id, const QVariantMap &details)
{
    QVariantMap plain = plainValue(details).toMap();
    const int pid = plain.value(QStringLiteral("Pid")).toInt();
    QString text = QStringLiteral("pid %1, %2, %3")
                       .arg(pid)
                       .arg(waitStatusText(plain.value(QStringLiteral("ExitStatus")).toInt()),
                            stopReasonName(plain.value(QStringLiteral("StopReason")).toUInt()));
    Style style = Style::Plain;
    // The signal does not tell why. Who may not ask sees what it tells.
    const Reply history =
        m_session.bus.ask(QStringLiteral("Introspect1"), QStringLiteral("GetHistory"), { id, lookedThrough });
    const QVariantList ends = history.value().toList();
    for (const QVariant &entry : ends) {
        const QVariantMap end = entry.toMap();
        if (end.value(QStringLiteral("Pid")).toInt() != pid) {
            continue; // it has been started and ended again since
        }
        const QString decision = end.value(QStringLiteral("Decision")).toString();
        style = decisionStyle(decision);
        text = QStringLiteral("pid %1, %2").arg(pid).arg(decisionText(end));
        plain.insert(QStringLiteral("Decision"), decision);
        plain.insert(QStringLiteral("Detail"), end.value(QStringLiteral("Detail")));
        break;
    }
    print(QStringLiteral("ended"), style, id, text, plain);
}

void Monitor::onStateChanged(const QString &id, const QVariantMap &details)
{
    const QVariantMap plain = plainValue(details).toMap();
    const uint state = plain.value(QStringLiteral("State")).toUInt();
    print(QStringLiteral("state"), stateStyle(state), id, stateName(state), plain);
}

void Monitor::onSelectedByOom(const QString &id)
{
    print(QStringLiteral("oom"), Style::Bad, id, QStringLiteral("is killed for lack of memory"), {});
}

Reply Monitor::readLevel() const
{
    auto call = QDBusMessage::createMethodCall(
        Bus::sessionName, Bus::pathOf(QStringLiteral("MemoryPressure1")),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    call << Bus::interfaceOf(QStringLiteral("MemoryPressure1")) << QStringLiteral("Level");
    call.setAutoStartService(false);
    return m_session.bus.call(call);
}

void Monitor::onLevelChecked()
{
    const Reply reply = readLevel();
    if (reply.failed() || reply.value().toInt() == m_level) {
        return; // onOwnerChanged() tells of a service that has gone
    }
    m_level = reply.value().toInt();
    print(QStringLiteral("memory"), memoryLevelStyle(m_level), QString(), memoryLevelName(m_level),
          { { QStringLiteral("Level"), m_level } });
}

void Monitor::onOwnerChanged(const QString & /*name*/, const QString & /*oldOwner*/, const QString &newOwner)
{
    const bool isThere = !newOwner.isEmpty();
    print(QStringLiteral("service"), isThere ? Style::Good : Style::Bad, QString(),
          isThere ? QStringLiteral("runs again") : QStringLiteral("has gone"),
          { { QStringLiteral("Running"), isThere } });
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
        QStringLiteral("Look at the memory level every MS milliseconds: 10 or more, 1000 by default"),
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
        intervalMs = int(std::clamp(*number, shortest, longest));
    }
    Monitor monitor(session);
    if (const auto end = monitor.begin(intervalMs)) {
        return *end;
    }
    return QCoreApplication::exec();
}

} // namespace Ctl

#include "monitor_command.moc"
