#pragma once

#include <QString>
#include <QVector>

namespace Ctl::Check {

enum class Severity {
    Note, ///< a consequence that is easily overlooked
    Warning, ///< something has no effect, or another one than it seems
    Error, ///< something cannot work at all
};

/// "note", "warning" or "error".
[[nodiscard]] QString severityName(Severity severity);

/// What can be found. rules.def has the list; names are stable, for scripts.
enum class Rule {
#define RULE(rule, name, severity, summary) rule,
#include "rules.def"
#undef RULE
};

struct RuleInfo
{
    Rule rule;
    const char *name;
    Severity severity;
    const char *summary;
};

/// All of them in the order of the list.
[[nodiscard]] const QVector<RuleInfo> &rules();
[[nodiscard]] const RuleInfo &ruleInfo(Rule rule);

/// Where in a file something stands. No line (0): the file as a whole.
struct Place
{
    int line = 0;
    QString group = {};
    QString key = {};
};

struct Finding
{
    QString file; ///< as it was given
    Place place;
    Rule rule;
    QString text;

    [[nodiscard]] Severity severity() const { return ruleInfo(rule).severity; }
};

/// Collects what is found in one file.
class Report
{
public:
    explicit Report(const QString &file)
        : m_file(file)
    {
    }

    void add(Rule rule, const Place &place, const QString &text);
    /// On the file as a whole.
    void add(Rule rule, const QString &text) { add(rule, Place(), text); }

    [[nodiscard]] bool has(Rule rule) const;
    /// In the order of the lines; within one, in the order of finding.
    [[nodiscard]] QVector<Finding> findings() const;

private:
    QString m_file;
    QVector<Finding> m_findings;
};

} // namespace Ctl::Check
