#pragma once

#include <QByteArray>
#include <QChildEvent>
#include <QCoreApplication>

#include <functional>
#include <utility>

namespace TestSupport {

/// Does something, once, between a question that an object sends and the making of its child that waits for
/// the answer.
class Interruption : public QObject
{
public:
    /// @p asker is the class of the object, the first of which that gets a child is meant.
    Interruption(const QByteArray &asker, const std::function<void()> &action)
        : m_asker(asker)
        , m_action(action)
    {
        QCoreApplication::instance()->installEventFilter(this);
    }

    bool happened() const { return !m_action; }

    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (m_action && event->type() == QEvent::ChildAdded && watched->inherits(m_asker.constData())) {
            std::exchange(m_action, nullptr)();
        }
        return false;
    }

private:
    const QByteArray m_asker;
    std::function<void()> m_action;
};

} // namespace TestSupport
