#include "Core/maemo_dbus_invoker.h"

#include "support/bus_stand_in.h"
#include "support/log_capture.h"
#include "support/private_bus.h"

#include <QDBusError>
#include <QSignalSpy>
#include <QtTest>

using namespace Core;
using namespace TestSupport;

namespace {

const QString service = QStringLiteral("org.example.legacy");
const QString path = QStringLiteral("/org/example/legacy");
const QString method = QStringLiteral("org.example.legacy.Ui.open");

} // namespace

class TestMaemoDBusInvoker : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void methodIsCalledWithOneListOfStrings_data();
    void methodIsCalledWithOneListOfStrings();
    void textIsSplitAtTheLastDot_data();
    void textIsSplitAtTheLastDot();
    void textWithoutMethodMakesNoCall_data();
    void textWithoutMethodMakesNoCall();
    void answerOfAnyTypeIsSuccess_data();
    void answerOfAnyTypeIsSuccess();
    void errorIsNoSuccess();
    void absentServiceIsNoSuccess();
    void serviceThatEndsWhileAskedIsNoSuccess();
    void nameThatTheBusRefusesIsNoSuccess_data();
    void nameThatTheBusRefusesIsNoSuccess();
    void answerAfterTheEndIsDropped();
    void slotMayDeleteTheInvoker_data();
    void slotMayDeleteTheInvoker();

private:
    PrivateBus m_bus;
    std::unique_ptr<BusStandIn> m_service;
};

void TestMaemoDBusInvoker::initTestCase()
{
    m_bus.useAsSessionBus();
}

void TestMaemoDBusInvoker::init()
{
    m_service.reset();
    m_service = std::make_unique<BusStandIn>(m_bus, service, path);
}

void TestMaemoDBusInvoker::methodIsCalledWithOneListOfStrings_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("two") << QStringList { QStringLiteral("a"), QStringLiteral("b c") };
    QTest::newRow("an empty one") << QStringList { QString() };
    QTest::newRow("none") << QStringList();
}

void TestMaemoDBusInvoker::methodIsCalledWithOneListOfStrings()
{
    QFETCH(QStringList, arguments);
    MaemoDBusInvoker invoker(service, path, method);
    invoker.invoke(arguments);
    QTRY_COMPARE(m_service->calls().size(), 1);
    const QDBusMessage call = m_service->calls().first();
    QCOMPARE(call.path(), path);
    QCOMPARE(call.interface(), QStringLiteral("org.example.legacy.Ui"));
    QCOMPARE(call.member(), QStringLiteral("open"));
    QCOMPARE(call.signature(), QStringLiteral("as"));
    QCOMPARE(call.arguments().size(), 1);
    QCOMPARE(call.arguments().first().toStringList(), arguments);
}

void TestMaemoDBusInvoker::textIsSplitAtTheLastDot_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("interface");
    QTest::addColumn<QString>("member");
    QTest::newRow("short interface") << QStringLiteral("a.b.c") << QStringLiteral("a.b")
                                     << QStringLiteral("c");
    QTest::newRow("no interface") << QStringLiteral(".open") << QString() << QStringLiteral("open");
}

void TestMaemoDBusInvoker::textIsSplitAtTheLastDot()
{
    QFETCH(QString, text);
    MaemoDBusInvoker invoker(service, path, text);
    invoker.invoke({});
    QTRY_COMPARE(m_service->calls().size(), 1);
    QTEST(m_service->calls().first().interface(), "interface");
    QTEST(m_service->calls().first().member(), "member");
}

void TestMaemoDBusInvoker::textWithoutMethodMakesNoCall_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("warning");
    const QString noDot = QStringLiteral("Invalid interface.method name: \"%1\"");
    const QString noMethod = QStringLiteral("Missing method name from \"%1\"");
    const auto row = [](const char *name, const char *text, const QString &warning) {
        QTest::newRow(name) << QString::fromLatin1(text) << warning.arg(QString::fromLatin1(text));
    };
    row("no dot", "open", noDot);
    row("empty", "", noDot);
    row("nothing behind the dot", "org.example.", noMethod);
    row("only a dot", ".", noMethod);
}

void TestMaemoDBusInvoker::textWithoutMethodMakesNoCall()
{
    QFETCH(QString, text);
    QFETCH(QString, warning);
    const LogCapture log;
    MaemoDBusInvoker invoker(service, path, text);
    QCOMPARE(log.warnings(), QStringList { warning });

    QSignalSpy spy(&invoker, &MaemoDBusInvoker::replyReceived);
    invoker.invoke({ QStringLiteral("a") });
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.first().first().toBool(), false);
    invoker.invoke({});
    QCOMPARE(spy.count(), 2);

    // A call that is made afterwards is the only one that arrives.
    MaemoDBusInvoker valid(service, path, method);
    valid.invoke({});
    QTRY_COMPARE(m_service->calls().size(), 1);
    QCOMPARE(m_service->calls().first().member(), QStringLiteral("open"));
    QCOMPARE(log.warnings().size(), 1);
}

