#include "units.h"

#include "event_samples.h"

#include <QProcess>
#include <QStandardPaths>
#include <QtTest>

using namespace Eventd;
using namespace EventSamples;
using Maemo::Timed::WireEvent;
using Maemo::Timed::WireRecurrence;

class TestUnits : public QObject
{
    Q_OBJECT

private slots:
    void namesBearTheCookie();
    void cookieIsFoundInAName_data();
    void cookieIsFoundInAName();
    void timerIsWritten();
    void timerThatMayWakeSaysSo();
    void timerHasALineForEachRecurrence();
    void serviceIsWritten();
    void startLimitLeavesRoomForTheEvent_data();
    void startLimitLeavesRoomForTheEvent();
    void nothingOfTheAttributesGetsIntoUnits();
    void programIsOneWord_data();
    void programIsOneWord();
    void unitsAreUnderstood_data();
    void unitsAreUnderstood();
};

void TestUnits::namesBearTheCookie()
{
    QCOMPARE(Units::timerName(17), QStringLiteral("procwarden-event-17.timer"));
    QCOMPARE(Units::serviceName(largestCookie), QStringLiteral("procwarden-event-4294967294.service"));
}

void TestUnits::cookieIsFoundInAName_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<quint32>("cookie");
    QTest::newRow("timer") << "procwarden-event-17.timer" << 17u;
    QTest::newRow("service") << "procwarden-event-17.service" << 17u;
    QTest::newRow("largest") << "procwarden-event-4294967294.timer" << 4294967294u;
    QTest::newRow("none") << "procwarden-event-4294967295.timer" << 0u;
    QTest::newRow("too large") << "procwarden-event-9999999999.timer" << 0u;
    QTest::newRow("0") << "procwarden-event-0.timer" << 0u;
    QTest::newRow("zeros in front") << "procwarden-event-017.timer" << 0u;
    QTest::newRow("another unit") << "procwarden-eventd.service" << 0u;
    QTest::newRow("another kind") << "procwarden-event-17.socket" << 0u;
    QTest::newRow("a file being written") << "procwarden-event-17.timer.XyZ123" << 0u;
    QTest::newRow("in front") << "my-procwarden-event-17.timer" << 0u;
}

void TestUnits::cookieIsFoundInAName()
{
    QFETCH(QString, name);
    QTEST(Units::cookieOf(name), "cookie");
}

void TestUnits::timerIsWritten()
{
    QCOMPARE(QString::fromUtf8(Units::timer(17, recurrent({ daily({ 3 }) }), false)),
             QStringLiteral("# Written by procwarden-eventd for itself; what is changed here is put right at "
                            "its next start.\n"
                            "[Unit]\n"
                            "Description=Timed event 17\n"
                            "\n"
                            "[Timer]\n"
                            "OnCalendar=*-*-* 03:00:00\n"
                            "AccuracySec=1s\n"
                            "# What was due while nothing ran is due once when the manager comes up.\n"
                            "Persistent=true\n"
                            "\n"
                            "[Install]\n"
                            "WantedBy=timers.target\n"));
}

void TestUnits::timerThatMayWakeSaysSo()
{
    QVERIFY(
        Units::timer(17, recurrent({ daily({ 3 }) }), true).contains("\nPersistent=true\nWakeSystem=true\n"));
}

void TestUnits::timerHasALineForEachRecurrence()
{
    QVERIFY(Units::timer(17, recurrent({ daily({ 3 }), daily({ 4 }) }), false)
                .contains("\nOnCalendar=*-*-* 03:00:00\nOnCalendar=*-*-* 04:00:00\n"));
}

void TestUnits::serviceIsWritten()
{
    QCOMPARE(QString::fromUtf8(Units::service(17, single(QStringLiteral("2027-01-02T03:04")),
                                              QStringLiteral("/usr/libexec/procwarden-eventd"))),
             QStringLiteral("# Written by procwarden-eventd for itself; what is changed here is put right at "
                            "its next start.\n"
                            "[Unit]\n"
                            "Description=Timed event 17\n"
                            "After=dbus.socket\n"
                            "# The most that the event itself needs, and the retries.\n"
                            "StartLimitIntervalSec=1h\n"
                            "StartLimitBurst=6\n"
                            "\n"
                            "[Service]\n"
                            "Type=oneshot\n"
                            "ExecStart=\"/usr/libexec/procwarden-eventd\" --fire 17\n"
                            "Restart=on-failure\n"
                            "RestartSec=2min\n"
                            "RestartPreventExitStatus=65\n"));
}

