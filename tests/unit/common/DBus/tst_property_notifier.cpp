// An object on a bus of its own; a second connection hears what is told about it.

#include "DBus/property_notifier.h"
#include "DBus/property_notifier_p.h"
#include "DBus/types.h"

#include "support/log_capture.h"
#include "support/private_bus.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QPointer>
#include <QtTest>

using DBus::PropertyNotifier;
using DBus::PropertyNotifierPrivate;
using TestSupport::LogCapture;
using TestSupport::PrivateBus;

namespace {

const QString path = QStringLiteral("/org/example/Device");
const QString properties = QStringLiteral("org.freedesktop.DBus.Properties");

QVector<Procwarden::ActiveTask> tasks(const QStringList &ids)
{
    QVector<Procwarden::ActiveTask> tasks;
    for (const QString &id : ids) {
        tasks.append({ id, 5, {} });
    }
    return tasks;
}

} // namespace

class Base : public QObject
{
    Q_OBJECT
    Q_PROPERTY(int Inherited MEMBER inherited NOTIFY inheritedChanged)

public:
    int inherited = 0;

signals:
    void inheritedChanged();
};

class Device : public Base
{
    Q_OBJECT
    Q_CLASSINFO("Version", "1")
    Q_CLASSINFO("D-Bus Interface", "org.example.Device1")
    Q_PROPERTY(QString Title MEMBER title NOTIFY titleChanged)
    Q_PROPERTY(int Silent MEMBER silent)
    Q_PROPERTY(int Level MEMBER level NOTIFY levelChanged)
    Q_PROPERTY(int Left MEMBER left NOTIFY sidesChanged)
    Q_PROPERTY(int Right MEMBER right NOTIFY sidesChanged)
    Q_PROPERTY(QVector<Procwarden::ActiveTask> Tasks READ taskList NOTIFY tasksChanged)
    Q_PROPERTY(QVariant Anything MEMBER anything NOTIFY anythingChanged)

public:
    void setTitle(const QString &value)
    {
        title = value;
        emit titleChanged();
    }
    void setLevel(int value)
    {
        level = value;
        emit levelChanged(value);
    }

    QVector<Procwarden::ActiveTask> taskList() const
    {
        QVector<Procwarden::ActiveTask> list; // a list of its own at each read
        for (const Procwarden::ActiveTask &task : tasks) {
            list.append(task);
        }
        return list;
    }

    QString title;
    int silent = 0;
    int level = 0;
    int left = 0;
    int right = 0;
    QVector<Procwarden::ActiveTask> tasks;
    QVariant anything;

signals:
    void titleChanged();
    void levelChanged(int level);
    void sidesChanged();
    void tasksChanged();
    void anythingChanged();
    void unrelated();
};

class Nameless : public QObject
{
    Q_OBJECT
    Q_PROPERTY(int Level MEMBER level NOTIFY levelChanged)

public:
    int level = 0;

signals:
    void levelChanged();
};

/// Counts the calls that are queued for an object.
class QueuedCalls : public QObject
{
    Q_OBJECT

public:
    explicit QueuedCalls(QObject *watched) { watched->installEventFilter(this); }

    int count = 0;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::MetaCall) {
            ++count;
        }
        return QObject::eventFilter(watched, event);
    }
};

