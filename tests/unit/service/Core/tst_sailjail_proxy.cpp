#include "Core/sailjail_proxy.h"
#include "Core/sailjail_proxy_p.h"

#include "support/bus_stand_in.h"
#include "support/private_bus.h"

#include <QDBusError>
#include <QDBusVariant>
#include <QtTest>

using namespace Core;
using namespace TestSupport;

namespace {

const QString service = QStringLiteral("org.sailfishos.sailjaild1");
const QString path = QStringLiteral("/org/sailfishos/sailjaild1");
const QString application = QStringLiteral("org.example.Notes");

} // namespace

class TestSailjailProxy : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void callsHaveNoTimeLimit();
    void callIsSentAsAgreed_data();
    void callIsSentAsAgreed();
    void numberOtherThanZeroAllows_data();
    void numberOtherThanZeroAllows();
    void errorDoesNotAllow();
    void absentDaemonDoesNotAllow();
    void daemonThatEndsWhileAskedDoesNotAllow();
    void answersFindTheirCalls();

    void permissionsAreGranted_data();
    void permissionsAreGranted();
    void refusalGivesTheMessage();
    void permissionsOfAnotherTypeAreRefused_data();
    void permissionsOfAnotherTypeAreRefused();
    void absentDaemonRefusesPermissions();
    void daemonThatEndsWhilePromptingRefuses();
    void lateAnswerOfThePromptCounts();

    void answerAfterTheEndOfTheProxyIsDropped();
    void functionMayDeleteTheProxy_data();
    void functionMayDeleteTheProxy();
    void emptyFunctionsAreAllowed();

private:
    void askAllowed();
    void prompt();

    PrivateBus m_bus;
    QStringList m_results; ///< what the functions were called with
    std::unique_ptr<SailjailProxy> m_proxy;
    std::unique_ptr<BusStandIn> m_daemon;
};

void TestSailjailProxy::initTestCase()
{
    m_bus.useAsSystemBus();
}

void TestSailjailProxy::init()
{
    m_results.clear();
    m_daemon.reset();
    m_daemon = std::make_unique<BusStandIn>(m_bus, service, path);
    m_proxy = std::make_unique<SailjailProxy>();
}

void TestSailjailProxy::askAllowed()
{
    m_proxy->getAllowed(application, [this](bool allowed) {
        m_results << (allowed ? QStringLiteral("allowed") : QStringLiteral("denied"));
    });
    QVERIFY(m_results.isEmpty());
}

void TestSailjailProxy::prompt()
{
    m_proxy->promptLaunchPermissions(
        application,
        [this](const QStringList &granted) {
            m_results << QLatin1String("granted ") + granted.join(QLatin1Char(','));
        },
        [this](const QString &message) { m_results << QLatin1String("refused ") + message; });
    QVERIFY(m_results.isEmpty());
}

void TestSailjailProxy::callsHaveNoTimeLimit()
{
    QCOMPARE(SailjailProxyPrivate().timeout(), 0x7fffffff);
}

void TestSailjailProxy::callIsSentAsAgreed_data()
{
    QTest::addColumn<bool>("prompting");
    QTest::addColumn<QString>("member");
    QTest::newRow("allowed") << false << QStringLiteral("GetAllowed");
    QTest::newRow("prompt") << true << QStringLiteral("PromptLaunchPermissions");
}

void TestSailjailProxy::callIsSentAsAgreed()
{
    QFETCH(bool, prompting);
    QFETCH(QString, member);
    if (prompting) {
        prompt();
    } else {
        askAllowed();
    }
    QTRY_COMPARE(m_daemon->calls().size(), 1);
    const QDBusMessage call = m_daemon->calls().first();
    QCOMPARE(call.interface(), QStringLiteral("org.sailfishos.sailjaild1"));
    QCOMPARE(call.path(), path);
    QCOMPARE(call.member(), member);
    QCOMPARE(call.signature(), QStringLiteral("s"));
    QCOMPARE(call.arguments(), QVariantList { application });
}

