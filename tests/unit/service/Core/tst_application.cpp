#include "Core/application.h"

#include <QSignalSpy>
#include <QTest>

#include <limits>

using Core::Application;
using Core::ApplicationRecord;
using Core::ApplicationState;
using Core::InvocationContext;

class tst_Application : public QObject
{
    Q_OBJECT

private slots:
    void wasNeverActiveAtFirst();
    void countsAsActiveNowWhileItIs();
    void leavingActiveStampsTheTime();
    void leavingAnotherStateKeepsTheStamp();
    void windowCountsAddUpWithoutOverflow();
    void recordIsACopyOfAll();
    void longUriIsNotRecorded();
};

void tst_Application::wasNeverActiveAtFirst()
{
    const Application application(QStringLiteral("org.example.App"), 4711, InvocationContext(), {});
    QVERIFY(application.lastActive().isNull());
}

void tst_Application::countsAsActiveNowWhileItIs()
{
    Application application(QStringLiteral("org.example.App"), 4711, InvocationContext(), {});
    const QDateTime before = QDateTime::currentDateTime();
    application.setState(ApplicationState::Active);
    QVERIFY(application.lastActive() >= before);
    const QDateTime later = QDateTime::currentDateTime();
    QVERIFY(application.lastActive() >= later);
}

void tst_Application::leavingActiveStampsTheTime()
{
    Application application(QStringLiteral("org.example.App"), 4711, InvocationContext(), {});
    application.setState(ApplicationState::Active);
    const QDateTime before = QDateTime::currentDateTime();
    application.setState(ApplicationState::Hidden);

    const QDateTime stamp = application.lastActive();
    QVERIFY(stamp >= before);
    QVERIFY(stamp <= QDateTime::currentDateTime());
}

void tst_Application::leavingAnotherStateKeepsTheStamp()
{
    Application application(QStringLiteral("org.example.App"), 4711, InvocationContext(), {});
    application.setState(ApplicationState::Inactive);
    application.setState(ApplicationState::Hidden);
    QVERIFY(application.lastActive().isNull());

    application.setState(ApplicationState::Active);
    application.setState(ApplicationState::Inactive);
    const QDateTime stamp = application.lastActive();
    application.setState(ApplicationState::Hidden);
    QCOMPARE(application.lastActive(), stamp);
}

void tst_Application::windowCountsAddUpWithoutOverflow()
{
    Application application(QStringLiteral("org.example.App"), 4711, InvocationContext(), {});
    QCOMPARE(application.windowCount(), qint64(0));
    application.setWindowCounts(1, 2, 3);
    QCOMPARE(application.windowCount(), qint64(6));
    const int most = std::numeric_limits<int>::max();
    application.setWindowCounts(most, most, most);
    QCOMPARE(application.windowCount(), 3 * qint64(most));
}

void tst_Application::recordIsACopyOfAll()
{
    InvocationContext context;
    context.reason = InvocationContext::DirectStart;
    const QList<QUrl> uris = { QUrl(QStringLiteral("file:///tmp/a")) };
    Application application(QStringLiteral("org.example.App.instance_7"), 4711, context, uris);
    application.setState(ApplicationState::Active);
    application.setWindowCounts(1, 2, 3);

    const ApplicationRecord record = application.record();
    QCOMPARE(record.id, QStringLiteral("org.example.App.instance_7"));
    QCOMPARE(record.pid, 4711);
    QCOMPARE(record.context.reason, InvocationContext::DirectStart);
    QCOMPARE(record.activeWindowCount, 1);
    QCOMPARE(record.inactiveWindowCount, 2);
    QCOMPARE(record.hiddenWindowCount, 3);
    QCOMPARE(record.state, ApplicationState::Active);
    QCOMPARE(record.uris, uris);
    QCOMPARE(ApplicationRecord().state, ApplicationState::NotRunning);
}

/// All that run are told of in one message.
void tst_Application::longUriIsNotRecorded()
{
    const auto uri = [](char letter, int count) {
        return QUrl(QStringLiteral("file:///") + QString(count, QLatin1Char(letter)));
    };
    const int longest = Application::maximumUriLength - 8;
    const QList<QUrl> uris { uri('x', longest), uri('x', longest + 1), uri('%', longest), uri('a', 1) };
    const Application application(QStringLiteral("org.example.App"), 4711, InvocationContext(), uris);
    QCOMPARE(application.record().uris, (QList<QUrl> { uris.first(), uris.last() }));
}

QTEST_GUILESS_MAIN(tst_Application)
#include "tst_application.moc"
