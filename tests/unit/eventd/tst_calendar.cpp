#include "calendar.h"

#include "event_samples.h"

#include <QProcess>
#include <QStandardPaths>
#include <QtTest>

using namespace Eventd;
using namespace EventSamples;
using Maemo::Timed::WireEvent;
using Maemo::Timed::WireRecurrence;

namespace {

QDateTime local(const char *text)
{
    return QDateTime::fromString(QLatin1String(text), Qt::ISODate);
}

QList<int> range(int first, int last)
{
    QList<int> values;
    for (int value = first; value <= last; ++value) {
        values << value;
    }
    return values;
}

} // namespace

class TestCalendar : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void timeOfASingleEventIsRead_data();
    void timeOfASingleEventIsRead();
    void limitIsRead_data();
    void limitIsRead();
    void timeThatTheClocksLeaveOutIsShifted_data();
    void timeThatTheClocksLeaveOutIsShifted();

    void expressionIsWritten_data();
    void expressionIsWritten();
    void everyRecurrenceHasItsExpression();
    void managerUnderstandsTheExpression_data();
    void managerUnderstandsTheExpression();

    void recurrenceIsMet_data();
    void recurrenceIsMet();
    void startAndEndAreHonoured_data();
    void startAndEndAreHonoured();
    void oneRecurrenceIsEnough();
};

void TestCalendar::initTestCase()
{
    qputenv("TZ", "Europe/Berlin"); // summer time from 28 March to 31 October 2027
}

void TestCalendar::timeOfASingleEventIsRead_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("time");
    const QString none;
    QTest::newRow("minutes") << "2027-01-02T03:04"
                             << "2027-01-02T03:04:00Z";
    QTest::newRow("seconds") << "2027-01-02T03:04:05"
                             << "2027-01-02T03:04:05Z";
    QTest::newRow("leap day") << "2028-02-29T23:59:59"
                              << "2028-02-29T23:59:59Z";
    QTest::newRow("left out in spring") << "2027-03-28T02:30"
                                        << "2027-03-28T02:30:00Z";
    QTest::newRow("first year") << "1970-01-01T00:00"
                                << "1970-01-01T00:00:00Z";
    QTest::newRow("last year") << "2199-12-31T23:59:59"
                               << "2199-12-31T23:59:59Z";
    QTest::newRow("before the first year") << "1969-12-31T23:59" << none;
    QTest::newRow("after the last year") << "2200-01-01T00:00" << none;
    QTest::newRow("no leap day") << "2027-02-29T00:00" << none;
    QTest::newRow("month 13") << "2027-13-01T00:00" << none;
    QTest::newRow("month 0") << "2027-00-01T00:00" << none;
    QTest::newRow("hour 24") << "2027-01-01T24:00" << none;
    QTest::newRow("minute 60") << "2027-01-01T00:60" << none;
    QTest::newRow("a zone") << "2027-01-01T00:00Z" << none;
    QTest::newRow("milliseconds") << "2027-01-01T00:00:00.000" << none;
    QTest::newRow("date only") << "2027-01-01" << none;
    QTest::newRow("a negative year") << "-001-01-01T00:00" << none;
    QTest::newRow("five digits") << "12027-01-01T00:00" << none;
    QTest::newRow("more behind") << "2027-01-01T00:00\n" << none;
    QTest::newRow("another line") << "2027-01-01T00:00\nOnCalendar=*:*" << none;
    QTest::newRow("other digits") << QString::fromUtf8("2027-01-01T0\u0661:00") << none;
    QTest::newRow("nothing") << none << none;
}

void TestCalendar::timeOfASingleEventIsRead()
{
    QFETCH(QString, text);
    QFETCH(QString, time);
    QDateTime read;
    QCOMPARE(Calendar::parseTime(text, &read), !time.isEmpty());
    QCOMPARE(read.isValid() ? read.toString(Qt::ISODate) : QString(), time);
}

