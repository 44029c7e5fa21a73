#include "event_record.h"

#include "event_samples.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include <functional>

using namespace Eventd;
using namespace EventSamples;
using Maemo::Timed::WireAction;
using Maemo::Timed::WireEvent;
using Maemo::Timed::WireRecurrence;

using ChangeEvent = std::function<void(WireEvent *)>;
using ChangeJson = std::function<void(QJsonObject *)>;
Q_DECLARE_METATYPE(ChangeEvent)
Q_DECLARE_METATYPE(ChangeJson)

class TestEventRecord : public QObject
{
    Q_OBJECT

private slots:
    void eventIsChecked_data();
    void eventIsChecked();
    void listsAreTidied();
    void recordIsReadAsItWasWritten_data();
    void recordIsReadAsItWasWritten();
    void recordThatMakesNoSenseIsRefused_data();
    void recordThatMakesNoSenseIsRefused();
};

void TestEventRecord::eventIsChecked_data()
{
    QTest::addColumn<ChangeEvent>("change");
    QTest::addColumn<QString>("problem");

    const auto row = [](const char *name, const char *problem, const ChangeEvent &change) {
        QTest::newRow(name) << change << QString::fromLatin1(problem);
    };
    const auto values = [&](const char *name, QList<int> WireRecurrence::*member, const QList<int> &list,
                            const char *problem) {
        row(name, problem, [=](WireEvent *event) { event->recurrences.first().*member = list; });
    };
    const auto action = [&](const char *name, QString WireAction::*member, const QString &text,
                            const char *problem) {
        row(name, problem, [=](WireEvent *event) { event->actions.first().*member = text; });
    };

    row("good", "", [](WireEvent *) {});
    row("good, single", "", [](WireEvent *event) { *event = single(QStringLiteral("2027-01-02T03:04")); });
    row("neither time nor recurrence", "An event has either a time or recurrences",
        [](WireEvent *event) { event->recurrences.clear(); });
    row("both", "An event has either a time or recurrences",
        [](WireEvent *event) { event->time = QStringLiteral("2027-01-02T03:04"); });
    row("no time", "The time of the event is no time from 1970 to 2199",
        [](WireEvent *event) { *event = single(QStringLiteral("soon")); });
    row("8 recurrences", "", [](WireEvent *event) {
        while (event->recurrences.size() < 8) {
            event->recurrences << daily({ 1 });
        }
    });
    row("9 recurrences", "The event has more than 8 recurrences", [](WireEvent *event) {
        while (event->recurrences.size() < 9) {
            event->recurrences << daily({ 1 });
        }
    });
    row("the last one is wrong", "The recurrence has no hours",
        [](WireEvent *event) { event->recurrences << daily({}); });

    values("no months", &WireRecurrence::months, {}, "The recurrence has no months");
    values("no days", &WireRecurrence::daysOfMonth, {}, "The recurrence has no daysOfMonth");
    values("no week days", &WireRecurrence::daysOfWeek, {}, "The recurrence has no daysOfWeek");
    values("no hours", &WireRecurrence::hours, {}, "The recurrence has no hours");
    values("no minutes", &WireRecurrence::minutes, {}, "The recurrence has no minutes");
    values("no seconds", &WireRecurrence::seconds, {}, "");
    values("all months", &WireRecurrence::months, { 0, 11 }, "");
    values("month -1", &WireRecurrence::months, { -1 }, "The recurrence has -1 among its months");
    values("month 12", &WireRecurrence::months, { 0, 12 }, "The recurrence has 12 among its months");
    values("days", &WireRecurrence::daysOfMonth, { 1, 31 }, "");
    values("day 0", &WireRecurrence::daysOfMonth, { 0 }, "The recurrence has 0 among its daysOfMonth");
    values("day 32", &WireRecurrence::daysOfMonth, { 32 }, "The recurrence has 32 among its daysOfMonth");
    values("week day -1", &WireRecurrence::daysOfWeek, { -1 }, "The recurrence has -1 among its daysOfWeek");
    values("week day 7", &WireRecurrence::daysOfWeek, { 6, 7 }, "The recurrence has 7 among its daysOfWeek");
    values("hour 24", &WireRecurrence::hours, { 24 }, "The recurrence has 24 among its hours");
    values("minute 60", &WireRecurrence::minutes, { 60 }, "The recurrence has 60 among its minutes");
    values("second 60", &WireRecurrence::seconds, { 60 }, "The recurrence has 60 among its seconds");
    row("start", "The start of the recurrence is no time",
        [](WireEvent *event) { event->recurrences.first().start = QStringLiteral("now"); });
    row("end", "The end of the recurrence is no time",
        [](WireEvent *event) { event->recurrences.first().end = QStringLiteral("never"); });

    row("no action", "An event has one action", [](WireEvent *event) { event->actions.clear(); });
    row("two actions", "An event has one action",
        [](WireEvent *event) { event->actions << event->actions.first(); });
    row("an action that is never done", "The action is never done",
        [](WireEvent *event) { event->actions.first().whenTriggered = false; });
    const char *const noName = "The action has no well-known bus name";
    action("no service", &WireAction::service, QString(), noName);
    action("a unique name", &WireAction::service, QStringLiteral(":1.17"), noName);
    action("one word", &WireAction::service, QStringLiteral("org"), noName);
    action("a number", &WireAction::service, QStringLiteral("org.1x"), noName);
    action("a dash", &WireAction::service, QStringLiteral("org.a-b"), "");
    action("a line behind", &WireAction::service, QStringLiteral("org.a\n"), noName);
    action("255 characters", &WireAction::service, QLatin1String("o.") + QString(253, QLatin1Char('x')), "");
    action("256 characters", &WireAction::service, QLatin1String("o.") + QString(254, QLatin1Char('x')),
           noName);
    action("no method", &WireAction::method, QString(), "The action has no method");
    action("a method with a point", &WireAction::method, QStringLiteral("a.b"), "The action has no method");
    action("no path", &WireAction::path, QString(), "The action has no object path");
    action("the root", &WireAction::path, QStringLiteral("/"), "");
    action("a slash behind", &WireAction::path, QStringLiteral("/a/"), "The action has no object path");
    action("a relative path", &WireAction::path, QStringLiteral("a/b"), "The action has no object path");
    action("no interface", &WireAction::interface, QString(), "The action has no interface");
    action("an interface with a dash", &WireAction::interface, QStringLiteral("org.a-b"),
           "The action has no interface");

    const auto attributes = [&](const char *name, int count, int length, const char *problem) {
        row(name, problem, [=](WireEvent *event) {
            event->attributes.clear();
            for (int i = 0; i < count; ++i) {
                event->attributes.insert(QString::number(i), QString(length, QLatin1Char('x')));
            }
        });
    };
    attributes("no attributes", 0, 0, "");
    attributes("64 attributes", 64, 0, "");
    attributes("65 attributes", 65, 0, "The attributes are too large");
    attributes("a long attribute", 1, 65535, "");
    attributes("one that is too long", 1, 65536, "The attributes are too large");
    attributes("many that are too long", 64, 1024, "The attributes are too large");
}

