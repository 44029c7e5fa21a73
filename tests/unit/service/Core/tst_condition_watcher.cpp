#include "Core/condition_watcher.h"

#include "Core/condition.h"

#include <QPointer>
#include <QSignalSpy>
#include <QtTest>

#include <memory>

using Core::Condition;
using Core::ConditionWatcher;

namespace {

QStringList events;

class Probe : public Condition
{
public:
    explicit Probe(const QString &name, bool satisfied = false)
        : Condition(name)
    {
        setSatisfied(satisfied);
    }

    using Condition::setSatisfied;

    void conditionDataLoaded() override
    {
        loaded = config();
        if (onLoaded) {
            onLoaded();
        }
    }
    void taskWasTriggered() override { events << name() + QLatin1String(" triggered"); }
    void taskRemoved() override { events << name() + QLatin1String(" removed"); }

    std::function<void()> onLoaded;
    QVariantMap loaded;
};

QList<bool> values(const QSignalSpy &spy)
{
    QList<bool> result;
    for (const QList<QVariant> &arguments : spy) {
        result << arguments.first().toBool();
    }
    return result;
}

} // namespace

class tst_ConditionWatcher : public QObject
{
    Q_OBJECT

private slots:
    void init() { events.clear(); }

    void withoutConditionsItIsSatisfied();
    void watcherOwnsItsConditions();
    void satisfiedConditionChangesNothing();
    void unsatisfiedConditionIsSignalledWhenAdded();
    void allHaveToHold();
    void onlyChangesAreSignalled();
    void flappingIsFollowed();
    void storedDataReachesTheConditionOfItsName();
    void conditionIsTheWatchersWhenItsDataComes();
    void conditionWithoutDataHasAKey();
    void dataOfAWrongFormIsEmpty_data();
    void dataOfAWrongFormIsEmpty();
    void changedDataIsStoredAndSignalled();
    void changesWhileLoadingAreNotSignalled();
    void satisfiedWhileLoadingCounts();
    void conditionsOfOneNameShareAKey();
    void conditionsAreToldInOrder();
    void destructionIsSilent();
};

void tst_ConditionWatcher::withoutConditionsItIsSatisfied()
{
    const ConditionWatcher watcher;
    QVERIFY(watcher.allSatisfied());
    QCOMPARE(watcher.conditionData(), QVariantMap());
}

void tst_ConditionWatcher::watcherOwnsItsConditions()
{
    auto watcher = std::make_unique<ConditionWatcher>();
    QPointer<Condition> condition = new Probe(QStringLiteral("a"));
    watcher->addCondition(condition);
    QCOMPARE(condition->parent(), watcher.get());
    watcher.reset();
    QVERIFY(condition.isNull());
}

void tst_ConditionWatcher::satisfiedConditionChangesNothing()
{
    ConditionWatcher watcher;
    QSignalSpy changes(&watcher, &ConditionWatcher::allSatisfiedChanged);
    watcher.addCondition(new Probe(QStringLiteral("a"), true));
    QVERIFY(watcher.allSatisfied());
    QCOMPARE(changes.size(), 0);
}

void tst_ConditionWatcher::unsatisfiedConditionIsSignalledWhenAdded()
{
    ConditionWatcher watcher;
    QSignalSpy changes(&watcher, &ConditionWatcher::allSatisfiedChanged);
    watcher.addCondition(new Probe(QStringLiteral("a")));
    QVERIFY(!watcher.allSatisfied());
    watcher.addCondition(new Probe(QStringLiteral("b")));
    QCOMPARE(values(changes), QList<bool> { false });
}

void tst_ConditionWatcher::allHaveToHold()
{
    ConditionWatcher watcher;
    auto *a = new Probe(QStringLiteral("a"));
    auto *b = new Probe(QStringLiteral("b"));
    auto *c = new Probe(QStringLiteral("c"));
    watcher.addCondition(a);
    watcher.addCondition(b);
    watcher.addCondition(c);
    QSignalSpy changes(&watcher, &ConditionWatcher::allSatisfiedChanged);
    for (int held = 0; held < 8; ++held) {
        a->setSatisfied(held & 1);
        b->setSatisfied(held & 2);
        c->setSatisfied(held & 4);
        QCOMPARE(watcher.allSatisfied(), held == 7);
    }
    QCOMPARE(values(changes), QList<bool> { true });
    b->setSatisfied(false);
    QVERIFY(!watcher.allSatisfied());
    QCOMPARE(values(changes), (QList<bool> { true, false }));
}

void tst_ConditionWatcher::onlyChangesAreSignalled()
{
    ConditionWatcher watcher;
    auto *a = new Probe(QStringLiteral("a"), true);
    auto *b = new Probe(QStringLiteral("b"), true);
    watcher.addCondition(a);
    watcher.addCondition(b);
    QSignalSpy changes(&watcher, &ConditionWatcher::allSatisfiedChanged);
    a->setSatisfied(false);
    b->setSatisfied(false);
    a->setSatisfied(true);
    QCOMPARE(values(changes), QList<bool> { false });
    b->setSatisfied(true);
    QCOMPARE(values(changes), (QList<bool> { false, true }));
}

void tst_ConditionWatcher::flappingIsFollowed()
{
    ConditionWatcher watcher;
    auto *a = new Probe(QStringLiteral("a"), true);
    watcher.addCondition(a);
    QSignalSpy changes(&watcher, &ConditionWatcher::allSatisfiedChanged);
    for (int i = 0; i < 10000; ++i) {
        a->setSatisfied(i % 2);
    }
    QCOMPARE(changes.size(), 10000);
    QVERIFY(watcher.allSatisfied());
}