class tst_PropertyNotifier : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void theSignalIsTheStandardOne();
    void nothingIsSentBeforeAChange();
    void theFirstNotificationIsPassedOnWhateverTheValue();
    void severalChangesOfOnePropertyMakeOneSignal();
    void changesOfTwoPropertiesMakeOneSignal();
    void signalsOfTwoTurnsAreTwo();
    void whatGoesBackInTheSameTurnIsNotSent();
    void whatGoesBackBesideAnotherChangeIsLeftOut();
    void anUnchangedValueQueuesNothing();
    void severalChangesQueueOneDelivery();
    void aChangeDuringTheDeliverysTurnIsNotLost();
    void inheritedPropertiesAreNotWatched();
    void aPropertyWithoutASignalIsNotSentByOthers();
    void ofTwoPropertiesWithOneSignalTheLaterOneIsTold();
    void listsOfStructuresAlwaysCountAsChanged();
    void emptyListsAreEqual();
    void aListOfStructuresArrivesAsSuch();
    void whatTheBusCannotCarryIsLeftOut_data();
    void whatTheBusCannotCarryIsLeftOut();

    void notifyPropertiesSendsAtOnce();
    void notifyPropertiesReachesWhatHasNoSignal();
    void notifyPropertiesWithoutNamesMeansAll();
    void notifyPropertiesSkipsWhatIsUnknownOrInherited();
    void notifyPropertiesSendsWhatDiffersOnly();
    void notifyPropertiesLeavesADeliveryPending();

    void aClassWithoutAnInterfaceIsWarnedOf();
    void aCallWithoutASignalIsWarnedOf();
    void aSignalThatIsUnknownIsWarnedOf();
    void theNotifierGoesWithTheObject();
    void anObjectThatGoesWithAChangePendingSendsNothing();
    void aConnectionThatIsNoneDoesNoHarm();

    void onPropertiesChanged(const QDBusMessage &message) { m_signals.append(message); }

private:
    /// The signals until now: once both connections have had an answer from the bus, all have come.
    QList<QDBusMessage> heard();
    /// The map of the only signal until now.
    QVariantMap onlyChange();

    PrivateBus m_bus;
    QDBusConnection m_sender { m_bus.connect() };
    QDBusConnection m_receiver { m_bus.connect() };
    QList<QDBusMessage> m_signals;
    std::unique_ptr<Device> m_device;
    PropertyNotifier *m_notifier = nullptr;
};

void tst_PropertyNotifier::initTestCase()
{
    Procwarden::registerTypes();
    QVERIFY(m_receiver.connect(QString(), QString(), properties, QStringLiteral("PropertiesChanged"), this,
                               SLOT(onPropertiesChanged(QDBusMessage))));
}

void tst_PropertyNotifier::init()
{
    m_device = std::make_unique<Device>();
    m_notifier = new PropertyNotifier(m_sender, path, m_device.get());
}

void tst_PropertyNotifier::cleanup()
{
    m_device.reset();
    heard();
}

QList<QDBusMessage> tst_PropertyNotifier::heard()
{
    QCoreApplication::processEvents(); // deliveries
    QCoreApplication::processEvents(); // and those that they have led to
    m_sender.interface()->registeredServiceNames();
    m_receiver.interface()->registeredServiceNames();
    QCoreApplication::processEvents();
    QList<QDBusMessage> all;
    all.swap(m_signals);
    return all;
}

QVariantMap tst_PropertyNotifier::onlyChange()
{
    const QList<QDBusMessage> all = heard();
    if (all.size() != 1) {
        return { { QStringLiteral("signals"), all.size() } };
    }
    return qdbus_cast<QVariantMap>(all.constFirst().arguments().value(1));
}

void tst_PropertyNotifier::theSignalIsTheStandardOne()
{
    m_device->setLevel(3);
    const QList<QDBusMessage> all = heard();
    QCOMPARE(all.size(), 1);
    const QDBusMessage &signal = all.constFirst();
    QCOMPARE(signal.path(), path);
    QCOMPARE(signal.interface(), properties);
    QCOMPARE(signal.member(), QStringLiteral("PropertiesChanged"));
    QCOMPARE(signal.signature(), QStringLiteral("sa{sv}as"));
    QCOMPARE(signal.service(), m_sender.baseService());
    QCOMPARE(signal.arguments().at(0).toString(), QStringLiteral("org.example.Device1"));
    QCOMPARE(qdbus_cast<QVariantMap>(signal.arguments().at(1)),
             (QVariantMap { { QStringLiteral("Level"), 3 } }));
    QCOMPARE(signal.arguments().at(2).toStringList(), QStringList());
}

void tst_PropertyNotifier::nothingIsSentBeforeAChange()
{
    QVERIFY(heard().isEmpty());
}

void tst_PropertyNotifier::theFirstNotificationIsPassedOnWhateverTheValue()
{
    emit m_device->levelChanged(0);
    QCOMPARE(onlyChange(), (QVariantMap { { QStringLiteral("Level"), 0 } }));
}

