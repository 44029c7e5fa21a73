#include "Core/dbus_name_watcher.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QHash>
#include <QList>
#include <QPointer>
#include <QSet>

namespace Core {

namespace {

struct Entry
{
    QPointer<QObject> guard;
    DBusNameWatcher::Callback callback;
};

using Entries = QHash<QString, QList<std::shared_ptr<Entry>>>;

// What a callback has with it may be large, and its name may never come.
void forgetUnguarded(Entries &entries, const QString &name)
{
    const auto list = entries.find(name);
    if (list == entries.end()) {
        return;
    }
    QList<std::shared_ptr<Entry>> guarded;
    for (const std::shared_ptr<Entry> &entry : qAsConst(*list)) {
        if (entry->guard) {
            guarded.append(entry);
        }
    }
    list->swap(guarded);
    if (list->isEmpty()) {
        entries.erase(list);
    }
    // Only now the others go: with them, other guards may, which comes back here.
}

// A callback may register the next one for the same name, or delete the guard of another: the list has left
// the table before the first of them runs, and each guard is looked at when its turn comes.
void fire(Entries &entries, const QString &name)
{
    const QList<std::shared_ptr<Entry>> list = entries.take(name);
    for (const std::shared_ptr<Entry> &entry : list) {
        if (entry->guard) {
            entry->callback();
        }
    }
}

} // namespace

class DBusNameWatcherPrivate
{
public:
    explicit DBusNameWatcherPrivate(const QDBusConnection &bus)
        : connection(bus)
    {
    }

    void add(Entries &entries, const QString &name, QObject *guard,
             const DBusNameWatcher::Callback &callback);
    void nameAppeared(const QString &name);
    void nameDisappeared(const QString &name);

    QDBusConnection connection;
    QSet<QString> names; // those that have an owner; empty: the bus has not answered yet
    Entries appearing; // name -> who waits; removed when the name appears, or with its guard
    Entries disappearing; // name -> who waits; removed when the name disappears, or with its guard
    QObject context; // of the connections that look after the tables, and gone before them
};

void DBusNameWatcherPrivate::add(Entries &entries, const QString &name, QObject *guard,
                                 const DBusNameWatcher::Callback &callback)
{
    // One without a guard would be dropped when its turn comes: kept until then, they would only pile up.
    if (!guard) {
        return;
    }
    entries[name].append(std::make_shared<Entry>(Entry { guard, callback }));
    QObject::connect(guard, &QObject::destroyed, &context,
                     [&entries, name] { forgetUnguarded(entries, name); });
}

void DBusNameWatcherPrivate::nameAppeared(const QString &name)
{
    names.insert(name);
    fire(appearing, name);
}

void DBusNameWatcherPrivate::nameDisappeared(const QString &name)
{
    names.remove(name);
    fire(disappearing, name);
}

DBusNameWatcher *DBusNameWatcher::instance()
{
    static auto *watcher = new DBusNameWatcher(QDBusConnection::sessionBus());
    return watcher;
}

DBusNameWatcher::DBusNameWatcher(const QDBusConnection &connection, QObject *parent)
    : QObject(parent)
    , d(new DBusNameWatcherPrivate(connection))
{
    if (!d->connection.isConnected()) {
        return; // no bus: no name has an owner, and nothing will ever be known
    }
    // Not by the signal of the bus interface: that object lives on Qt's own thread for the bus and passes on
    // what it hears in a later turn, so that a call would overtake the news of its caller's name.
    const QString bus = QStringLiteral("org.freedesktop.DBus");
    const QString path = QStringLiteral("/org/freedesktop/DBus");
    d->connection.connect(bus, path, bus, QStringLiteral("NameOwnerChanged"), this,
                          SLOT(onNameOwnerChanged(QString, QString, QString)));
    // Nor by a pending call watcher, which is made after the call was sent: an answer that is faster comes a
    // turn later, and a name that went meanwhile would be taken for there.
    d->connection.callWithCallback(
        QDBusMessage::createMethodCall(bus, path, bus, QStringLiteral("ListNames")), this,
        SLOT(onNamesListed(QStringList)));
}

DBusNameWatcher::~DBusNameWatcher() = default;

void DBusNameWatcher::onNamesListed(const QStringList &names)
{
    for (const QString &name : names) {
        d->nameAppeared(name);
    }
}

void DBusNameWatcher::onNameOwnerChanged(const QString &name, const QString &, const QString &newOwner)
{
    if (newOwner.isEmpty()) {
        d->nameDisappeared(name);
    } else {
        d->nameAppeared(name);
    }
}

void DBusNameWatcher::onNameAppeared(const QString &name, QObject *guard, const Callback &callback)
{
    if (d->names.contains(name)) {
        callback();
    } else {
        d->add(d->appearing, name, guard, callback);
    }
}

void DBusNameWatcher::onNameDisappeared(const QString &name, QObject *guard, const Callback &callback)
{
    if (!d->names.isEmpty() && !d->names.contains(name)) {
        callback();
    } else {
        d->add(d->disappearing, name, guard, callback);
    }
}

} // namespace Core
