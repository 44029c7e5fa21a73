#include "session.h"

namespace Ctl {

std::optional<int> Session::begin(int fewest, int most, bool tailApart)
{
    const std::optional<int> end = arguments.parse(fewest, most, tailApart);
    if (!end) {
        output.setJson(arguments.isSet(QStringLiteral("json")));
    }
    return end;
}

int Session::fail(const Reply &reply) const
{
    if (reply.status == NotThere) {
        Output::error(reply.isWithoutBus ? QStringLiteral("The bus cannot be reached")
                                         : QStringLiteral("The service is not running"));
    } else if (reply.status == TimedOut) {
        if (!reply.isSilent) {
            // The bus library's text would guess why, and the user has set the limit.
            Output::error(QStringLiteral("Time is up"));
            return reply.status;
        }
        Output::error(QStringLiteral("The service does not answer"));
    }
    // Some refusals are their name alone.
    Output::error(reply.errorText.isEmpty() ? reply.errorName
                                            : QStringLiteral("%1: %2").arg(reply.errorName, reply.errorText));
    return reply.status;
}

int Session::finish(const Reply &reply, const QVariantMap &data) const
{
    if (reply.failed()) {
        return fail(reply);
    }
    if (output.isJson()) {
        output.record(data, QString());
    }
    return Done;
}

} // namespace Ctl
