#pragma once

#include "check/finding.h"
#include "check/key_lines.h"

#include <QSettings>
#include <QStringList>

#include <optional>

namespace Ctl::Check {

/// A file of the INI form, while it is looked at.
class SettingsSubject
{
public:
    /// Reads the file, and reports what it has of faults that do not depend on its kind.
    SettingsSubject(const QString &path, Report &report);

    /// False: there is nothing to look at.
    [[nodiscard]] bool isRead() const { return m_isRead; }
    [[nodiscard]] const KeyLines &lines() const { return m_lines; }

    [[nodiscard]] Place place(const QString &group, const QString &key) const;
    void add(Rule rule, const QString &group, const QString &key, const QString &text) const;

    /// As QSettings has it. @p group is empty for none.
    [[nodiscard]] QVariant value(const QString &group, const QString &key) const;
    [[nodiscard]] bool contains(const QString &group, const QString &key) const;
    /// The number as the service reads it: nothing if it has none or another text, which is told of.
    /// @param otherwise what counts then, in words
    [[nodiscard]] std::optional<int> number(const QString &key, const QString &otherwise) const;

    /// Tells of keys that nobody reads: all but @p keys of @p group. Groups that are not read are told of.
    void checkNames(const QString &group, const QStringList &keys) const;
    /// Tells of groups that nobody reads: all but those.
    void checkGroups(const QStringList &groups) const;

    Report &report;

private:
    void checkLines() const;
    void checkValueOf(const KeyLine &line) const;

    QByteArray m_content;
    const bool m_isRead;
    const KeyLines m_lines;
    const QSettings m_settings;
};

} // namespace Ctl::Check
