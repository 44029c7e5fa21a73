#include "command.h"
#include "completion.h"
#include "exit_status.h"
#include "output.h"
#include "session.h"

#include <QCoreApplication>

#include <algorithm>

namespace {

QString helpText()
{
    QString text = QStringLiteral("Usage: procwardenctl COMMAND [ARGUMENT...]\n"
                                  "Works with the applications and tasks that procwarden runs.\n\n"
                                  "Commands:\n");
    const auto &commands = Ctl::commands();
    for (const Ctl::Command &command : commands) {
        text += QStringLiteral("  %1  %2\n")
                    .arg(QLatin1String(command.name), -13)
                    .arg(QLatin1String(command.summary));
    }
    return text
        + QStringLiteral("\nOptions:\n"
                         "  -h, --help       Show this help, or that of a command\n"
                         "  --version        Show the version\n"
                         "  --json           Print JSON, with every command and option but --help\n"
                         "  --list-commands  Print the names of the commands, for the completion of shells\n"
                         "  --list-ids       Print the ids that a command may be about, for the same\n\n"
                         "Exit status: 0 done, 1 refused, 2 wrong usage, 3 the service is not running,\n"
                         "4 no such id, 5 time is up.\n");
}

int wrong(const QString &text)
{
    Ctl::Output::error(text);
    Ctl::Output::hint(QStringLiteral("Try \"procwardenctl --help\"."));
    return Ctl::WrongUsage;
}

int runCommand(const QString &name, const QStringList &words)
{
    const Ctl::Command *command = Ctl::findCommand(name);
    if (!command) {
        return wrong(QStringLiteral("No such command: %1").arg(name));
    }
    Ctl::Session session(*command, words);
    return command->run(session);
}

/// What is asked of the program itself. @p words: what follows @p option.
int answer(const QString &option, QStringList words, bool isJson)
{
    static const QStringList options = { QStringLiteral("--version"), QStringLiteral("--list-commands"),
                                         QStringLiteral("--list-ids") };
    if (!options.contains(option)) {
        return wrong(QStringLiteral("No such option: %1").arg(option));
    }
    isJson = words.removeAll(QStringLiteral("--json")) > 0 || isJson;
    if (words.size() > (option == QLatin1String("--list-ids") ? 1 : 0)) {
        return wrong(QStringLiteral("Too many arguments"));
    }
    Ctl::Output output;
    output.setJson(isJson);
    if (option == QLatin1String("--version")) {
        const QString version = QCoreApplication::applicationVersion();
        output.record({ { QStringLiteral("Version"), version } },
                      QStringLiteral("procwardenctl %1\n").arg(version));
    } else if (option == QLatin1String("--list-commands")) {
        QStringList names;
        const auto &commands = Ctl::commands();
        for (const Ctl::Command &command : commands) {
            names.append(QLatin1String(command.name));
        }
        output.texts(names);
    } else {
        output.texts(Ctl::idsFor(words.value(0)));
    }
    return Ctl::Done;
}

/// @p words: what follows the program's name.
int run(QStringList words)
{
    // Before the command, too.
    QStringList before;
    while (!words.isEmpty() && words.first() == QLatin1String("--json")) {
        before.append(words.takeFirst());
    }
    if (words.isEmpty()) {
        return wrong(QStringLiteral("No command"));
    }
    const QString name = words.takeFirst();
    if (name == QLatin1String("help") && !words.isEmpty()) {
        return runCommand(words.first(), { QStringLiteral("--help") });
    }
    if (name == QLatin1String("--help") || name == QLatin1String("-h") || name == QLatin1String("help")) {
        Ctl::Output::print(helpText());
        return Ctl::Done;
    }
    if (name.startsWith(QLatin1Char('-'))) {
        return answer(name, words, !before.isEmpty());
    }
    return runCommand(name, before + words);
}

/// What the readers of files warn of is about any of them, not about what was asked: check tells it.
void onMessage(QtMsgType type, const QMessageLogContext & /*context*/, const QString &text)
{
    if (type == QtCriticalMsg || type == QtFatalMsg) {
        Ctl::Output::error(text);
    }
}

} // namespace

int main(int argc, char *argv[])
{
    qInstallMessageHandler(onMessage);
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("procwardenctl"));
    QCoreApplication::setApplicationVersion(QStringLiteral(PROCWARDEN_VERSION));
    return run(QCoreApplication::arguments().mid(1));
}
