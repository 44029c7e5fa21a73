#pragma once

#include "command.h"

#include <QCommandLineParser>
#include <QStringList>

#include <optional>

namespace Ctl {

/// What follows a command's name on the command line. A command adds its options, then calls parse().
class Arguments
{
public:
    Arguments(const Command &command, const QStringList &words);

    /// An option that takes no value.
    void addSwitch(const QStringList &names, const QString &description);
    /// An option that takes a value.
    void addOption(const QStringList &names, const QString &description, const QString &valueName);

    /// Reads the words. Without @p tailApart, what stands behind "--" counts as ordinary words.
    /// @returns the exit status if the program is to end now, for help asked for or a wrong word.
    [[nodiscard]] std::optional<int> parse(int fewest, int most, bool tailApart = false);

    /// Ends the command for a wrong use that @p text tells of.
    [[nodiscard]] int wrong(const QString &text) const;

    [[nodiscard]] bool isSet(const QString &name) const { return m_parser.isSet(name); }
    [[nodiscard]] QString value(const QString &name) const { return m_parser.value(name); }
    [[nodiscard]] QStringList values(const QString &name) const { return m_parser.values(name); }
    /// A number that is not negative; nothing if it is none, after the message about it.
    [[nodiscard]] std::optional<uint> number(const QString &name) const;

    [[nodiscard]] QStringList words() const { return m_words; }
    [[nodiscard]] QString word(int index) const { return m_words.value(index); }
    /// What stands behind "--".
    [[nodiscard]] const QStringList &tail() const { return m_tail; }
    [[nodiscard]] bool hasTail() const { return m_hasTail; }

private:
    void printHelp() const;

    const Command &m_command;
    QCommandLineParser m_parser;
    QStringList m_given;
    QStringList m_words;
    QStringList m_tail;
    bool m_hasTail = false;
};

} // namespace Ctl
