#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QStringList>

namespace Core {

/// Places inside a JSON object, as a short text: `files[0].name`.
///
/// A path is a sequence of keys and of indexes in brackets. Dots separate; any number of them may stand where
/// an element can begin. A negative index counts from the end of the array. "*" stands for every key and
/// "[*]" for every index: such a path is first expanded to the concrete ones that an object has.
///
/// A key with a dot or a bracket, an empty one, and "*" have no form in this language. A syntax error ends
/// the path where it stands, with a debug line.
namespace JsonPath {

/// Nothing is written deeper than this, which is as deep as a JSON text may be nested for Qt to read it.
constexpr int maximumDepth = 1024;

/// The value at @p path; undefined if there is none. Wildcards do not select here: each is passed over, and
/// the walk goes on from the same value.
[[nodiscard]] QJsonValue value(const QJsonValue &jsonValue, const QString &path);

/// Writes @p newValue at the concrete @p path. Objects are made of what stands in the way of a key, and
/// missing keys are added. Nothing is written at an index that the array does not have, below maximumDepth,
/// nor if there is a wildcard. The empty path is the object itself, which becomes empty if the new value is
/// no object.
void setValue(QJsonObject &jsonObject, const QString &path, const QJsonValue &newValue);

/// The same inside any value.
void setValue(QJsonValue &jsonValue, const QString &path, const QJsonValue &newValue);

/// The concrete paths that @p path stands for in @p jsonObject, in the order of its keys and indexes: without
/// wildcards, without negative indexes, and each to a value that is there. A path without wildcards comes
/// back in its normal form, or gives the empty list if the object has nothing there. A wildcard passes over
/// keys that have no form in a path.
[[nodiscard]] QStringList expandPaths(const QJsonObject &jsonObject, const QString &path);

} // namespace JsonPath
} // namespace Core
