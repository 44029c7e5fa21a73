#pragma once

#include <QObject>
#include <QStringList>

#include <memory>

class QDBusConnection;

namespace DBus {

class PropertyNotifierPrivate;

/// Tells the bus what changes among the properties of an exported object, which Qt does not do by itself.
///
/// Whenever notify signals of the object have come, one "PropertiesChanged" of the standard properties
/// interface follows at the next turn of the event loop, with the values that differ from those that were
/// sent last. Nothing counts as sent at first: the first signal of a property is always passed on.
///
/// Only properties of the object's own class are looked at, not inherited ones. Where properties share a
/// notify signal, only the last of them is told. Main thread only.
class PropertyNotifier : public QObject
{
    Q_OBJECT

public:
    /// @param object becomes the parent. Its class should name its interface as the class information
    ///        "D-Bus Interface"; a warning tells if it does not, and the signals then name none.
    PropertyNotifier(const QDBusConnection &connection, const QString &objectPath, QObject *object);
    ~PropertyNotifier() override;

    /// Looks at the properties now and sends those that have changed, also ones that have no notify signal.
    /// @param names which ones; empty: all
    void notifyProperties(const QStringList &names);

private:
    const std::unique_ptr<PropertyNotifierPrivate> d;
};

} // namespace DBus