void tst_ConditionWatcher::storedDataReachesTheConditionOfItsName()
{
    const QVariantMap ofA { { QStringLiteral("cookieId"), 7U } };
    ConditionWatcher watcher;
    QSignalSpy changes(&watcher, &ConditionWatcher::conditionDataChanged);
    watcher.setConditionData({ { QStringLiteral("a"), ofA }, { QStringLiteral("gone"), QVariantMap() } });
    auto *a = new Probe(QStringLiteral("a"));
    auto *b = new Probe(QStringLiteral("b"));
    watcher.addCondition(a);
    watcher.addCondition(b);
    QCOMPARE(a->loaded, ofA);
    QCOMPARE(b->loaded, QVariantMap());
    QCOMPARE(changes.size(), 0);
    QCOMPARE(watcher.conditionData().keys(),
             (QStringList { QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("gone") }));
}

void tst_ConditionWatcher::conditionIsTheWatchersWhenItsDataComes()
{
    ConditionWatcher watcher;
    auto *a = new Probe(QStringLiteral("a"));
    bool owned = false;
    a->onLoaded = [&] {
        owned = a->parent() == &watcher;
    };
    watcher.addCondition(a);
    QVERIFY(owned);
}

void tst_ConditionWatcher::conditionWithoutDataHasAKey()
{
    ConditionWatcher watcher;
    watcher.addCondition(new Probe(QStringLiteral("a")));
    QVERIFY(watcher.conditionData().contains(QStringLiteral("a")));
    QVERIFY(!watcher.conditionData().value(QStringLiteral("a")).isValid());
}

void tst_ConditionWatcher::dataOfAWrongFormIsEmpty_data()
{
    QTest::addColumn<QVariant>("data");

    QTest::newRow("none") << QVariant();
    QTest::newRow("number") << QVariant(7);
    QTest::newRow("text") << QVariant(QStringLiteral("cookieId"));
    QTest::newRow("list") << QVariant(QVariantList { 1, 2 });
}

void tst_ConditionWatcher::dataOfAWrongFormIsEmpty()
{
    QFETCH(const QVariant, data);

    ConditionWatcher watcher;
    watcher.setConditionData({ { QStringLiteral("a"), data } });
    auto *a = new Probe(QStringLiteral("a"));
    watcher.addCondition(a);
    QCOMPARE(a->loaded, QVariantMap());
    QCOMPARE(watcher.conditionData().value(QStringLiteral("a")), data); // as it was
}

void tst_ConditionWatcher::changedDataIsStoredAndSignalled()
{
    ConditionWatcher watcher;
    auto *a = new Probe(QStringLiteral("a"));
    watcher.addCondition(a);
    QSignalSpy changes(&watcher, &ConditionWatcher::conditionDataChanged);
    const QVariantMap config { { QStringLiteral("cookieId"), 7U } };
    QVariantMap seen;
    connect(&watcher, &ConditionWatcher::conditionDataChanged, this, [&] { seen = watcher.conditionData(); });
    a->setConfig(config);
    QCOMPARE(changes.size(), 1);
    QCOMPARE(seen, (QVariantMap { { QStringLiteral("a"), config } }));
    QCOMPARE(seen.value(QStringLiteral("a")).type(), QVariant::Map);
    a->setConfig(config);
    QCOMPARE(changes.size(), 2);
}

void tst_ConditionWatcher::changesWhileLoadingAreNotSignalled()
{
    ConditionWatcher watcher;
    QSignalSpy changes(&watcher, &ConditionWatcher::conditionDataChanged);
    auto *a = new Probe(QStringLiteral("a"));
    a->onLoaded = [a] {
        a->setConfig({ { QStringLiteral("x"), 1 } });
    };
    watcher.addCondition(a);
    QCOMPARE(changes.size(), 0);
}

void tst_ConditionWatcher::satisfiedWhileLoadingCounts()
{
    ConditionWatcher watcher;
    QSignalSpy changes(&watcher, &ConditionWatcher::allSatisfiedChanged);
    auto *a = new Probe(QStringLiteral("a"));
    a->onLoaded = [a] {
        a->setSatisfied(true);
    };
    watcher.addCondition(a);
    QVERIFY(watcher.allSatisfied());
    QCOMPARE(changes.size(), 0);
}

void tst_ConditionWatcher::conditionsOfOneNameShareAKey()
{
    ConditionWatcher watcher;
    auto *one = new Probe(QStringLiteral("battery"), true);
    auto *two = new Probe(QStringLiteral("battery"));
    watcher.addCondition(one);
    watcher.addCondition(two);
    QCOMPARE(watcher.conditionData().size(), 1);
    QVERIFY(!watcher.allSatisfied());
    two->setSatisfied(true);
    QVERIFY(watcher.allSatisfied());
}

void tst_ConditionWatcher::conditionsAreToldInOrder()
{
    ConditionWatcher watcher;
    watcher.addCondition(new Probe(QStringLiteral("b")));
    watcher.addCondition(new Probe(QStringLiteral("a")));
    watcher.taskWasTriggered();
    watcher.taskRemoved();
    QCOMPARE(events,
             (QStringList { QStringLiteral("b triggered"), QStringLiteral("a triggered"),
                            QStringLiteral("b removed"), QStringLiteral("a removed") }));
}

void tst_ConditionWatcher::destructionIsSilent()
{
    auto watcher = std::make_unique<ConditionWatcher>();
    watcher->addCondition(new Probe(QStringLiteral("a"), true));
    watcher->addCondition(new Probe(QStringLiteral("b"), true));
    QSignalSpy changes(watcher.get(), &ConditionWatcher::allSatisfiedChanged);
    watcher.reset();
    QCOMPARE(changes.size(), 0);
}

QTEST_GUILESS_MAIN(tst_ConditionWatcher)
#include "tst_condition_watcher.moc"
