#include "check/finding.h"

#include <algorithm>

namespace Ctl::Check {

QString severityName(Severity severity)
{
    switch (severity) {
    case Severity::Note:
        return QStringLiteral("note");
    case Severity::Warning:
        return QStringLiteral("warning");
    case Severity::Error:
        return QStringLiteral("error");
    }
    return QString();
}

const QVector<RuleInfo> &rules()
{
    static const QVector<RuleInfo> all = {
#define RULE(rule, name, severity, summary) { Rule::rule, name, Severity::severity, summary },
#include "rules.def"
#undef RULE
    };
    return all;
}

const RuleInfo &ruleInfo(Rule rule)
{
    return rules().at(static_cast<int>(rule));
}

void Report::add(Rule rule, const Place &place, const QString &text)
{
    m_findings.append({ m_file, place, rule, text });
}

bool Report::has(Rule rule) const
{
    return std::any_of(m_findings.cbegin(), m_findings.cend(),
                       [rule](const Finding &finding) { return finding.rule == rule; });
}

QVector<Finding> Report::findings() const
{
    QVector<Finding> sorted = m_findings;
    std::stable_sort(sorted.begin(), sorted.end(), [](const Finding &one, const Finding &other) {
        return one.place.line < other.place.line;
    });
    return sorted;
}

} // namespace Ctl::Check
