#include "Core/application_instance_id.h"

#include <algorithm>

namespace Core {

namespace {

bool hasInstanceForm(const QStringRef &suffix)
{
    const QLatin1String prefix("instance_");
    return suffix.startsWith(prefix)
        && std::all_of(suffix.cbegin() + prefix.size(), suffix.cend(), [](QChar c) { return c.isDigit(); });
}

} // namespace

ApplicationInstanceId::ApplicationInstanceId(const QString &text)
    : Identifier(text)
{
    const int dot = m_text.lastIndexOf(QLatin1Char('.'));
    if (dot < 1) {
        return;
    }
    if (hasInstanceForm(m_text.midRef(dot + 1))) {
        parseBefore(dot);
    } else {
        parseWhole();
    }
}

ApplicationInstanceId::ApplicationInstanceId(const ApplicationId &application, qint64 instance)
    : Identifier(application)
{
    if (instance != 0) {
        m_text += QStringLiteral(".instance_%2").arg(instance);
    }
}

bool ApplicationInstanceId::hasInstance() const
{
    return m_text.length() - m_applicationEnd > 1;
}

QStringRef ApplicationInstanceId::instance() const
{
    return hasInstance() ? m_text.midRef(m_applicationEnd + 1) : QStringRef();
}

} // namespace Core
