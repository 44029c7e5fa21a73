#pragma once

#include "Core/application_state.h"

#include <QMap>
#include <QString>

namespace Core {

class ResourceConfiguration;

/// What is written to the control groups of an application that enters a state: the name of the
/// configured state, and how long after the entry.
///
/// There are entries for `Active`, `Inactive` and `Hidden` only; entering any other state writes nothing.
class StateTable
{
public:
    struct Entry
    {
        QString stateName; ///< as registered with the control group controller; empty in no entry
        int delayMs = 0;
    };

    /// Takes the delays of "active", "inactive" and "hidden" from @p configuration.
    void load(const ResourceConfiguration &configuration);

    /// The entry of @p state, or null.
    const Entry *find(ApplicationState state) const;

    /// The configured state's name of @p state; empty if it has none.
    QString stateName(ApplicationState state) const;

private:
    QMap<ApplicationState, Entry> m_entries;
};

} // namespace Core
