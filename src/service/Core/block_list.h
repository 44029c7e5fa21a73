#pragma once

#include "Core/application_id.h"

#include <QVector>

namespace Core {

/// The applications that may not be started. Two ids are the same if their application parts are.
class BlockList
{
public:
    bool contains(const ApplicationId &id) const;
    /// An id that is there already is not stored again, so that one remove() undoes any number of adds.
    void add(const ApplicationId &id);
    void remove(const ApplicationId &id);

private:
    QVector<ApplicationId> m_ids;
};

} // namespace Core
