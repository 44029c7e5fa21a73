#include "check/key_lines.h"

#include <algorithm>
#include <cstring>

namespace Ctl::Check {

namespace {

const QByteArray byteOrderMark("\xef\xbb\xbf");

bool isSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

QString decoded(const QByteArray &bytes, bool *isUtf8 = nullptr)
{
    const QString text = QString::fromUtf8(bytes);
    if (isUtf8) {
        *isUtf8 = text.toUtf8() == bytes;
    }
    return text;
}

/// A name of the INI form with its escapes replaced: "%20", "%U20AC", and "\\" for a slash.
QString unescaped(const QByteArray &name)
{
    QString result;
    for (int i = 0; i < name.size(); ++i) {
        if (name.at(i) != '%') {
            result += name.at(i) == '\\' ? QLatin1Char('/') : QLatin1Char(name.at(i));
            continue;
        }
        const bool isLong = i + 1 < name.size() && name.at(i + 1) == 'U';
        const QByteArray digits = isLong ? name.mid(i + 2, 4) : name.mid(i + 1, 2);
        bool isNumber = false;
        const ushort code = digits.toUShort(&isNumber, 16);
        if (isNumber && digits.size() == (isLong ? 4 : 2)) {
            result += QChar(code);
            i += digits.size() + (isLong ? 1 : 0);
        } else {
            result += QLatin1Char('%');
        }
    }
    return result;
}

int firstNonSpace(const QByteArray &line)
{
    return static_cast<int>(std::find_if_not(line.cbegin(), line.cend(), isSpace) - line.cbegin());
}

/// The name between the brackets; a null array if the line opens no group.
QByteArray groupOfDesktopLine(const QByteArray &line)
{
    const int end = line.indexOf(']');
    if (!line.startsWith('[') || end < 0 || !std::all_of(line.cbegin() + end + 1, line.cend(), isBlank)) {
        return QByteArray();
    }
    const QByteArray name = line.mid(1, end - 1);
    const bool isLegal = std::all_of(name.cbegin(), name.cend(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return c != '[' && byte >= 0x20 && byte != 0x7f;
    });
    return isLegal && !name.isEmpty() ? name : QByteArray();
}

/// What may stand before "=": anything but brackets, and behind it a language in brackets.
bool isDesktopKey(const QByteArray &key)
{
    const int bracket = key.indexOf('[');
    const QByteArray name = bracket < 0 ? key : key.left(bracket);
    if (name.isEmpty() || name.contains(']') || isBlank(name.at(name.size() - 1))) {
        return false;
    }
    if (bracket < 0) {
        return true;
    }
    const QByteArray language = key.mid(bracket + 1, key.size() - bracket - 2);
    return key.endsWith(']') && std::all_of(language.cbegin(), language.cend(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')
                   || std::strchr("-_.@", c) != nullptr || static_cast<unsigned char>(c) >= 0x80;
           });
}

/// One line of the INI form, over the ends of lines that belong to it.
struct SettingsLine
{
    QByteArray text;
    bool isCut = false; ///< it ends in a semicolon, without a blank before it
    int equals = -1; ///< place of the first "=" outside quotes; -1: there is none
};

/// Cuts a file into lines just as QSettings does.
class SettingsCutter
{
public:
    explicit SettingsCutter(const QByteArray &content)
        : m_content(content)
        , m_next(content.startsWith(byteOrderMark) ? byteOrderMark.size() : 0)
    {
    }

    [[nodiscard]] bool next(SettingsLine &line, int &number)
    {
        while (m_next < m_content.size()) {
            skipSpace();
            if (m_next < m_content.size() && m_content.at(m_next) == ';') {
                skipComment();
                continue;
            }
            if (m_next < m_content.size()) {
                number = numberAt(m_next);
                takeLine(line);
                return true;
            }
        }
        return false;
    }

private:
    void skipSpace()
    {
        while (m_next < m_content.size() && isSpace(m_content.at(m_next))) {
            ++m_next;
        }
    }

    void skipComment()
    {
        while (m_next < m_content.size() && m_content.at(m_next) != '\n' && m_content.at(m_next) != '\r') {
            ++m_next;
        }
    }

