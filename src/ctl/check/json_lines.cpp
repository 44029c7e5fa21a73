#include "check/json_lines.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace Ctl::Check {

namespace {

/// The text of a string literal with its quotes.
QString textOf(const QByteArray &literal)
{
    return QJsonDocument::fromJson('[' + literal + ']').array().first().toString();
}

/// One behind the closing quote of the literal that begins at @p begin.
int endOfString(const QByteArray &content, int begin)
{
    for (int i = begin + 1; i < content.size(); ++i) {
        if (content.at(i) == '\\') {
            ++i;
        } else if (content.at(i) == '"') {
            return i + 1;
        }
    }
    return content.size();
}

bool isColonNext(const QByteArray &content, int at)
{
    while (at < content.size()
           && (content.at(at) == ' ' || (content.at(at) >= '\t' && content.at(at) <= '\r'))) {
        ++at;
    }
    return at < content.size() && content.at(at) == ':';
}

} // namespace

QVector<JsonMember> jsonMembers(const QByteArray &content)
{
    QVector<JsonMember> members;
    QString outer; // the latest key of the outermost object
    int line = 1;
    int depth = 0;
    for (int i = 0; i < content.size(); ++i) {
        switch (content.at(i)) {
        case '\n':
            ++line;
            break;
        case '{':
        case '[':
            ++depth;
            break;
        case '}':
        case ']':
            --depth;
            break;
        case '"': {
            const int end = endOfString(content, i);
            const QByteArray literal = content.mid(i, end - i);
            if (depth <= 2 && isColonNext(content, end)) {
                const QString key = textOf(literal);
                outer = depth == 1 ? key : outer;
                members.append({ line, depth == 1 ? QString() : outer, key });
            }
            line += literal.count('\n');
            i = end - 1;
            break;
        }
        default:
            break;
        }
    }
    return members;
}

} // namespace Ctl::Check
