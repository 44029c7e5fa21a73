#include "arguments.h"

#include "exit_status.h"
#include "output.h"

namespace Ctl {

Arguments::Arguments(const Command &command, const QStringList &words)
    : m_command(command)
    , m_given(words)
{
    addSwitch({ QStringLiteral("h"), QStringLiteral("help") }, QStringLiteral("Show this help"));
    addSwitch({ QStringLiteral("json") }, QStringLiteral("Print JSON"));
}

void Arguments::addSwitch(const QStringList &names, const QString &description)
{
    m_parser.addOption(QCommandLineOption(names, description));
}

void Arguments::addOption(const QStringList &names, const QString &description, const QString &valueName)
{
    m_parser.addOption(QCommandLineOption(names, description, valueName));
}

std::optional<int> Arguments::parse(int fewest, int most, bool tailApart)
{
    QStringList ours = m_given;
    const int separator = ours.indexOf(QStringLiteral("--"));
    m_hasTail = separator >= 0;
    if (m_hasTail) {
        m_tail = ours.mid(separator + 1);
        ours = ours.mid(0, separator);
    }
    const bool isRead = m_parser.parse(QStringList(QStringLiteral("procwardenctl")) + ours);
    if (isRead && m_parser.isSet(QStringLiteral("help"))) {
        printHelp();
        return Done;
    }
    if (!isRead) {
        return wrong(m_parser.errorText());
    }
    m_words = m_parser.positionalArguments();
    if (!tailApart) {
        m_words += m_tail;
    }
    if (m_words.contains(QString())) {
        return wrong(QStringLiteral("Empty argument")); // such as a variable of a script that is not set
    }
    if (m_words.size() < fewest) {
        return wrong(QStringLiteral("Too few arguments"));
    }
    if (most >= 0 && m_words.size() > most) {
        return wrong(QStringLiteral("Too many arguments"));
    }
    return std::nullopt;
}

int Arguments::wrong(const QString &text) const
{
    Output::error(text);
    Output::hint(QStringLiteral("Try \"procwardenctl %1 --help\".").arg(QLatin1String(m_command.name)));
    return WrongUsage;
}

std::optional<uint> Arguments::number(const QString &name) const
{
    bool isNumber = false;
    const uint result = value(name).toUInt(&isNumber);
    if (!isNumber) {
        (void)wrong(QStringLiteral("Not a number: %1").arg(value(name)));
        return std::nullopt;
    }
    return result;
}

void Arguments::printHelp() const
{
    // All that the parser says but its first line, which does not know of commands.
    const QString text = m_parser.helpText();
    const QString usage = QStringLiteral("Usage: procwardenctl %1 %2")
                              .arg(QLatin1String(m_command.name), QLatin1String(m_command.synopsis));
    Output::print(QStringLiteral("%1\n%2.\n\n%3")
                      .arg(usage.trimmed(), QLatin1String(m_command.summary),
                           text.mid(text.indexOf(QLatin1String("Options:")))));
}

} // namespace Ctl
