#include "session.h"
#include "words.h"

#include "Core/application_registry.h"

#include <QDir>
#include <QFile>
#include <QUrl>

#include <cerrno>
#include <unistd.h>

// Who can open what, and why. The catalogue is read here, from the same files that the service reads.

namespace Ctl {

namespace {

/// @p text as a URI: what has no scheme is the path of a file.
QUrl uriOf(const QString &text)
{
    const QUrl uri(text);
    if (text.startsWith(QLatin1Char('/')) || (uri.isValid() && uri.scheme().isEmpty())) {
        return QUrl::fromLocalFile(QDir().absoluteFilePath(text));
    }
    return uri;
}

/// The kind of what fits.
QString reasonOf(const Core::HandlerMatch &match)
{
    if (match.key.startsWith(QLatin1String("x-scheme-handler/"))) {
        return QStringLiteral("scheme");
    }
    if (match.key.startsWith(QLatin1String("x-url-handler/"))) {
        return QStringLiteral("address");
    }
    return match.isAncestor ? QStringLiteral("parent type") : QStringLiteral("type");
}

/// What the application declares that stands for @p key: the key itself, or a wildcard.
QString declaredFor(const QString &key, const QStringList &declared)
{
    if (declared.contains(key)) {
        return key;
    }
    for (const QString &type : declared) {
        if (type.endsWith(QLatin1Char('*')) && key.startsWith(type.leftRef(type.size() - 1))) {
            return type;
        }
    }
    return key;
}

QVariantMap entry(const QString &id, const QString &because, const QString &declares, bool isDefault)
{
    return { { QStringLiteral("Id"), id },
             { QStringLiteral("Because"), because },
             { QStringLiteral("Declares"), declares },
             { QStringLiteral("IsDefault"), isDefault } };
}

QVariantList handlersOf(const QUrl &uri)
{
    const Core::ApplicationRegistry registry;
    const QString byDefault = registry.defaultHandlerForUrl(uri);
    bool isDefaultListed = false;
    QVariantList handlers;
    const auto matches = registry.handlerMatches(uri, Core::HandlerFilters());
    for (const Core::HandlerMatch &match : matches) {
        const Core::ApplicationInfo info(registry.desktopFile(Core::ApplicationId(match.id)));
        const bool isDefault = match.id == byDefault;
        isDefaultListed = isDefaultListed || isDefault;
        handlers.append(
            entry(match.id, reasonOf(match), declaredFor(match.key, info.mimeTypes()), isDefault));
    }
    if (!byDefault.isEmpty() && !isDefaultListed) {
        // It gets the URI though it does not declare so.
        handlers.append(entry(byDefault, QStringLiteral("choice"), QString(), true));
    }
    return handlers;
}

} // namespace

int handlersCommand(Session &session)
{
    if (const auto end = session.begin(1, 1)) {
        return *end;
    }
    const QString text = session.arguments.word(0);
    const QUrl uri = uriOf(text);
    if (!uri.isValid()) {
        return session.arguments.wrong(QStringLiteral("Invalid URI: ") + text);
    }
    const QVariantList handlers = handlersOf(uri);
    session.output.rows(
        handlers,
        { keyColumn(QStringLiteral("HANDLER"), QStringLiteral("Id"), true),
          keyColumn(QStringLiteral("BECAUSE OF"), QStringLiteral("Because")),
          keyColumn(QStringLiteral("DECLARES"), QStringLiteral("Declares"), true),
          { { QStringLiteral("DEFAULT") },
            [](const QVariantMap &handler) {
                const bool isDefault = handler.value(QStringLiteral("IsDefault")).toBool();
                return Table::Cell { yesOrNo(isDefault), isDefault ? Style::Good : Style::Dim };
            } } },
        QStringLiteral("Nobody handles it."));
    if (handlers.isEmpty() && uri.isLocalFile() && access(QFile::encodeName(uri.toLocalFile()), F_OK) != 0) {
        // Its name alone tells no type, or another one than its contents would.
        Output::error(QStringLiteral("%1: %2").arg(uri.toLocalFile(), qt_error_string(errno)));
        return NoSuchId;
    }
    return Done;
}

} // namespace Ctl
