#pragma once

namespace Ctl {

/// What the program ends with; docs/man/procwardenctl.1 tells users the same.
enum ExitStatus : int {
    Done = 0,
    Refused = 1, ///< the service, or the bus, answered with an error
    WrongUsage = 2,
    NotThere = 3, ///< the service does not run, or there is no bus
    NoSuchId = 4, ///< nothing is known under the id
    TimedOut = 5, ///< of the user's own limit, or the service is there and does not answer
};

} // namespace Ctl
