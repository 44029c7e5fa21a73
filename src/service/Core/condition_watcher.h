#pragma once

#include <QObject>
#include <QVariantMap>

#include <memory>

namespace Core {

class Condition;
class ConditionWatcherPrivate;

/// The conditions of one task, reduced to one boolean: whether all of them hold.
///
/// Part of the task's record, and gone with it. Main thread only. In this order: setConditionData(),
/// addCondition() for each condition, and then the first look at allSatisfied(). allSatisfiedChanged() may be
/// emitted within addCondition(), when nobody listens yet, so that first look is needed.
class ConditionWatcher : public QObject
{
    Q_OBJECT

public:
    explicit ConditionWatcher(QObject *parent = nullptr);
    /// Ends the conditions too.
    ~ConditionWatcher() override;

    /// Takes @p condition over, hands it the stored data of its name, and counts it from now on.
    void addCondition(Condition *condition);

    /// Whether all conditions hold; true without any.
    [[nodiscard]] bool allSatisfied() const;

    /// Name of a condition -> its data, a map; a condition without data has an invalid value.
    [[nodiscard]] QVariantMap conditionData() const;
    /// What was stored for the task. To be called before the conditions are added. A value that is no map
    /// reads as an empty one.
    void setConditionData(const QVariantMap &conditionData);

    /// Tell each condition, in the order of addition.
    void taskWasTriggered();
    void taskRemoved();

signals:
    void allSatisfiedChanged(bool allSatisfied);
    void conditionDataChanged();

private:
    const std::unique_ptr<ConditionWatcherPrivate> d;
};

} // namespace Core
