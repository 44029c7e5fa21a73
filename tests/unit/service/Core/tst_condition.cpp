#include "Core/condition.h"

#include "support/log_capture.h"

#include <QSignalSpy>
#include <QtTest>

using Core::Condition;
using TestSupport::LogCapture;

namespace {

/// Lets the test do what a kind does, and keeps what it is told.
class Probe : public Condition
{
public:
    Probe()
        : Condition(QStringLiteral("probe"))
    {
    }

    using Condition::setSatisfied;

    void conditionDataLoaded() override { loaded << config(); }

    QList<QVariantMap> loaded;
};

} // namespace

class tst_Condition : public QObject
{
    Q_OBJECT

private slots:
    void isFalseAndWithoutDataWhenMade();
    void changeIsSignalledAndLogged();
    void sameValueIsPassedOver();
    void setConfigSignalsAlsoTheSame();
    void restoreConfigIsSilentAndTells();
    void baseDoesNothing();
};

void tst_Condition::isFalseAndWithoutDataWhenMade()
{
    QObject parent;
    const Condition condition(QStringLiteral("probe"), &parent);
    QCOMPARE(condition.name(), QStringLiteral("probe"));
    QCOMPARE(condition.isSatisfied(), false);
    QCOMPARE(condition.config(), QVariantMap());
    QCOMPARE(condition.parent(), &parent);
}

void tst_Condition::changeIsSignalledAndLogged()
{
    Probe condition;
    QSignalSpy changed(&condition, &Condition::isSatisfiedChanged);
    QSignalSpy configured(&condition, &Condition::configChanged);
    const LogCapture log;
    bool seen = false;
    connect(&condition, &Condition::isSatisfiedChanged, this, [&] { seen = condition.isSatisfied(); });
    condition.setSatisfied(true);
    QVERIFY(seen); // stored before it is signalled
    condition.setSatisfied(false);
    QCOMPARE(changed.size(), 2);
    QCOMPARE(configured.size(), 0);
    QCOMPARE(log.messages(QtDebugMsg),
             (QStringList { QStringLiteral("Condition \"probe\" became true"),
                            QStringLiteral("Condition \"probe\" became false") }));
    QCOMPARE(log.messages().size(), 2);
}

void tst_Condition::sameValueIsPassedOver()
{
    Probe condition;
    QSignalSpy changed(&condition, &Condition::isSatisfiedChanged);
    const LogCapture log;
    condition.setSatisfied(false);
    QCOMPARE(changed.size(), 0);
    condition.setSatisfied(true);
    condition.setSatisfied(true);
    QCOMPARE(changed.size(), 1);
    QCOMPARE(log.messages().size(), 1);
}

void tst_Condition::setConfigSignalsAlsoTheSame()
{
    Probe condition;
    QSignalSpy configured(&condition, &Condition::configChanged);
    const QVariantMap config { { QStringLiteral("key"), 7 } };
    condition.setConfig(config);
    QCOMPARE(condition.config(), config);
    condition.setConfig(config);
    QCOMPARE(configured.size(), 2);
    condition.setConfig({});
    QCOMPARE(condition.config(), QVariantMap());
    QCOMPARE(configured.size(), 3);
    QCOMPARE(condition.loaded.size(), 0);
}

void tst_Condition::restoreConfigIsSilentAndTells()
{
    Probe condition;
    QSignalSpy configured(&condition, &Condition::configChanged);
    const QVariantMap config { { QStringLiteral("key"), 7 } };
    condition.restoreConfig(config);
    QCOMPARE(condition.config(), config);
    QCOMPARE(configured.size(), 0);
    QCOMPARE(condition.loaded, QList<QVariantMap> { config }); // the data is there when it is told
}

void tst_Condition::baseDoesNothing()
{
    Condition condition(QStringLiteral("probe"));
    QSignalSpy changed(&condition, &Condition::isSatisfiedChanged);
    QSignalSpy configured(&condition, &Condition::configChanged);
    const LogCapture log;
    condition.conditionDataLoaded();
    condition.taskWasTriggered();
    condition.taskRemoved();
    QCOMPARE(changed.size() + configured.size() + log.messages().size(), 0);
}

QTEST_GUILESS_MAIN(tst_Condition)
#include "tst_condition.moc"
