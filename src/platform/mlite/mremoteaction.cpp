#include "mremoteaction.h"

#include <QStringList>

namespace {

constexpr int wordsOfCall = 4; // service, path, interface, method

} // namespace

// Permissions hang on the service's name, and no name means that there is nothing to forbid. So nothing is
// asked of the text but the four words: what another reader takes for a call must not pass for none here.
MRemoteAction::MRemoteAction(const QString &text)
{
    const QStringList words = text.simplified().split(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (words.size() >= wordsOfCall) {
        m_serviceName = words.first();
    }
}

QString MRemoteAction::serviceName() const
{
    return m_serviceName;
}
