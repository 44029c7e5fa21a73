#include "Core/block_list.h"

#include <algorithm>

namespace Core {

namespace {

auto sameApplication(const ApplicationId &id)
{
    return [text = id.toString()](const ApplicationId &other) {
        return other.toString() == text;
    };
}

} // namespace

bool BlockList::contains(const ApplicationId &id) const
{
    return std::any_of(m_ids.cbegin(), m_ids.cend(), sameApplication(id));
}

void BlockList::add(const ApplicationId &id)
{
    if (!contains(id)) {
        m_ids.append(id);
    }
}

void BlockList::remove(const ApplicationId &id)
{
    const auto found = std::find_if(m_ids.begin(), m_ids.end(), sameApplication(id));
    if (found != m_ids.end()) {
        m_ids.erase(found);
    }
}

} // namespace Core
