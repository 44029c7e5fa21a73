#include "running_text.h"
#include "session.h"
#include "words.h"

#include <QDateTime>

namespace Ctl {

namespace {

QString agoText(qint64 since)
{
    return durationText(std::max<qint64>(QDateTime::currentMSecsSinceEpoch() - since, 0));
}

/// The text of a key through @p convert; empty if the key is absent.
template<typename Convert>
QString textOf(const QVariantMap &map, const QString &key, Convert convert)
{
    const auto found = map.constFind(key);
    return found == map.cend() ? QString() : convert(*found);
}

QString memoryOf(const QVariantMap &process)
{
    return textOf(process, QStringLiteral("MemoryKb"),
                  [](const QVariant &value) { return sizeText(value.toULongLong()); });
}

QString cpuOf(const QVariantMap &process)
{
    return textOf(process, QStringLiteral("CpuMs"),
                  [](const QVariant &value) { return durationText(value.toLongLong()); });
}

Table::Cell stateCell(const QVariantMap &process)
{
    const uint state = process.value(QStringLiteral("State")).toUInt();
    QString text = stateName(state);
    if (process.value(QStringLiteral("Frozen")).toBool()) {
        text += QStringLiteral(", frozen");
    }
    return { text, stateStyle(state) };
}

QVector<Output::Column> runningColumns()
{
    using Align = Table::Align;
    return {
        keyColumn(QStringLiteral("ID"), QStringLiteral("Id"), true),
        { { QStringLiteral("STATE") }, stateCell },
        { { QStringLiteral("PID"), Align::Right },
          [](const QVariantMap &process) {
              return Table::Cell { process.value(QStringLiteral("Pid")).toString() };
          } },
        { { QStringLiteral("SINCE"), Align::Right },
          [](const QVariantMap &process) {
              return Table::Cell { textOf(process, QStringLiteral("Since"), [](const QVariant &value) {
                  return agoText(value.toLongLong());
              }) };
          } },
        { { QStringLiteral("MEMORY"), Align::Right },
          [](const QVariantMap &process) {
              return Table::Cell { memoryOf(process) };
          } },
        { { QStringLiteral("CPU"), Align::Right },
          [](const QVariantMap &process) {
              return Table::Cell { cpuOf(process) };
          } },
        { { QStringLiteral("OOM"), Align::Right },
          [](const QVariantMap &process) {
              return Table::Cell { process.value(QStringLiteral("OomRank")).toString() };
          } },
        { { QStringLiteral("GROUP"), Align::Left, true },
          [](const QVariantMap &process) {
              return Table::Cell { commonGroup(process.value(QStringLiteral("Groups")).toMap()) };
          } },
    };
}

QString windowsOf(const QVariantMap &process)
{
    return textOf(process, QStringLiteral("ActiveWindows"), [&process](const QVariant &active) {
        return QStringLiteral("%1 active, %2 inactive, %3 hidden")
            .arg(active.toInt())
            .arg(process.value(QStringLiteral("InactiveWindows")).toInt())
            .arg(process.value(QStringLiteral("HiddenWindows")).toInt());
    });
}

QString groupsOf(const QVariantMap &process)
{
    QStringList lines;
    const QVariantMap groups = process.value(QStringLiteral("Groups")).toMap();
    for (auto group = groups.cbegin(); group != groups.cend(); ++group) {
        lines << printable(QStringLiteral("%1 %2").arg(group.key(), group->toString()));
    }
    return lines.join(QLatin1Char('\n'));
}

QString launchText(const QVariantMap &launch)
{
    // In their usual order, which differs from that of the keys.
    static const QPair<const char *, const char *> steps[] = {
        { "Allowed", "allowed" },    { "Prompted", "prompted" },        { "Granted", "granted" },
        { "Spawned", "spawned" },    { "Grouped", "in its groups" },    { "Released", "released" },
        { "NameSeen", "name seen" }, { "FirstWindow", "first window" },
    };
    QStringList parts;
    for (const auto &step : steps) {
        const auto found = launch.constFind(QLatin1String(step.first));
        if (found != launch.cend()) {
            parts << QStringLiteral("%1 %2 ms").arg(QLatin1String(step.second)).arg(found->toInt());
        }
    }
    QString text =
        QStringLiteral("asked for %1").arg(timeText(launch.value(QStringLiteral("Asked")).toLongLong()));
    if (!parts.isEmpty()) {
        text += QLatin1Char('\n') + parts.join(QStringLiteral(", "));
    }
    if (launch.contains(QStringLiteral("FailedAt"))) {
        text += QStringLiteral("\nfailed at %1: %2")
                    .arg(printable(launch.value(QStringLiteral("FailedAt")).toString()),
                         printable(launch.value(QStringLiteral("Error")).toString()));
    }
    return text;
}

/// How it came to be started, and by whom. Of the processes of tasks the reason is not known.
QString startOf(const QVariantMap &process)
{
    const uint reason = process.value(QStringLiteral("StartReason")).toUInt();
    const QString requestor = process.value(QStringLiteral("RequestorId")).toString();
    QStringList parts;
    if (reason != 0) {
        parts << startReasonName(reason);
    }
    if (!requestor.isEmpty()) {
        parts << QStringLiteral("by %1").arg(printable(requestor));
    }
    return parts.join(QStringLiteral(", "));
}

void addProcess(Sheet &sheet, const Output &output, const QVariantMap &process)
{
    const Table::Cell state = stateCell(process);
    sheet.add(QStringLiteral("Running"), printable(process.value(QStringLiteral("Id")).toString()));
    sheet.add(QStringLiteral("State"), output.highlighted(state.text, state.style));
    sheet.add(QStringLiteral("Pid"), process.value(QStringLiteral("Pid")).toString());
    sheet.add(QStringLiteral("Since"), textOf(process, QStringLiteral("Since"), [](const QVariant &since) {
                  return QStringLiteral("%1, for %2")
                      .arg(timeText(since.toLongLong()), agoText(since.toLongLong()));
              }));
    sheet.add(QStringLiteral("Start"), startOf(process));
    sheet.add(QStringLiteral("URIs"),
              printable(process.value(QStringLiteral("Uris")).toStringList().join(QLatin1Char(' '))));
    sheet.add(QStringLiteral("Windows"), windowsOf(process));
    QString memory = memoryOf(process);
    if (!memory.isEmpty() && process.contains(QStringLiteral("Processes"))) {
        memory += QStringLiteral(", processes: %1").arg(process.value(QStringLiteral("Processes")).toUInt());
    }
    sheet.add(QStringLiteral("Memory"), memory);
    sheet.add(QStringLiteral("CPU"), cpuOf(process));
    sheet.add(QStringLiteral("OOM rank"), process.value(QStringLiteral("OomRank")).toString());
    sheet.add(QStringLiteral("Groups"), groupsOf(process));
}

QString statusText(const Output &output, const QString &id, const QVariantMap &status)
{
    const QVariantList running = status.value(QStringLiteral("Running")).toList();
    const bool isBlocked = status.value(QStringLiteral("Blocked")).toBool();
    Sheet sheet;
    sheet.add(QStringLiteral("Id"), output.highlighted(id, Style::Bold));
    sheet.add(QStringLiteral("Installed"), yesOrNo(status.value(QStringLiteral("Installed")).toBool()));
    sheet.add(QStringLiteral("Blocked"),
              output.highlighted(yesOrNo(isBlocked), isBlocked ? Style::Notice : Style::Plain));
    if (status.value(QStringLiteral("Launching")).toBool()) {
        sheet.add(QStringLiteral("Launching"), yesOrNo(true));
    }
    if (running.isEmpty()) {
        sheet.add(QStringLiteral("State"), output.highlighted(stateName(5), stateStyle(5)));
    }
    for (const QVariant &process : running) {
        addProcess(sheet, output, process.toMap());
    }
    const QVariantMap launch = status.value(QStringLiteral("Launch")).toMap();
    if (!launch.isEmpty()) {
        sheet.add(QStringLiteral("Last launch"), launchText(launch));
    }
    QStringList ends;
    const QVariantList history = status.value(QStringLiteral("History")).toList();
    for (const QVariant &entry : history) {
        const QVariantMap end = entry.toMap();
        const Style style = decisionStyle(end.value(QStringLiteral("Decision")).toString());
        ends.append(output.highlighted(endText(end), style));
    }
    sheet.add(QStringLiteral("Ended"), ends.join(QLatin1Char('\n')));
    return sheet.text();
}

bool isUnknown(const QVariantMap &status)
{
    return !status.value(QStringLiteral("Installed")).toBool()
        && !status.value(QStringLiteral("Blocked")).toBool()
        && status.value(QStringLiteral("Running")).toList().isEmpty()
        && !status.contains(QStringLiteral("Launch")) && !status.contains(QStringLiteral("LastEnd"));
}

} // namespace

int listCommand(Session &session)
{
    if (const auto end = session.begin(0, -1)) {
        return *end;
    }
    const Reply reply = session.bus.ask(QStringLiteral("Introspect1"), QStringLiteral("ListRunning"));
    if (reply.failed()) {
        return session.fail(reply);
    }
    const QStringList wanted = session.arguments.words();
    QVariantList processes;
    const QVariantList all = reply.value().toList();
    for (const QVariant &process : all) {
        const QString id = process.toMap().value(QStringLiteral("Id")).toString();
        const bool isWanted = std::any_of(wanted.cbegin(), wanted.cend(), [&id](const QString &word) {
            return id == word || id.startsWith(word + QLatin1String(".task_"))
                || id.startsWith(word + QLatin1String(".instance_"));
        });
        if (wanted.isEmpty() || isWanted) {
            processes.append(process);
        }
    }
    session.output.rows(processes, runningColumns(), QStringLiteral("Nothing runs."));
    return Done;
}

int statusCommand(Session &session)
{
    if (const auto end = session.begin(1, 1)) {
        return *end;
    }
    const QString id = session.arguments.word(0);
    const Reply reply = session.bus.ask(QStringLiteral("Introspect1"), QStringLiteral("GetStatus"), { id });
    if (reply.failed()) {
        return session.fail(reply);
    }
    // All in one answer: what runs in it has not ended in it.
    const QVariantMap status = reply.value().toMap();
    session.output.record(status, statusText(session.output, id, status));
    if (isUnknown(status)) {
        Output::error(QStringLiteral("Nothing is known of %1").arg(id));
        return NoSuchId;
    }
    return Done;
}

} // namespace Ctl
