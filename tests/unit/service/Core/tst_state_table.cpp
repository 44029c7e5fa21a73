#include "Core/state_table.h"

#include "Core/resource_configuration.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

using Core::ApplicationState;
using Core::ResourceConfiguration;
using Core::StateTable;

class tst_StateTable : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void holdsNameAndDelayOfTheThreeStates();
    void hasNoEntryForOtherStates();
    void isEmptyBeforeLoading();

private:
    QTemporaryDir m_data;
};

void tst_StateTable::initTestCase()
{
    QVERIFY(m_data.isValid());
    qputenv("XDG_DATA_HOME", QFile::encodeName(m_data.path()));
    qputenv("XDG_DATA_DIRS", QFile::encodeName(m_data.path()));
    const QString states =
        QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation) + QStringLiteral("/states");
    QVERIFY(QDir().mkpath(states));
    QFile hidden(states + QStringLiteral("/hidden.config"));
    QVERIFY(hidden.open(QFile::WriteOnly));
    hidden.write("ApplyWithDelay=1500\n");
    QFile inactive(states + QStringLiteral("/inactive.config"));
    QVERIFY(inactive.open(QFile::WriteOnly));
    inactive.write("ApplyWithDelay=-1\n");
}

void tst_StateTable::holdsNameAndDelayOfTheThreeStates()
{
    StateTable table;
    table.load(ResourceConfiguration());

    QCOMPARE(table.stateName(ApplicationState::Active), QStringLiteral("active"));
    QCOMPARE(table.stateName(ApplicationState::Inactive), QStringLiteral("inactive"));
    QCOMPARE(table.stateName(ApplicationState::Hidden), QStringLiteral("hidden"));
    QCOMPARE(table.find(ApplicationState::Active)->delayMs, 0);
    QCOMPARE(table.find(ApplicationState::Inactive)->delayMs, 0);
    QCOMPARE(table.find(ApplicationState::Hidden)->delayMs, 1500);
}

void tst_StateTable::hasNoEntryForOtherStates()
{
    StateTable table;
    table.load(ResourceConfiguration());

    QVERIFY(!table.find(ApplicationState::Launched));
    QVERIFY(!table.find(ApplicationState::Terminating));
    QVERIFY(!table.find(ApplicationState::NotRunning));
    QCOMPARE(table.stateName(ApplicationState::Launched), QString());
}

void tst_StateTable::isEmptyBeforeLoading()
{
    const StateTable table;
    QVERIFY(!table.find(ApplicationState::Active));
}

QTEST_GUILESS_MAIN(tst_StateTable)
#include "tst_state_table.moc"
