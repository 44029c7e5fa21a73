#include "command.h"

#include <algorithm>

namespace Ctl {

#define COMMAND(function, name, synopsis, summary) int function(Session &session);
#include "commands.def"
#undef COMMAND

const QVector<Command> &commands()
{
    static const QVector<Command> all = {
#define COMMAND(function, name, synopsis, summary) { name, synopsis, summary, function },
#include "commands.def"
#undef COMMAND
    };
    return all;
}

const Command *findCommand(const QString &name)
{
    const QVector<Command> &all = commands();
    const auto found = std::find_if(all.cbegin(), all.cend(), [&name](const Command &command) {
        return name == QLatin1String(command.name);
    });
    return found == all.cend() ? nullptr : &*found;
}

} // namespace Ctl
