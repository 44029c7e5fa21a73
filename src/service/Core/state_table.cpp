#include "Core/state_table.h"

#include "Core/resource_configuration.h"

namespace Core {

void StateTable::load(const ResourceConfiguration &configuration)
{
    const QMap<ApplicationState, QString> names = {
        { ApplicationState::Active, QStringLiteral("active") },
        { ApplicationState::Inactive, QStringLiteral("inactive") },
        { ApplicationState::Hidden, QStringLiteral("hidden") },
    };
    for (auto name = names.cbegin(); name != names.cend(); ++name) {
        m_entries.insert(name.key(), { name.value(), configuration.applyDelay(name.value()) });
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