void TestEventRecord::eventIsChecked()
{
    QFETCH(ChangeEvent, change);
    QFETCH(QString, problem);
    WireEvent event = recurrent({ daily({ 3 }) });
    change(&event);
    QCOMPARE(whatIsWrongWith(event), problem);
}

void TestEventRecord::listsAreTidied()
{
    WireRecurrence recurrence = daily({ 23, 0, 23 }, { 45, 0 });
    recurrence.daysOfWeek = { 6, 0, 6 };
    recurrence.seconds = { 3, 1, 2, 1 };
    WireEvent event = recurrent({ recurrence });
    tidy(&event);
    const WireRecurrence tidied = event.recurrences.first();
    QCOMPARE(tidied.hours, QList<int>({ 0, 23 }));
    QCOMPARE(tidied.minutes, QList<int>({ 0, 45 }));
    QCOMPARE(tidied.daysOfWeek, QList<int>({ 0, 6 }));
    QCOMPARE(tidied.seconds, QList<int>({ 1, 2, 3 }));
    QCOMPARE(tidied.months, recurrence.months);
}

void TestEventRecord::recordIsReadAsItWasWritten_data()
{
    QTest::addColumn<ChangeEvent>("change");
    QTest::addColumn<quint32>("cookie");
    const auto row = [](const char *name, quint32 cookie, const ChangeEvent &change) {
        QTest::newRow(name) << change << cookie;
    };
    row("recurrent", 17, [](WireEvent *) {});
    row("largest cookie", largestCookie, [](WireEvent *) {});
    row("single", 1, [](WireEvent *event) { *event = single(QStringLiteral("2027-01-02T03:04:05")); });
    row("everything", 1, [](WireEvent *event) {
        WireRecurrence &recurrence = event->recurrences.first();
        recurrence = { { 1 },
                       { 2, 3 },
                       { 4 },
                       { 5 },
                       { 6 },
                       { 7 },
                       QStringLiteral("2027-01-01T00:00:00Z"),
                       QStringLiteral("2028-01-01T00:00:00Z") };
        event->recurrences << daily({ 3 });
        event->userMode = false;
        event->actions.first().sendAttributes = false;
    });
    row("odd attributes", 1, [](WireEvent *event) {
        event->attributes.insert(QString(), QString());
        event->attributes.insert(QStringLiteral("\"\\\n\t\x01%n$HOME"),
                                 QString::fromUtf8("\u20ac \U0001f600 \x7f]}"));
    });
    row("the most that is allowed", 1, [](WireEvent *event) {
        event->attributes = { { QStringLiteral("x"), QString(maximumAttributeText - 1, QChar(1)) } };
    });
}

