#pragma once

#include <QByteArray>
#include <QHash>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QVector>

namespace Ctl::Check {

/// A line that gives a key a value.
struct KeyLine
{
    int line = 0;
    QString group;
    QString key;
    QString value; ///< as it stands, escapes and quotes included
    bool isUtf8 = true;
    bool isCut = false; ///< a semicolon ends it at once, without a blank
};

struct GroupLine
{
    int line = 0;
    QString name;
};

/// A line that is neither a group, a key with a value, nor a comment.
struct BadLine
{
    int line = 0;
    QString text;
};

/// What stands in which line of a file of groups and keys.
///
/// What a value means is asked of the reader of that kind of file; this only knows where it stands, and what
/// of it a reader drops.
class KeyLines
{
public:
    QVector<GroupLine> groups;
    QVector<KeyLine> keys;
    QVector<BadLine> bad;

    /// The form of the Desktop Entry Specification, as GLib takes it. A group that appears again goes on.
    [[nodiscard]] static KeyLines ofDesktopFile(const QByteArray &content);

    /// The INI form of QSettings: ";" begins a comment, at the end of a line too; quotes and a backslash
    /// carry a value over the end of a line. Keys before the first group, and those in "General", have none.
    [[nodiscard]] static KeyLines ofSettings(const QByteArray &content);

    /// The one that counts: the last one. Null if there is none.
    [[nodiscard]] const KeyLine *find(const QString &group, const QString &key) const;
    [[nodiscard]] bool hasGroup(const QString &group) const;
    /// Line of the key, else of its group, else 0.
    [[nodiscard]] int lineOf(const QString &group, const QString &key = {}) const;

private:
    void add(const KeyLine &line);
    void add(const GroupLine &line);

    QHash<QPair<QString, QString>, int> m_lastOfKey; // group and key -> index in keys
    QHash<QString, int> m_lineOfGroup; // name -> line where it begins first
};

} // namespace Ctl::Check
