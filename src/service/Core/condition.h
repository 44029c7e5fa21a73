#pragma once

#include <QObject>
#include <QString>
#include <QVariantMap>

#include <memory>

namespace Core {

class ConditionPrivate;

/// One thing that has to hold before a task runs: a named boolean, false when made, with an optional map of
/// data that is kept over restarts.
///
/// Owned by its parent, the ConditionWatcher of the task. Main thread only.
class Condition : public QObject
{
    Q_OBJECT

public:
    explicit Condition(const QString &name, QObject *parent = nullptr);
    ~Condition() override;

    /// The key of the stored data; two conditions of one task may share it only if one of them has data at
    /// most.
    [[nodiscard]] QString name() const;
    [[nodiscard]] bool isSatisfied() const;

    /// The data to keep. Empty for most kinds.
    [[nodiscard]] QVariantMap config() const;
    /// Replaces the data and says so, also if it is the same.
    void setConfig(const QVariantMap &config);
    /// Replaces the data with what was stored, silently, and then calls conditionDataLoaded().
    void restoreConfig(const QVariantMap &config);

    /// The watcher has taken the condition over, and config() is what was stored. Called once.
    virtual void conditionDataLoaded();
    /// The task's process has been started.
    virtual void taskWasTriggered();
    /// The task is gone for good: what was arranged for it outside this process has to go too.
    virtual void taskRemoved();

signals:
    void isSatisfiedChanged();
    void configChanged();

protected:
    /// For the kinds themselves. Emits isSatisfiedChanged() on a change only.
    void setSatisfied(bool satisfied);

private:
    const std::unique_ptr<ConditionPrivate> d;
};

} // namespace Core
