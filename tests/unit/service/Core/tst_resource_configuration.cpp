#include "Core/resource_configuration.h"

#include "support/log_capture.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

using Core::ResourceConfiguration;

class ResourceConfigurationTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void noDirectoryGivesNothing();
    void backendEndsAtTheFirstDot();
    void valueMayHoldAnything();
    void keyWithoutDotIsSkippedWithAWarning();
    void delayIsReadOutsideTheGroup();
    void delayIsTakenAsItStands_data();
    void delayIsTakenAsItStands();
    void onlySettingsOfTheGroupCount();
    void stateIsTheNameBeforeTheFirstDot();
    void otherFilesAreNotRead();
    void fileThatCannotBeParsedGivesADelayOfZero();
    void whatIsNoFileOrTooLargeIsNotRead_data();
    void whatIsNoFileOrTooLargeIsNotRead();
    void leastLocalDirectoryWinsValueByValue();
    void laterFileOfTheSameStateResetsTheDelay();
    void lookUpOfTheUnknownInsertsNothing();
    void namesComeInKeyOrder();

private:
    void write(const QString &relative, const QByteArray &content) const;
    void writeState(const QString &file, const QByteArray &content) const
    {
        write(QStringLiteral("home/procwarden/states/") + file, content);
    }

    QScopedPointer<QTemporaryDir> m_directory;
};

void ResourceConfigurationTest::initTestCase()
{
    QCoreApplication::setApplicationName(QStringLiteral("procwarden"));
    QCoreApplication::setOrganizationName(QString());
}

void ResourceConfigurationTest::init()
{
    m_directory.reset(new QTemporaryDir);
    QVERIFY(m_directory->isValid());
    // The home comes first, then these two, from the more to the less local.
    qputenv("XDG_DATA_HOME", m_directory->filePath(QStringLiteral("home")).toUtf8());
    qputenv("XDG_DATA_DIRS",
            (m_directory->filePath(QStringLiteral("near")) + QLatin1Char(':')
             + m_directory->filePath(QStringLiteral("far")))
                .toUtf8());
}

void ResourceConfigurationTest::write(const QString &relative, const QByteArray &content) const
{
    const QString path = m_directory->filePath(relative);
    QVERIFY(QDir().mkpath(QFileInfo(path).path()));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), content.size());
}

void ResourceConfigurationTest::noDirectoryGivesNothing()
{
    const ResourceConfiguration configuration;
    QCOMPARE(configuration.stateNames(), QStringList());
}

void ResourceConfigurationTest::backendEndsAtTheFirstDot()
{
    writeState(QStringLiteral("hidden.config"),
               "[Backend settings]\ncgroup1.cpu.shares=128\ncgroup2.cpu.weight=10\n");
    const ResourceConfiguration configuration;
    QCOMPARE(configuration.settingsFor(QStringLiteral("hidden"), QStringLiteral("cgroup1")),
             (QVariantMap { { QStringLiteral("cpu.shares"), QStringLiteral("128") } }));
    QCOMPARE(configuration.settingsFor(QStringLiteral("hidden"), QStringLiteral("cgroup2")),
             (QVariantMap { { QStringLiteral("cpu.weight"), QStringLiteral("10") } }));
}

void ResourceConfigurationTest::valueMayHoldAnything()
{
    writeState(QStringLiteral("active.config"),
               "[Backend settings]\ncgroup1.a.word=THAWED\ncgroup1.a.quoted=\"1,2 3\"\ncgroup1.a.empty=\n");
    const ResourceConfiguration configuration;
    QCOMPARE(configuration.settingsFor(QStringLiteral("active"), QStringLiteral("cgroup1")),
             (QVariantMap { { QStringLiteral("a.word"), QStringLiteral("THAWED") },
                            { QStringLiteral("a.quoted"), QStringLiteral("1,2 3") },
                            { QStringLiteral("a.empty"), QString() } }));
}

void ResourceConfigurationTest::keyWithoutDotIsSkippedWithAWarning()
{
    writeState(QStringLiteral("active.config"),
               "[Backend settings]\naaa=1\ncgroup1.cpu.shares=2\nzzz=3\ncgroup1.freezer.state=THAWED\n");
    const TestSupport::LogCapture log;
    const ResourceConfiguration configuration;
    QCOMPARE(log.messages(),
             QStringList({ QStringLiteral("Invalid key in state file: \"aaa\""),
                           QStringLiteral("Invalid key in state file: \"zzz\"") }));
    QCOMPARE(configuration.settingsFor(QStringLiteral("active"), QStringLiteral("cgroup1")).keys(),
             QStringList({ QStringLiteral("cpu.shares"), QStringLiteral("freezer.state") }));
}

