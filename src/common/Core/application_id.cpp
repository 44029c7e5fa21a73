#include "Core/application_id.h"

#include <limits>

namespace Core {

namespace {

QString encoded(const QStringRef &baseName)
{
    QString result;
    result.reserve(baseName.length());
    for (const QChar c : baseName) {
        const ushort u = c.unicode();
        if ((u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || c.isDigit()) {
            result += c;
            continue;
        }
        // The Latin-1 byte as a signed number: what is above 0x7F becomes negative, and is written in two's
        // complement. What is not Latin-1 counts as 0.
        result += QLatin1Char('_') + QString::number(int(static_cast<signed char>(c.toLatin1())), 16);
    }
    return result;
}

} // namespace

ApplicationId::ApplicationId(const QString &text)
    : Identifier(text)
{
    parseWhole();
}

ApplicationId::ApplicationId(const QString &organisation, const QString &name)
    : Identifier(organisation + QLatin1Char('.') + name)
{
    if (m_text.length() <= std::numeric_limits<qint16>::max()) {
        m_organisationLength = static_cast<qint16>(organisation.length());
    }
}

ApplicationId ApplicationId::fromDesktopFile(const QString &path)
{
    const QString suffix = QStringLiteral(".desktop");
    if (!path.endsWith(suffix)) {
        return ApplicationId(QString());
    }
    const int begin = path.lastIndexOf(QLatin1Char('/')) + 1;
    const QStringRef baseName = path.midRef(begin, path.length() - suffix.length() - begin);
    if (baseName.isEmpty()) {
        return ApplicationId(QString());
    }
    return ApplicationId(QStringLiteral("org.kestrix"), encoded(baseName));
}

} // namespace Core
