#pragma once

#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <memory>

namespace Core {

class IntentConfigurationPrivate;

/// The intents that the system defines, each by a file "<name>.intent".
///
/// The directory "intents" of the application data locations is looked for once, at construction: where
/// several locations have one, only the most local one counts. The files are read afresh at each call, so
/// that one which is installed or changed counts at once. Owned by Core::Intents; main thread only.
class IntentConfiguration
{
public:
    /// What a definition says.
    struct Configuration
    {
        QStringList requiredParams; ///< parameters that the request data should hold; nobody checks them
        QVariantMap hints; ///< imposed on every invocation; arrays of strings are string lists
    };

    IntentConfiguration();
    virtual ~IntentConfiguration();

    /// Reads the definition of the intent @p name, which is used as part of a path as it stands.
    /// @returns false if there is none, which is the normal way for an intent to be unknown, or, after a
    ///          warning, if it is malformed. @p configuration keeps what it held then.
    [[nodiscard]] bool loadForIntent(const QString &name, Configuration &configuration) const;

private:
    const std::unique_ptr<IntentConfigurationPrivate> d;
};

} // namespace Core