void ResourceConfigurationTest::delayIsReadOutsideTheGroup()
{
    writeState(QStringLiteral("hidden.config"), "ApplyWithDelay=1500\n[Backend settings]\n");
    writeState(QStringLiteral("active.config"), "[Backend settings]\nApplyWithDelay=1500\n");
    QTest::ignoreMessage(QtWarningMsg, "Invalid key in state file: \"ApplyWithDelay\"");
    const ResourceConfiguration configuration;
    QCOMPARE(configuration.applyDelay(QStringLiteral("hidden")), 1500);
    QCOMPARE(configuration.applyDelay(QStringLiteral("active")), 0);
}

void ResourceConfigurationTest::delayIsTakenAsItStands_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<int>("delay");
    QTest::newRow("number") << QByteArray("200") << 200;
    QTest::newRow("zero") << QByteArray("0") << 0;
    QTest::newRow("negative") << QByteArray("-5") << -5;
    QTest::newRow("empty") << QByteArray("") << 0;
    QTest::newRow("word") << QByteArray("soon") << 0;
    QTest::newRow("number with a unit") << QByteArray("200ms") << 0;
    QTest::newRow("list") << QByteArray("1,2") << 0;
    QTest::newRow("too great") << QByteArray("99999999999999999999") << 0;
}

void ResourceConfigurationTest::delayIsTakenAsItStands()
{
    QFETCH(QByteArray, value);
    writeState(QStringLiteral("hidden.config"), "ApplyWithDelay=" + value + "\n");
    const ResourceConfiguration configuration;
    QTEST(configuration.applyDelay(QStringLiteral("hidden")), "delay");
    QCOMPARE(configuration.stateNames(), QStringList(QStringLiteral("hidden")));
}

void ResourceConfigurationTest::onlySettingsOfTheGroupCount()
{
    writeState(QStringLiteral("active.config"),
               "cgroup1.cpu.shares=1\n[Other]\ncgroup1.cpu.shares=2\n[Backend settings]\n");
    const ResourceConfiguration configuration;
    QVERIFY(configuration.settingsFor(QStringLiteral("active"), QStringLiteral("cgroup1")).isEmpty());
}

void ResourceConfigurationTest::stateIsTheNameBeforeTheFirstDot()
{
    writeState(QStringLiteral("background.extra.config"),
               "ApplyWithDelay=3\n[Backend settings]\ncgroup1.cpu.shares=64\n");
    const ResourceConfiguration configuration;
    QCOMPARE(configuration.stateNames(), QStringList(QStringLiteral("background")));
    QCOMPARE(configuration.applyDelay(QStringLiteral("background")), 3);
    QCOMPARE(configuration.settingsFor(QStringLiteral("background"), QStringLiteral("cgroup1")),
             (QVariantMap { { QStringLiteral("cpu.shares"), QStringLiteral("64") } }));
}

void ResourceConfigurationTest::otherFilesAreNotRead()
{
    writeState(QStringLiteral("active.conf"), "ApplyWithDelay=1\n");
    writeState(QStringLiteral("active.config.orig"), "ApplyWithDelay=1\n");
    writeState(QStringLiteral("directory.config/inner.config"), "ApplyWithDelay=1\n");
    const ResourceConfiguration configuration;
    QCOMPARE(configuration.stateNames(), QStringList());
}

void ResourceConfigurationTest::fileThatCannotBeParsedGivesADelayOfZero()
{
    writeState(QStringLiteral("broken.config"), QByteArray("[Backend settings\n\0\xff\xfe=]\n\n=\n=", 28));
    writeState(QStringLiteral("empty.config"), "");
    const TestSupport::LogCapture log; // what it makes of the text is not ours
    const ResourceConfiguration configuration;
    QCOMPARE(configuration.stateNames(), QStringList({ QStringLiteral("broken"), QStringLiteral("empty") }));
    QCOMPARE(configuration.applyDelay(QStringLiteral("broken")), 0);
    QCOMPARE(configuration.applyDelay(QStringLiteral("empty")), 0);
    QVERIFY(configuration.settingsFor(QStringLiteral("empty"), QStringLiteral("cgroup1")).isEmpty());
}

void ResourceConfigurationTest::whatIsNoFileOrTooLargeIsNotRead_data()
{
    QTest::addColumn<QString>("target");
    QTest::newRow("link to a FIFO") << QStringLiteral("fifo");
    QTest::newRow("link to a device without an end") << QStringLiteral("/dev/zero");
    QTest::newRow("10 GiB") << QStringLiteral("sparse");
    QTest::newRow("a byte above 1 MiB") << QStringLiteral("large");
    QTest::newRow("link to nothing") << QStringLiteral("nothing");
    QTest::newRow("link to itself") << QStringLiteral("home/procwarden/states/hidden.config");
}