void tst_PropertyNotifier::severalChangesOfOnePropertyMakeOneSignal()
{
    m_device->setLevel(1);
    m_device->setLevel(2);
    m_device->setLevel(3);
    QCOMPARE(onlyChange(), (QVariantMap { { QStringLiteral("Level"), 3 } }));
}

void tst_PropertyNotifier::changesOfTwoPropertiesMakeOneSignal()
{
    m_device->setLevel(7);
    m_device->setTitle(QStringLiteral("seven"));
    QCOMPARE(onlyChange(),
             (QVariantMap { { QStringLiteral("Level"), 7 },
                            { QStringLiteral("Title"), QStringLiteral("seven") } }));
}

void tst_PropertyNotifier::signalsOfTwoTurnsAreTwo()
{
    m_device->setLevel(1);
    QCOMPARE(onlyChange(), (QVariantMap { { QStringLiteral("Level"), 1 } }));
    m_device->setLevel(2);
    QCOMPARE(onlyChange(), (QVariantMap { { QStringLiteral("Level"), 2 } }));
}

void tst_PropertyNotifier::whatGoesBackInTheSameTurnIsNotSent()
{
    m_device->setLevel(1);
    QCOMPARE(heard().size(), 1);
    m_device->setLevel(2);
    m_device->setLevel(1);
    QVERIFY(heard().isEmpty());
    m_device->setLevel(2);
    QCOMPARE(onlyChange(), (QVariantMap { { QStringLiteral("Level"), 2 } }));
}

void tst_PropertyNotifier::whatGoesBackBesideAnotherChangeIsLeftOut()
{
    m_device->setLevel(1);
    QCOMPARE(heard().size(), 1);
    m_device->setLevel(2);
    m_device->setTitle(QStringLiteral("new"));
    m_device->setLevel(1);
    QCOMPARE(onlyChange(), (QVariantMap { { QStringLiteral("Title"), QStringLiteral("new") } }));
}

void tst_PropertyNotifier::anUnchangedValueQueuesNothing()
{
    PropertyNotifierPrivate notifier(m_sender, path, m_device.get());
    m_device->setLevel(4);
    heard();
    QueuedCalls calls(&notifier);
    emit m_device->levelChanged(4);
    QVERIFY(heard().isEmpty());
    QCOMPARE(calls.count, 0);
}

void tst_PropertyNotifier::severalChangesQueueOneDelivery()
{
    PropertyNotifierPrivate notifier(m_sender, path, m_device.get());
    QueuedCalls calls(&notifier);
    m_device->setLevel(4);
    m_device->setTitle(QStringLiteral("four"));
    m_device->setLevel(5);
    heard();
    QCOMPARE(calls.count, 1);
}

// The change comes once the delivery is queued, by an event behind it in the same round.
void tst_PropertyNotifier::aChangeDuringTheDeliverysTurnIsNotLost()
{
    m_device->setLevel(1);
    QMetaObject::invokeMethod(
        m_device.get(), [this] { m_device->setLevel(2); }, Qt::QueuedConnection);
    const QList<QDBusMessage> all = heard();
    QCOMPARE(all.size(), 2);
    QCOMPARE(qdbus_cast<QVariantMap>(all.at(0).arguments().at(1)),
             (QVariantMap { { QStringLiteral("Level"), 1 } }));
    QCOMPARE(qdbus_cast<QVariantMap>(all.at(1).arguments().at(1)),
             (QVariantMap { { QStringLiteral("Level"), 2 } }));
}

void tst_PropertyNotifier::inheritedPropertiesAreNotWatched()
{
    m_device->inherited = 5;
    emit m_device->inheritedChanged();
    QVERIFY(heard().isEmpty());
}

void tst_PropertyNotifier::aPropertyWithoutASignalIsNotSentByOthers()
{
    m_device->silent = 1;
    m_device->setLevel(1);
    QCOMPARE(onlyChange(), (QVariantMap { { QStringLiteral("Level"), 1 } }));
}