void TestEventRecord::recordIsReadAsItWasWritten()
{
    QFETCH(ChangeEvent, change);
    QFETCH(quint32, cookie);
    WireEvent event = recurrent({ daily({ 3 }) });
    change(&event);
    const QByteArray json = toJson(cookie, event);
    QVERIFY(json.size() < 1024 * 1024); // the most that is read
    WireEvent read;
    QVERIFY(fromJson(json, cookie, &read));
    QCOMPARE(toJson(cookie, read), json);
    QCOMPARE(read.attributes, event.attributes);
    QCOMPARE(read.userMode, event.userMode);
    QCOMPARE(read.time, event.time);
    QCOMPARE(read.recurrences.size(), event.recurrences.size());
    QCOMPARE(read.actions.first().service, service);
    QCOMPARE(read.actions.first().sendAttributes, event.actions.first().sendAttributes);
}

void TestEventRecord::recordThatMakesNoSenseIsRefused_data()
{
    QTest::addColumn<QByteArray>("json");

    const auto row = [](const char *name, const ChangeJson &change) {
        QJsonObject object = QJsonDocument::fromJson(toJson(17, recurrent({ daily({ 3 }) }))).object();
        change(&object);
        QTest::newRow(name) << QJsonDocument(object).toJson();
    };
    const QByteArray good = toJson(17, recurrent({ daily({ 3 }) }));
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("cut") << good.left(good.size() / 2);
    QTest::newRow("a list") << QByteArray("[]");
    QTest::newRow("no object") << QByteArray("17");
    QTest::newRow("zeros") << QByteArray(100, '\0');
    QTest::newRow("deep") << QByteArray(100000, '[');
    row("nothing in it", [](QJsonObject *object) { *object = QJsonObject(); });
    row("another cookie", [](QJsonObject *object) { (*object)[QStringLiteral("cookie")] = 18; });
    row("a cookie of text",
        [](QJsonObject *object) { (*object)[QStringLiteral("cookie")] = QStringLiteral("17"); });
    row("no action", [](QJsonObject *object) { object->remove(QStringLiteral("action")); });
    row("no recurrence", [](QJsonObject *object) { object->remove(QStringLiteral("recurrences")); });
    row("recurrences of text", [](QJsonObject *object) {
        (*object)[QStringLiteral("recurrences")] = QJsonArray { QStringLiteral("daily") };
    });
    row("hours of text", [](QJsonObject *object) {
        QJsonArray recurrences = object->value(QStringLiteral("recurrences")).toArray();
        QJsonObject recurrence = recurrences.first().toObject();
        recurrence[QStringLiteral("hours")] = QJsonArray { QStringLiteral("3") };
        recurrences[0] = recurrence;
        (*object)[QStringLiteral("recurrences")] = recurrences;
    });
    row("a broken hour", [](QJsonObject *object) {
        QJsonArray recurrences = object->value(QStringLiteral("recurrences")).toArray();
        QJsonObject recurrence = recurrences.first().toObject();
        recurrence[QStringLiteral("hours")] = QJsonArray { 3.5 };
        recurrences[0] = recurrence;
        (*object)[QStringLiteral("recurrences")] = recurrences;
    });
}

void TestEventRecord::recordThatMakesNoSenseIsRefused()
{
    QFETCH(QByteArray, json);
    WireEvent event;
    QVERIFY(!fromJson(json, 17, &event));
}

QTEST_GUILESS_MAIN(TestEventRecord)

#include "tst_event_record.moc"
