#include "check/settings_subject.h"

#include "check/file_content.h"
#include "check/spelling.h"

#include <QHash>
#include <QSet>

#include <algorithm>

namespace Ctl::Check {

namespace {

QString inGroup(const QString &group)
{
    return group.isEmpty() ? QStringLiteral("in no group") : QStringLiteral("in [%1]").arg(group);
}

QString path(const QString &group, const QString &key)
{
    return group.isEmpty() ? key : group + QLatin1Char('/') + key;
}

} // namespace

SettingsSubject::SettingsSubject(const QString &path, Report &where)
    : report(where)
    , m_isRead(readFile(path, m_content, report))
    , m_lines(KeyLines::ofSettings(m_content))
    // It would wait for somebody to write to a FIFO.
    , m_settings(m_isRead ? path : QString(), QSettings::IniFormat)
{
    if (m_isRead) {
        checkLines();
    }
}

Place SettingsSubject::place(const QString &group, const QString &key) const
{
    return { m_lines.lineOf(group, key), group, key };
}

void SettingsSubject::add(Rule rule, const QString &group, const QString &key, const QString &text) const
{
    report.add(rule, place(group, key), text);
}

QVariant SettingsSubject::value(const QString &group, const QString &key) const
{
    return m_settings.value(path(group, key));
}

bool SettingsSubject::contains(const QString &group, const QString &key) const
{
    return m_settings.contains(path(group, key));
}

std::optional<int> SettingsSubject::number(const QString &key, const QString &otherwise) const
{
    if (!contains(QString(), key)) {
        return std::nullopt;
    }
    bool isNumber = false;
    const int number = value(QString(), key).toString().toInt(&isNumber);
    if (isNumber) {
        return number;
    }
    const KeyLine *line = m_lines.find(QString(), key);
    add(Rule::Number, QString(), key,
        QStringLiteral("%1=%2 is no whole number%3: %4")
            .arg(key, line ? line->value : QString(),
                 value(QString(), key).toString().contains(QLatin1Char('.'))
                     ? QString()
                     : QStringLiteral(" that fits 32 bits"),
                 otherwise));
    return std::nullopt;
}

void SettingsSubject::checkLines() const
{
    for (const BadLine &bad : m_lines.bad) {
        const QString fault = bad.text.startsWith(QLatin1Char('['))
            ? QStringLiteral("the name of a group ends with \"]\"")
            : bad.text.startsWith(QLatin1Char('#')) || bad.text.startsWith(QLatin1String("//"))
            ? QStringLiteral("this is no comment, which begins with \";\", and is passed over all the same")
            : QStringLiteral("\"%1\" is no key with a value, and is passed over").arg(bad.text.left(60));
        report.add(Rule::BadLine, { bad.line }, fault);
    }
    const bool beginsWithKey = !m_lines.keys.isEmpty() && m_lines.keys.first().group.isEmpty()
        && m_lines.keys.first().key.startsWith(QString::fromLatin1("\xef\xbb\xbf"));
    if (beginsWithKey) {
        report.add(
            Rule::ByteOrderMark, { 1 },
            QStringLiteral("the file begins with a byte order mark, which is read as a part of the first "
                           "key"));
    }
    QHash<QPair<QString, QString>, int> seen; // line of the key
    for (const KeyLine &line : m_lines.keys) {
        const auto name = qMakePair(line.group, line.key);
        if (seen.contains(name)) {
            report.add(Rule::DuplicateKey, { line.line, line.group, line.key },
                       QStringLiteral("%1 stands in line %2 already; this one counts")
                           .arg(line.key)
                           .arg(seen.value(name)));
        }
        seen.insert(name, line.line);
        checkValueOf(line);
    }
    QSet<QString> groups;
    for (const GroupLine &group : m_lines.groups) {
        if (groups.contains(group.name)) {
            report.add(
                Rule::DuplicateGroup, { group.line, group.name },
                QStringLiteral("[%1] appears twice: the keys of both are read as one group").arg(group.name));
        }
        groups.insert(group.name);
    }
}

void SettingsSubject::checkValueOf(const KeyLine &line) const
{
    const Place place { line.line, line.group, line.key };
    if (line.key.startsWith(QLatin1Char('#'))) {
        report.add(Rule::BadLine, place,
                   QStringLiteral("a comment begins with \";\": this is a key %1").arg(line.key));
    }
    if (line.value.contains(QLatin1Char('\n'))) {
        report.add(
            Rule::OpenValue, place,
            QStringLiteral("the value of %1 goes on in the next line, for a quote that is not closed or a "
                           "backslash")
                .arg(line.key));
    }
    if (line.isCut) {
        report.add(Rule::CutValue, place,
                   QStringLiteral("a semicolon begins a comment: the value of %1 is \"%2\"")
                       .arg(line.key, line.value));
    }
    const bool isAscii =
        std::all_of(line.value.cbegin(), line.value.cend(), [](QChar c) { return c.unicode() < 0x80; });
    if (!isAscii || !line.isUtf8) {
        report.add(Rule::Encoding, place,
                   QStringLiteral("%1 has letters beyond ASCII, which are not read as UTF-8").arg(line.key));
    }
}

void SettingsSubject::checkNames(const QString &group, const QStringList &keys) const
{
    for (const KeyLine &line : m_lines.keys) {
        if (line.key.startsWith(QLatin1Char('#')) || (line.group == group && keys.contains(line.key))) {
            continue;
        }
        const Place where { line.line, line.group, line.key };
        const QString near = closest(line.key, keys);
        if (keys.contains(line.key)) {
            report.add(Rule::WrongGroup, where,
                       QStringLiteral("%1 is not read %2, but %3")
                           .arg(line.key, inGroup(line.group), inGroup(group)));
        } else if (!near.isEmpty()) {
            report.add(Rule::MisspeltKey, where,
                       QStringLiteral("nothing reads the key %1%2").arg(line.key, didYouMean(near)));
        } else {
            report.add(Rule::UnknownKey, where, QStringLiteral("nothing reads the key %1").arg(line.key));
        }
    }
}

void SettingsSubject::checkGroups(const QStringList &groups) const
{
    for (const GroupLine &line : m_lines.groups) {
        if (groups.contains(line.name)
            || line.name.compare(QLatin1String("General"), Qt::CaseInsensitive) == 0) {
            continue;
        }
        const QString near = closest(line.name, groups);
        report.add(near.isEmpty() ? Rule::UnknownKey : Rule::MisspeltGroup, { line.line, line.name },
                   QStringLiteral("nothing reads the group [%1]%2").arg(line.name, didYouMean(near)));
    }
}

} // namespace Ctl::Check
