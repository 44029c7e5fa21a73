#include "Core/cgroup_helper.h"

#include "Core/error.h"
#include "support/helper_stand_in.h"
#include "support/private_bus.h"

#include <QScopedPointer>
#include <QTest>

#include <memory>
#include <optional>

using Core::CGroupHelper;
using Core::Error;
using TestSupport::HelperStandIn;

namespace {

struct Outcome
{
    QString path;
    Error error;
};

} // namespace

class CGroupHelperTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void callCarriesTheUserId_data();
    void callCarriesTheUserId();
    void pathComesBack();
    void errorsAreTranslated_data();
    void errorsAreTranslated();
    void replyOfAnotherTypeFails_data();
    void replyOfAnotherTypeFails();
    void absentHelperFails();
    void helperThatGoesAwayFails();
    void nothingHappensBeforeTheEventLoopRuns();
    void destructionEndsTheWait();
    void destructionBeforeTheCallGoesOutEndsIt();
    void callsAreIndependent();

private:
    CGroupHelper::CreateUserHierarchiesCb keep()
    {
        return [this](const QString &path, const Error &error) {
            m_outcomes.append({ path, error });
        };
    }
    void standIn(const HelperStandIn::Answer &answer)
    {
        m_standIn.reset();
        m_standIn = std::make_unique<HelperStandIn>(*m_connection, answer);
    }

    std::unique_ptr<TestSupport::PrivateBus> m_bus;
    std::optional<QDBusConnection> m_connection;
    std::unique_ptr<HelperStandIn> m_standIn;
    QList<Outcome> m_outcomes;
};

void CGroupHelperTest::initTestCase()
{
    m_bus = std::make_unique<TestSupport::PrivateBus>();
    m_bus->useAsSystemBus();
    m_connection = m_bus->connect();
}

void CGroupHelperTest::init()
{
    m_standIn.reset();
    m_outcomes.clear();
}

void CGroupHelperTest::callCarriesTheUserId_data()
{
    QTest::addColumn<uint>("userId");
    QTest::newRow("root") << 0U;
    QTest::newRow("user") << 1000U;
    QTest::newRow("more than an int") << 4000000000U;
}

void CGroupHelperTest::callCarriesTheUserId()
{
    QFETCH(uint, userId);
    standIn(HelperStandIn::path(QStringLiteral("/x")));
    CGroupHelper helper;
    helper.createUserHierarchies(userId, keep());
    QTRY_COMPARE(m_outcomes.size(), 1);
    QCOMPARE(m_standIn->calls.size(), 1);
    const QDBusMessage call = m_standIn->calls.first();
    QCOMPARE(call.path(), QStringLiteral("/org/kestrix/Procwarden/Helper"));
    QCOMPARE(call.interface(), QStringLiteral("org.kestrix.Procwarden.Helper"));
    QCOMPARE(call.member(), QStringLiteral("CreateUserHierarchies"));
    QCOMPARE(call.signature(), QStringLiteral("u"));
    QCOMPARE(call.arguments(), QVariantList { userId });
}

void CGroupHelperTest::pathComesBack()
{
    standIn(HelperStandIn::path(QStringLiteral("/procwarden/user-1000")));
    CGroupHelper helper;
    helper.createUserHierarchies(1000, keep());
    QTRY_COMPARE(m_outcomes.size(), 1);
    QCOMPARE(m_outcomes.first().path, QStringLiteral("/procwarden/user-1000"));
    QVERIFY(!m_outcomes.first().error);
    QCOMPARE(m_outcomes.first().error.message(), QString());
}

void CGroupHelperTest::errorsAreTranslated_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("code");
    QTest::newRow("access denied") << "org.freedesktop.DBus.Error.AccessDenied" << int(Error::AccessDenied);
    QTest::newRow("invalid arguments") << "org.freedesktop.DBus.Error.InvalidArgs" << int(Error::InvalidArgs);
    QTest::newRow("failed") << "org.freedesktop.DBus.Error.Failed" << int(Error::Failed);
    QTest::newRow("no reply") << "org.freedesktop.DBus.Error.NoReply" << int(Error::Failed);
    QTest::newRow("unknown method") << "org.freedesktop.DBus.Error.UnknownMethod" << int(Error::Failed);
    QTest::newRow("not supported") << "org.freedesktop.DBus.Error.NotSupported" << int(Error::Failed);
    QTest::newRow("foreign name") << "com.example.Error.AccessDenied" << int(Error::Failed);
}

void CGroupHelperTest::errorsAreTranslated()
{
    QFETCH(QString, name);
    standIn([name](const QDBusMessage &call) {
        return call.createErrorReply(name, QStringLiteral("what went wrong"));
    });
    CGroupHelper helper;
    helper.createUserHierarchies(1, keep());
    QTRY_COMPARE(m_outcomes.size(), 1);
    QCOMPARE(m_outcomes.first().path, QString());
    QTEST(int(m_outcomes.first().error.code()), "code");
    QCOMPARE(m_outcomes.first().error.message(), QStringLiteral("what went wrong"));
}

