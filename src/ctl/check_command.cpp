#include "exit_status.h"
#include "session.h"

#include "check/installed.h"
#include "check/kinds.h"

#include <algorithm>

// The linter. What is found goes to standard output, in the form in which compilers tell of errors.

namespace Ctl {

namespace {

using Check::Finding;
using Check::Severity;

Style styleOf(Severity severity)
{
    switch (severity) {
    case Severity::Note:
        return Style::Dim;
    case Severity::Warning:
        return Style::Notice;
    case Severity::Error:
        return Style::Bad;
    }
    return Style::Plain;
}

QString ruleName(const Finding &finding)
{
    return QLatin1String(Check::ruleInfo(finding.rule).name);
}

QString textOf(const Output &output, const Finding &finding)
{
    const QString place = finding.place.line > 0
        ? QStringLiteral("%1:%2:").arg(finding.file).arg(finding.place.line)
        : finding.file + QLatin1Char(':');
    return QStringLiteral("%1 %2 %3 %4\n")
        .arg(output.highlighted(place, Style::Bold),
             output.highlighted(Check::severityName(finding.severity()) + QLatin1Char(':'),
                                styleOf(finding.severity())),
             printable(finding.text),
             output.highlighted(QStringLiteral("[%1]").arg(ruleName(finding)), Style::Dim));
}

QVariantMap dataOf(const Finding &finding)
{
    return {
        { QStringLiteral("File"), finding.file },
        { QStringLiteral("Line"), finding.place.line },
        { QStringLiteral("Severity"), Check::severityName(finding.severity()) },
        { QStringLiteral("Group"), finding.place.group },
        { QStringLiteral("Key"), finding.place.key },
        { QStringLiteral("Text"), finding.text },
        { QStringLiteral("Rule"), ruleName(finding) },
    };
}

QString counted(int count, const QString &one, const QString &many)
{
    return QStringLiteral("%1 %2").arg(QString::number(count), count == 1 ? one : many);
}

int countOf(const QVector<Finding> &findings, Severity severity)
{
    return static_cast<int>(
        std::count_if(findings.cbegin(), findings.cend(),
                      [severity](const Finding &finding) { return finding.severity() == severity; }));
}

QString summary(int files, const QVector<Finding> &findings)
{
    QStringList counts;
    const int errors = countOf(findings, Severity::Error);
    const int warnings = countOf(findings, Severity::Warning);
    const int notes = countOf(findings, Severity::Note);
    if (errors > 0) {
        counts += counted(errors, QStringLiteral("error"), QStringLiteral("errors"));
    }
    if (warnings > 0) {
        counts += counted(warnings, QStringLiteral("warning"), QStringLiteral("warnings"));
    }
    if (notes > 0) {
        counts += counted(notes, QStringLiteral("note"), QStringLiteral("notes"));
    }
    return QStringLiteral("%1: %2\n")
        .arg(counted(files, QStringLiteral("file"), QStringLiteral("files")),
             counts.isEmpty() ? QStringLiteral("nothing found") : counts.join(QStringLiteral(", ")));
}

void print(const Output &output, int files, const QVector<Finding> &findings)
{
    QString text;
    QVariantList entries;
    for (const Finding &finding : findings) {
        text += textOf(output, finding);
        entries.append(dataOf(finding));
    }
    output.record({ { QStringLiteral("Files"), files },
                    { QStringLiteral("Errors"), countOf(findings, Severity::Error) },
                    { QStringLiteral("Warnings"), countOf(findings, Severity::Warning) },
                    { QStringLiteral("Notes"), countOf(findings, Severity::Note) },
                    { QStringLiteral("Findings"), entries } },
                  text + summary(files, findings));
}

int printRules(const Output &output)
{
    QVariantList entries;
    for (const Check::RuleInfo &rule : Check::rules()) {
        entries.append(QVariantMap { { QStringLiteral("Rule"), QLatin1String(rule.name) },
                                     { QStringLiteral("Severity"), Check::severityName(rule.severity) },
                                     { QStringLiteral("Text"), QLatin1String(rule.summary) } });
    }
    output.rows(entries,
                { keyColumn(QStringLiteral("RULE"), QStringLiteral("Rule")),
                  keyColumn(QStringLiteral("SEVERITY"), QStringLiteral("Severity")),
                  keyColumn(QStringLiteral("WHAT IS FOUND"), QStringLiteral("Text")) },
                QString());
    return Done;
}

/// @p isQuiet: without notes.
QVector<Finding> findingsIn(const QStringList &files, std::optional<Check::Kind> kind, int *count,
                            bool isQuiet)
{
    QVector<Finding> findings;
    if (files.isEmpty()) {
        QVector<Check::Target> targets = Check::installedTargets();
        if (kind) {
            targets.erase(
                std::remove_if(targets.begin(), targets.end(),
                               [&kind](const Check::Target &target) { return target.kind != *kind; }),
                targets.end());
        }
        for (const Check::Target &target : qAsConst(targets)) {
            findings += Check::checkFile(target.path, target.kind);
        }
        findings += Check::checkTogether(targets);
        *count = targets.size();
    }
    for (const QString &file : files) {
        findings += Check::checkFile(file, kind);
        ++*count;
    }
    if (isQuiet) {
        findings.erase(
            std::remove_if(findings.begin(), findings.end(),
                           [](const Finding &finding) { return finding.severity() == Severity::Note; }),
            findings.end());
    }
    return findings;
}

} // namespace

int checkCommand(Session &session)
{
    const QString type = QStringLiteral("type");
    const QString quiet = QStringLiteral("quiet");
    const QString strict = QStringLiteral("strict");
    const QString listRules = QStringLiteral("rules");
    session.arguments.addOption(
        { QStringLiteral("t"), type },
        QStringLiteral("What kind of files they are: %1").arg(Check::kindNames().join(QStringLiteral(", "))),
        QStringLiteral("KIND"));
    session.arguments.addSwitch({ QStringLiteral("q"), quiet }, QStringLiteral("Leave out the notes"));
    session.arguments.addSwitch({ strict }, QStringLiteral("Count notes as faults in the exit status"));
    session.arguments.addSwitch({ listRules }, QStringLiteral("Show what can be found, instead"));
    if (const auto end = session.begin(0, -1)) {
        return *end;
    }
    if (session.arguments.isSet(listRules)) {
        return printRules(session.output);
    }
    std::optional<Check::Kind> kind;
    if (session.arguments.isSet(type)) {
        kind = Check::kindOfName(session.arguments.value(type));
        if (!kind) {
            return session.arguments.wrong(
                QStringLiteral("There is no kind of file \"%1\"").arg(session.arguments.value(type)));
        }
    }
    int files = 0;
    const QVector<Finding> findings =
        findingsIn(session.arguments.words(), kind, &files, session.arguments.isSet(quiet));
    print(session.output, files, findings);
    const Severity least = session.arguments.isSet(strict) ? Severity::Note : Severity::Warning;
    const bool isFaulty = std::any_of(findings.cbegin(), findings.cend(), [least](const Finding &finding) {
        return finding.severity() >= least;
    });
    return isFaulty ? Refused : Done;
}

} // namespace Ctl
