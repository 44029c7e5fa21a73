#include "check/desktop_file.h"

#include "check/desktop_keys.h"
#include "check/desktop_subject.h"
#include "check/file_content.h"
#include "check/reader_log.h"
#include "check/spelling.h"

#include <QFileInfo>
#include <QSet>

#include <algorithm>

namespace Ctl::Check {

namespace {

using DesktopKeys::GroupKind;

/// Why the entry is not valid, from the reader's own message: what follows the file's name.
QString faultOf(const QStringList &messages, const QString &path)
{
    for (const QString &message : messages) {
        const int at = message.indexOf(path);
        if (message.startsWith(QLatin1String("MDesktopEntry:")) && at >= 0) {
            QString text = message.mid(at + path.size() + 1).trimmed();
            if (text.startsWith(QLatin1Char('"')) && text.endsWith(QLatin1Char('"'))) {
                text = text.mid(1, text.size() - 2);
            }
            return text;
        }
    }
    return QStringLiteral("it cannot be parsed");
}

QStringList groupNames()
{
    return QStringList(QStringLiteral("Desktop Entry")) + DesktopKeys::sandboxGroups();
}

/// Enough of a line to know it again.
QString quoted(const QString &line)
{
    constexpr int most = 60;
    return QStringLiteral("\"%1\"").arg(line.size() > most ? line.left(most) + QStringLiteral("...") : line);
}

/// Each line that keeps the file from being read, or the first of very many.
void checkBadLines(const KeyLines &lines, Report &report)
{
    constexpr int most = 10;
    const int firstGroup = lines.groups.isEmpty() ? 0 : lines.groups.first().line;
    for (int i = 0; i < std::min(lines.bad.size(), most); ++i) {
        const BadLine &bad = lines.bad.at(i);
        const bool isBefore =
            bad.text.contains(QLatin1Char('=')) && (firstGroup == 0 || bad.line < firstGroup);
        const QString fault = isBefore ? QStringLiteral("stands before the first group")
            : bad.text.startsWith(QLatin1Char(';'))
            ? QStringLiteral("is no comment, which begins with \"#\"")
            : QStringLiteral("is no group, no key with a value and no comment");
        report.add(Rule::Syntax, { bad.line },
                   QStringLiteral("%1 %2: nothing of the file is read").arg(quoted(bad.text), fault));
    }
    if (lines.bad.size() > most) {
        report.add(Rule::Syntax, { lines.bad.at(most).line },
                   QStringLiteral("there are %1 more lines like that").arg(lines.bad.size() - most));
    }
}

void checkMalformed(const KeyLines &lines, const QString &fault, Report &report)
{
    if (!lines.bad.isEmpty()) {
        checkBadLines(lines, report);
        return;
    }
    if (!lines.hasGroup(QStringLiteral("Desktop Entry"))) {
        QString near;
        for (const GroupLine &group : lines.groups) {
            near = closest(group.name, { QStringLiteral("Desktop Entry") }).isEmpty() ? near : group.name;
        }
        report.add(Rule::NoMainGroup,
                   QStringLiteral("there is no group [Desktop Entry]: nothing of the file is read")
                       + (near.isEmpty() ? QString() : QStringLiteral(" (there is [%1])").arg(near)));
        return;
    }
    report.add(Rule::Syntax, fault + QStringLiteral(": nothing of the file is read"));
}

void checkGroups(const DesktopSubject &subject)
{
    QSet<QString> seen;
    for (const GroupLine &group : subject.lines.groups) {
        const Place place { group.line, group.name };
        if (seen.contains(group.name)) {
            subject.report.add(
                Rule::DuplicateGroup, place,
                QStringLiteral("[%1] appears twice: the keys of both are read as one group").arg(group.name));
        }
        seen.insert(group.name);
        if (DesktopKeys::kindOf(group.name) != GroupKind::Other
            || group.name.startsWith(QLatin1String("Desktop Action "))) {
            continue;
        }
        QString near = closest(group.name, groupNames());
        const QString first = group.name.section(QLatin1Char(' '), 0, 0);
        const QStringList prefixes { QStringLiteral("X-Task"), QStringLiteral("X-Service") };
        const QString nearPrefix = prefixes.contains(first) ? first : closest(first, prefixes);
        if (near.isEmpty() && !nearPrefix.isEmpty()) {
            near = nearPrefix + QLatin1Char(' ') + group.name.section(QLatin1Char(' '), 1);
            near = near.endsWith(QLatin1Char(' ')) ? near + QStringLiteral("NAME") : near;
        }
        if (!near.isEmpty()) {
            subject.report.add(
                Rule::MisspeltGroup, place,
                QStringLiteral("nothing reads the group [%1]%2").arg(group.name, didYouMean(near)));
        }
    }
}

/// @param isList whether the reader splits it, and takes a semicolon behind a backslash as one of an entry
bool hasUnknownEscape(const QString &value, bool isList)
{
    const QString known = isList ? QStringLiteral("sntr\\;") : QStringLiteral("sntr\\");
    for (int i = value.indexOf(QLatin1Char('\\')); i >= 0; i = value.indexOf(QLatin1Char('\\'), i + 2)) {
        if (i + 1 >= value.size() || !known.contains(value.at(i + 1))) {
            return true;
        }
    }
    return false;
}

/// Blanks at its end count, and make it another value.
bool countsTrailingBlanks(const QString &key)
{
    static const QSet<QString> others {
        QStringLiteral("Exec"),        QStringLiteral("ExecDBus"), QStringLiteral("MimeType"),
        QStringLiteral("Permissions"), QStringLiteral("Intents"),  QStringLiteral("Conditions"),
        QStringLiteral("Name"),
    };
    return !others.contains(key);
}

void checkReadKey(const DesktopSubject &subject, const KeyLine &line, const Place &place)
{
    if (line.value.isEmpty()) {
        subject.report.add(Rule::EmptyValue, place,
                           QStringLiteral("%1 is empty, which is the same as not there").arg(line.key));
    } else if (line.value.back().isSpace() && countsTrailingBlanks(line.key)) {
        subject.report.add(
            Rule::TrailingBlank, place,
            QStringLiteral("the blanks at the end are a part of %1: it is \"%2\"").arg(line.key, line.value));
    }
    const bool isSplit =
        line.key == QLatin1String("MimeType") || DesktopKeys::kindOf(line.group) == GroupKind::Task;
    if (hasUnknownEscape(line.value, isSplit && line.key != QLatin1String("Exec"))) {
        subject.report.add(
            Rule::Escape, place,
            (line.value.endsWith(QLatin1Char('\\'))
                 ? QStringLiteral("the backslash at the end of %1 is dropped")
                 : QStringLiteral(
                     "%1 has a backslash that begins none of \\s \\n \\t \\r \\\\: it stays as it is"))
                .arg(line.key));
    }
}

void checkUnreadKey(const DesktopSubject &subject, const QString &key, GroupKind kind, const Place &place)
{
    if (kind == GroupKind::Task && DesktopKeys::taskHints().contains(key)) {
        subject.report.add(
            Rule::TaskHint, place,
            QStringLiteral("%1 is not read here: it belongs to the request for the task").arg(key));
        return;
    }
    for (const GroupKind other : { GroupKind::Main, GroupKind::Sandbox, GroupKind::Task }) {
        if (DesktopKeys::keysOf(other).contains(key)) {
            subject.report.add(Rule::WrongGroup, place,
                               QStringLiteral("%1 is not read in [%2], but in %3")
                                   .arg(key, place.group, DesktopKeys::groupText(other)));
            return;
        }
    }
    QStringList known = DesktopKeys::keysOf(kind);
    if (kind == GroupKind::Main) {
        known += DesktopKeys::standardKeys();
    }
    const QString near = closest(key, known);
    if (!near.isEmpty()) {
        subject.report.add(Rule::MisspeltKey, place,
                           QStringLiteral("nothing reads the key %1%2").arg(key, didYouMean(near)));
    } else if (!key.startsWith(QLatin1String("X-"))) {
        subject.report.add(Rule::UnknownKey, place, QStringLiteral("nothing reads the key %1").arg(key));
    }
}

void checkKeys(const DesktopSubject &subject)
{
    QHash<QPair<QString, QString>, int> seen; // line of the key
    for (const KeyLine &line : subject.lines.keys) {
        const Place place { line.line, line.group, line.key };
        const auto name = qMakePair(line.group, line.key);
        const int before = seen.value(name);
        seen.insert(name, line.line);
        const GroupKind kind = DesktopKeys::kindOf(line.group);
        if (kind == GroupKind::Other) {
            continue;
        }
        if (before != 0) {
            subject.report.add(
                Rule::DuplicateKey, place,
                QStringLiteral("%1 stands in line %2 already; this one counts").arg(line.key).arg(before));
        }
        if (!line.isUtf8) {
            subject.report.add(Rule::Encoding, place,
                               QStringLiteral("%1 is not UTF-8, and counts as empty").arg(line.key));
        }
        const QString key = DesktopKeys::withoutLanguage(line.key);
        const bool isStandard = kind == GroupKind::Main && DesktopKeys::standardKeys().contains(key);
        if (DesktopKeys::keysOf(kind).contains(key)) {
            checkReadKey(subject, line, place);
        } else if (!isStandard) {
            checkUnreadKey(subject, key, kind, place);
        }
    }
}

void checkId(const DesktopSubject &subject, const QString &path)
{
    const Core::MyDesktopEntry &entry = subject.entry;
    const QString organisation = entry.appOrgname();
    const QString name = entry.appName();
    const QString id = subject.info.id().text();
    const QString organisationKey = QStringLiteral("OrganizationName");
    const QString nameKey = QStringLiteral("ApplicationName");
    const bool isDeclared = !organisation.isEmpty() && !name.isEmpty()
        && !organisation.contains(QLatin1Char('/')) && !name.contains(QLatin1Char('/'));
    const Place place = subject.sandboxPlace(organisation.isEmpty() ? nameKey : organisationKey);
    if (organisation.isEmpty() && name.isEmpty()) {
        subject.report.add(Rule::FallbackId,
                           QStringLiteral("there is no %1 and %2: the id is made of the file's name, %3")
                               .arg(organisationKey, nameKey, id));
    } else if (!isDeclared) {
        subject.report.add(
            Rule::IncompleteId, place,
            (organisation.isEmpty() || name.isEmpty()
                 ? QStringLiteral("%1 and %2 count together only").arg(organisationKey, nameKey)
                 : QStringLiteral("%1 and %2 must not hold a slash").arg(organisationKey, nameKey))
                + QStringLiteral(": the id is made of the file's name, ") + id);
    }
    if (!Core::ApplicationId(id).isValid()) {
        subject.report.add(
            Rule::InvalidId, place,
            QStringLiteral(
                "%1 is no id of an application that can be started: it takes an organisation of "
                "[0-9a-z._-], a dot, and a name of [A-Za-z0-9._-] that begins with no digit or dot")
                .arg(id));
    }
    const QString baseName = QFileInfo(path).completeBaseName();
    if (isDeclared && baseName != id && Core::ApplicationId(baseName).isValid()) {
        subject.report.add(Rule::IdFileName, place,
                           QStringLiteral("the id is %1, but the file has the name of %2, and so have the "
                                          "directories of the application")
                               .arg(id, baseName));
    }
}

/// What of the Desktop Entry Specification makes no difference.
void checkStandardKeys(const DesktopSubject &subject)
{
    struct Key
    {
        const char *name;
        const char *value; ///< the one that is told of; null: any
        const char *text;
    };
    static const Key keys[] = {
        { "Hidden", "true", "Hidden is not read: the application is installed, and can be started" },
        { "NoDisplay", "true",
          "NoDisplay is not read: the application can be started, and handles what it declares" },
        { "TryExec", nullptr, "TryExec is not read: the application is installed, with or without it" },
        { "OnlyShowIn", nullptr, "OnlyShowIn is not read: the application is installed" },
        { "NotShowIn", nullptr, "NotShowIn is not read: the application is installed" },
        { "Path", nullptr, "Path is not read: the program starts in the directory of the service" },
        { "Terminal", "true", "Terminal is not read: the program has no terminal" },
        { "DBusActivatable", "true", "DBusActivatable is not read: the command line is run" },
        { "Actions", nullptr, "Actions is not read" },
    };
    for (const Key &key : keys) {
        const QString name = QLatin1String(key.name);
        const QString value = subject.entry.value(name);
        if (key.value ? value == QLatin1String(key.value) : !value.isEmpty()) {
            subject.report.add(Rule::NotRead, subject.mainPlace(name), QLatin1String(key.text));
        }
    }
    const QString type = subject.entry.value(QStringLiteral("Type"));
    if (!type.isEmpty() && type != QLatin1String("Application")) {
        subject.report.add(
            Rule::EntryType, subject.mainPlace(QStringLiteral("Type")),
            QStringLiteral("Type is not read: with %1, too, the file is an application").arg(type));
    }
    if (subject.info.name().isEmpty()) {
        subject.report.add(Rule::MissingName, subject.mainPlace(QString()),
                           QStringLiteral("there is no Name: notifications show none"));
    }
}

} // namespace

Place DesktopSubject::sandboxPlace(const QString &key) const
{
    for (const QString &group : DesktopKeys::sandboxGroups()) {
        if (!entry.value(group, key).isEmpty()) {
            return place(group, key);
        }
    }
    return {};
}

QStringList entriesOf(const QString &value)
{
    return value.split(QLatin1Char(';'), Qt::SkipEmptyParts);
}

void DesktopSubject::checkList(const QString &value, const Place &where) const
{
    const QStringList entries = entriesOf(value);
    for (const QString &text : entries) {
        if (text.trimmed() != text) {
            report.add(Rule::ListBlank, where,
                       QStringLiteral("the blanks around an entry of %1 are a part of it: \"%2\"")
                           .arg(where.key, text));
        }
        if (text.contains(QLatin1Char(','))) {
            report.add(Rule::ListSeparator, where,
                       QStringLiteral("entries of %1 are separated by semicolons: \"%2\" is one entry")
                           .arg(where.key, text));
        }
    }
}

void checkDesktopFile(const QString &path, Report &report)
{
    QByteArray content;
    if (!readFile(path, content, report)) {
        return;
    }
    if (content.startsWith("\xef\xbb\xbf")) {
        report.add(
            Rule::ByteOrderMark, { 1 },
            QStringLiteral("the file begins with a byte order mark, which counts as text before the first "
                           "group: nothing of the file is read"));
        return;
    }
    const int nul = content.indexOf('\0');
    if (nul >= 0) {
        report.add(Rule::NulByte, { lineAt(content, nul) },
                   QStringLiteral("there is a NUL byte: what follows it in the line does not count"));
    }
    const KeyLines lines = KeyLines::ofDesktopFile(content);
    const ReaderLog log;
    const Core::MyDesktopEntry entry(path);
    if (!entry.isValid()) {
        checkMalformed(lines, faultOf(log.messages(), path), report);
        return;
    }
    if (!path.endsWith(QLatin1String(".desktop"))) {
        report.add(
            Rule::FileName,
            QStringLiteral("only files whose name ends in \".desktop\" are read from the directories of "
                           "applications"));
    }
    if (QFileInfo(path).fileName().startsWith(QLatin1Char('.'))) {
        report.add(Rule::FileName, QStringLiteral("a hidden file is not read"));
    }
    const Core::ApplicationInfo info(path);
    const DesktopSubject subject { lines, entry, info, report };
    checkGroups(subject);
    checkKeys(subject);
    if (!info.isValid()) {
        report.add(Rule::InvalidId,
                   QStringLiteral("there is no id: neither do %1 and %2 give one, nor the file's name")
                       .arg(QStringLiteral("OrganizationName"), QStringLiteral("ApplicationName")));
        return;
    }
    checkId(subject, path);
    checkStandardKeys(subject);
    checkValues(subject);
    checkCommands(subject);
    checkTaskGroups(subject);
}

} // namespace Ctl::Check