    void takeLine(SettingsLine &line)
    {
        const int begin = m_next;
        bool isQuoted = false;
        line.equals = -1;
        for (; m_next < m_content.size(); ++m_next) {
            const char c = m_content.at(m_next);
            if (c == '\\') {
                const char skipped = m_next + 1 < m_content.size() ? m_content.at(m_next + 1) : '\0';
                const char after = m_next + 2 < m_content.size() ? m_content.at(m_next + 2) : '\0';
                ++m_next;
                m_next += (skipped == '\r' && after == '\n') || (skipped == '\n' && after == '\r') ? 1 : 0;
            } else if (c == '"') {
                isQuoted = !isQuoted;
            } else if (!isQuoted && c == '=' && line.equals < 0) {
                line.equals = m_next - begin;
            } else if (!isQuoted && (c == '\n' || c == '\r' || c == ';')) {
                break;
            }
        }
        m_next = std::min(m_next, m_content.size());
        line.isCut = m_next < m_content.size() && m_content.at(m_next) == ';' && m_next > begin
            && !isBlank(m_content.at(m_next - 1));
        line.text = m_content.mid(begin, m_next - begin);
        if (begin == byteOrderMark.size() && m_content.startsWith(byteOrderMark)
            && !line.text.startsWith('[')) {
            line.text.prepend(byteOrderMark); // only before a group it is passed over
            line.equals += line.equals < 0 ? 0 : byteOrderMark.size();
        }
    }

    int numberAt(int offset)
    {
        m_number +=
            static_cast<int>(std::count(m_content.cbegin() + m_counted, m_content.cbegin() + offset, '\n'));
        m_counted = offset;
        return m_number;
    }

    const QByteArray m_content;
    int m_next;
    int m_counted = 0;
    int m_number = 1;
};

} // namespace

KeyLines KeyLines::ofDesktopFile(const QByteArray &content)
{
    KeyLines lines;
    QString group;
    int number = 0;
    const QList<QByteArray> all = content.split('\n');
    for (QByteArray line : all) {
        ++number;
        if (line.endsWith('\r')) {
            line.chop(1);
        }
        const int nul = line.indexOf('\0');
        line.truncate(nul < 0 ? line.size() : nul);
        line = line.mid(firstNonSpace(line));
        if (line.isEmpty() || line.startsWith('#')) {
            continue;
        }
        const QByteArray name = groupOfDesktopLine(line);
        if (!name.isNull()) {
            group = decoded(name);
            lines.add(GroupLine { number, group });
            continue;
        }
        const int equals = line.indexOf('=');
        int keyEnd = std::max(equals, 0);
        while (keyEnd > 0 && isSpace(line.at(keyEnd - 1))) {
            --keyEnd;
        }
        if (equals < 1 || lines.groups.isEmpty() || !isDesktopKey(line.left(keyEnd))) {
            lines.bad.append({ number, decoded(line) });
            continue;
        }
        KeyLine entry { number, group, decoded(line.left(keyEnd)), QString() };
        const QByteArray rest = line.mid(equals + 1);
        entry.value = decoded(rest.mid(firstNonSpace(rest)), &entry.isUtf8);
        lines.add(entry);
    }
    return lines;
}

KeyLines KeyLines::ofSettings(const QByteArray &content)
{
    KeyLines lines;
    QString group;
    SettingsLine line;
    int number = 0;
    for (SettingsCutter cutter(content); cutter.next(line, number);) {
        const QByteArray &text = line.text;
        if (text.startsWith('[')) {
            const int end = text.indexOf(']');
            if (end < 0) {
                lines.bad.append({ number, decoded(text) });
            }
            const QByteArray name = text.mid(1, end < 0 ? -1 : end - 1).trimmed();
            group = name.compare("general", Qt::CaseInsensitive) == 0 ? QString()
                : name.compare("%general", Qt::CaseInsensitive) == 0  ? decoded(name.mid(1))
                                                                      : unescaped(name);
            lines.add(GroupLine { number, group.isEmpty() ? decoded(name) : group });
            continue;
        }
        if (line.equals < 0) {
            lines.bad.append({ number, decoded(text) });
            continue;
        }
        int keyEnd = line.equals;
        while (keyEnd > 0 && isBlank(text.at(keyEnd - 1))) {
            --keyEnd;
        }
        KeyLine entry { number, group, unescaped(text.left(keyEnd)), QString() };
        entry.value = decoded(text.mid(line.equals + 1).trimmed(), &entry.isUtf8);
        entry.isCut = line.isCut;
        lines.add(entry);
    }
    return lines;
}

void KeyLines::add(const KeyLine &line)
{
    m_lastOfKey.insert(qMakePair(line.group, line.key), keys.size());
    keys.append(line);
}

void KeyLines::add(const GroupLine &line)
{
    if (!m_lineOfGroup.contains(line.name)) {
        m_lineOfGroup.insert(line.name, line.line);
    }
    groups.append(line);
}

const KeyLine *KeyLines::find(const QString &group, const QString &key) const
{
    const auto found = m_lastOfKey.constFind(qMakePair(group, key));
    return found == m_lastOfKey.cend() ? nullptr : &keys.at(*found);
}

bool KeyLines::hasGroup(const QString &group) const
{
    return m_lineOfGroup.contains(group);
}

int KeyLines::lineOf(const QString &group, const QString &key) const
{
    const KeyLine *line = key.isEmpty() ? nullptr : find(group, key);
    return line ? line->line : m_lineOfGroup.value(group);
}

} // namespace Ctl::Check
