#include "session.h"

#include <QDir>
#include <QVariantMap>

namespace Ctl {

namespace {

/// Shows what Start and StartDebug answer.
int showStarted(const Session &session, const Reply &reply)
{
    if (reply.failed()) {
        return session.fail(reply);
    }
    const QString id = reply.value(0).toString();
    QVariantMap data = reply.value(1).toMap();
    data.insert(QStringLiteral("Id"), id);
    session.output.record(
        data, QStringLiteral("%1 %2\n").arg(printable(id)).arg(data.value(QStringLiteral("Pid")).toInt()));
    return Done;
}

/// Shows what the intents answer that start or raise an application.
int showInstance(const Session &session, const Reply &reply)
{
    const QString id = reply.value().toMap().value(QStringLiteral("instanceId")).toString();
    session.output.record({ { QStringLiteral("Id"), id } }, printable(id) + QLatin1Char('\n'));
    return Done;
}

Reply invoke(const Session &session, const QString &intent, const QVariantMap &data)
{
    const QVariantMap hints = { { QStringLiteral("preferredHandler"), session.arguments.word(0) } };
    return session.bus.act(QStringLiteral("Intents1"), QStringLiteral("InvokeIntent"),
                           { intent, hints, data });
}

int openUris(const Session &session, const QStringList &uris)
{
    // One intent opens one URI.
    Reply reply;
    for (const QString &uri : uris) {
        reply = invoke(session, QStringLiteral("OpenURI"), { { QStringLiteral("uri"), uri } });
        if (reply.failed()) {
            return session.fail(reply);
        }
    }
    return showInstance(session, reply);
}

} // namespace

int startCommand(Session &session)
{
    session.arguments.addOption(
        { QStringLiteral("u"), QStringLiteral("uri") },
        QStringLiteral("Have it open URI, and others behind it, with the intent OpenURI"),
        QStringLiteral("URI"));
    session.arguments.addSwitch({ QStringLiteral("r"), QStringLiteral("raise") },
                                QStringLiteral("With the intent Start, which raises what runs already"));
    if (const auto end = session.begin(1, -1)) {
        return *end;
    }
    QStringList uris = session.arguments.values(QStringLiteral("uri"));
    const QStringList more = session.arguments.words().mid(1);
    if (uris.isEmpty() && !more.isEmpty()) {
        return session.arguments.wrong(QStringLiteral("Too many arguments"));
    }
    uris += more;
    if (!uris.isEmpty() && session.arguments.isSet(QStringLiteral("raise"))) {
        return session.arguments.wrong(QStringLiteral("Either --raise or --uri"));
    }
    if (!uris.isEmpty()) {
        return openUris(session, uris);
    }
    if (session.arguments.isSet(QStringLiteral("raise"))) {
        const Reply reply = invoke(session, QStringLiteral("Start"), {});
        return reply.failed() ? session.fail(reply) : showInstance(session, reply);
    }
    return showStarted(
        session,
        session.bus.act(QStringLiteral("Control1"), QStringLiteral("Start"), { session.arguments.word(0) }));
}

int debugCommand(Session &session)
{
    Arguments &arguments = session.arguments;
    const QString several = QStringLiteral("; may be repeated");
    arguments.addOption({ QStringLiteral("e"), QStringLiteral("env") },
                        QStringLiteral("Add NAME=VALUE to its environment") + several,
                        QStringLiteral("NAME=VALUE"));
    arguments.addOption({ QStringLiteral("w"), QStringLiteral("wrapper") },
                        QStringLiteral("A word of the command that gets its command line") + several,
                        QStringLiteral("WORD"));
    arguments.addOption({ QStringLiteral("f"), QStringLiteral("firejail-param") },
                        QStringLiteral("An option more for the sandbox program") + several,
                        QStringLiteral("OPTION"));
    arguments.addSwitch({ QStringLiteral("no-sandbox") }, QStringLiteral("Start it without the sandbox"));
    arguments.addOption({ QStringLiteral("o"), QStringLiteral("stdout") },
                        QStringLiteral("Write its standard output to FILE"), QStringLiteral("FILE"));
    arguments.addOption({ QStringLiteral("stderr") }, QStringLiteral("Write its standard error to FILE"),
                        QStringLiteral("FILE"));
    if (const auto end = session.begin(1, 1, true)) {
        return *end;
    }
    QVariantMap parameters;
    const auto addTexts = [&parameters](const char *key, const QStringList &texts) {
        if (!texts.isEmpty()) {
            parameters.insert(QLatin1String(key), texts);
        }
    };
    const QStringList environment = arguments.values(QStringLiteral("env"));
    for (const QString &entry : environment) {
        if (entry.indexOf(QLatin1Char('=')) < 1) {
            return arguments.wrong(QStringLiteral("Not NAME=VALUE: %1").arg(entry));
        }
    }
    addTexts("environment", environment);
    addTexts("applicationWrapper", arguments.values(QStringLiteral("wrapper")));
    addTexts("firejailParams", arguments.values(QStringLiteral("firejail-param")));
    if (arguments.hasTail() && arguments.tail().isEmpty()) {
        return arguments.wrong(QStringLiteral("No program after --"));
    }
    addTexts("commandLineParams", arguments.tail());
    if (arguments.isSet(QStringLiteral("no-sandbox"))) {
        parameters.insert(QStringLiteral("sandbox"), false);
    }
    for (const char *file : { "stdout", "stderr" }) {
        if (arguments.isSet(QLatin1String(file))) {
            // The service works in another directory.
            parameters.insert(QLatin1String(file) + QLatin1String("File"),
                              QDir().absoluteFilePath(arguments.value(QLatin1String(file))));
        }
    }
    return showStarted(session,
                       session.bus.act(QStringLiteral("Control1"), QStringLiteral("StartDebug"),
                                       { arguments.word(0), parameters }));
}

} // namespace Ctl
