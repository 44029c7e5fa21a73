#include "Core/state_table.h"

#include "Core/resource_configuration.h"

#include <algorithm>

namespace Core {

void StateTable::load(const ResourceConfiguration &configuration)
{
    const QMap<ApplicationState, QString> names = {
        { ApplicationState::Active, QStringLiteral("active") },
        { ApplicationState::Inactive, QStringLiteral("inactive") },
        { ApplicationState::Hidden, QStringLiteral("hidden") },
    };
    for (auto name = names.cbegin(); name != names.cend(); ++name) {
        // A timer with a negative interval would never fire.
        const int delayMs = std::max(0, configuration.applyDelay(name.value()));
        m_entries.insert(name.key(), { name.value(), delayMs });
    }
}

const StateTable::Entry *StateTable::find(ApplicationState state) const
{
    const auto entry = m_entries.constFind(state);
    return entry == m_entries.cend() ? nullptr : &entry.value();
}

QString StateTable::stateName(ApplicationState state) const
{
    const Entry *entry = find(state);
    return entry ? entry->stateName : QString();
}

} // namespace Core
