#pragma once

#include <QString>

/// Keys of the hints of an intent, and of what else intents have names for.
namespace Core::IntentHints {

// Hints of an invocation
inline const QString preferredHandler =
    QStringLiteral("preferredHandler"); ///< string: application id, or name or path of a desktop file
inline const QString mimeContent =
    QStringLiteral("mimeContent"); ///< strings: JSON paths to the URI that decides who can handle it
inline const QString ignoreHosts = QStringLiteral("ignoreHosts"); ///< strings, see HandlerFilters
inline const QString ignoreSchemes = QStringLiteral("ignoreSchemes"); ///< strings, see HandlerFilters
inline const QString showDialog =
    QStringLiteral("showDialog"); ///< bool, "OpenURI" only: ask the user even if the handler is known
inline const QString suppressErrorDialog = QStringLiteral(
    "suppressErrorDialog"); ///< bool: where nobody can handle it, fail without telling the user
inline const QString refocusOnReturn =
    QStringLiteral("refocusOnReturn"); ///< bool, generic intents: raise the caller after the answer
inline const QString startDBus =
    QStringLiteral("startDBus"); ///< bool, "Start" only: counts as a D-Bus activation

// Hints to the resolver, and of its answer
inline const QString defaultCandidate = QStringLiteral("defaultCandidate"); ///< string: application id
inline const QString setAsDefaultHandler =
    QStringLiteral("setAsDefaultHandler"); ///< bool: the choice holds from now on

// Members of request data and of answers
inline const QString uri = QStringLiteral("uri");
inline const QString instanceId = QStringLiteral("instanceId");

// Names of intents
inline const QString start = QStringLiteral("Start");
inline const QString openUri = QStringLiteral("OpenURI");
inline const QString ownPrefix = QStringLiteral("X-"); ///< names that need no definition

} // namespace Core::IntentHints
