#include "key_value.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace Ctl {

namespace {

/// A JSON value that need not be an object or an array.
std::optional<QJsonValue> parseJson(const QString &text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson('[' + text.toUtf8() + ']', &error);
    if (error.error != QJsonParseError::NoError || document.array().size() != 1) {
        return std::nullopt;
    }
    return document.array().first();
}

std::optional<bool> parseBoolean(const QString &text)
{
    if (text == QLatin1String("true") || text == QLatin1String("yes") || text == QLatin1String("1")) {
        return true;
    }
    if (text == QLatin1String("false") || text == QLatin1String("no") || text == QLatin1String("0")) {
        return false;
    }
    return std::nullopt;
}

} // namespace

std::optional<KeyValue> KeyValue::parse(const QString &argument)
{
    const int sign = argument.indexOf(QLatin1Char('='));
    KeyValue result;
    result.isJson = sign > 0 && argument.at(sign - 1) == QLatin1Char(':');
    result.key = argument.left(result.isJson ? sign - 1 : sign);
    result.text = argument.mid(sign + 1);
    if (sign < 0 || result.key.isEmpty()) {
        return std::nullopt;
    }
    return result;
}

KeyValues::KeyValues(const QHash<QString, ValueKind> &kinds)
    : m_kinds(kinds)
{
}

QString KeyValues::append(const QString &key, const QJsonValue &value)
{
    QJsonArray array = m_object.value(key).toArray();
    array.append(value);
    m_object.insert(key, array);
    return QStringLiteral("%1[%2]").arg(key).arg(array.size() - 1);
}

QString KeyValues::add(const QString &argument)
{
    const std::optional<KeyValue> pair = KeyValue::parse(argument);
    if (!pair) {
        return QStringLiteral("Not KEY=VALUE: %1").arg(argument);
    }
    QString key = pair->key;
    const bool appends = key.endsWith(QLatin1String("[]"));
    if (appends) {
        key.chop(2);
    }
    if (key.isEmpty()) {
        return QStringLiteral("Not KEY=VALUE: %1").arg(argument);
    }
    if (appends && m_object.contains(key) && !m_object.value(key).isArray()) {
        return QStringLiteral("Not an array: %1").arg(key);
    }
    const ValueKind kind = m_kinds.value(key, ValueKind::Text);
    QJsonValue value = pair->text;
    if (pair->isJson) {
        const auto json = parseJson(pair->text);
        if (!json) {
            return QStringLiteral("Not JSON: %1").arg(pair->text);
        }
        value = *json;
    } else if (kind == ValueKind::Boolean) {
        const auto boolean = parseBoolean(pair->text);
        if (!boolean) {
            return QStringLiteral("Neither true nor false: %1").arg(argument);
        }
        value = *boolean;
    } else if (kind == ValueKind::Integer) {
        bool isNumber = false;
        value = pair->text.toInt(&isNumber);
        if (!isNumber) {
            return QStringLiteral("Not a number: %1").arg(argument);
        }
    }
    if (appends || (kind == ValueKind::Texts && !pair->isJson)) {
        m_lastPlace = append(key, value);
    } else {
        m_object.insert(key, value);
        m_lastPlace = key;
    }
    return QString();
}

QString KeyValues::add(const QStringList &arguments)
{
    for (const QString &argument : arguments) {
        const QString fault = add(argument);
        if (!fault.isEmpty()) {
            return fault;
        }
    }
    return QString();
}

const QString &KeyValues::lastPlace() const
{
    return m_lastPlace;
}

const QJsonObject &KeyValues::object() const
{
    return m_object;
}

} // namespace Ctl