void TestCalendar::limitIsRead_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("good");
    QTest::addColumn<QString>("time");
    const QString none;
    QTest::newRow("none") << none << true << none;
    QTest::newRow("UTC") << "2027-01-02T03:04:05Z" << true << "2027-01-02T03:04:05Z";
    QTest::newRow("local") << "2027-01-02T03:04:05" << true << "2027-01-02T02:04:05Z";
    QTest::newRow("with an offset") << "2027-01-02T03:04:05+05:30" << true << "2027-01-01T21:34:05Z";
    QTest::newRow("date only") << "2027-01-02" << true << "2027-01-01T23:00:00Z";
    QTest::newRow("nonsense") << "tomorrow" << false << none;
    QTest::newRow("endless") << QStringLiteral("2027-01-02T03:04:05.%1Z").arg(QString(100, QLatin1Char('0')))
                             << false << none;
    QTest::newRow("no such day") << "2027-02-30T00:00:00Z" << false << none;
}

void TestCalendar::limitIsRead()
{
    QFETCH(QString, text);
    QFETCH(bool, good);
    QFETCH(QString, time);
    QDateTime read;
    QCOMPARE(Calendar::parseLimit(text, &read), good);
    QCOMPARE(read.isValid() ? read.toUTC().toString(Qt::ISODate) : QString(), time);
}

void TestCalendar::timeThatTheClocksLeaveOutIsShifted_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("utc");
    QTest::newRow("winter") << "2027-01-02T03:04"
                            << "2027-01-02T02:04:00Z";
    QTest::newRow("summer") << "2027-07-02T03:04"
                            << "2027-07-02T01:04:00Z";
    QTest::newRow("left out") << "2027-03-28T02:30"
                              << "2027-03-28T01:30:00Z";
}

void TestCalendar::timeThatTheClocksLeaveOutIsShifted()
{
    QFETCH(QString, text);
    QDateTime time;
    QVERIFY(Calendar::parseTime(text, &time));
    QTEST(Calendar::instant(time).toUTC().toString(Qt::ISODate), "utc");
}

void TestCalendar::expressionIsWritten_data()
{
    QTest::addColumn<Maemo::Timed::WireEvent>("event");
    QTest::addColumn<QString>("expression");

    const auto row = [](const char *name, const WireRecurrence &recurrence, const char *expression) {
        QTest::newRow(name) << recurrent({ recurrence }) << QString::fromLatin1(expression);
    };
    row("daily", daily({ 3 }), "*-*-* 03:00:00");
    row("every hour", daily(range(0, 23)), "*-*-* *:00:00");
    row("every minute", daily(range(0, 23), range(0, 59)), "*-*-* *:*:00");
    row("some minutes", daily({ 0, 23 }, { 0, 15, 30, 45 }), "*-*-* 00,23:00,15,30,45:00");

    WireRecurrence recurrence = daily({ 3 });
    recurrence.months = { 0, 1, 11 };
    row("months", recurrence, "*-01,02,12-* 03:00:00");
    recurrence = daily({ 3 });
    recurrence.daysOfMonth = { 1, 31 };
    row("days of the month", recurrence, "*-*-01,31 03:00:00");
    recurrence = daily({ 3 });
    recurrence.daysOfWeek = { 0, 1, 2, 3, 4, 5 };
    row("all days but Saturday", recurrence, "Sun,Mon,Tue,Wed,Thu,Fri *-*-* 03:00:00");
    recurrence.daysOfWeek = { 6 };
    row("Saturdays", recurrence, "Sat *-*-* 03:00:00");
    recurrence = daily({ 3 });
    recurrence.seconds = { 1, 59 };
    row("seconds", recurrence, "*-*-* 03:00:01,59");
    recurrence.seconds = range(0, 59);
    row("every second", recurrence, "*-*-* 03:00:*");
    recurrence = { { 1 }, { 28, 29 }, { 0, 6 }, { 23 }, { 59 }, { 0 }, {}, {} };
    row("everything", recurrence, "Sun,Sat *-02-28,29 23:59:00");

    // The limits are kept to the year here.
    recurrence = daily({ 3 });
    recurrence.start = QStringLiteral("2027-05-01T00:00:00Z");
    row("a start", recurrence, "2027..2199-*-* 03:00:00");
    recurrence.end = QStringLiteral("2029-05-01T00:00:00Z");
    row("a start and an end", recurrence, "2027..2029-*-* 03:00:00");
    recurrence.end = QStringLiteral("2027-12-01T00:00:00Z");
    row("within a year", recurrence, "2027-*-* 03:00:00");
    recurrence.start = QString();
    row("an end", recurrence, "1970..2027-*-* 03:00:00");
    recurrence.end = QStringLiteral("2027-12-31T23:30:00Z");
    row("the year is a local one", recurrence, "1970..2028-*-* 03:00:00");
    recurrence.start = QStringLiteral("0001-01-01T00:00:00Z");
    recurrence.end = QStringLiteral("9999-01-01T00:00:00Z");
    row("beyond what the manager knows", recurrence, "1970..2199-*-* 03:00:00");

    QTest::newRow("single") << single(QStringLiteral("2027-01-02T03:04")) << "2027-01-02 03:04:00";
    QTest::newRow("single with seconds")
        << single(QStringLiteral("2027-01-02T03:04:05")) << "2027-01-02 03:04:05";
    QTest::newRow("single, in summer") << single(QStringLiteral("2027-07-02T03:04")) << "2027-07-02 03:04:00";
    QTest::newRow("single, left out") << single(QStringLiteral("2027-03-28T02:30")) << "2027-03-28 03:30:00";
    QTest::newRow("single, past") << single(QStringLiteral("1999-01-02T03:04")) << "1999-01-02 03:04:00";
}

