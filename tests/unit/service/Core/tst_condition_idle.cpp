#include "Core/condition_idle.h"

#include "support/bus_stand_in.h"
#include "support/private_bus.h"

#include <QSignalSpy>
#include <QtTest>

#include <memory>

using Core::ConditionIdle;
using TestSupport::BusStandIn;
using TestSupport::PrivateBus;

namespace {

const QString service = QStringLiteral("org.freedesktop.ScreenSaver");
const QString path = QStringLiteral("/org/freedesktop/ScreenSaver");

} // namespace

class tst_ConditionIdle : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup() { m_screenSaver.reset(); }

    void withoutAScreenSaverItIsFalse();
    void displayThatIsOffMakesItTrue();
    void displayThatIsOnMakesItFalse();
    void secondOneKnowsAtOnce();
    void changesAreFollowed();
    void vanishedScreenSaverMakesItFalse();
    void taskDoesNotMatter();

private:
    void startScreenSaver(bool active);
    void signal(bool active);

    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<BusStandIn> m_screenSaver;
};

void tst_ConditionIdle::initTestCase()
{
    m_bus = std::make_unique<PrivateBus>();
    m_bus->useAsSessionBus();
}

void tst_ConditionIdle::startScreenSaver(bool active)
{
    m_screenSaver = std::make_unique<BusStandIn>(*m_bus, service, path);
    m_screenSaver->answerWith({ active });
}

void tst_ConditionIdle::signal(bool active)
{
    QDBusMessage message = QDBusMessage::createSignal(path, service, QStringLiteral("ActiveChanged"));
    message << active;
    m_screenSaver->send(message);
}

void tst_ConditionIdle::withoutAScreenSaverItIsFalse()
{
    const ConditionIdle idle;
    QCOMPARE(idle.name(), QStringLiteral("idle"));
    QSignalSpy changes(&idle, &ConditionIdle::isSatisfiedChanged);
    QVERIFY(!changes.wait(100));
    QVERIFY(!idle.isSatisfied());
}

void tst_ConditionIdle::displayThatIsOffMakesItTrue()
{
    startScreenSaver(true);
    const ConditionIdle idle;
    QTRY_VERIFY(idle.isSatisfied());
}

void tst_ConditionIdle::displayThatIsOnMakesItFalse()
{
    startScreenSaver(false);
    const ConditionIdle idle;
    QTRY_COMPARE(m_screenSaver->calls().size(), 1);
    QSignalSpy changes(&idle, &ConditionIdle::isSatisfiedChanged);
    QVERIFY(!changes.wait(100));
    QVERIFY(!idle.isSatisfied());
}

void tst_ConditionIdle::secondOneKnowsAtOnce()
{
    startScreenSaver(true);
    const ConditionIdle idle;
    QTRY_VERIFY(idle.isSatisfied());
    QVERIFY(ConditionIdle().isSatisfied());
}

void tst_ConditionIdle::changesAreFollowed()
{
    startScreenSaver(false);
    const ConditionIdle idle;
    QTRY_COMPARE(m_screenSaver->calls().size(), 1); // what it hears first is the answer
    QSignalSpy changes(&idle, &ConditionIdle::isSatisfiedChanged);
    for (int i = 0; i < 501; ++i) {
        signal(i % 2 == 0);
    }
    QTRY_VERIFY(changes.size() >= 501);
    QVERIFY(idle.isSatisfied());
    signal(false);
    QTRY_VERIFY(!idle.isSatisfied());
}

void tst_ConditionIdle::vanishedScreenSaverMakesItFalse()
{
    startScreenSaver(true);
    const ConditionIdle idle;
    QTRY_VERIFY(idle.isSatisfied());
    m_screenSaver.reset();
    QTRY_VERIFY(!idle.isSatisfied());
}

void tst_ConditionIdle::taskDoesNotMatter()
{
    startScreenSaver(true);
    ConditionIdle idle;
    QTRY_VERIFY(idle.isSatisfied());
    idle.taskWasTriggered();
    idle.taskRemoved();
    QVERIFY(idle.isSatisfied());
    QCOMPARE(idle.config(), QVariantMap());
}

QTEST_GUILESS_MAIN(tst_ConditionIdle)
#include "tst_condition_idle.moc"
