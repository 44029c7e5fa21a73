#include "mremoteaction.h"

#include <algorithm>

namespace {

constexpr int blanksOfCall = 3; // between service, path, interface and method

bool isBlank(QChar character)
{
    return character.isSpace();
}

} // namespace

// Permissions hang on the service's name, and no name means that there is nothing to forbid. So nothing is
// asked of the text but room for the four words: what another reader takes for a call must not pass for none
// here, whether it counts the words between two blanks that follow each other or not. The text may be very
// long, so it is not taken apart.
MRemoteAction::MRemoteAction(const QString &text)
{
    const auto begin = std::find_if_not(text.cbegin(), text.cend(), isBlank);
    const auto end = std::find_if(begin, text.cend(), isBlank);
    if (std::count_if(end, text.cend(), isBlank) >= blanksOfCall) {
        m_serviceName = QString(begin, static_cast<int>(end - begin));
    }
}

QString MRemoteAction::serviceName() const
{
    return m_serviceName;
}
