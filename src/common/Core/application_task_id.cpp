#include "Core/application_task_id.h"

#include <algorithm>

namespace Core {

namespace {

const QLatin1String taskPrefix("task_");
constexpr int maximumTaskNameLength = 64;

bool isAsciiDigit(QChar c)
{
    return c >= QLatin1Char('0') && c <= QLatin1Char('9');
}

bool isAsciiLetter(QChar c)
{
    return (c >= QLatin1Char('a') && c <= QLatin1Char('z'))
        || (c >= QLatin1Char('A') && c <= QLatin1Char('Z'));
}

} // namespace

ApplicationTaskId::ApplicationTaskId(const QString &text)
    : Identifier(text)
{
    const int dot = m_text.lastIndexOf(QLatin1Char('.'));
    if (dot < 1) {
        return;
    }
    // At least one character must follow the prefix.
    if (m_text.midRef(dot + 1).startsWith(taskPrefix) && m_text.length() > dot + 1 + taskPrefix.size()) {
        parseBefore(dot);
    }
}

ApplicationTaskId::ApplicationTaskId(const ApplicationId &application, const QString &taskName)
    : Identifier(application)
{
    if (taskName.isEmpty()) {
        m_organisationLength = -1;
    } else {
        m_text += QStringLiteral(".task_") + taskName;
    }
}

QString ApplicationTaskId::taskName() const
{
    return isValid() ? m_text.mid(m_applicationEnd + 1 + taskPrefix.size()) : QString();
}

bool ApplicationTaskId::isValidTaskName(const QString &name)
{
    return name.length() <= maximumTaskNameLength && !isAsciiDigit(name.at(0))
        && std::all_of(name.cbegin(), name.cend(),
                       [](QChar c) { return isAsciiDigit(c) || isAsciiLetter(c); });
}

} // namespace Core