void ResourceConfigurationTest::whatIsNoFileOrTooLargeIsNotRead()
{
    QFETCH(QString, target);
    QCOMPARE(::mkfifo(QFile::encodeName(m_directory->filePath(QStringLiteral("fifo"))).constData(), 0600), 0);
    write(QStringLiteral("sparse"), "ApplyWithDelay=5\n");
    QVERIFY(QFile::resize(m_directory->filePath(QStringLiteral("sparse")), 10LL * 1024 * 1024 * 1024));
    write(QStringLiteral("large"), QByteArray("ApplyWithDelay=5\n").leftJustified(1024 * 1024 + 1, '\n'));
    writeState(QStringLiteral("active.config"), "ApplyWithDelay=7\n");
    QVERIFY(QFile::link(QDir(m_directory->path()).filePath(target),
                        m_directory->filePath(QStringLiteral("home/procwarden/states/hidden.config"))));

    const TestSupport::LogCapture log;
    const ResourceConfiguration configuration;
    QCOMPARE(configuration.applyDelay(QStringLiteral("hidden")), 0);
    QVERIFY(configuration.settingsFor(QStringLiteral("hidden"), QStringLiteral("cgroup1")).isEmpty());
    QCOMPARE(configuration.applyDelay(QStringLiteral("active")), 7);
    QCOMPARE(log.messages(), QStringList());
}

void ResourceConfigurationTest::leastLocalDirectoryWinsValueByValue()
{
    write(QStringLiteral("home/procwarden/states/active.config"),
          "ApplyWithDelay=1\n[Backend settings]\ncgroup1.a.a=home\ncgroup1.a.b=home\ncgroup1.a.c=home\n");
    write(QStringLiteral("near/procwarden/states/active.config"),
          "ApplyWithDelay=2\n[Backend settings]\ncgroup1.a.b=near\ncgroup1.a.c=near\n");
    write(QStringLiteral("far/procwarden/states/active.config"),
          "ApplyWithDelay=3\n[Backend settings]\ncgroup1.a.c=far\n");
    const ResourceConfiguration configuration;
    QCOMPARE(configuration.applyDelay(QStringLiteral("active")), 3);
    QCOMPARE(configuration.settingsFor(QStringLiteral("active"), QStringLiteral("cgroup1")),
             (QVariantMap { { QStringLiteral("a.a"), QStringLiteral("home") },
                            { QStringLiteral("a.b"), QStringLiteral("near") },
                            { QStringLiteral("a.c"), QStringLiteral("far") } }));
}

void ResourceConfigurationTest::laterFileOfTheSameStateResetsTheDelay()
{
    // Within a directory the files come by name: "a.config", then "a.more.config".
    writeState(QStringLiteral("a.config"), "ApplyWithDelay=7\n[Backend settings]\ncgroup1.x.y=1\n");
    writeState(QStringLiteral("a.more.config"), "[Backend settings]\ncgroup1.x.z=2\n");
    const ResourceConfiguration configuration;
    QCOMPARE(configuration.applyDelay(QStringLiteral("a")), 0);
    QCOMPARE(configuration.settingsFor(QStringLiteral("a"), QStringLiteral("cgroup1")).keys(),
             QStringList({ QStringLiteral("x.y"), QStringLiteral("x.z") }));
}

void ResourceConfigurationTest::lookUpOfTheUnknownInsertsNothing()
{
    writeState(QStringLiteral("active.config"), "[Backend settings]\ncgroup1.cpu.shares=1\n");
    const ResourceConfiguration configuration;
    QCOMPARE(configuration.applyDelay(QStringLiteral("nowhere")), 0);
    QVERIFY(configuration.settingsFor(QStringLiteral("nowhere"), QStringLiteral("cgroup1")).isEmpty());
    QVERIFY(configuration.settingsFor(QStringLiteral("active"), QStringLiteral("cgroup9")).isEmpty());
    QCOMPARE(configuration.stateNames(), QStringList(QStringLiteral("active")));
}

void ResourceConfigurationTest::namesComeInKeyOrder()
{
    for (const char *name : { "inactive", "Zebra", "background", "active", "hidden" }) {
        writeState(QLatin1String(name) + QStringLiteral(".config"), "");
    }
    const ResourceConfiguration configuration;
    QCOMPARE(configuration.stateNames(),
             QStringList({ QStringLiteral("Zebra"), QStringLiteral("active"), QStringLiteral("background"),
                           QStringLiteral("hidden"), QStringLiteral("inactive") }));
}

QTEST_GUILESS_MAIN(ResourceConfigurationTest)

#include "tst_resource_configuration.moc"
