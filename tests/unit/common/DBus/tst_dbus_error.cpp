#include "DBus/error.h"

#include <QtTest>

class tst_DBusError : public QObject
{
    Q_OBJECT

private slots:
    void nameOfEachCode_data();
    void nameOfEachCode();
    void keepsCodeAndMessage();
    void successIsNoFailure();
};

void tst_DBusError::nameOfEachCode_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("name");

    const QString failed = QStringLiteral("org.freedesktop.DBus.Error.Failed");
    QTest::newRow("NoError") << 0 << QString();
    QTest::newRow("Failed") << 1 << failed;
    QTest::newRow("HandlerNotFound") << 2 << QStringLiteral("org.kestrix.Procwarden.Error.HandlerNotFound");
    QTest::newRow("HandlerFailed") << 3 << QStringLiteral("org.kestrix.Procwarden.Error.HandlerFailed");
    QTest::newRow("InvalidArgs") << 4 << QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs");
    QTest::newRow("NotSupported") << 5 << QStringLiteral("org.freedesktop.DBus.Error.NotSupported");
    QTest::newRow("AccessDenied") << 6 << QStringLiteral("org.freedesktop.DBus.Error.AccessDenied");
    QTest::newRow("ProcessNotHandled")
        << 7 << QStringLiteral("org.kestrix.Procwarden.Error.ProcessNotHandled");
    QTest::newRow("NotRunning") << 8 << failed;
    QTest::newRow("ApplicationAlreadyRunning")
        << 9 << QStringLiteral("org.kestrix.Procwarden.Error.ApplicationAlreadyRunning");
    QTest::newRow("ApplicationTerminating")
        << 10 << QStringLiteral("org.kestrix.Procwarden.Error.ApplicationTerminating");
    QTest::newRow("TaskNotFound") << 11 << QStringLiteral("org.kestrix.Procwarden.Error.TaskNotFound");
    QTest::newRow("SpawnFailed") << 12 << failed;
    QTest::newRow("ApplicationBlocked")
        << 13 << QStringLiteral("org.kestrix.Procwarden.Error.ApplicationBlocked");
    QTest::newRow("TooManyTasks") << 14 << failed;
    QTest::newRow("ApplicationAlreadyLaunching")
        << 15 << QStringLiteral("org.kestrix.Procwarden.Error.ApplicationAlreadyLaunching");
    QTest::newRow("one past the table") << 16 << failed;
    QTest::newRow("largest") << 0x7fffffff << failed;
    QTest::newRow("negative") << -1 << failed;
}

void tst_DBusError::nameOfEachCode()
{
    QFETCH(int, code);
    QFETCH(QString, name);

    const DBus::Error error(Core::Error(static_cast<Core::Error::Code>(code), QString()));
    QCOMPARE(error.name(), name);
    QCOMPARE(error.name().isNull(), name.isNull());
}

void tst_DBusError::keepsCodeAndMessage()
{
    const DBus::Error error(Core::Error(Core::Error::TaskNotFound, QStringLiteral("No such task: a")));
    QCOMPARE(error.code(), Core::Error::TaskNotFound);
    QCOMPARE(error.message(), QStringLiteral("No such task: a"));
    QVERIFY(error);
}

void tst_DBusError::successIsNoFailure()
{
    const DBus::Error error { Core::Error() };
    QVERIFY(!error);
    QVERIFY(error.message().isEmpty());
}

QTEST_GUILESS_MAIN(tst_DBusError)
#include "tst_dbus_error.moc"