void TestCalendar::expressionIsWritten()
{
    QFETCH(Maemo::Timed::WireEvent, event);
    QFETCH(QString, expression);
    QCOMPARE(Calendar::expressions(event), QStringList { expression });
}

void TestCalendar::everyRecurrenceHasItsExpression()
{
    QCOMPARE(Calendar::expressions(recurrent({ daily({ 3 }), daily({ 4 }) })),
             QStringList({ QStringLiteral("*-*-* 03:00:00"), QStringLiteral("*-*-* 04:00:00") }));
}

void TestCalendar::managerUnderstandsTheExpression_data()
{
    QTest::addColumn<Maemo::Timed::WireEvent>("event");
    QTest::addColumn<QString>("next"); // after 2027-01-01 00:00:00, in local time

    const auto row = [](const char *name, const WireRecurrence &recurrence, const char *next) {
        QTest::newRow(name) << recurrent({ recurrence }) << QString::fromLatin1(next);
    };
    row("daily", daily({ 3 }), "Fri 2027-01-01 03:00:00");
    row("every hour", daily(range(0, 23)), "Fri 2027-01-01 01:00:00");
    WireRecurrence recurrence = daily({ 3 }, { 15 });
    recurrence.months = { 11 };
    row("month 11 is December", recurrence, "Wed 2027-12-01 03:15:00");
    recurrence.months = { 0 };
    recurrence.daysOfWeek = { 0 };
    row("day 0 is a Sunday", recurrence, "Sun 2027-01-03 03:15:00");
    recurrence.daysOfWeek = { 6 };
    row("day 6 is a Saturday", recurrence, "Sat 2027-01-02 03:15:00");
    recurrence = daily({ 3 });
    recurrence.months = { 1 };
    recurrence.daysOfMonth = { 29 };
    row("leap day", recurrence, "Tue 2028-02-29 03:00:00");
    recurrence.daysOfWeek = { 0 };
    row("leap day on a Sunday", recurrence, "Sun 2032-02-29 03:00:00");
    recurrence = daily({ 3 });
    recurrence.start = QStringLiteral("2029-05-01T00:00:00Z");
    row("a start", recurrence, "Mon 2029-01-01 03:00:00");
    recurrence = daily({ 0 });
    recurrence.seconds = { 7, 30 };
    row("seconds", recurrence, "Fri 2027-01-01 00:00:07");
    QTest::newRow("single") << single(QStringLiteral("2027-07-02T03:04")) << "Fri 2027-07-02 03:04:00";
    QTest::newRow("single, left out")
        << single(QStringLiteral("2027-03-28T02:30")) << "Sun 2027-03-28 03:30:00";
    QTest::newRow("single, last year")
        << single(QStringLiteral("2199-12-31T23:59:59")) << "Tue 2199-12-31 23:59:59";
}

