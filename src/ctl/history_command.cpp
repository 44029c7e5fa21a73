#include "running_text.h"
#include "session.h"
#include "words.h"

namespace Ctl {

namespace {

QString whatDecided(const QVariantMap &end)
{
    const QString decision = end.value(QStringLiteral("Decision")).toString();
    const QString detail = end.value(QStringLiteral("Detail")).toString();
    return detail.isEmpty() ? decision : QStringLiteral("%1: %2").arg(decision, detail);
}

/// Who requested an end: an application or a task, or what is known of another process. Empty if nobody did.
QString requestorText(const QVariantMap &end)
{
    const QString id = end.value(QStringLiteral("RequestorId")).toString();
    const QString bus = end.value(QStringLiteral("RequestorBus")).toString();
    if (!id.isEmpty() || bus.isEmpty()) {
        return id;
    }
    QStringList details;
    if (end.contains(QStringLiteral("RequestorPid"))) {
        details << QStringLiteral("pid %1").arg(end.value(QStringLiteral("RequestorPid")).toInt());
    }
    if (end.contains(QStringLiteral("RequestorUid"))) {
        details << QStringLiteral("uid %1").arg(end.value(QStringLiteral("RequestorUid")).toUInt());
    }
    details << QStringLiteral("%1 bus").arg(bus);
    const QString program =
        end.value(QStringLiteral("RequestorProgram"), QStringLiteral("somebody")).toString();
    return QStringLiteral("%1 (%2)").arg(program, details.join(QStringLiteral(", ")));
}

QString byWhom(const QVariantMap &end)
{
    const QString requestor = requestorText(end);
    return requestor.isEmpty() ? QString() : QStringLiteral(", by %1").arg(requestor);
}

} // namespace

Style decisionStyle(const QString &decision)
{
    static const QStringList bad = { QStringLiteral("crashed"), QStringLiteral("early-oom"),
                                     QStringLiteral("time-limit"), QStringLiteral("launch-failed") };
    return bad.contains(decision) ? Style::Bad : Style::Plain;
}

QString decisionText(const QVariantMap &end)
{
    return whatDecided(end) + byWhom(end);
}

QString endText(const QVariantMap &end)
{
    QString text =
        timeText(end.value(QStringLiteral("Ended")).toLongLong()) + QLatin1Char(' ') + whatDecided(end);
    if (end.contains(QStringLiteral("Pid"))) {
        text += QStringLiteral(" (pid %1)").arg(end.value(QStringLiteral("Pid")).toInt());
    }
    return printable(text + byWhom(end));
}

QVector<Output::Column> endColumns()
{
    using Align = Table::Align;
    return {
        { { QStringLiteral("ENDED") },
          [](const QVariantMap &end) {
              return Table::Cell { timeText(end.value(QStringLiteral("Ended")).toLongLong()) };
          } },
        keyColumn(QStringLiteral("ID"), QStringLiteral("Id"), true),
        { { QStringLiteral("PID"), Align::Right },
          [](const QVariantMap &end) {
              return Table::Cell { end.value(QStringLiteral("Pid")).toString() };
          } },
        { { QStringLiteral("RAN"), Align::Right },
          [](const QVariantMap &end) {
              const QVariant started = end.value(QStringLiteral("Started"));
              return Table::Cell { started.isValid() && end.contains(QStringLiteral("Pid")) ? durationText(
                                       end.value(QStringLiteral("Ended")).toLongLong() - started.toLongLong())
                                                                                            : QString() };
          } },
        { { QStringLiteral("WHY") },
          [](const QVariantMap &end) {
              const QString decision = end.value(QStringLiteral("Decision")).toString();
              return Table::Cell { decision, decisionStyle(decision) };
          } },
        keyColumn(QStringLiteral("DETAIL"), QStringLiteral("Detail"), true),
        { { QStringLiteral("BY") },
          [](const QVariantMap &end) {
              return Table::Cell { printable(requestorText(end)) };
          } },
    };
}

int historyCommand(Session &session)
{
    session.arguments.addOption({ QStringLiteral("n"), QStringLiteral("lines") },
                                QStringLiteral("The last COUNT only; 0 for all"), QStringLiteral("COUNT"));
    if (const auto end = session.begin(0, 1)) {
        return *end;
    }
    uint limit = 0;
    if (session.arguments.isSet(QStringLiteral("lines"))) {
        const auto number = session.arguments.number(QStringLiteral("lines"));
        if (!number) {
            return WrongUsage;
        }
        limit = *number;
    }
    const Reply reply = session.bus.ask(QStringLiteral("Introspect1"), QStringLiteral("GetHistory"),
                                        { session.arguments.word(0), limit });
    if (reply.failed()) {
        return session.fail(reply);
    }
    session.output.rows(reply.value().toList(), endColumns(), QStringLiteral("Nothing has ended."));
    return Done;
}

} // namespace Ctl
