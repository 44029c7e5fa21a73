#include "session.h"
#include "words.h"

namespace Ctl {

namespace {

QString sizeOf(const QVariantMap &memory, const char *key)
{
    return sizeText(memory.value(QLatin1String(key)).toULongLong());
}

QString memoryText(const Output &output, const QVariantMap &memory)
{
    const int level = memory.value(QStringLiteral("Level")).toInt();
    const uint interval = memory.value(QStringLiteral("IntervalMs")).toUInt();
    Sheet sheet;
    sheet.add(QStringLiteral("Level"), output.highlighted(memoryLevelName(level), memoryLevelStyle(level)));
    sheet.add(QStringLiteral("Available"),
              QStringLiteral("%1 of %2, %3 %")
                  .arg(sizeOf(memory, "AvailableKb"), sizeOf(memory, "TotalKb"))
                  .arg(memory.value(QStringLiteral("Percent")).toDouble(), 0, 'f', 1));
    sheet.add(QStringLiteral("Free swap"),
              QStringLiteral("%1 of %2").arg(sizeOf(memory, "SwapFreeKb"), sizeOf(memory, "SwapTotalKb")));
    sheet.add(QStringLiteral("Looked at"),
              interval > 0 ? QStringLiteral("every %1 ms").arg(interval) : QStringLiteral("not now"));
    QString text = sheet.text();
    const QVariantList candidates = memory.value(QStringLiteral("Candidates")).toList();
    if (!candidates.isEmpty()) {
        text += QStringLiteral("\nWould be killed, in this order:\n");
        text +=
            output.tableText(candidates,
                             { keyColumn(QStringLiteral("ID"), QStringLiteral("Id"), true),
                               { { QStringLiteral("PID"), Table::Align::Right },
                                 [](const QVariantMap &candidate) {
                                     return Table::Cell { candidate.value(QStringLiteral("Pid")).toString() };
                                 } },
                               keyColumn(QStringLiteral("BECAUSE OF"), QStringLiteral("Rule"), true) });
    }
    return text;
}

} // namespace

int memoryCommand(Session &session)
{
    if (const auto end = session.begin(0, 0)) {
        return *end;
    }
    const Reply reply = session.bus.ask(QStringLiteral("Introspect1"), QStringLiteral("GetMemory"));
    if (reply.failed()) {
        return session.fail(reply);
    }
    const QVariantMap memory = reply.value().toMap();
    session.output.record(memory, memoryText(session.output, memory));
    return Done;
}

} // namespace Ctl
