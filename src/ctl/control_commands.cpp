#include "session.h"
#include "words.h"

namespace Ctl {

namespace {

QVariantMap idMap(const QString &id)
{
    return { { QStringLiteral("Id"), id } };
}

/// A command that is one call of SystemControl1 with the id.
int callSystemControl(Session &session, const QString &member)
{
    if (const auto end = session.begin(1, 1)) {
        return *end;
    }
    const QString id = session.arguments.word(0);
    return session.finish(session.bus.actOnSystem(QStringLiteral("SystemControl1"), member, { id }),
                          idMap(id));
}

} // namespace

int stopCommand(Session &session)
{
    session.arguments.addSwitch({ QStringLiteral("a"), QStringLiteral("all") },
                                QStringLiteral("All whose ids begin with ID, tasks too (system bus)"));
    if (const auto end = session.begin(1, 1)) {
        return *end;
    }
    const QString id = session.arguments.word(0);
    if (session.arguments.isSet(QStringLiteral("all"))) {
        return session.finish(
            session.bus.actOnSystem(QStringLiteral("SystemControl1"), QStringLiteral("Terminate"), { id }),
            idMap(id));
    }
    return session.finish(session.bus.ask(QStringLiteral("Control1"), QStringLiteral("Terminate"), { id }),
                          idMap(id));
}

int waitCommand(Session &session)
{
    session.arguments.addOption({ QStringLiteral("t"), QStringLiteral("timeout") },
                                QStringLiteral("Give up after SECONDS"), QStringLiteral("SECONDS"));
    if (const auto end = session.begin(1, 1)) {
        return *end;
    }
    constexpr uint most = 1000000; // seconds, as milliseconds still an int
    int timeoutMs = -1;
    if (session.arguments.isSet(QStringLiteral("timeout"))) {
        const auto seconds = session.arguments.number(QStringLiteral("timeout"));
        if (!seconds) {
            return WrongUsage;
        }
        timeoutMs = int(std::min(*seconds, most)) * 1000;
    }
    const QString id = session.arguments.word(0);
    return session.finish(session.bus.actOnSystem(QStringLiteral("SystemControl1"),
                                                  QStringLiteral("WaitForNotRunning"), { id }, timeoutMs),
                          idMap(id));
}

int blockCommand(Session &session)
{
    return callSystemControl(session, QStringLiteral("PreventLaunch"));
}

int unblockCommand(Session &session)
{
    return callSystemControl(session, QStringLiteral("AllowLaunch"));
}

int windowsCommand(Session &session)
{
    if (const auto end = session.begin(4, 4)) {
        return *end;
    }
    QVariantList arguments = { session.arguments.word(0) };
    for (int i = 1; i < 4; ++i) {
        bool isNumber = false;
        const int count = session.arguments.word(i).toInt(&isNumber);
        if (!isNumber || count < 0) {
            return session.arguments.wrong(QStringLiteral("Not a number: %1").arg(session.arguments.word(i)));
        }
        arguments.append(count);
    }
    const Reply reply =
        session.bus.ask(QStringLiteral("WindowManagement1"), QStringLiteral("UpdateWindowStatus"), arguments);
    if (reply.failed()) {
        return session.fail(reply);
    }
    constexpr uint noState = 255;
    const uint state = reply.value().toUInt();
    session.output.record(
        { { QStringLiteral("Id"), session.arguments.word(0) }, { QStringLiteral("State"), state } },
        (state == noState ? QStringLiteral("gone") : stateName(state)) + QLatin1Char('\n'));
    return Done;
}

} // namespace Ctl
