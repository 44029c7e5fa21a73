#pragma once

#include "runtime_fixture.h"

#include <QObject>
#include <QSignalSpy>
#include <QStringList>

#include <memory>

/// What the tests of the early out-of-memory killer share: the runtime, and a controller for each of them,
/// and what it tells of its victims.
class EarlyOomTest : public QObject
{
protected:
    void makeController()
    {
        m_runtime->makeController();
        m_controller = m_runtime->controller();
        m_ended = std::make_unique<QSignalSpy>(m_controller, &Core::RuntimeController::applicationTerminated);
        m_endedTasks = std::make_unique<QSignalSpy>(m_controller, &Core::RuntimeController::taskTerminated);
        m_selected =
            std::make_unique<QSignalSpy>(m_controller, &Core::RuntimeController::processSelectedByOom);
    }

    /// Ends all that runs, unheard.
    void end()
    {
        m_ended.reset();
        m_endedTasks.reset();
        m_selected.reset();
        m_runtime->end();
    }

    /// What the monitor's timer does at the critical level.
    static void pass() { emit Core::MemoryMonitor::instance()->levelChanged(Core::MemoryLevel::Critical); }

    /// Ids, in the order of the ends.
    QStringList ended() const { return idsOf(*m_ended); }
    QStringList endedTasks() const { return idsOf(*m_endedTasks); }

    std::unique_ptr<RuntimeFixture> m_runtime;
    std::unique_ptr<QSignalSpy> m_ended; ///< applications
    std::unique_ptr<QSignalSpy> m_endedTasks;
    std::unique_ptr<QSignalSpy> m_selected;
    Core::RuntimeController *m_controller = nullptr;

private:
    static QStringList idsOf(const QSignalSpy &ends)
    {
        QStringList ids;
        for (const QList<QVariant> &arguments : ends) {
            ids.append(arguments.at(0).toString());
        }
        return ids;
    }
};