void TestUnits::startLimitLeavesRoomForTheEvent_data()
{
    QTest::addColumn<QList<int>>("minutes");
    QTest::addColumn<QList<int>>("seconds");
    QTest::addColumn<int>("burst");
    QTest::newRow("once an hour") << QList<int> { 0 } << QList<int>() << 6;
    QTest::newRow("four times an hour") << QList<int> { 0, 15, 30, 45 } << QList<int>() << 9;
    QTest::newRow("with seconds") << QList<int> { 0, 30 } << QList<int> { 0, 20, 40 } << 11;
}

void TestUnits::startLimitLeavesRoomForTheEvent()
{
    QFETCH(QList<int>, minutes);
    QFETCH(QList<int>, seconds);
    QFETCH(int, burst);
    WireRecurrence recurrence = daily({ 3 }, minutes);
    recurrence.seconds = seconds;
    const QByteArray unit = Units::service(17, recurrent({ recurrence }), QStringLiteral("/x"));
    QVERIFY2(unit.contains("\nStartLimitBurst=" + QByteArray::number(burst) + '\n'), unit.constData());
}

void TestUnits::nothingOfTheAttributesGetsIntoUnits()
{
    WireEvent event = recurrent({ daily({ 3 }) });
    event.attributes.insert(QStringLiteral("bad"), QStringLiteral("\nExecStart=/bin/false\n%n$HOME"));
    const WireEvent plain = recurrent({ daily({ 3 }) });
    QCOMPARE(Units::timer(17, event, false), Units::timer(17, plain, false));
    QCOMPARE(Units::service(17, event, QStringLiteral("/x")),
             Units::service(17, plain, QStringLiteral("/x")));
}

void TestUnits::programIsOneWord_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("word");
    QTest::newRow("plain") << "/usr/bin/x"
                           << "\"/usr/bin/x\"";
    QTest::newRow("blank") << "/a b/x"
                           << "\"/a b/x\"";
    QTest::newRow("quotes") << "/a\"b'c/x"
                            << "\"/a\\\"b'c/x\"";
    QTest::newRow("backslash") << "/a\\n/x"
                               << "\"/a\\\\n/x\"";
    QTest::newRow("percent") << "/a%n/x"
                             << "\"/a%%n/x\"";
    QTest::newRow("dollar") << "/a$HOME/x"
                            << "\"/a$HOME/x\"";
    QTest::newRow("line") << "/a\nb/x"
                          << "\"/a\\x0ab/x\"";
    QTest::newRow("Euro") << QString::fromUtf8("/\u20ac/x") << QString::fromUtf8("\"/\u20ac/x\"");
}

void TestUnits::programIsOneWord()
{
    QFETCH(QString, path);
    QTEST(Units::programWord(path), "word");
}

void TestUnits::unitsAreUnderstood_data()
{
    QTest::addColumn<QString>("directory");
    QTest::newRow("plain") << "plain";
    QTest::newRow("odd") << QString::fromUtf8("a b%n$HOME;#\u20ac");
}

void TestUnits::unitsAreUnderstood()
{
    const QString analyze = QStandardPaths::findExecutable(QStringLiteral("systemd-analyze"));
    if (analyze.isEmpty()) {
        QSKIP("needs systemd-analyze");
    }
    QFETCH(QString, directory);
    const QTemporaryDir root;
    QVERIFY(QDir(root.path()).mkpath(directory));
    // systemd-analyze looks whether the program is there.
    const QString program = root.filePath(directory + QLatin1String("/eventd"));
    QVERIFY(QFile::copy(QStringLiteral("/bin/true"), program));
    const auto write = [&](const QString &name, const QByteArray &content) {
        QFile file(root.filePath(name));
        return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
    };
    WireRecurrence recurrence = daily({ 3 });
    recurrence.start = QStringLiteral("2027-01-01T00:00:00Z");
    const WireEvent event = recurrent({ recurrence, daily({ 4 }) });
    QVERIFY(write(Units::timerName(17), Units::timer(17, event, true)));
    QVERIFY(write(Units::serviceName(17), Units::service(17, event, program)));

    QProcess analysis;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), root.path());
    analysis.setProcessEnvironment(environment);
    analysis.setProcessChannelMode(QProcess::MergedChannels);
    analysis.start(analyze,
                   { QStringLiteral("verify"), QStringLiteral("--man=no"), QStringLiteral("--user"),
                     root.filePath(Units::timerName(17)), root.filePath(Units::serviceName(17)) });
    QVERIFY(analysis.waitForFinished(60000));
    const QString output = QString::fromUtf8(analysis.readAll());
    const QStringList complaints = output.split(QLatin1Char('\n')).filter(QStringLiteral("procwarden"));
    QVERIFY2(complaints.isEmpty(), qUtf8Printable(output));
    QVERIFY2(analysis.exitCode() == 0, qUtf8Printable(output));
}

QTEST_GUILESS_MAIN(TestUnits)

#include "tst_units.moc"
