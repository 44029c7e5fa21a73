#include "user_manager.h"

#include "manager_stand_in.h"

#include <QFile>
#include <QtTest>

#include <ctime>
#include <memory>

using namespace Eventd;
using namespace TestSupport;

class TestUserManager : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void startedUnitIsReported();
    void startThatFailsIsReported_data();
    void startThatFailsIsReported();
    void refusalIsReported_data();
    void refusalIsReported();
    void absentManagerIsReported();
    void managerThatEndsWhileAskedIsReported();
    void missingBusIsReported();
    void stopOfAnUnknownUnitSucceeds();
    void jobsOfOthersAreTheirs();
    void callbacksEndWithTheObject();
    void capabilityIsRead_data();
    void capabilityIsRead();
    void capabilityIsThatOfTheManager();
    void absentManagerCannotWake();

private:
    UserManager::Callback note(const char *what)
    {
        return [this, what](const QString &failure) {
            m_results << QLatin1String(what) + QLatin1Char(':') + failure;
        };
    }

    PrivateBus m_bus;
    QStringList m_results;
    std::unique_ptr<ManagerStandIn> m_systemd;
    std::unique_ptr<UserManager> m_manager;
};

void TestUserManager::init()
{
    m_results.clear();
    m_systemd = std::make_unique<ManagerStandIn>(m_bus);
    m_manager = std::make_unique<UserManager>(m_bus.connect());
}

void TestUserManager::cleanup()
{
    m_manager.reset();
    m_systemd.reset();
}

void TestUserManager::startedUnitIsReported()
{
    m_manager->start(QStringLiteral("a.timer"), note("start"));
    m_manager->stop(QStringLiteral("b.timer"), note("stop"));
    m_manager->reload(note("reload"));
    QVERIFY(m_results.isEmpty());
    QTRY_COMPARE(m_results.size(), 3);
    m_results.sort();
    QCOMPARE(m_results,
             QStringList({ QStringLiteral("reload:"), QStringLiteral("start:"), QStringLiteral("stop:") }));
    QCOMPARE(m_systemd->calls(),
             QStringList({ QStringLiteral("StartUnit a.timer replace"),
                           QStringLiteral("StopUnit b.timer replace"), QStringLiteral("Reload") }));
}

void TestUserManager::startThatFailsIsReported_data()
{
    QTest::addColumn<QString>("result");
    for (const char *result : { "failed", "canceled", "timeout", "dependency", "skipped" }) {
        QTest::newRow(result) << QString::fromLatin1(result);
    }
}

void TestUserManager::startThatFailsIsReported()
{
    QFETCH(QString, result);
    m_systemd->jobResult = result;
    m_manager->start(QStringLiteral("a.timer"), note("start"));
    QTRY_COMPARE(
        m_results,
        QStringList { QStringLiteral("start:The systemd user manager could not start a.timer: ") + result });
}

void TestUserManager::refusalIsReported_data()
{
    QTest::addColumn<QString>("error");
    QTest::addColumn<QString>("text");
    QTest::newRow("its own") << "org.freedesktop.systemd1.BadUnitSetting"
                             << "The systemd user manager refuses: not today";
    QTest::newRow("denied") << "org.freedesktop.DBus.Error.AccessDenied"
                            << "The systemd user manager refuses: not today";
    QTest::newRow("gone") << "org.freedesktop.DBus.Error.NoReply"
                          << "The systemd user manager does not answer";
}

void TestUserManager::refusalIsReported()
{
    QFETCH(QString, error);
    QFETCH(QString, text);
    m_systemd->error = error;
    m_manager->start(QStringLiteral("a.timer"), note("x"));
    m_manager->stop(QStringLiteral("a.timer"), note("x"));
    m_manager->reload(note("x"));
    const QString line = QLatin1String("x:") + text;
    QTRY_COMPARE(m_results, QStringList({ line, line, line }));
}

void TestUserManager::absentManagerIsReported()
{
    m_systemd.reset();
    m_manager->start(QStringLiteral("a.timer"), note("x"));
    m_manager->stop(QStringLiteral("a.timer"), note("x"));
    const QString line = QStringLiteral("x:The systemd user manager is not on the session bus");
    QTRY_COMPARE(m_results, QStringList({ line, line }));
}

void TestUserManager::managerThatEndsWhileAskedIsReported()
{
    m_systemd->isSilent = true;
    m_manager->start(QStringLiteral("a.timer"), note("start"));
    QTRY_COMPARE(m_systemd->calls().size(), 1);
    m_systemd.reset();
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("start:The systemd user manager does not answer") });
}