void TestSailjailProxy::numberOtherThanZeroAllows_data()
{
    QTest::addColumn<QVariantList>("answer");
    QTest::addColumn<QString>("result");

    const QString allowed = QStringLiteral("allowed");
    const QString denied = QStringLiteral("denied");
    QTest::newRow("1") << QVariantList { 1 } << allowed;
    QTest::newRow("2") << QVariantList { 2 } << allowed;
    QTest::newRow("negative") << QVariantList { -1 } << allowed;
    QTest::newRow("0") << QVariantList { 0 } << denied;
    QTest::newRow("the first argument counts, 1") << QVariantList { 1, 0 } << allowed;
    QTest::newRow("the first argument counts, 0") << QVariantList { 0, 1 } << denied;
    QTest::newRow("no argument") << QVariantList {} << denied;
    QTest::newRow("string") << QVariantList { QStringLiteral("1") } << denied;
    QTest::newRow("64 bits") << QVariantList { qint64(1) } << denied;
    QTest::newRow("list") << QVariantList { QStringList { QStringLiteral("1") } } << denied;
    QTest::newRow("variant") << QVariantList { QVariant::fromValue(QDBusVariant(1)) } << denied;
}

void TestSailjailProxy::numberOtherThanZeroAllows()
{
    QFETCH(QVariantList, answer);
    QFETCH(QString, result);
    m_daemon->answerWith(answer);
    askAllowed();
    QTRY_COMPARE(m_results, QStringList { result });
}

void TestSailjailProxy::errorDoesNotAllow()
{
    m_daemon->setHandler([](const QDBusMessage &call, const QDBusConnection &connection) {
        connection.send(call.createErrorReply(QDBusError::Failed, QStringLiteral("no")));
    });
    askAllowed();
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("denied") });
}

void TestSailjailProxy::absentDaemonDoesNotAllow()
{
    m_daemon.reset();
    askAllowed();
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("denied") });
}

void TestSailjailProxy::daemonThatEndsWhileAskedDoesNotAllow()
{
    askAllowed();
    QTRY_COMPARE(m_daemon->calls().size(), 1);
    QVERIFY(m_results.isEmpty());
    m_daemon->leave();
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("denied") });
}

void TestSailjailProxy::answersFindTheirCalls()
{
    askAllowed();
    prompt();
    QTRY_COMPARE(m_daemon->calls().size(), 2);
    const QDBusMessage promptCall = m_daemon->calls().at(1);
    QCOMPARE(promptCall.member(), QStringLiteral("PromptLaunchPermissions"));
    m_daemon->send(promptCall.createReply(QStringList { QStringLiteral("Audio") }));
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("granted Audio") });
    m_daemon->send(m_daemon->calls().at(0).createReply(1));
    QTRY_COMPARE(m_results, (QStringList { QStringLiteral("granted Audio"), QStringLiteral("allowed") }));
}

void TestSailjailProxy::permissionsAreGranted_data()
{
    QTest::addColumn<QVariantList>("answer");
    QTest::addColumn<QString>("result");

    const QStringList two { QStringLiteral("Audio"), QStringLiteral("Internet") };
    QTest::newRow("two") << QVariantList { two } << QStringLiteral("granted Audio,Internet");
    QTest::newRow("none") << QVariantList { QStringList() } << QStringLiteral("granted ");
    QTest::newRow("further arguments") << QVariantList { two, 5 } << QStringLiteral("granted Audio,Internet");
}

void TestSailjailProxy::permissionsAreGranted()
{
    QFETCH(QVariantList, answer);
    QFETCH(QString, result);
    m_daemon->answerWith(answer);
    prompt();
    QTRY_COMPARE(m_results, QStringList { result });
}

void TestSailjailProxy::refusalGivesTheMessage()
{
    m_daemon->setHandler([](const QDBusMessage &call, const QDBusConnection &connection) {
        connection.send(call.createErrorReply(QDBusError::AccessDenied, QStringLiteral("The user said no")));
    });
    prompt();
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("refused The user said no") });
}

void TestSailjailProxy::permissionsOfAnotherTypeAreRefused_data()
{
    QTest::addColumn<QVariantList>("answer");
    QTest::newRow("no argument") << QVariantList {};
    QTest::newRow("string") << QVariantList { QStringLiteral("Audio") };
    QTest::newRow("number") << QVariantList { 1 };
}

