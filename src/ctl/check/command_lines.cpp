#include "check/command_lines.h"

#include "Core/application_command.h"
#include "Core/command_line.h"
#include "Core/debug_params.h"
#include "Core/firejail.h"
#include "Core/process_spawner.h"
#include "Core/types.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>

#include <algorithm>

namespace Ctl::Check {

namespace {

bool isUriCode(const QString &word)
{
    return word.size() == 2 && word.at(0) == QLatin1Char('%') && QStringLiteral("uUfF").contains(word.at(1));
}

/// Codes of the Desktop Entry Specification that nobody replaces, the withdrawn ones and "%%" included.
bool isOtherCode(const QString &word)
{
    return word.size() == 2 && word.at(0) == QLatin1Char('%')
        && QStringLiteral("ick%dDnNvm").contains(word.at(1));
}

void checkQuotes(const CommandSubject &command, Report &report)
{
    const QStringList words = command.line.split(QLatin1Char(' '));
    for (const QString &word : words) {
        if (word.contains(QLatin1Char('"')) || word.startsWith(QLatin1Char('\''))
            || word.endsWith(QLatin1Char('\''))) {
            report.add(
                Rule::ExecQuotes, command.place,
                QStringLiteral("there is no quoting: the line is split at each blank, and %1 is the "
                               "%2, quotes included")
                    .arg(word,
                         word == words.first() ? QStringLiteral("program") : QStringLiteral("argument")));
            return;
        }
    }
}

void checkBlanks(const CommandSubject &command, Report &report)
{
    const QString line = command.isTask ? command.line : command.line.trimmed();
    if (line.contains(QLatin1Char('\t'))) {
        report.add(Rule::ExecBlanks, command.place,
                   QStringLiteral("a tab does not separate arguments: only a blank does"));
    }
    if (line.contains(QLatin1String("  "))) {
        report.add(Rule::ExecBlanks, command.place,
                   QStringLiteral("two blanks in a row make an empty argument"));
    } else if (line.endsWith(QLatin1Char(' ')) || line.startsWith(QLatin1Char(' '))) {
        report.add(Rule::ExecBlanks, command.place,
                   QStringLiteral("the blank at the end of a task's line makes an empty argument"));
    }
}

void checkShell(const CommandSubject &command, Report &report)
{
    static const QRegularExpression shell(
        QStringLiteral("^(~/.*|.*`.*|.*\\$[A-Za-z_({].*|\\|\\|?|&&?|;|\\d?>>?.*|<.*)$"));
    const QStringList words = command.line.split(QLatin1Char(' '));
    for (const QString &word : words) {
        if (shell.match(word).hasMatch()) {
            report.add(Rule::ExecShell, command.place,
                       QStringLiteral("no shell reads the line: %1 is passed as it is").arg(word));
        }
    }
}

void checkCodes(const CommandSubject &command, Report &report)
{
    static const QRegularExpression code(QStringLiteral("%[uUfF]"));
    QStringList codes;
    const QStringList words = command.line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    for (const QString &word : words) {
        if (isOtherCode(word)) {
            report.add(Rule::ExecCodeUnknown, command.place,
                       QStringLiteral("%1 is not replaced: the program gets it as it is").arg(word));
        } else if (isUriCode(word)) {
            codes.append(word);
        } else if (code.match(word).hasMatch()) {
            report.add(Rule::ExecCodeInWord, command.place,
                       QStringLiteral("a field code must be an argument of its own: %1 is passed as it is")
                           .arg(word));
        }
    }
    if (codes.isEmpty()) {
        return;
    }
    if (command.isTask) {
        report.add(Rule::TaskCode, command.place,
                   QStringLiteral("nothing is put in the place of %1: the task gets it as it is")
                       .arg(codes.first()));
        return;
    }
    if (codes.size() > 1) {
        const bool hasUri = codes.contains(QStringLiteral("%u")) || codes.contains(QStringLiteral("%U"));
        const auto counts = std::find_if(codes.crbegin(), codes.crend(), [hasUri](const QString &word) {
            return (word.at(1).toLower() == QLatin1Char('u')) == hasUri;
        });
        report.add(
            Rule::ExecCodeTwice, command.place,
            QStringLiteral("only one field code counts, the last %1; the others are passed as they are")
                .arg(*counts));
    }
    report.add(
        Rule::ExecCodeStays, command.place,
        command.takesUris
            ? QStringLiteral("started without a URI, the program gets the argument %1").arg(codes.last())
            : QStringLiteral("with the intent OpenURI, URIs do not come on the command line: the "
                             "program always gets the argument %1")
                  .arg(codes.last()));
}

/// Whether there is a program; if not, says so.
bool checkExists(const QString &desktopFile, const QString &program, const QString &path, const Place &place,
                 Report &report)
{
    if (QFileInfo::exists(path)) {
        return true;
    }
    if (isInstalledDesktopFile(desktopFile)) {
        report.add(Rule::ProgramMissing, place, QStringLiteral("there is no program ") + program);
    } else {
        report.add(Rule::ProgramNotHere, place,
                   QStringLiteral("there is no program %1 on this system").arg(program));
    }
    return false;
}

void checkCount(const QByteArrayList &arguments, const Place &place, Report &report)
{
    size_t bytes = 0;
    for (const QByteArray &argument : arguments) {
        bytes += static_cast<size_t>(argument.size()) + 1;
    }
    const auto count = static_cast<size_t>(arguments.size());
    if (count > Core::ProcessSpawner::maximumArguments || bytes > Core::ProcessSpawner::maximumListBytes) {
        report.add(
            Rule::TooManyArguments, place,
            QStringLiteral("%1 arguments of %2 bytes, with those of the sandbox; a program can be given "
                           "%3 of %4 bytes")
                .arg(count)
                .arg(bytes)
                .arg(Core::ProcessSpawner::maximumArguments)
                .arg(Core::ProcessSpawner::maximumListBytes));
    }
}

/// Has the sandbox compose its command line, and says why it would not.
void checkSandbox(const Core::Firejail &firejail, const QString &desktopFile, const QByteArray &program,
                  const QByteArrayList &argv, const QStringList &permissions, const Place &place,
                  Report &report)
{
    const auto [vector, error] = firejail.computeArgv(argv, permissions);
    const QString path = Core::Types::rootFs() + QString::fromUtf8(program);
    const bool exists = checkExists(desktopFile, QString::fromUtf8(program), path, place, report);
    if (!error) {
        checkCount(vector, place, report);
        return;
    }
    checkCount(argv, place, report);
    if (exists || error.message().startsWith(QLatin1String("Legacy"))) {
        report.add(Rule::ProgramRefused, place, error.message());
    }
}

void checkProgramWord(const QByteArray &word, const Place &place, Report &report)
{
    if (!word.startsWith('/') && word.contains('/')) {
        report.add(Rule::ExecRelative, place,
                   QStringLiteral("a program without a slash before it lies in /usr/bin: this one is ")
                       + QString::fromUtf8(Core::programPath(word)));
    }
}

/// Who is told of the quotes needs not be told that there is no such program.
bool isQuotedProgram(const QString &line)
{
    const QString program = line.trimmed().section(QLatin1Char(' '), 0, 0);
    return program.startsWith(QLatin1Char('"')) || program.startsWith(QLatin1Char('\''));
}

} // namespace

bool isInstalledDesktopFile(const QString &path)
{
    const QString directory = QFileInfo(QFileInfo(path).path()).canonicalFilePath();
    const QStringList all = QStandardPaths::standardLocations(QStandardPaths::ApplicationsLocation);
    return std::any_of(all.cbegin(), all.cend(), [&directory](const QString &candidate) {
        return !directory.isEmpty() && QFileInfo(candidate).canonicalFilePath() == directory;
    });
}

void checkWords(const CommandSubject &command, Report &report)
{
    checkQuotes(command, report);
    checkBlanks(command, report);
    checkShell(command, report);
    checkCodes(command, report);
}

void checkFieldCodes(const CommandSubject &command, Report &report)
{
    checkCodes(command, report);
}

void checkApplicationProgram(const Core::ApplicationInfo &info, const QStringList &permissions, bool overDBus,
                             const Place &place, Report &report)
{
    const Core::ApplicationLaunchData &launchData = info.launchData();
    const QString line = overDBus ? launchData.execDBus : launchData.exec;
    if (isQuotedProgram(line)) {
        return;
    }
    checkProgramWord(Core::splitCommandLine(line).constFirst(), place, report);
    const auto command = Core::ApplicationCommand::make(launchData, Core::DebugParams(),
                                                        { { QStringLiteral("startDBus"), overDBus } }, {});
    const QString program = QString::fromUtf8(command.program);
    if (!command.sandboxed) {
        if (launchData.sandboxed) {
            report.add(
                Rule::ExecOwnSandbox, place,
                program
                    + QStringLiteral(" makes a sandbox of its own: it is run without one, and the user "
                                     "is not asked for permissions"));
        }
        if (checkExists(info.desktopFile(), program, program, place, report)
            && !(QFileInfo(program).isFile() && QFileInfo(program).isExecutable())) {
            report.add(Rule::ProgramRefused, place, program + QStringLiteral(" is not executable"));
        }
        checkCount(command.argv, place, report);
        return;
    }
    Core::Firejail firejail;
    Core::fillFirejail(firejail, info.id(), launchData, Core::DebugParams(), info.desktopFile(),
                       command.program);
    firejail.setCertificateId(info.certificateId());
    checkSandbox(firejail, info.desktopFile(), command.program, command.argv,
                 permissions + QStringList(QStringLiteral("Base")), place, report);
}

void checkTaskProgram(const Core::ApplicationInfo &info, const Core::ApplicationInfo::TaskInfo &task,
                      const Place &place, Report &report)
{
    if (isQuotedProgram(task.exec)) {
        return;
    }
    QByteArrayList argv;
    const QStringList words = task.exec.split(QLatin1Char(' '));
    for (const QString &word : words) {
        argv.append(word.toUtf8());
    }
    checkProgramWord(argv.first(), place, report);
    argv.first() = Core::programPath(argv.first());
    Core::Firejail firejail;
    firejail.setOrganizationName(task.id.organisation());
    firejail.setApplicationName(task.id.name());
    firejail.setCertificateId(info.certificateId());
    firejail.setDesktopFile(info.desktopFile());
    checkSandbox(firejail, info.desktopFile(), argv.first(), argv,
                 task.permissions + QStringList(QStringLiteral("BaseTask")), place, report);
}

} // namespace Ctl::Check
