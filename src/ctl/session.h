#pragma once

#include "arguments.h"
#include "bus.h"
#include "output.h"

namespace Ctl {

/// What a command works with, from its words to its exit status.
class Session
{
public:
    Session(const Command &command, const QStringList &words)
        : arguments(command, words)
    {
    }

    /// Reads the arguments, see Arguments::parse(), and sets the output's form.
    [[nodiscard]] std::optional<int> begin(int fewest, int most, bool tailApart = false);

    /// Tells of a failed call. @returns the exit status.
    [[nodiscard]] int fail(const Reply &reply) const;

    /// For commands that change something and have nothing to show but their success.
    [[nodiscard]] int finish(const Reply &reply, const QVariantMap &data = {}) const;

    Arguments arguments;
    Output output;
    Bus bus;
};

} // namespace Ctl
