#pragma once

#include <QHash>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <optional>

namespace Ctl {

/// What the value of a key must be.
enum class ValueKind { Text, Boolean, Integer, Texts };

/// One argument "KEY=VALUE" or "KEY:=JSON".
struct KeyValue
{
    QString key;
    QString text;
    bool isJson = false; ///< text is a JSON value

    /// Splits at the first "=". Nothing if there is none, or no key before it.
    [[nodiscard]] static std::optional<KeyValue> parse(const QString &argument);
};

/// Puts arguments together to an object.
class KeyValues
{
public:
    /// @p kinds: key -> what it must be; text for those that are not listed.
    explicit KeyValues(const QHash<QString, ValueKind> &kinds = {});

    /// A key of kind Texts, or one that is written "KEY[]", takes one more text each time; any other takes
    /// the last one.
    /// @returns what is wrong with @p argument, or an empty text.
    [[nodiscard]] QString add(const QString &argument);
    /// The same for the first fault of many.
    [[nodiscard]] QString add(const QStringList &arguments);

    /// Path of the place where the last one was put, as Core::JsonPath has it: "key" or "key[1]".
    [[nodiscard]] const QString &lastPlace() const;
    [[nodiscard]] const QJsonObject &object() const;

private:
    QString append(const QString &key, const QJsonValue &value);

    QHash<QString, ValueKind> m_kinds;
    QJsonObject m_object;
    QString m_lastPlace;
};

} // namespace Ctl
