#include "Core/condition_watcher.h"

#include "Core/condition.h"

#include <algorithm>

namespace Core {

class ConditionWatcherPrivate
{
public:
    explicit ConditionWatcherPrivate(ConditionWatcher *watcher)
        : q(watcher)
    {
    }

    void recompute();
    void store(const Condition *condition);

    QList<Condition *> conditions; ///< in the order of addition
    QVariantMap conditionData; ///< name of a condition -> its config, a map; invalid without one
    bool allSatisfied = true;
    ConditionWatcher *const q;
};

void ConditionWatcherPrivate::recompute()
{
    const bool satisfied = std::all_of(conditions.cbegin(), conditions.cend(),
                                       [](const Condition *condition) { return condition->isSatisfied(); });
    if (satisfied != allSatisfied) {
        allSatisfied = satisfied;
        emit q->allSatisfiedChanged(satisfied);
    }
}

void ConditionWatcherPrivate::store(const Condition *condition)
{
    conditionData[condition->name()] = condition->config();
    emit q->conditionDataChanged();
}

ConditionWatcher::ConditionWatcher(QObject *parent)
    : QObject(parent)
    , d(new ConditionWatcherPrivate(this))
{
}

ConditionWatcher::~ConditionWatcher()
{
    // Before the private object, which their last signals would reach.
    qDeleteAll(d->conditions);
}

void ConditionWatcher::addCondition(Condition *condition)
{
    condition->setParent(this);
    d->conditions.append(condition);
    // A key for each condition, also without data: what is stored shows which conditions a task has.
    condition->restoreConfig(d->conditionData[condition->name()].toMap());
    connect(condition, &Condition::isSatisfiedChanged, this, [this] { d->recompute(); });
    connect(condition, &Condition::configChanged, this, [this, condition] { d->store(condition); });
    d->recompute();
}

bool ConditionWatcher::allSatisfied() const
{
    return d->allSatisfied;
}

QVariantMap ConditionWatcher::conditionData() const
{
    return d->conditionData;
}

void ConditionWatcher::setConditionData(const QVariantMap &conditionData)
{
    d->conditionData = conditionData;
}

void ConditionWatcher::taskWasTriggered()
{
    for (Condition *condition : qAsConst(d->conditions)) {
        condition->taskWasTriggered();
    }
}

void ConditionWatcher::taskRemoved()
{
    for (Condition *condition : qAsConst(d->conditions)) {
        condition->taskRemoved();
    }
}

} // namespace Core
