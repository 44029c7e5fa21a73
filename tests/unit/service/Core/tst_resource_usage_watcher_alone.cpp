// The connection to the bus is made once for a process, so that its absence needs a program of its own.

#include "Core/resource_usage_watcher.h"

#include "support/log_capture.h"

#include <QTest>

using Core::ResourceUsageWatcher;

class tst_ResourceUsageWatcherAlone : public QObject
{
    Q_OBJECT

private slots:
    void withoutABusNobodyIsSpared();
};

void tst_ResourceUsageWatcherAlone::withoutABusNobodyIsSpared()
{
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus");
    const TestSupport::LogCapture log;
    const ResourceUsageWatcher watcher;
    QVERIFY(!watcher.isUsingResource(QStringLiteral("org.example.Player")));
    QVERIFY(!watcher.isUsingResource(QString()));
    QCOMPARE(log.warnings(), QStringList(QStringLiteral("Failed to connect to Privacy Violation signal!")));
}

QTEST_GUILESS_MAIN(tst_ResourceUsageWatcherAlone)
#include "tst_resource_usage_watcher_alone.moc"