void TestMaemoDBusInvoker::answerOfAnyTypeIsSuccess_data()
{
    QTest::addColumn<QVariantList>("answer");
    QTest::newRow("empty") << QVariantList {};
    QTest::newRow("false") << QVariantList { false };
    QTest::newRow("text") << QVariantList { QStringLiteral("a"), 1 };
}

void TestMaemoDBusInvoker::answerOfAnyTypeIsSuccess()
{
    QFETCH(QVariantList, answer);
    m_service->answerWith(answer);
    MaemoDBusInvoker invoker(service, path, method);
    QSignalSpy spy(&invoker, &MaemoDBusInvoker::replyReceived);
    invoker.invoke({});
    QCOMPARE(spy.count(), 0);
    QTRY_COMPARE(spy.count(), 1);
    QCOMPARE(spy.first().first().toBool(), true);
}

void TestMaemoDBusInvoker::errorIsNoSuccess()
{
    m_service->setHandler([](const QDBusMessage &call, const QDBusConnection &connection) {
        connection.send(call.createErrorReply(QDBusError::Failed, QStringLiteral("no")));
    });
    MaemoDBusInvoker invoker(service, path, method);
    QSignalSpy spy(&invoker, &MaemoDBusInvoker::replyReceived);
    invoker.invoke({});
    QTRY_COMPARE(spy.count(), 1);
    QCOMPARE(spy.first().first().toBool(), false);
}

void TestMaemoDBusInvoker::absentServiceIsNoSuccess()
{
    m_service.reset();
    MaemoDBusInvoker invoker(service, path, method);
    QSignalSpy spy(&invoker, &MaemoDBusInvoker::replyReceived);
    invoker.invoke({});
    QTRY_COMPARE(spy.count(), 1);
    QCOMPARE(spy.first().first().toBool(), false);
}

void TestMaemoDBusInvoker::serviceThatEndsWhileAskedIsNoSuccess()
{
    MaemoDBusInvoker invoker(service, path, method);
    QSignalSpy spy(&invoker, &MaemoDBusInvoker::replyReceived);
    invoker.invoke({});
    QTRY_COMPARE(m_service->calls().size(), 1);
    QCOMPARE(spy.count(), 0);
    m_service->leave();
    QTRY_COMPARE(spy.count(), 1);
    QCOMPARE(spy.first().first().toBool(), false);
}

void TestMaemoDBusInvoker::nameThatTheBusRefusesIsNoSuccess_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("object");
    QTest::addColumn<QString>("text");
    QTest::newRow("service") << QStringLiteral("no name") << path << method;
    QTest::newRow("object path") << service << QStringLiteral("no/path") << method;
    QTest::newRow("interface") << service << path << QStringLiteral("no name.open");
    QTest::newRow("method") << service << path << QStringLiteral("a.b.no name");
    QTest::newRow("everything empty") << QString() << QString() << QStringLiteral(".open");
}

void TestMaemoDBusInvoker::nameThatTheBusRefusesIsNoSuccess()
{
    QFETCH(QString, name);
    QFETCH(QString, object);
    QFETCH(QString, text);
    const LogCapture log; // Qt has something to say about each
    MaemoDBusInvoker invoker(name, object, text);
    QSignalSpy spy(&invoker, &MaemoDBusInvoker::replyReceived);
    invoker.invoke({});
    QTRY_COMPARE(spy.count(), 1);
    QCOMPARE(spy.first().first().toBool(), false);
    QCOMPARE(m_service->calls().size(), 0);
}

void TestMaemoDBusInvoker::answerAfterTheEndIsDropped()
{
    auto invoker = std::make_unique<MaemoDBusInvoker>(service, path, method);
    int answers = 0;
    connect(invoker.get(), &MaemoDBusInvoker::replyReceived, this, [&answers] { ++answers; });
    invoker->invoke({});
    QTRY_COMPARE(m_service->calls().size(), 1);
    m_service->send(m_service->calls().first().createReply());
    invoker.reset();

    m_service->answerWith({});
    MaemoDBusInvoker other(service, path, method);
    QSignalSpy spy(&other, &MaemoDBusInvoker::replyReceived);
    other.invoke({});
    QTRY_COMPARE(spy.count(), 1);
    QCOMPARE(answers, 0);
}

void TestMaemoDBusInvoker::slotMayDeleteTheInvoker_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("answer") << method;
    QTest::newRow("no method to call") << QStringLiteral("open");
}

void TestMaemoDBusInvoker::slotMayDeleteTheInvoker()
{
    QFETCH(QString, text);
    const LogCapture log;
    m_service->answerWith({});
    auto *parent = new QObject;
    auto *invoker = new MaemoDBusInvoker(service, path, text, parent);
    bool ended = false;
    connect(invoker, &MaemoDBusInvoker::replyReceived, this, [&ended, parent] {
        delete parent;
        ended = true;
    });
    invoker->invoke({});
    QTRY_VERIFY(ended);
}

QTEST_GUILESS_MAIN(TestMaemoDBusInvoker)
#include "tst_maemo_dbus_invoker.moc"
