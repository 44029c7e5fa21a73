#include "words.h"

#include <QTest>

#include <csignal>

/// Numbers of the bus in words.
class WordsTest : public QObject
{
    Q_OBJECT

private slots:
    void waitStatusIsDecoded_data();
    void waitStatusIsDecoded();
    void numbersHaveNames_data();
    void numbersHaveNames();
    void durationHasTwoUnitsAtMost_data();
    void durationHasTwoUnitsAtMost();
    void sizeIsReadable_data();
    void sizeIsReadable();
    void groupIsWhatHierarchiesHaveInCommon_data();
    void groupIsWhatHierarchiesHaveInCommon();
};

void WordsTest::waitStatusIsDecoded_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("text");
    QTest::newRow("clean") << 0 << "exit status 0";
    QTest::newRow("exit") << (3 << 8) << "exit status 3";
    QTest::newRow("greatest exit") << (255 << 8) << "exit status 255";
    QTest::newRow("signal") << SIGTERM << "signal 15 (SIGTERM)";
    QTest::newRow("core") << (SIGSEGV | 0x80) << "signal 11 (SIGSEGV), core dumped";
    QTest::newRow("realtime signal") << 40 << "signal 40";
    QTest::newRow("stopped") << (SIGSTOP << 8 | 0x7f) << "status 4991";
    QTest::newRow("unknown") << 0xffff << "status 65535";
}

void WordsTest::waitStatusIsDecoded()
{
    QFETCH(int, status);
    QFETCH(QString, text);
    QCOMPARE(Ctl::waitStatusText(status), text);
}

void WordsTest::numbersHaveNames_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("expected");
    const auto add = [](const QString &name, const char *expected) {
        QTest::newRow(expected) << name << QString::fromLatin1(expected);
    };
    add(Ctl::stateName(0), "launched");
    add(Ctl::stateName(1), "active");
    add(Ctl::stateName(2), "inactive");
    add(Ctl::stateName(3), "hidden");
    add(Ctl::stateName(4), "terminating");
    add(Ctl::stateName(5), "not running");
    add(Ctl::stateName(77), "77");
    add(Ctl::startReasonName(0), "unknown");
    add(Ctl::startReasonName(1), "intent Start");
    add(Ctl::startReasonName(2), "autostart");
    add(Ctl::startReasonName(3), "delivery of an intent");
    add(Ctl::startReasonName(4), "direct start");
    add(Ctl::startReasonName(5), "5");
    add(Ctl::startReasonName(6), "D-Bus activation");
    add(Ctl::stopReasonName(0), "by itself");
    add(Ctl::stopReasonName(5), "requested");
    add(Ctl::stopReasonName(6), "out of memory");
    add(Ctl::stopReasonName(9), "9");
    add(Ctl::memoryLevelName(0), "normal");
    add(Ctl::memoryLevelName(100), "low");
    add(Ctl::memoryLevelName(200), "critical");
    add(Ctl::memoryLevelName(-3), "-3");
}

void WordsTest::numbersHaveNames()
{
    QFETCH(QString, name);
    QFETCH(QString, expected);
    QCOMPARE(name, expected);
}

void WordsTest::durationHasTwoUnitsAtMost_data()
{
    QTest::addColumn<qint64>("milliseconds");
    QTest::addColumn<QString>("text");
    QTest::newRow("nothing") << qint64(0) << "0 ms";
    QTest::newRow("less than a second") << qint64(999) << "999 ms";
    QTest::newRow("second") << qint64(1999) << "1 s";
    QTest::newRow("minute") << qint64(60000) << "1 min";
    QTest::newRow("minutes") << qint64(200000) << "3 min 20 s";
    QTest::newRow("hours") << qint64(7500000) << "2 h 5 min";
    QTest::newRow("days") << qint64(4 * 86400000LL + 3 * 3600000 + 59000) << "4 d 3 h";
}

void WordsTest::durationHasTwoUnitsAtMost()
{
    QFETCH(qint64, milliseconds);
    QFETCH(QString, text);
    QCOMPARE(Ctl::durationText(milliseconds), text);
}

void WordsTest::sizeIsReadable_data()
{
    QTest::addColumn<quint64>("kilobytes");
    QTest::addColumn<QString>("text");
    QTest::newRow("nothing") << quint64(0) << "0 kB";
    QTest::newRow("kilobytes") << quint64(1023) << "1023 kB";
    QTest::newRow("megabytes") << quint64(3500) << "3.4 MB";
    QTest::newRow("gigabytes") << quint64(1024 * 1024 * 3 / 2) << "1.5 GB";
}

void WordsTest::sizeIsReadable()
{
    QFETCH(quint64, kilobytes);
    QFETCH(QString, text);
    QCOMPARE(Ctl::sizeText(kilobytes), text);
}

void WordsTest::groupIsWhatHierarchiesHaveInCommon_data()
{
    QTest::addColumn<QStringList>("directories");
    QTest::addColumn<QString>("group");
    QTest::newRow("none") << QStringList() << "";
    QTest::newRow("one") << QStringList(QStringLiteral("/a/b")) << "a/b";
    QTest::newRow("same end") << QStringList { QStringLiteral("/cpu/user/app"),
                                               QStringLiteral("/memory/user/app") }
                              << "user/app";
    QTest::newRow("nothing in common")
        << QStringList { QStringLiteral("/cpu/a"), QStringLiteral("/memory/b") } << "";
    QTest::newRow("one within the other")
        << QStringList { QStringLiteral("/user/app"), QStringLiteral("/x/user/app") } << "user/app";
}

void WordsTest::groupIsWhatHierarchiesHaveInCommon()
{
    QFETCH(QStringList, directories);
    QFETCH(QString, group);
    QVariantMap map;
    for (const QString &directory : directories) {
        map.insert(QString::number(map.size()), directory);
    }
    QCOMPARE(Ctl::commonGroup(map), group);
}

QTEST_APPLESS_MAIN(WordsTest)

#include "tst_words.moc"
