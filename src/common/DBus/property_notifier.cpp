// A notify signal puts its property on the list of those that pend. The first one asks for a delivery, which
// the event loop makes when the burst is over: it sends what still differs then.

#include "DBus/property_notifier.h"

#include "DBus/property_notifier_p.h"

#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDebug>
#include <QMetaClassInfo>
#include <QMetaMethod>
#include <QMetaObject>

namespace DBus {

namespace {

// The bus library ends the program over a map in which a variant holds nothing that has a signature.
bool canTravel(const QVariant &value)
{
    return value.isValid() && QDBusMetaType::typeToSignature(value.userType());
}

} // namespace

PropertyNotifierPrivate::PropertyNotifierPrivate(const QDBusConnection &bus, const QString &path,
                                                 QObject *observed)
    : connection(bus)
    , objectPath(path)
    , object(observed)
{
    findInterfaceName(object->metaObject());
    connectAllProperties(object->metaObject());
}

void PropertyNotifierPrivate::findInterfaceName(const QMetaObject *metaObject)
{
    const int index = metaObject->indexOfClassInfo("D-Bus Interface");
    if (index < 0) {
        qWarning() << "Missing D_Bus interface tag on class";
        return;
    }
    interfaceName = QString::fromUtf8(metaObject->classInfo(index).value());
}

void PropertyNotifierPrivate::connectAllProperties(const QMetaObject *metaObject)
{
    const int slot = staticMetaObject.indexOfSlot("onChanged()");
    if (slot < 0) {
        qWarning() << "Slot onChanged() not found!";
        return;
    }
    for (int i = metaObject->propertyOffset(); i < metaObject->propertyCount(); ++i) {
        const QMetaProperty property = metaObject->property(i);
        if (!property.hasNotifySignal()) {
            continue;
        }
        connect(object, property.notifySignal(), this, staticMetaObject.method(slot));
        signalToProperty.insert(property.notifySignalIndex(), properties.size());
        properties.append(property);
    }
}

void PropertyNotifierPrivate::onChanged()
{
    const int signal = senderSignalIndex();
    if (signal < 0) {
        qWarning() << "onChanged() invoked without a signal?";
        return;
    }
    const auto found = signalToProperty.constFind(signal);
    if (found == signalToProperty.constEnd()) {
        qWarning() << "Cannot find property for signal" << signal;
        return;
    }
    const int position = *found;
    if (pending.contains(position)) {
        return;
    }
    const QMetaProperty &property = properties.at(position);
    if (property.read(object) == lastValues.value(QString::fromUtf8(property.name()))) {
        return;
    }
    if (pending.isEmpty()) {
        QMetaObject::invokeMethod(this, "deliverNotifySignal", Qt::QueuedConnection);
    }
    pending.append(position);
}

void PropertyNotifierPrivate::deliverNotifySignal()
{
    QVariantMap changed;
    for (const int position : qAsConst(pending)) {
        collect(properties.at(position), changed);
    }
    send(changed);
    pending.clear();
}

void PropertyNotifierPrivate::notifyProperties(const QStringList &names)
{
    const QMetaObject *const metaObject = object->metaObject();
    QVariantMap changed;
    for (int i = metaObject->propertyOffset(); i < metaObject->propertyCount(); ++i) {
        const QMetaProperty property = metaObject->property(i);
        if (names.isEmpty() || names.contains(QString::fromUtf8(property.name()))) {
            collect(property, changed);
        }
    }
    send(changed);
}

void PropertyNotifierPrivate::collect(const QMetaProperty &property, QVariantMap &changed)
{
    const QString name = QString::fromUtf8(property.name());
    const QVariant value = property.read(object);
    if (value == lastValues.value(name)) {
        return;
    }
    lastValues.insert(name, value);
    if (canTravel(value)) {
        changed.insert(name, value);
    }
}

void PropertyNotifierPrivate::send(const QVariantMap &changed)
{
    if (changed.isEmpty()) {
        return;
    }
    auto signal = QDBusMessage::createSignal(objectPath, QStringLiteral("org.freedesktop.DBus.Properties"),
                                             QStringLiteral("PropertiesChanged"));
    signal << interfaceName << changed << QStringList();
    connection.send(signal);
}

PropertyNotifier::PropertyNotifier(const QDBusConnection &connection, const QString &objectPath,
                                   QObject *object)
    : QObject(object)
    , d(std::make_unique<PropertyNotifierPrivate>(connection, objectPath, object))
{
}

PropertyNotifier::~PropertyNotifier() = default;

void PropertyNotifier::notifyProperties(const QStringList &names)
{
    d->notifyProperties(names);
}

} // namespace DBus