void TestCalendar::managerUnderstandsTheExpression()
{
    const QString program = QStandardPaths::findExecutable(QStringLiteral("systemd-analyze"));
    if (program.isEmpty()) {
        QSKIP("needs systemd-analyze");
    }
    QFETCH(Maemo::Timed::WireEvent, event);
    QFETCH(QString, next);
    QProcess analysis;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C"));
    analysis.setProcessEnvironment(environment);
    analysis.start(program,
                   { QStringLiteral("calendar"), QStringLiteral("--base-time=2027-01-01 00:00:00"),
                     Calendar::expressions(event).first() });
    QVERIFY(analysis.waitForFinished(60000));
    const QString output = QString::fromUtf8(analysis.readAllStandardOutput());
    QVERIFY2(analysis.exitCode() == 0, analysis.readAllStandardError().constData());
    QVERIFY2(output.contains(QStringLiteral("Next elapse: %1 CE").arg(next)), qUtf8Printable(output));
}

void TestCalendar::recurrenceIsMet_data()
{
    QTest::addColumn<Maemo::Timed::WireRecurrence>("recurrence");
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("to");
    QTest::addColumn<bool>("met");

    const WireRecurrence three = daily({ 3 });
    QTest::newRow("at the first second") << three << "2027-01-01T03:00:00"
                                         << "2027-01-01T03:00:00" << true;
    QTest::newRow("one second late") << three << "2027-01-01T03:00:01"
                                     << "2027-01-01T03:59:59" << false;
    QTest::newRow("one second early") << three << "2027-01-01T00:00:00"
                                      << "2027-01-01T02:59:59" << false;
    QTest::newRow("the next day") << three << "2027-01-01T03:00:01"
                                  << "2027-01-02T03:00:00" << true;
    QTest::newRow("not yet the next day") << three << "2027-01-01T03:00:01"
                                          << "2027-01-02T02:59:59" << false;
    QTest::newRow("a day between") << three << "2027-01-01T12:00:00"
                                   << "2027-01-03T00:00:00" << true;
    QTest::newRow("to before from") << three << "2027-01-03T00:00:00"
                                    << "2027-01-01T12:00:00" << false;
    QTest::newRow("to before from, the same day") << three << "2027-01-01T12:00:00"
                                                  << "2027-01-01T00:00:00" << false;

    WireRecurrence leap = three;
    leap.months = { 1 };
    leap.daysOfMonth = { 29 };
    QTest::newRow("no leap day") << leap << "2025-01-01T00:00:00"
                                 << "2027-12-31T00:00:00" << false;
    QTest::newRow("a leap day") << leap << "2025-01-01T00:00:00"
                                << "2028-12-31T00:00:00" << true;
    leap.daysOfMonth = { 30 };
    QTest::newRow("never") << leap << "0001-01-01T00:00:00"
                           << "9999-12-31T00:00:00" << false;

    WireRecurrence sundays = three;
    sundays.daysOfWeek = { 0 };
    QTest::newRow("a Sunday") << sundays << "2027-01-03T00:00:00"
                              << "2027-01-04T00:00:00" << true;
    QTest::newRow("no Sunday") << sundays << "2027-01-04T00:00:00"
                               << "2027-01-09T23:59:59" << false;
    WireRecurrence seconds = three;
    seconds.seconds = { 30 };
    QTest::newRow("a second") << seconds << "2027-01-01T03:00:30"
                              << "2027-01-01T03:00:30" << true;
    QTest::newRow("not the second") << seconds << "2027-01-01T03:00:00"
                                    << "2027-01-01T03:00:29" << false;
}

