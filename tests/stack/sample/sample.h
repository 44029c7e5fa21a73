#pragma once

#include <QDBusContext>
#include <QFile>
#include <QObject>
#include <QTimer>
#include <QVariantMap>

/// What one run of the sample application was asked to do.
struct SampleOptions
{
    QString busName; ///< name to own on the session bus, empty: none
    QString directory; ///< where the diary and the tick count are written
    QString instanceId; ///< or full task id: name of the files there
    QStringList arguments; ///< the whole command line, as it arrived
    bool lifecycle = true; ///< ask for the own state at the start, and listen to its changes
    bool memoryPressure = false; ///< subscribe to the memory level at the start
    bool notifications = false; ///< note the events of notifications
    int tickMs = 20;
};

/// An application as the service sees one: it owns a bus name, asks for its state, hears the changes, and
/// counts, so that one can see from outside whether it is given time to run.
///
/// It writes two files into its directory: `<instance or task id>.ticks`, the count as decimal text of a
/// fixed width, rewritten in place; and `<id>.diary`, one line per event, in the order they happened.
class Sample : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.example.Sample1")

public:
    explicit Sample(const SampleOptions &options, QObject *parent = nullptr);

    /// Opens the files, owns the name, asks the service. False if the files or the name cannot be had.
    bool start();

    /// Adds a line to the diary and prints it. Safe to call at any time after start().
    void note(const QString &line);

public slots:
    uint Ticks() const { return m_ticks; }
    /// State heard last: 0 to 4 as on the wire, -1 if none.
    int State() const { return m_state; }
    /// Process id as this process sees it, which a sandbox may make another than the real one.
    int Pid() const;
    QStringList Arguments() const { return m_options.arguments; }
    /// The whole environment, each `NAME=value`.
    QStringList Environment() const;
    /// Descriptors that are open, each `number target`.
    QStringList OpenFiles() const;
    /// Calls `method` (`service path interface method`) with string arguments, from this process.
    /// Returns the reply's arguments as text, or `error <name>: <message>` as the only element.
    QStringList Call(const QString &target, const QStringList &arguments);
    /// The same with arguments of any type.
    QStringList CallWith(const QString &target, const QVariantList &arguments);
    /// Starts a child that does nothing; in a group of its own if asked for. Returns its pid as seen here.
    int SpawnChild(bool ownGroup);
    /// Runs a program, path and arguments, as a child in this process's group. Answers when it has ended,
    /// with its exit code (-1: none) and what it has printed.
    int Run(const QStringList &command, QString &output);
    void Quit(int code);

private slots:
    void onStateChanged(const QString &appId, uint state);
    void onPropertiesChanged(const QString &interface, const QVariantMap &changed,
                             const QStringList &invalidated);
    void onActionInvoked(uint id, const QString &actionKey);
    void onInputTextSet(uint id, const QString &input);
    void onNotificationClosed(uint id, uint reason);

private:
    void tick();
    void askForState();
    void subscribeToMemoryLevel();
    void listenToNotifications();

    const SampleOptions m_options;
    QFile m_diary;
    QFile m_tickFile;
    QTimer m_timer;
    uint m_ticks = 0;
    int m_state = -1;
};
