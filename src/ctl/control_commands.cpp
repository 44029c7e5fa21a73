#include "session.h"
#include "words.h"

#include "Core/application_id.h"
#include "Core/application_registry.h"

namespace Ctl {

namespace {

QVariantMap idMap(const QString &id)
{
    return { { QStringLiteral("Id"), id } };
}

/// For calls that take any id, so that what is misspelt does not differ from what does not run, or is not
/// there yet.
int finishAbout(const Session &session, const Reply &reply, const QString &id)
{
    if (!reply.failed() && Core::ApplicationRegistry().desktopFile(Core::ApplicationId(id)).isEmpty()) {
        Output::error(QStringLiteral("Not installed: %1").arg(id));
    }
    return session.finish(reply, idMap(id));
}

/// Tells of a call that failed for @p id, and of instances that may have been meant. @returns the exit
/// status.
int failFor(const Session &session, const Reply &reply, const QString &id)
{
    const int status = session.fail(reply);
    if (status != NoSuchId) {
        return status;
    }
    QStringList instances;
    const Reply running =
        session.bus.ask(QStringLiteral("Introspect1"), QStringLiteral("ListRunning"), {}, Bus::patienceMs);
    const QVariantList processes = running.value().toList();
    for (const QVariant &process : processes) {
        const QString one = process.toMap().value(QStringLiteral("Id")).toString();
        if (one.startsWith(id + QLatin1String(".instance_"))) {
            instances.append(printable(one));
        }
    }
    if (!instances.isEmpty()) {
        Output::hint(
            QStringLiteral("Name one of its instances: %1").arg(instances.join(QStringLiteral(", "))));
    }
    return status;
}

/// A command that is one call of SystemControl1 with the id.
int callSystemControl(Session &session, const QString &member)
{
    if (const auto end = session.begin(1, 1)) {
        return *end;
    }
    const QString id = session.arguments.word(0);
    return finishAbout(session, session.bus.actOnSystem(QStringLiteral("SystemControl1"), member, { id }),
                       id);
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
    const Reply reply = session.bus.ask(QStringLiteral("Control1"), QStringLiteral("Terminate"), { id });
    return reply.failed() ? failFor(session, reply, id) : session.finish(reply, idMap(id));
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
    return finishAbout(session,
                       session.bus.actOnSystem(QStringLiteral("SystemControl1"),
                                               QStringLiteral("WaitForNotRunning"), { id }, timeoutMs),
                       id);
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
        return failFor(session, reply, session.arguments.word(0));
    }
    constexpr uint noState = 255;
    const uint state = reply.value().toUInt();
    session.output.record(
        { { QStringLiteral("Id"), session.arguments.word(0) }, { QStringLiteral("State"), state } },
        (state == noState ? QStringLiteral("gone") : stateName(state)) + QLatin1Char('\n'));
    return Done;
}

} // namespace Ctl