void TestCalendar::recurrenceIsMet()
{
    QFETCH(Maemo::Timed::WireRecurrence, recurrence);
    QFETCH(QString, from);
    QFETCH(QString, to);
    QFETCH(bool, met);
    QCOMPARE(Calendar::isMetWithin(recurrence, local(from.toLatin1().constData()),
                                   local(to.toLatin1().constData())),
             met);
}

void TestCalendar::startAndEndAreHonoured_data()
{
    QTest::addColumn<QString>("start");
    QTest::addColumn<QString>("end");
    QTest::addColumn<QString>("now");
    QTest::addColumn<bool>("hasBeen");
    QTest::addColumn<bool>("willBe");

    const QString none;
    const QString start = QStringLiteral("2027-01-10T03:00:00"); // when it is due for the first time
    const QString end = QStringLiteral("2027-01-12T03:00:00"); // and for the last
    // Without a start, the timer's word is good.
    QTest::newRow("no limit") << none << none << "2027-01-01T02:00:00" << true << true;
    QTest::newRow("long before the start") << start << none << "2027-01-09T03:00:00" << false << true;
    QTest::newRow("just before the start") << start << none << "2027-01-10T02:59:59" << false << true;
    QTest::newRow("at the start") << start << none << "2027-01-10T03:00:00" << true << true;
    QTest::newRow("before the last one") << none << end << "2027-01-12T02:59:59" << true << true;
    QTest::newRow("at the last one") << none << end << "2027-01-12T03:00:00" << true << false;
    QTest::newRow("after the end, what was missed counts")
        << start << end << "2027-02-01T00:00:00" << true << false;
    QTest::newRow("before both") << start << end << "2027-01-01T03:00:00" << false << true;
    QTest::newRow("between") << start << end << "2027-01-11T03:00:00" << true << true;
    QTest::newRow("none between start and end") << "2027-01-10T03:00:01"
                                                << "2027-01-11T02:59:59"
                                                << "2027-02-01T00:00:00" << false << false;
    QTest::newRow("end before start") << end << start << "2027-01-01T00:00:00" << false << false;
    QTest::newRow("end before start, later") << end << start << "2027-02-01T00:00:00" << false << false;
}

void TestCalendar::startAndEndAreHonoured()
{
    QFETCH(QString, start);
    QFETCH(QString, end);
    QFETCH(QString, now);
    WireRecurrence recurrence = daily({ 3 });
    recurrence.start = start;
    recurrence.end = end;
    const WireEvent event = recurrent({ recurrence });
    const QDateTime time = local(now.toLatin1().constData());
    QTEST(Calendar::hasBeenDue(event, time), "hasBeen");
    QTEST(Calendar::willBeDue(event, time), "willBe");
}

void TestCalendar::oneRecurrenceIsEnough()
{
    WireRecurrence over = daily({ 3 });
    over.end = QStringLiteral("2027-01-01T00:00:00");
    WireRecurrence later = daily({ 3 });
    later.start = QStringLiteral("2028-01-01T00:00:00");
    const QDateTime now = local("2027-06-01T00:00:00");
    QVERIFY(Calendar::willBeDue(recurrent({ over, later }), now));
    QVERIFY(!Calendar::hasBeenDue(recurrent({ later }), now));
    QVERIFY(Calendar::hasBeenDue(recurrent({ over, later }), now));
    QVERIFY(!Calendar::willBeDue(recurrent({ over, over }), now));
}

QTEST_GUILESS_MAIN(TestCalendar)

#include "tst_calendar.moc"
