#include "session.h"

#include <algorithm>

namespace Ctl {

namespace {

/// Name, whether it passed, and a word about it.
QVariantMap checkMap(const QVariant &check)
{
    const QVariantList fields = check.toList();
    return { { QStringLiteral("Check"), fields.value(0) },
             { QStringLiteral("Passed"), fields.value(1) },
             { QStringLiteral("Word"), fields.value(2) } };
}

QVariantList checksOf(const QVariantMap &start)
{
    QVariantList checks;
    const QVariantList found = start.value(QStringLiteral("Checks")).toList();
    std::transform(found.cbegin(), found.cend(), std::back_inserter(checks),
                   [](const QVariant &check) { return QVariant(checkMap(check)); });
    return checks;
}

bool isPassed(const QVariant &check)
{
    return check.toMap().value(QStringLiteral("Passed")).toBool();
}

QString explanation(const Output &output, const QVariantMap &start)
{
    const auto heading = [&output](const QString &text) {
        return output.highlighted(text, Style::Bold) + QLatin1Char('\n');
    };
    QString text = heading(QStringLiteral("Checks"));
    const QVariantList checks = checksOf(start);
    for (const QVariant &entry : checks) {
        const QVariantMap check = entry.toMap();
        const bool passed = isPassed(entry);
        const QString word = printable(check.value(QStringLiteral("Word")).toString());
        text += QStringLiteral("  %1  %2")
                    .arg(output.highlighted(passed ? QStringLiteral("passed") : QStringLiteral("FAILED"),
                                            passed ? Style::Good : Style::Bad),
                         printable(check.value(QStringLiteral("Check")).toString()));
        text += word.isEmpty() ? QStringLiteral("\n") : QStringLiteral(": %1\n").arg(word);
    }
    const QVariantMap counts = start.value(QStringLiteral("Counts")).toMap();
    text += counts.isEmpty() ? QString() : QLatin1Char('\n') + heading(QStringLiteral("Counts"));
    for (auto count = counts.cbegin(); count != counts.cend(); ++count) {
        const QVariantList pair = count->toList();
        const bool fits = pair.value(0).toUInt() <= pair.value(1).toUInt();
        QString name = count.key();
        name.replace(QLatin1String("Bytes"), QLatin1String(" bytes"));
        text += QStringLiteral("  %1  ").arg(name, -17)
            + output.highlighted(
                QStringLiteral("%1 of %2").arg(pair.value(0).toUInt()).arg(pair.value(1).toUInt()),
                fits ? Style::Plain : Style::Bad)
            + QLatin1Char('\n');
    }
    const auto addLines = [&](const QString &title, const QStringList &lines) {
        if (!lines.isEmpty()) {
            text += QLatin1Char('\n') + heading(title);
        }
        for (const QString &line : lines) {
            text += QStringLiteral("  ") + printable(line) + QLatin1Char('\n');
        }
    };
    addLines(QStringLiteral("Command line"), start.value(QStringLiteral("Arguments")).toStringList());
    addLines(QStringLiteral("Environment"), start.value(QStringLiteral("Environment")).toStringList());
    return text;
}

} // namespace

int explainCommand(Session &session)
{
    if (const auto end = session.begin(1, 1)) {
        return *end;
    }
    const Reply reply = session.bus.ask(QStringLiteral("Introspect1"), QStringLiteral("Explain"),
                                        { session.arguments.word(0) });
    if (reply.failed()) {
        return session.fail(reply);
    }
    const QVariantMap start = reply.value().toMap();
    session.output.record(start, explanation(session.output, start));
    const QVariantList checks = checksOf(start);
    const auto failed = std::find_if_not(checks.cbegin(), checks.cend(), isPassed);
    if (failed == checks.cend()) {
        return Done;
    }
    const bool isInstalled =
        failed->toMap().value(QStringLiteral("Check")).toString() != QLatin1String("Installed");
    return isInstalled ? Refused : NoSuchId;
}

} // namespace Ctl