void TestSailjailProxy::permissionsOfAnotherTypeAreRefused()
{
    QFETCH(QVariantList, answer);
    m_daemon->answerWith(answer);
    prompt();
    QTRY_COMPARE(m_results.size(), 1);
    QVERIFY2(m_results.first().startsWith(QLatin1String("refused ")), qPrintable(m_results.first()));
}

void TestSailjailProxy::absentDaemonRefusesPermissions()
{
    m_daemon.reset();
    prompt();
    QTRY_COMPARE(m_results.size(), 1);
    QVERIFY2(m_results.first().startsWith(QLatin1String("refused ")), qPrintable(m_results.first()));
    QVERIFY2(m_results.first().contains(service), qPrintable(m_results.first()));
}

void TestSailjailProxy::daemonThatEndsWhilePromptingRefuses()
{
    prompt();
    QTRY_COMPARE(m_daemon->calls().size(), 1);
    m_daemon->leave();
    QTRY_COMPARE(m_results.size(), 1);
    QVERIFY2(m_results.first().startsWith(QLatin1String("refused ")), qPrintable(m_results.first()));
}

void TestSailjailProxy::lateAnswerOfThePromptCounts()
{
    prompt();
    QTRY_COMPARE(m_daemon->calls().size(), 1);
    // No limit of its own: what is said here after a while is said the same way after an hour.
    QTest::qWait(100);
    QVERIFY(m_results.isEmpty());
    m_daemon->send(m_daemon->calls().first().createReply(QStringList { QStringLiteral("Audio") }));
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("granted Audio") });
}

void TestSailjailProxy::answerAfterTheEndOfTheProxyIsDropped()
{
    askAllowed();
    prompt();
    QTRY_COMPARE(m_daemon->calls().size(), 2);
    m_daemon->send(m_daemon->calls().at(0).createReply(1));
    m_daemon->send(m_daemon->calls().at(1).createReply(QStringList()));
    m_proxy.reset();

    // When a call made later has its answer, those had theirs.
    SailjailProxy other;
    m_daemon->answerWith({ 1 });
    bool answered = false;
    other.getAllowed(application, [&answered](bool) { answered = true; });
    QTRY_VERIFY(answered);
    QCOMPARE(m_results, QStringList());
}

void TestSailjailProxy::functionMayDeleteTheProxy_data()
{
    QTest::addColumn<bool>("prompting");
    QTest::addColumn<QVariantList>("answer");
    QTest::newRow("allowed") << false << QVariantList { 1 };
    QTest::newRow("granted") << true << QVariantList { QStringList() };
    QTest::newRow("refused") << true << QVariantList { 1 };
}

void TestSailjailProxy::functionMayDeleteTheProxy()
{
    QFETCH(bool, prompting);
    QFETCH(QVariantList, answer);
    m_daemon->answerWith(answer);
    const auto end = [this] {
        m_proxy.reset();
        m_results << QStringLiteral("ended");
    };
    if (prompting) {
        m_proxy->promptLaunchPermissions(
            application, [end](const QStringList &) { end(); }, [end](const QString &) { end(); });
    } else {
        m_proxy->getAllowed(application, [end](bool) { end(); });
    }
    QTRY_COMPARE(m_results, QStringList { QStringLiteral("ended") });
}

void TestSailjailProxy::emptyFunctionsAreAllowed()
{
    m_daemon->setHandler([](const QDBusMessage &call, const QDBusConnection &connection) {
        connection.send(call.member() == QLatin1String("GetAllowed") ? call.createReply(1)
                                                                     : call.createReply(QStringList()));
    });
    m_proxy->getAllowed(application, nullptr);
    m_proxy->promptLaunchPermissions(application, nullptr, nullptr);
    askAllowed();
    QTRY_COMPARE(m_results.size(), 1);
    m_results.clear();
    m_daemon->leave();
    m_proxy->promptLaunchPermissions(application, nullptr, nullptr);
    askAllowed();
    QTRY_COMPARE(m_results.size(), 1);
}

QTEST_GUILESS_MAIN(TestSailjailProxy)
#include "tst_sailjail_proxy.moc"
