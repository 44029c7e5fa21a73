#include "event_record.h"

#include "calendar.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <algorithm>
#include <limits>

namespace Eventd {

namespace {

using Maemo::Timed::WireAction;
using Maemo::Timed::WireEvent;
using Maemo::Timed::WireRecurrence;

constexpr int maximumNameLength = 255; // of the bus

/// The members of a recurrence that hold values, with what they may hold and how they are called.
struct Kind
{
    QList<int> WireRecurrence::*values;
    const char *name; ///< in JSON, and for people
    int first;
    int last;
    bool mayBeEmpty;
};

const Kind kinds[] = {
    { &WireRecurrence::months, "months", 0, 11, false },
    { &WireRecurrence::daysOfMonth, "daysOfMonth", 1, 31, false },
    { &WireRecurrence::daysOfWeek, "daysOfWeek", 0, 6, false },
    { &WireRecurrence::hours, "hours", 0, 23, false },
    { &WireRecurrence::minutes, "minutes", 0, 59, false },
    { &WireRecurrence::seconds, "seconds", 0, 59, true },
};

bool isName(const QString &text, const char *pattern)
{
    const QRegularExpression form(QRegularExpression::anchoredPattern(QLatin1String(pattern)));
    return text.size() <= maximumNameLength && form.match(text).hasMatch();
}

bool isPath(const QString &text)
{
    static const QRegularExpression form(
        QRegularExpression::anchoredPattern(QStringLiteral("/|(/[A-Za-z0-9_]+)+")));
    return text.size() <= maximumAttributeText && form.match(text).hasMatch();
}

QString problemOf(const WireAction &action)
{
    // A unique name is gone when the event is due.
    if (!isName(action.service, "[A-Za-z_-][A-Za-z0-9_-]*(\\.[A-Za-z_-][A-Za-z0-9_-]*)+")) {
        return QStringLiteral("The action has no well-known bus name");
    }
    if (!isName(action.method, "[A-Za-z_][A-Za-z0-9_]*")) {
        return QStringLiteral("The action has no method");
    }
    if (!isPath(action.path)) {
        return QStringLiteral("The action has no object path");
    }
    if (!isName(action.interface, "[A-Za-z_][A-Za-z0-9_]*(\\.[A-Za-z_][A-Za-z0-9_]*)+")) {
        return QStringLiteral("The action has no interface");
    }
    return action.whenTriggered ? QString() : QStringLiteral("The action is never done");
}

QString problemOf(const WireRecurrence &recurrence)
{
    for (const Kind &kind : kinds) {
        const QList<int> &values = recurrence.*kind.values;
        const QString name = QString::fromLatin1(kind.name);
        if (values.isEmpty() && !kind.mayBeEmpty) {
            return QStringLiteral("The recurrence has no %1").arg(name);
        }
        const auto isOut = [&](int value) {
            return value < kind.first || value > kind.last;
        };
        const auto wrong = std::find_if(values.cbegin(), values.cend(), isOut);
        if (wrong != values.cend()) {
            return QStringLiteral("The recurrence has %1 among its %2").arg(*wrong).arg(name);
        }
    }
    QDateTime time;
    if (!Calendar::parseLimit(recurrence.start, &time)) {
        return QStringLiteral("The start of the recurrence is no time");
    }
    if (!Calendar::parseLimit(recurrence.end, &time)) {
        return QStringLiteral("The end of the recurrence is no time");
    }
    return QString();
}

QString problemOf(const QMap<QString, QString> &attributes)
{
    qint64 length = 0;
    for (auto attribute = attributes.cbegin(); attribute != attributes.cend(); ++attribute) {
        length += attribute.key().size() + attribute.value().size();
    }
    return attributes.size() > maximumAttributes || length > maximumAttributeText
        ? QStringLiteral("The attributes are too large")
        : QString();
}

QJsonObject toJson(const WireRecurrence &recurrence)
{
    QJsonObject object;
    for (const Kind &kind : kinds) {
        QJsonArray values;
        for (const int value : recurrence.*kind.values) {
            values << value;
        }
        object.insert(QLatin1String(kind.name), values);
    }
    object.insert(QStringLiteral("start"), recurrence.start);
    object.insert(QStringLiteral("end"), recurrence.end);
    return object;
}

WireRecurrence recurrenceFrom(const QJsonObject &object)
{
    constexpr int nonsense = -1; // for what is no number
    WireRecurrence recurrence;
    for (const Kind &kind : kinds) {
        const QJsonArray values = object.value(QLatin1String(kind.name)).toArray();
        for (const QJsonValue &value : values) {
            recurrence.*kind.values << value.toInt(nonsense);
        }
    }
    recurrence.start = object.value(QStringLiteral("start")).toString();
    recurrence.end = object.value(QStringLiteral("end")).toString();
    return recurrence;
}

QJsonObject toJson(const WireAction &action)
{
    return {
        { QStringLiteral("service"), action.service },
        { QStringLiteral("method"), action.method },
        { QStringLiteral("path"), action.path },
        { QStringLiteral("interface"), action.interface },
        { QStringLiteral("sendAttributes"), action.sendAttributes },
    };
}

WireAction actionFrom(const QJsonObject &object)
{
    WireAction action;
    action.service = object.value(QStringLiteral("service")).toString();
    action.method = object.value(QStringLiteral("method")).toString();
    action.path = object.value(QStringLiteral("path")).toString();
    action.interface = object.value(QStringLiteral("interface")).toString();
    action.sendAttributes = object.value(QStringLiteral("sendAttributes")).toBool();
    action.whenTriggered = true;
    return action;
}

} // namespace

QString whatIsWrongWith(const WireEvent &event)
{
    QDateTime time;
    if (event.time.isEmpty() == event.recurrences.isEmpty()) {
        return QStringLiteral("An event has either a time or recurrences");
    }
    if (!event.time.isEmpty() && !Calendar::parseTime(event.time, &time)) {
        return QStringLiteral("The time of the event is no time from %1 to %2")
            .arg(Calendar::firstYear)
            .arg(Calendar::lastYear);
    }
    if (event.recurrences.size() > maximumRecurrences) {
        return QStringLiteral("The event has more than %1 recurrences").arg(maximumRecurrences);
    }
    for (const WireRecurrence &recurrence : event.recurrences) {
        const QString problem = problemOf(recurrence);
        if (!problem.isEmpty()) {
            return problem;
        }
    }
    if (event.actions.size() != 1) {
        return QStringLiteral("An event has one action");
    }
    const QString problem = problemOf(event.actions.first());
    return problem.isEmpty() ? problemOf(event.attributes) : problem;
}

void tidy(WireEvent *event)
{
    for (WireRecurrence &recurrence : event->recurrences) {
        for (const Kind &kind : kinds) {
            QList<int> &values = recurrence.*kind.values;
            std::sort(values.begin(), values.end());
            values.erase(std::unique(values.begin(), values.end()), values.end());
        }
    }
}

QByteArray toJson(Cookie cookie, const WireEvent &event)
{
    QJsonObject attributes;
    for (auto attribute = event.attributes.cbegin(); attribute != event.attributes.cend(); ++attribute) {
        attributes.insert(attribute.key(), attribute.value());
    }
    QJsonArray recurrences;
    for (const WireRecurrence &recurrence : event.recurrences) {
        recurrences << toJson(recurrence);
    }
    const QJsonObject object {
        { QStringLiteral("cookie"), double(cookie) },
        { QStringLiteral("attributes"), attributes },
        { QStringLiteral("userMode"), event.userMode },
        { QStringLiteral("time"), event.time },
        { QStringLiteral("recurrences"), recurrences },
        { QStringLiteral("action"), toJson(event.actions.value(0)) },
    };
    return QJsonDocument(object).toJson();
}

bool fromJson(const QByteArray &json, Cookie cookie, WireEvent *event)
{
    const QJsonObject object = QJsonDocument::fromJson(json).object();
    if (object.value(QStringLiteral("cookie")).toDouble() != double(cookie)) {
        return false;
    }
    *event = WireEvent();
    const QJsonObject attributes = object.value(QStringLiteral("attributes")).toObject();
    for (auto attribute = attributes.constBegin(); attribute != attributes.constEnd(); ++attribute) {
        event->attributes.insert(attribute.key(), attribute.value().toString());
    }
    event->userMode = object.value(QStringLiteral("userMode")).toBool();
    event->time = object.value(QStringLiteral("time")).toString();
    const QJsonArray recurrences = object.value(QStringLiteral("recurrences")).toArray();
    for (const QJsonValue &recurrence : recurrences) {
        event->recurrences << recurrenceFrom(recurrence.toObject());
    }
    event->actions << actionFrom(object.value(QStringLiteral("action")).toObject());
    if (!whatIsWrongWith(*event).isEmpty()) {
        return false;
    }
    tidy(event);
    return true;
}

} // namespace Eventd
