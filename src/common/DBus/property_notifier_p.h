#pragma once

#include <QDBusConnection>
#include <QHash>
#include <QMetaProperty>
#include <QObject>
#include <QStringList>
#include <QVariantMap>
#include <QVector>

namespace DBus {

/// Hears the notify signals: an object of its own, since their number and kind are known at run time only.
class PropertyNotifierPrivate : public QObject
{
    Q_OBJECT

public:
    PropertyNotifierPrivate(const QDBusConnection &connection, const QString &objectPath, QObject *object);

    void notifyProperties(const QStringList &names);

private slots:
    void onChanged();
    void deliverNotifySignal();

private:
    void findInterfaceName(const QMetaObject *metaObject);
    void connectAllProperties(const QMetaObject *metaObject);
    /// Puts the property's value into @p changed, if it differs from the last one that was sent
    /// and the bus can carry it.
    void collect(const QMetaProperty &property, QVariantMap &changed);
    void send(const QVariantMap &changed);

    QDBusConnection connection;
    QString objectPath;
    QString interfaceName;
    QObject *object; // the parent of the owner
    QHash<int, int> signalToProperty; // method index of the notify signal -> position in properties
    QVector<int> pending; // positions in properties, each once; emptied by the delivery
    QVector<QMetaProperty> properties; // those that notify, in the order of the class
    QVariantMap lastValues; // name -> what was sent last; nothing leaves it
};

} // namespace DBus
