#pragma once

#include <QString>
#include <QVector>

namespace Ctl {

class Session;

/// One word that may follow the program's name.
struct Command
{
    const char *name;
    const char *synopsis; ///< what follows the name, for the help
    const char *summary; ///< one line, for the help
    int (*run)(Session &session); ///< returns the exit status
};

/// All of them in the order of the help. commands.def has the list.
const QVector<Command> &commands();

/// nullptr if there is none of that name.
const Command *findCommand(const QString &name);

} // namespace Ctl
