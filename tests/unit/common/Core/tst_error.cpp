#include "Core/error.h"

#include <QtTest>

#include <type_traits>

using namespace Core;

class TestError : public QObject
{
    Q_OBJECT

private slots:
    void codesNeverChange();
    void defaultMadeIsSuccess();
    void failureIsTrue();
    void debugOutput();
};

void TestError::codesNeverChange()
{
    static_assert(std::is_same_v<std::underlying_type_t<Error::Code>, qint32>);
    static_assert(std::has_virtual_destructor_v<Error>);
    QCOMPARE(int(Error::NoError), 0);
    QCOMPARE(int(Error::Failed), 1);
    QCOMPARE(int(Error::HandlerNotFound), 2);
    QCOMPARE(int(Error::HandlerFailed), 3);
    QCOMPARE(int(Error::InvalidArgs), 4);
    QCOMPARE(int(Error::NotSupported), 5);
    QCOMPARE(int(Error::AccessDenied), 6);
    QCOMPARE(int(Error::ProcessNotHandled), 7);
    QCOMPARE(int(Error::NotRunning), 8);
    QCOMPARE(int(Error::ApplicationAlreadyRunning), 9);
    QCOMPARE(int(Error::ApplicationTerminating), 10);
    QCOMPARE(int(Error::TaskNotFound), 11);
    QCOMPARE(int(Error::SpawnFailed), 12);
    QCOMPARE(int(Error::ApplicationBlocked), 13);
    QCOMPARE(int(Error::TooManyTasks), 14);
    QCOMPARE(int(Error::ApplicationAlreadyLaunching), 15);
}

void TestError::defaultMadeIsSuccess()
{
    const Error error;
    QVERIFY(!error);
    QCOMPARE(error.code(), Error::NoError);
    QCOMPARE(error.message(), QString());
}

void TestError::failureIsTrue()
{
    const Error error(Error::TaskNotFound, QStringLiteral("No such task: x"));
    QVERIFY(bool(error));
    QCOMPARE(error.code(), Error::TaskNotFound);
    QCOMPARE(error.message(), QStringLiteral("No such task: x"));
    QVERIFY(bool(Error(Error::Failed, QString())));
    QVERIFY(!Error(Error::NoError, QStringLiteral("a message alone is no failure")));
}

void TestError::debugOutput()
{
    QString text;
    QDebug(&text) << "failed:" << Error(Error::SpawnFailed, QStringLiteral("fork failed")) << "end";
    QCOMPARE(text.trimmed(), QStringLiteral("failed: Error(12, \"fork failed\") end"));

    text.clear();
    QDebug(&text).noquote() << Error();
    QCOMPARE(text.trimmed(), QStringLiteral("Error(0, \"\")"));
}

QTEST_GUILESS_MAIN(TestError)
#include "tst_error.moc"
