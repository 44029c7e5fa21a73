#include "Core/termination_waiters.h"

#include <QStringList>
#include <QTest>

using Core::TerminationWaiters;

class tst_TerminationWaiters : public QObject
{
    Q_OBJECT

private slots:
    void releasesThoseOfTheExactTextInOrder();
    void releasesOnce();
    void aWaiterMayAddAnother();
};

void tst_TerminationWaiters::releasesThoseOfTheExactTextInOrder()
{
    QStringList calls;
    TerminationWaiters waiters;
    waiters.add(QStringLiteral("org.example.App"), [&calls] { calls.append(QStringLiteral("first")); });
    waiters.add(QStringLiteral("org.example.App2"), [&calls] { calls.append(QStringLiteral("other")); });
    waiters.add(QStringLiteral("org.example.App"), [&calls] { calls.append(QStringLiteral("second")); });

    waiters.release(QStringLiteral("org.example"));
    QCOMPARE(calls, QStringList());
    waiters.release(QStringLiteral("org.example.App"));
    QCOMPARE(calls, QStringList({ QStringLiteral("first"), QStringLiteral("second") }));
}

void tst_TerminationWaiters::releasesOnce()
{
    int calls = 0;
    TerminationWaiters waiters;
    waiters.add(QStringLiteral("org.example.App"), [&calls] { ++calls; });

    waiters.release(QStringLiteral("org.example.App"));
    waiters.release(QStringLiteral("org.example.App"));
    QCOMPARE(calls, 1);
}

void tst_TerminationWaiters::aWaiterMayAddAnother()
{
    const QString id = QStringLiteral("org.example.App");
    int lateCalls = 0;
    TerminationWaiters waiters;
    waiters.add(id, [&] { waiters.add(id, [&lateCalls] { ++lateCalls; }); });

    waiters.release(id);
    QCOMPARE(lateCalls, 0);
    waiters.release(id);
    QCOMPARE(lateCalls, 1);
}

QTEST_APPLESS_MAIN(tst_TerminationWaiters)
#include "tst_termination_waiters.moc"
