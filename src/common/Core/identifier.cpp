#include "Core/identifier.h"

#include "Core/application_id.h"

#include <QDebug>
#include <QRegularExpression>

#include <algorithm>
#include <limits>

namespace Core {

namespace {

constexpr int maximumLength = std::numeric_limits<qint16>::max();

bool isLegal(QChar c)
{
    const ushort u = c.unicode();
    return (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || (u >= '0' && u <= '9') || u == '.' || u == '_'
        || u == '-';
}

/// Compiled at first use, which the language makes safe for threads, and only read afterward.
const QRegularExpression &idExpression()
{
    static const QRegularExpression expression = [] {
        QRegularExpression re(QStringLiteral("^([0-9a-z._-]+)\\.([A-Za-z_-][A-Z0-9a-z_.-]*)$"));
        re.optimize();
        return re;
    }();
    return expression;
}

} // namespace

Identifier::Identifier(const QString &text)
    : m_text(text)
    , m_organisationLength(-1)
    , m_applicationEnd(text.length() > maximumLength ? 0 : static_cast<qint16>(text.length()))
{
}

QString Identifier::organisation() const
{
    return m_organisationLength < 0 ? QString() : m_text.left(m_organisationLength);
}

QString Identifier::name() const
{
    const int begin = m_organisationLength + 1;
    if (m_organisationLength < 1 || m_applicationEnd <= begin) {
        return QString();
    }
    return m_text.mid(begin, m_applicationEnd - begin);
}

QString Identifier::toString() const
{
    return m_applicationEnd < 1 ? m_text : m_text.left(m_applicationEnd);
}

ApplicationId Identifier::applicationId() const
{
    ApplicationId id;
    id.m_text = toString();
    id.m_organisationLength = m_organisationLength;
    id.m_applicationEnd = m_applicationEnd;
    return id;
}

int Identifier::parse(const QStringRef &text)
{
    // Only legal characters reach the expression, so that the first place where a name may begin decides
    // and matching takes time in proportion to the length. With an illegal one at the end of a text full
    // of dots, it would try them all.
    if (text.length() > maximumLength || !std::all_of(text.cbegin(), text.cend(), isLegal)) {
        return 0;
    }
    const QRegularExpressionMatch match = idExpression().match(text);
    if (!match.hasMatch()) {
        return 0;
    }
    const int length = match.capturedLength(1);
    return length > 0 ? length : -1;
}

void Identifier::parseBefore(int dot)
{
    m_organisationLength = static_cast<qint16>(parse(m_text.leftRef(dot)));
    if (m_organisationLength > 0) {
        m_applicationEnd = static_cast<qint16>(dot);
    }
}

void Identifier::parseWhole()
{
    m_organisationLength = static_cast<qint16>(parse(QStringRef(&m_text)));
}

QDebug operator<<(QDebug debug, const Identifier &id)
{
    return debug << id.text();
}

} // namespace Core