void tst_PropertyNotifier::ofTwoPropertiesWithOneSignalTheLaterOneIsTold()
{
    m_device->left = 1;
    m_device->right = 2;
    emit m_device->sidesChanged();
    QCOMPARE(onlyChange(), (QVariantMap { { QStringLiteral("Right"), 2 } }));
    m_device->left = 3;
    emit m_device->sidesChanged();
    QVERIFY(heard().isEmpty());
}

void tst_PropertyNotifier::listsOfStructuresAlwaysCountAsChanged()
{
    m_device->tasks = tasks({ QStringLiteral("a") });
    emit m_device->tasksChanged();
    QCOMPARE(heard().size(), 1);
    emit m_device->tasksChanged();
    QCOMPARE(heard().size(), 1);
    emit m_device->tasksChanged();
    emit m_device->tasksChanged();
    QCOMPARE(heard().size(), 1);
}

void tst_PropertyNotifier::emptyListsAreEqual()
{
    emit m_device->tasksChanged();
    QCOMPARE(heard().size(), 1);
    emit m_device->tasksChanged();
    QVERIFY(heard().isEmpty());
}

void tst_PropertyNotifier::aListOfStructuresArrivesAsSuch()
{
    m_device->tasks = tasks({ QStringLiteral("org.example.App.task_a"), QStringLiteral("b") });
    emit m_device->tasksChanged();
    const auto argument = onlyChange().value(QStringLiteral("Tasks")).value<QDBusArgument>();
    QCOMPARE(argument.currentSignature(), QStringLiteral("a(sia{sv})"));
    const auto received = qdbus_cast<QVector<Procwarden::ActiveTask>>(argument);
    QCOMPARE(received.size(), 2);
    QCOMPARE(received.at(0).id, QStringLiteral("org.example.App.task_a"));
    QCOMPARE(received.at(0).pid, 5);
    QCOMPARE(received.at(1).id, QStringLiteral("b"));

    m_device->tasks.clear();
    emit m_device->tasksChanged();
    const auto empty = onlyChange().value(QStringLiteral("Tasks")).value<QDBusArgument>();
    QCOMPARE(empty.currentSignature(), QStringLiteral("a(sia{sv})"));
}

void tst_PropertyNotifier::whatTheBusCannotCarryIsLeftOut_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::newRow("nothing") << QVariant();
    QTest::newRow("a type without a signature") << QVariant(QRegularExpression(QStringLiteral("a")));
}

void tst_PropertyNotifier::whatTheBusCannotCarryIsLeftOut()
{
    QFETCH(QVariant, value);
    m_device->anything = 1;
    emit m_device->anythingChanged();
    QCOMPARE(heard().size(), 1);

    m_device->anything = value;
    emit m_device->anythingChanged();
    QVERIFY(heard().isEmpty());
    m_device->anything = value;
    m_device->setLevel(1);
    emit m_device->anythingChanged();
    QCOMPARE(onlyChange(), (QVariantMap { { QStringLiteral("Level"), 1 } }));

    m_device->anything = 1;
    emit m_device->anythingChanged();
    QCOMPARE(onlyChange(), (QVariantMap { { QStringLiteral("Anything"), 1 } }));
}

void tst_PropertyNotifier::notifyPropertiesSendsAtOnce()
{
    m_device->level = 9;
    m_notifier->notifyProperties({ QStringLiteral("Level") });
    QCOMPARE(onlyChange(), (QVariantMap { { QStringLiteral("Level"), 9 } }));
}

void tst_PropertyNotifier::notifyPropertiesReachesWhatHasNoSignal()
{
    m_device->silent = 2;
    m_notifier->notifyProperties({ QStringLiteral("Silent") });
    QCOMPARE(onlyChange(), (QVariantMap { { QStringLiteral("Silent"), 2 } }));
}

void tst_PropertyNotifier::notifyPropertiesWithoutNamesMeansAll()
{
    m_device->anything = true;
    m_notifier->notifyProperties({});
    QCOMPARE(onlyChange().keys(),
             (QStringList { QStringLiteral("Anything"), QStringLiteral("Left"), QStringLiteral("Level"),
                            QStringLiteral("Right"), QStringLiteral("Silent"), QStringLiteral("Tasks"),
                            QStringLiteral("Title") }));
}

