#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

namespace Ctl::Check {

/// A member of an object in a JSON text.
struct JsonMember
{
    int line = 0;
    QString parent; ///< key of the object that it is in; empty in the outermost one
    QString key;
};

/// Members of the outermost object, and of the objects in it, in their order; deeper ones are left out.
/// @param content a text that a JSON reader has accepted
[[nodiscard]] QVector<JsonMember> jsonMembers(const QByteArray &content);

} // namespace Ctl::Check