void TestUserManager::missingBusIsReported()
{
    UserManager manager { QDBusConnection(QStringLiteral("none")) };
    manager.start(QStringLiteral("a.timer"), note("x"));
    bool answered = false;
    manager.canWake([&](bool wake) { answered = !wake; });
    QVERIFY(m_results.isEmpty());
    QTRY_COMPARE(m_results,
                 QStringList { QStringLiteral("x:The systemd user manager is not on the session bus") });
    QTRY_VERIFY(answered);
}

void TestUserManager::stopOfAnUnknownUnitSucceeds()
{
    m_systemd->error = QStringLiteral("org.freedesktop.systemd1.NoSuchUnit");
    m_manager->stop(QStringLiteral("a.timer"), note("stop"));
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("stop:") });
    m_manager->start(QStringLiteral("a.timer"), note("start"));
    QTRY_COMPARE(m_results.size(), 2);
    QCOMPARE(m_results.last(), QStringLiteral("start:The systemd user manager refuses: not today"));
}

void TestUserManager::jobsOfOthersAreTheirs()
{
    m_systemd->jobResult.clear();
    m_manager->start(QStringLiteral("a.timer"), note("a"));
    QTRY_COMPARE(m_systemd->calls().size(), 1);
    m_systemd->jobResult = QStringLiteral("failed");
    m_manager->start(QStringLiteral("b.timer"), note("b"));
    QTRY_COMPARE(m_results.size(), 1);
    QVERIFY(m_results.first().startsWith(QLatin1String("b:")));
}

void TestUserManager::callbacksEndWithTheObject()
{
    m_systemd->isSilent = true;
    m_manager->start(QStringLiteral("a.timer"), note("a"));
    QTRY_COMPARE(m_systemd->calls().size(), 1);
    m_manager.reset();
    m_systemd.reset();
    m_systemd = std::make_unique<ManagerStandIn>(m_bus);
    m_manager = std::make_unique<UserManager>(m_bus.connect());
    m_manager->reload(note("reload"));
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("reload:") });
}

void TestUserManager::capabilityIsRead_data()
{
    QTest::addColumn<QByteArray>("status");
    QTest::addColumn<bool>("can");
    const QByteArray head("Name:\tsystemd\nCapPrm:\t000001ffffffffff\nCapEff:\t");
    QTest::newRow("none") << head + "0000000000000000\nCapBnd:\t000001ffffffffff\n" << false;
    QTest::newRow("all") << head + "000001ffffffffff\nCapBnd:\t0000000000000000\n" << true;
    QTest::newRow("only this one") << head + "0000000800000000\n" << true;
    QTest::newRow("all but this one") << head + "fffffff7ffffffff\n" << false;
    QTest::newRow("no line") << QByteArray("Name:\tsystemd\n") << false;
    QTest::newRow("empty") << QByteArray() << false;
    QTest::newRow("nonsense") << head + "many\n" << false;
    QTest::newRow("cut") << head << false;
}

void TestUserManager::capabilityIsRead()
{
    QFETCH(QByteArray, status);
    QTEST(hasWakeCapability(status), "can");
}

void TestUserManager::capabilityIsThatOfTheManager()
{
    // Who stands in for it is this process.
    QFile status(QStringLiteral("/proc/self/status"));
    QVERIFY(status.open(QIODevice::ReadOnly));
    timespec time {};
    const bool expected =
        hasWakeCapability(status.readAll()) && ::clock_gettime(CLOCK_REALTIME_ALARM, &time) == 0;
    QStringList answers;
    for (int round = 0; round < 2; ++round) { // the second answer is remembered
        const int before = answers.size();
        m_manager->canWake([&](bool wake) { answers << QString::number(int(wake)); });
        QCOMPARE(answers.size(), before);
        QTRY_COMPARE(answers.size(), before + 1);
    }
    QCOMPARE(answers, QStringList({ QString::number(int(expected)), QString::number(int(expected)) }));
}

void TestUserManager::absentManagerCannotWake()
{
    m_systemd.reset();
    QStringList answers;
    m_manager->canWake([&](bool wake) { answers << QString::number(int(wake)); });
    QTRY_COMPARE(answers, QStringList { QStringLiteral("0") });
}

QTEST_GUILESS_MAIN(TestUserManager)

#include "tst_user_manager.moc"
