#include "Core/json_path.h"

#include <QDebug>
#include <QJsonArray>
#include <QStringRef>

#include <algorithm>

namespace Core {
namespace JsonPath {

namespace {

enum class Element { Key, AnyKey, Index, AnyIndex, End };

const QLatin1String wildcard("*");

bool isDelimiter(QChar character)
{
    return character == QLatin1Char('[') || character == QLatin1Char('.');
}

// Cuts the element that it returns from the front of the path.
Element nextPathElement(QStringRef &path, QString &key, int &index)
{
    const auto *first =
        std::find_if(path.begin(), path.end(), [](QChar character) { return character != QLatin1Char('.'); });
    path = path.mid(int(first - path.begin()));
    if (path.isEmpty()) {
        return Element::End;
    }
    if (path.at(0) == QLatin1Char('[')) {
        const int end = path.indexOf(QLatin1Char(']'));
        if (end < 0) {
            qDebug() << "JSON path error: missing right bracket";
            return Element::End;
        }
        const QStringRef text = path.mid(1, end - 1);
        path = path.mid(end + 1);
        if (text == wildcard) {
            return Element::AnyIndex;
        }
        bool isNumber = false;
        index = text.toInt(&isNumber);
        if (!isNumber) {
            qDebug() << "JSON path error: could not parse index" << text;
            return Element::End;
        }
        return Element::Index;
    }
    const int length = int(std::find_if(path.begin(), path.end(), isDelimiter) - path.begin());
    key = path.left(length).toString();
    path = path.mid(length);
    return key == wildcard ? Element::AnyKey : Element::Key;
}

// Whether a path can name the key.
bool isExpressible(const QString &key)
{
    return !key.isEmpty() && key != wildcard && std::none_of(key.begin(), key.end(), isDelimiter);
}

QString withKey(const QString &prefix, const QString &key)
{
    return prefix.isEmpty() ? key : prefix + QLatin1Char('.') + key;
}

QString withIndex(const QString &prefix, int index)
{
    return prefix + QStringLiteral("[%1]").arg(index);
}

// The prefix with each of the paths that begin where it ends.
QStringList joined(const QString &prefix, const QStringList &paths)
{
    QStringList list;
    list.reserve(paths.size());
    for (const QString &path : paths) {
        list.append(path.isEmpty() || path.startsWith(QLatin1Char('[')) ? prefix + path
                                                                        : withKey(prefix, path));
    }
    return list;
}

QStringList expand(QJsonValue value, QStringRef path);

QStringList expandKeys(const QJsonObject &object, const QString &prefix, const QStringRef &path)
{
    QStringList list;
    for (auto it = object.begin(); it != object.end(); ++it) {
        // Qt's reader puts a key with a NUL, and one beside letters from beyond the basic plane, where it is
        // not found.
        if (isExpressible(it.key()) && object.contains(it.key())) {
            list += joined(withKey(prefix, it.key()), expand(it.value(), path));
        }
    }
    return list;
}

QStringList expandIndexes(const QJsonArray &array, const QString &prefix, const QStringRef &path)
{
    QStringList list;
    for (int i = 0; i < array.size(); ++i) {
        list += joined(withIndex(prefix, i), expand(array.at(i), path));
    }
    return list;
}

// Calls itself at wildcards only, and a wildcard needs a level of the value.
QStringList expand(QJsonValue value, QStringRef path)
{
    QString prefix;
    QString key;
    int index = 0;
    for (;;) {
        switch (nextPathElement(path, key, index)) {
        case Element::Key: {
            const QJsonObject object = value.toObject();
            if (!object.contains(key)) {
                return {};
            }
            value = object.value(key);
            prefix = withKey(prefix, key);
            break;
        }
        case Element::Index: {
            const QJsonArray array = value.toArray();
            if (index < 0) {
                index += array.size();
            }
            if (index < 0 || index >= array.size()) {
                return {};
            }
            value = array.at(index);
            prefix = withIndex(prefix, index);
            break;
        }
        case Element::AnyKey:
            return expandKeys(value.toObject(), prefix, path);
        case Element::AnyIndex:
            return expandIndexes(value.toArray(), prefix, path);
        case Element::End:
            return { prefix };
        }
    }
}

// False if there is nothing to write at.
bool write(QJsonValue &value, QStringRef path, const QJsonValue &newValue, int depth)
{
    QString key;
    int index = 0;
    const Element element = nextPathElement(path, key, index);
    if (element == Element::End) {
        value = newValue;
        return true;
    }
    if (depth == maximumDepth) {
        return false;
    }
    if (element == Element::Key) {
        QJsonObject object = value.toObject();
        QJsonValue member = object.value(key);
        if (!write(member, path, newValue, depth + 1)) {
            return false;
        }
        object.insert(key, member);
        value = object;
        return true;
    }
    if (element == Element::Index) {
        QJsonArray array = value.toArray();
        if (index < 0) {
            index += array.size();
        }
        if (index < 0 || index >= array.size()) {
            return false;
        }
        QJsonValue member = array.at(index);
        if (!write(member, path, newValue, depth + 1)) {
            return false;
        }
        array.replace(index, member);
        value = array;
        return true;
    }
    return false; // a wildcard is no place
}

} // namespace

QJsonValue value(const QJsonValue &jsonValue, const QString &path)
{
    QJsonValue found = jsonValue;
    QStringRef rest(&path);
    QString key;
    int index = 0;
    for (;;) {
        switch (nextPathElement(rest, key, index)) {
        case Element::Key:
            found = found.toObject().value(key);
            break;
        case Element::Index: {
            const QJsonArray array = found.toArray();
            found = array.at(index < 0 ? index + array.size() : index);
            break;
        }
        case Element::AnyKey:
        case Element::AnyIndex:
            break;
        case Element::End:
            return found;
        }
    }
}

void setValue(QJsonObject &jsonObject, const QString &path, const QJsonValue &newValue)
{
    QJsonValue whole(jsonObject);
    setValue(whole, path, newValue);
    jsonObject = whole.toObject();
}

void setValue(QJsonValue &jsonValue, const QString &path, const QJsonValue &newValue)
{
    write(jsonValue, QStringRef(&path), newValue, 0);
}

QStringList expandPaths(const QJsonObject &jsonObject, const QString &path)
{
    return expand(jsonObject, QStringRef(&path));
}

} // namespace JsonPath
} // namespace Core