void CGroupHelperTest::replyOfAnotherTypeFails_data()
{
    QTest::addColumn<QVariantList>("arguments");
    QTest::newRow("nothing") << QVariantList();
    QTest::newRow("number") << QVariantList { 7U };
    QTest::newRow("string list") << QVariantList { QStringList(QStringLiteral("/x")) };
}

void CGroupHelperTest::replyOfAnotherTypeFails()
{
    QFETCH(QVariantList, arguments);
    standIn([arguments](const QDBusMessage &call) { return call.createReply(arguments); });
    CGroupHelper helper;
    helper.createUserHierarchies(1, keep());
    QTRY_COMPARE(m_outcomes.size(), 1);
    QCOMPARE(m_outcomes.first().path, QString());
    QCOMPARE(m_outcomes.first().error.code(), Error::Failed);
    QVERIFY(!m_outcomes.first().error.message().isEmpty());
}

void CGroupHelperTest::absentHelperFails()
{
    CGroupHelper helper;
    helper.createUserHierarchies(1, keep());
    QTRY_COMPARE(m_outcomes.size(), 1);
    QCOMPARE(m_outcomes.first().path, QString());
    QCOMPARE(m_outcomes.first().error.code(), Error::Failed);
    QVERIFY(!m_outcomes.first().error.message().isEmpty());
}

void CGroupHelperTest::helperThatGoesAwayFails()
{
    QDBusConnection connection = m_bus->connect();
    auto silent =
        std::make_unique<HelperStandIn>(connection, [](const QDBusMessage &) { return QDBusMessage(); });
    CGroupHelper helper;
    helper.createUserHierarchies(1, keep());
    QTRY_COMPARE(silent->calls.size(), 1);
    silent.reset();
    m_bus->disconnect(connection);
    connection = QDBusConnection(QString());
    QTRY_COMPARE(m_outcomes.size(), 1);
    QCOMPARE(m_outcomes.first().error.code(), Error::Failed);
}

void CGroupHelperTest::nothingHappensBeforeTheEventLoopRuns()
{
    standIn(HelperStandIn::path(QStringLiteral("/x")));
    CGroupHelper helper;
    helper.createUserHierarchies(1, keep());
    QVERIFY(m_standIn->calls.isEmpty());
    QVERIFY(m_outcomes.isEmpty());
    QTRY_COMPARE(m_outcomes.size(), 1);
}

void CGroupHelperTest::destructionEndsTheWait()
{
    standIn([](const QDBusMessage &) { return QDBusMessage(); });
    auto helper = std::make_unique<CGroupHelper>();
    helper->createUserHierarchies(1, keep());
    QTRY_COMPARE(m_standIn->calls.size(), 1);
    helper.reset();
    m_standIn->reply(m_standIn->calls.first().createReply(QStringLiteral("/late")));

    // A later call of the same connections: what came before it has been handled when it is answered.
    CGroupHelper other;
    other.createUserHierarchies(2, keep());
    QTRY_COMPARE(m_standIn->calls.size(), 2);
    m_standIn->reply(m_standIn->calls.last().createReply(QStringLiteral("/other")));
    QTRY_COMPARE(m_outcomes.size(), 1);
    QCOMPARE(m_outcomes.first().path, QStringLiteral("/other"));
}

void CGroupHelperTest::destructionBeforeTheCallGoesOutEndsIt()
{
    standIn(HelperStandIn::path(QStringLiteral("/x")));
    auto helper = std::make_unique<CGroupHelper>();
    helper->createUserHierarchies(1, keep());
    helper.reset();

    CGroupHelper other;
    other.createUserHierarchies(2, keep());
    QTRY_COMPARE(m_outcomes.size(), 1);
    QCOMPARE(m_standIn->calls.size(), 1);
    QCOMPARE(m_standIn->calls.first().arguments(), QVariantList { 2U });
}

void CGroupHelperTest::callsAreIndependent()
{
    standIn([](const QDBusMessage &) { return QDBusMessage(); });
    CGroupHelper helper;
    helper.createUserHierarchies(1, keep());
    helper.createUserHierarchies(2, keep());
    QTRY_COMPARE(m_standIn->calls.size(), 2);
    m_standIn->reply(m_standIn->calls.at(1).createReply(QStringLiteral("/second")));
    QTRY_COMPARE(m_outcomes.size(), 1);
    QCOMPARE(m_outcomes.at(0).path, QStringLiteral("/second"));
    m_standIn->reply(m_standIn->calls.at(0).createErrorReply(QDBusError::InvalidArgs, QStringLiteral("no")));
    QTRY_COMPARE(m_outcomes.size(), 2);
    QCOMPARE(m_outcomes.at(1).error.code(), Error::InvalidArgs);
}

QTEST_GUILESS_MAIN(CGroupHelperTest)

#include "tst_cgroup_helper.moc"
