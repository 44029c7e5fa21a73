#include "units.h"

#include "calendar.h"

#include <QRegularExpression>

namespace Eventd {

namespace Units {

namespace {

using Maemo::Timed::WireEvent;
using Maemo::Timed::WireRecurrence;

const char head[] =
    "# Written by procwarden-eventd for itself; what is changed here is put right at its next "
    "start.\n";

/// Of starts that do not succeed at once, one every two minutes.
constexpr int retries = 5;

/// How often an event can be due in an hour.
int perHour(const WireEvent &event)
{
    int count = 0;
    for (const WireRecurrence &recurrence : event.recurrences) {
        count += recurrence.minutes.size() * qMax(1, recurrence.seconds.size());
    }
    return qMax(1, count);
}

QString baseName(Cookie cookie)
{
    return QStringLiteral("procwarden-event-%1").arg(cookie);
}

} // namespace

QString timerName(Cookie cookie)
{
    return baseName(cookie) + QLatin1String(".timer");
}

QString serviceName(Cookie cookie)
{
    return baseName(cookie) + QLatin1String(".service");
}

Cookie cookieOf(const QString &fileName)
{
    static const QRegularExpression form(QRegularExpression::anchoredPattern(
        QStringLiteral("procwarden-event-([1-9][0-9]{0,9})\\.(timer|service)")));
    const Cookie cookie = form.match(fileName).captured(1).toUInt(); // 0 if too large
    return cookie <= largestCookie ? cookie : 0;
}

QByteArray timer(Cookie cookie, const WireEvent &event, bool wake)
{
    QString text = QString::fromLatin1(head);
    text += QStringLiteral("[Unit]\nDescription=Timed event %1\n\n[Timer]\n").arg(cookie);
    const QStringList expressions = Calendar::expressions(event);
    for (const QString &expression : expressions) {
        text += QStringLiteral("OnCalendar=%1\n").arg(expression);
    }
    text += QLatin1String("AccuracySec=1s\n"
                          "# What was due while nothing ran is due once when the manager comes up.\n"
                          "Persistent=true\n");
    if (wake) {
        text += QLatin1String("WakeSystem=true\n");
    }
    text += QLatin1String("\n[Install]\nWantedBy=timers.target\n");
    return text.toUtf8();
}

QByteArray service(Cookie cookie, const WireEvent &event, const QString &program)
{
    QString text = QString::fromLatin1(head);
    text += QStringLiteral("[Unit]\n"
                           "Description=Timed event %1\n"
                           "After=dbus.socket\n"
                           "# The most that the event itself needs, and the retries.\n"
                           "StartLimitIntervalSec=1h\n"
                           "StartLimitBurst=%2\n"
                           "\n"
                           "[Service]\n"
                           "Type=oneshot\n"
                           "ExecStart=%3 --fire %1\n"
                           "Restart=on-failure\n"
                           "RestartSec=2min\n"
                           "RestartPreventExitStatus=%4\n")
                .arg(cookie)
                .arg(perHour(event) + retries)
                .arg(programWord(program))
                .arg(brokenEventStatus);
    return text.toUtf8();
}

QString programWord(const QString &path)
{
    QString result;
    for (const QChar character : path) {
        if (character == QLatin1Char('"') || character == QLatin1Char('\\')) {
            result += QLatin1Char('\\') + character;
        } else if (character == QLatin1Char('%')) {
            result += QLatin1String("%%");
        } else if (character.unicode() < 0x20 || character.unicode() == 0x7f) {
            result += QStringLiteral("\\x%1").arg(character.unicode(), 2, 16, QLatin1Char('0'));
        } else {
            result += character;
        }
    }
    return QLatin1Char('"') + result + QLatin1Char('"');
}

} // namespace Units

} // namespace Eventd
