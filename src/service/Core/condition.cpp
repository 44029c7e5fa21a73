#include "Core/condition.h"

#include <QDebug>

namespace Core {

class ConditionPrivate
{
public:
    const QString name;
    QVariantMap config;
    bool satisfied = false;
};

Condition::Condition(const QString &name, QObject *parent)
    : QObject(parent)
    , d(new ConditionPrivate { name, {} })
{
}

Condition::~Condition() = default;

QString Condition::name() const
{
    return d->name;
}

bool Condition::isSatisfied() const
{
    return d->satisfied;
}

QVariantMap Condition::config() const
{
    return d->config;
}

void Condition::setConfig(const QVariantMap &config)
{
    d->config = config;
    emit configChanged();
}

void Condition::restoreConfig(const QVariantMap &config)
{
    d->config = config;
    conditionDataLoaded();
}

void Condition::conditionDataLoaded() { }

void Condition::taskWasTriggered() { }

void Condition::taskRemoved() { }

void Condition::setSatisfied(bool satisfied)
{
    if (satisfied == d->satisfied) {
        return;
    }
    qDebug() << "Condition" << d->name << "became" << satisfied;
    d->satisfied = satisfied;
    emit isSatisfiedChanged();
}

} // namespace Core