void tst_PropertyNotifier::notifyPropertiesSkipsWhatIsUnknownOrInherited()
{
    m_notifier->notifyProperties({ QStringLiteral("Inherited"), QStringLiteral("None"), QString() });
    QVERIFY(heard().isEmpty());
}

void tst_PropertyNotifier::notifyPropertiesSendsWhatDiffersOnly()
{
    const QStringList names { QStringLiteral("Silent"), QStringLiteral("Level") };
    m_notifier->notifyProperties(names);
    QCOMPARE(heard().size(), 1);
    m_notifier->notifyProperties(names);
    QVERIFY(heard().isEmpty());
    m_device->silent = 1;
    m_notifier->notifyProperties(names);
    QCOMPARE(onlyChange(), (QVariantMap { { QStringLiteral("Silent"), 1 } }));
}

void tst_PropertyNotifier::notifyPropertiesLeavesADeliveryPending()
{
    m_device->setLevel(1);
    m_device->setTitle(QStringLiteral("new"));
    m_notifier->notifyProperties({ QStringLiteral("Level") });
    const QList<QDBusMessage> all = heard();
    QCOMPARE(all.size(), 2);
    QCOMPARE(qdbus_cast<QVariantMap>(all.at(0).arguments().at(1)),
             (QVariantMap { { QStringLiteral("Level"), 1 } }));
    QCOMPARE(qdbus_cast<QVariantMap>(all.at(1).arguments().at(1)),
             (QVariantMap { { QStringLiteral("Title"), QStringLiteral("new") } }));
}

void tst_PropertyNotifier::aClassWithoutAnInterfaceIsWarnedOf()
{
    Nameless nameless;
    QTest::ignoreMessage(QtWarningMsg, "Missing D_Bus interface tag on class");
    new PropertyNotifier(m_sender, path, &nameless);
    emit nameless.levelChanged();
    const QList<QDBusMessage> all = heard();
    QCOMPARE(all.size(), 1);
    QCOMPARE(all.constFirst().signature(), QStringLiteral("sa{sv}as"));
    QCOMPARE(all.constFirst().arguments().at(0).toString(), QString());
}

void tst_PropertyNotifier::aCallWithoutASignalIsWarnedOf()
{
    PropertyNotifierPrivate notifier(m_sender, path, m_device.get());
    QTest::ignoreMessage(QtWarningMsg, "onChanged() invoked without a signal?");
    QVERIFY(QMetaObject::invokeMethod(&notifier, "onChanged"));
    QVERIFY(heard().isEmpty());
}

void tst_PropertyNotifier::aSignalThatIsUnknownIsWarnedOf()
{
    PropertyNotifierPrivate notifier(m_sender, path, m_device.get());
    const int index = m_device->metaObject()->indexOfSignal("unrelated()");
    QVERIFY(connect(m_device.get(), SIGNAL(unrelated()), &notifier, SLOT(onChanged())));
    const QByteArray text = "Cannot find property for signal " + QByteArray::number(index);
    QTest::ignoreMessage(QtWarningMsg, text.constData());
    emit m_device->unrelated();
    QVERIFY(heard().isEmpty());
}

void tst_PropertyNotifier::theNotifierGoesWithTheObject()
{
    QCOMPARE(m_notifier->parent(), m_device.get());
    const QPointer<PropertyNotifier> notifier(m_notifier);
    m_device.reset();
    QVERIFY(!notifier);
}

void tst_PropertyNotifier::anObjectThatGoesWithAChangePendingSendsNothing()
{
    m_device->setLevel(1);
    m_device.reset();
    QVERIFY(heard().isEmpty());
}

void tst_PropertyNotifier::aConnectionThatIsNoneDoesNoHarm()
{
    const LogCapture log; // Qt complains of what it cannot send
    Device device;
    auto *notifier = new PropertyNotifier(QDBusConnection(QStringLiteral("none")), path, &device);
    device.setLevel(1);
    QVERIFY(heard().isEmpty());
    notifier->notifyProperties({ QStringLiteral("Silent") });
    QVERIFY(heard().isEmpty());
}

QTEST_GUILESS_MAIN(tst_PropertyNotifier)
#include "tst_property_notifier.moc"
