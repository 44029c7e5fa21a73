#include "Core/application_id.h"
#include "Core/oom_controller.h"
#include "Core/resource_configuration.h"
#include "Core/task_config.h"
#include "Core/version_overrides.h"
#include "support/log_capture.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QSettings>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QXmlStreamReader>

namespace {

const QString backend = QStringLiteral("cgroup1");
const QStringList applicationStates = { QStringLiteral("active"), QStringLiteral("inactive"),
                                        QStringLiteral("hidden") };

QString dataPath(const QString &relative)
{
    return QStringLiteral(PROCWARDEN_DATA_DIR "/") + relative;
}

QString contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

/// What an interface description says, one line for each interface, method and signal with its arguments.
/// Whatever the comment before it does not document gives a line that says so.
QStringList interfaceLines(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return { QStringLiteral("cannot open") };
    }
    QXmlStreamReader xml(&file);
    QStringList lines;
    QString comment;
    while (!xml.atEnd()) {
        const QXmlStreamReader::TokenType token = xml.readNext();
        if (token == QXmlStreamReader::Comment) {
            comment = xml.text().toString().trimmed();
        }
        const QString kind = xml.name().toString();
        if (token != QXmlStreamReader::StartElement || kind == QLatin1String("node")
            || kind == QLatin1String("annotation")) {
            continue;
        }
        const QXmlStreamAttributes attributes = xml.attributes();
        const QString name = attributes.value(QLatin1String("name")).toString();
        if (kind != QLatin1String("arg")) {
            lines << kind + QLatin1Char(' ') + name;
            if (kind == QLatin1String("property")) {
                lines.last() +=
                    QStringLiteral(" %1 %2").arg(attributes.value(QLatin1String("type")).toString(),
                                                 attributes.value(QLatin1String("access")).toString());
            }
            if (!comment.startsWith(name + QLatin1Char(':'))) {
                lines << QStringLiteral("not documented: ") + name;
            }
            continue;
        }
        const QString direction = attributes.value(QLatin1String("direction")).toString();
        lines.last() += QStringLiteral(" %1:%2").arg(direction.isEmpty() ? name : direction,
                                                     attributes.value(QLatin1String("type")).toString());
        if (!comment.contains(QLatin1Char('@') + name + QLatin1Char(':'))) {
            lines << QStringLiteral("not documented: ") + name;
        }
    }
    return xml.hasError() ? QStringList(xml.errorString()) : lines;
}

} // namespace

/// What is installed beside the programs.
class InstalledDataTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void statesAreThoseThatAreAskedFor();
    void statesOfApplicationsHaveTheSameDelay();
    void statesOfApplicationsWriteTheSameFiles();
    void onlyTheHiddenStateFreezes();
    void settingsFitTheHierarchies();

    void versionSampleOverridesNothing();
    void versionSampleHoldsValidExamples();

    void memorySampleHoldsValidThresholds_data();
    void memorySampleHoldsValidThresholds();

    void taskSampleShowsTheDefault();
    void tasksAreNeverFrozen();

    void interfacesAreDocumented_data();
    void interfacesAreDocumented();

    void activationFilesFitTheUnits_data();
    void activationFilesFitTheUnits();
    void unitsAreUnderstood_data();
    void unitsAreUnderstood();
    void unitOfTheServiceGivesTheScoreFloor();

private:
    QTemporaryDir m_directory;
};

void InstalledDataTest::initTestCase()
{
    QCoreApplication::setApplicationName(QStringLiteral("procwarden"));
    // The installed layout.
    QVERIFY(QDir(m_directory.path()).mkpath(QStringLiteral("data/procwarden")));
    QVERIFY(QFile::link(dataPath(QStringLiteral("states")),
                        m_directory.filePath(QStringLiteral("data/procwarden/states"))));
    qputenv("XDG_DATA_DIRS", m_directory.filePath(QStringLiteral("data")).toUtf8());
    qputenv("XDG_DATA_HOME", m_directory.filePath(QStringLiteral("home")).toUtf8());
    qputenv("XDG_RUNTIME_DIR", m_directory.path().toUtf8());
}

void InstalledDataTest::statesAreThoseThatAreAskedFor()
{
    const TestSupport::LogCapture log;
    const Core::ResourceConfiguration configuration;
    QCOMPARE(configuration.stateNames(),
             QStringList({ QStringLiteral("active"), QStringLiteral("background"), QStringLiteral("hidden"),
                           QStringLiteral("inactive") }));
    QCOMPARE(log.messages(), QStringList());
}

void InstalledDataTest::statesOfApplicationsHaveTheSameDelay()
{
    // Otherwise the settings of an earlier state can be written after those of a later one.
    const Core::ResourceConfiguration configuration;
    const int delay = configuration.applyDelay(applicationStates.first());
    QVERIFY(delay > 0);
    for (const QString &state : applicationStates) {
        QCOMPARE(configuration.applyDelay(state), delay);
    }
}

void InstalledDataTest::statesOfApplicationsWriteTheSameFiles()
{
    // What a state does not write stays as the state before it left it.
    const Core::ResourceConfiguration configuration;
    const QStringList files = configuration.settingsFor(applicationStates.first(), backend).keys();
    QVERIFY(!files.isEmpty());
    for (const QString &state : applicationStates) {
        QCOMPARE(configuration.settingsFor(state, backend).keys(), files);
    }
}

void InstalledDataTest::onlyTheHiddenStateFreezes()
{
    const Core::ResourceConfiguration configuration;
    const QString key = QStringLiteral("freezer.state");
    for (const QString &state : applicationStates) {
        QCOMPARE(configuration.settingsFor(state, backend).value(key).toString(),
                 state == QLatin1String("hidden") ? QStringLiteral("FROZEN") : QStringLiteral("THAWED"));
    }
    QVERIFY(!configuration.settingsFor(QStringLiteral("background"), backend).contains(key));
}

void InstalledDataTest::settingsFitTheHierarchies()
{
    const Core::ResourceConfiguration configuration;
    const QRegularExpression controlFile(QStringLiteral("^(cpu|freezer|memory)\\.[a-z_]+$"));
    // A comment or a comma in the line would have made something else of the value.
    const QRegularExpression plainValue(QStringLiteral("^([A-Z]+|[0-9]+)$"));
    for (const QString &state : configuration.stateNames()) {
        const QVariantMap settings = configuration.settingsFor(state, backend);
        QVERIFY(!settings.isEmpty());
        for (auto setting = settings.cbegin(); setting != settings.cend(); ++setting) {
            QVERIFY2(controlFile.match(setting.key()).hasMatch(), qUtf8Printable(setting.key()));
            QVERIFY2(plainValue.match(setting.value().toString()).hasMatch(), qUtf8Printable(setting.key()));
        }
    }
}

void InstalledDataTest::versionSampleOverridesNothing()
{
    QVERIFY(QDir(m_directory.path()).mkpath(QStringLiteral("root/etc")));
    QVERIFY(QFile::link(dataPath(QString()), m_directory.filePath(QStringLiteral("root/etc/procwarden"))));
    qputenv("PROCWARDEN_ROOTFS", m_directory.filePath(QStringLiteral("root")).toUtf8());
    const TestSupport::LogCapture log;
    const Core::VersionOverrides overrides;
    qunsetenv("PROCWARDEN_ROOTFS");
    QCOMPARE(overrides.version(Core::ApplicationId(QStringLiteral("org.example.Navigator"))), QString());
    QCOMPARE(log.messages(), QStringList());
}

void InstalledDataTest::versionSampleHoldsValidExamples()
{
    // With the examples switched on, as an administrator would.
    QVERIFY(QDir(m_directory.path()).mkpath(QStringLiteral("edited/etc/procwarden")));
    QFile file(m_directory.filePath(QStringLiteral("edited/etc/procwarden/os-version-support.cfg")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    const QRegularExpression example(QStringLiteral("^;(?=[^ \n]+=)"), QRegularExpression::MultilineOption);
    file.write(
        contentOf(dataPath(QStringLiteral("os-version-support.cfg"))).replace(example, QString()).toUtf8());
    file.close();
    qputenv("PROCWARDEN_ROOTFS", m_directory.filePath(QStringLiteral("edited")).toUtf8());
    const TestSupport::LogCapture log;
    const Core::VersionOverrides overrides;
    qunsetenv("PROCWARDEN_ROOTFS");
    QCOMPARE(log.messages(), QStringList());
    const auto version = [&](const char *id) {
        return overrides.version(Core::ApplicationId(QString::fromLatin1(id)));
    };
    QCOMPARE(version("org.example.Navigator"), QStringLiteral("4.0.0"));
    QCOMPARE(version("org.example.Other"), QStringLiteral("4.2.0"));
    QCOMPARE(version("com.example.Other"), QStringLiteral("5.2.0"));
}

void InstalledDataTest::memorySampleHoldsValidThresholds_data()
{
    QTest::addColumn<int>("totalMb");
    QTest::addColumn<int>("swapMb");
    QTest::addColumn<int>("availableMb");
    QTest::addColumn<Core::MemoryLevel>("level");

    using Core::MemoryLevel;
    QTest::newRow("2 GB, enough") << 2048 << 0 << 300 << MemoryLevel::Normal;
    QTest::newRow("2 GB, low") << 2048 << 0 << 299 << MemoryLevel::Low;
    QTest::newRow("2 GB, still low") << 2048 << 0 << 150 << MemoryLevel::Low;
    QTest::newRow("2 GB, critical") << 2048 << 0 << 149 << MemoryLevel::Critical;
    QTest::newRow("2 GB and full swap, enough") << 2048 << 1024 << 300 << MemoryLevel::Normal;
    QTest::newRow("2 GB and full swap, low") << 2048 << 1024 << 299 << MemoryLevel::Low;
    QTest::newRow("4 GB, enough") << 4096 << 0 << 328 << MemoryLevel::Normal;
    QTest::newRow("4 GB, low") << 4096 << 0 << 327 << MemoryLevel::Low;
    QTest::newRow("4 GB, critical") << 4096 << 0 << 163 << MemoryLevel::Critical;
    QTest::newRow("8 GB, enough") << 8192 << 0 << 656 << MemoryLevel::Normal;
    QTest::newRow("8 GB, low") << 8192 << 0 << 655 << MemoryLevel::Low;
    QTest::newRow("8 GB, critical") << 8192 << 0 << 327 << MemoryLevel::Critical;
}

void InstalledDataTest::memorySampleHoldsValidThresholds()
{
    QFETCH(int, totalMb);
    QFETCH(int, swapMb);
    QFETCH(int, availableMb);
    QFETCH(Core::MemoryLevel, level);
    const QString root = m_directory.filePath(QStringLiteral("memory"));
    QVERIFY(QDir(root).mkpath(QStringLiteral("etc")));
    QVERIFY(QDir(root).mkpath(QStringLiteral("proc")));
    QFile::link(dataPath(QString()), root + QStringLiteral("/etc/procwarden"));
    QFile memory(root + QStringLiteral("/proc/meminfo"));
    QVERIFY(memory.open(QIODevice::WriteOnly));
    memory.write(QStringLiteral("MemTotal: %1 kB\nMemAvailable: %2 kB\nSwapTotal: %3 kB\nSwapFree: 0 kB\n")
                     .arg(totalMb * 1024)
                     .arg(availableMb * 1024)
                     .arg(swapMb * 1024)
                     .toUtf8());
    memory.close();
    qputenv("PROCWARDEN_ROOTFS", root.toUtf8());
    const TestSupport::LogCapture log;
    const Core::OomController controller;
    QCOMPARE(controller.readMemoryLevel(), level);
    qunsetenv("PROCWARDEN_ROOTFS");
    QCOMPARE(log.messages(), QStringList());
    // The sample shows the built-in intervals.
    QCOMPARE(controller.checkIntervalMsec(), 5000);
    QCOMPARE(controller.checkIntervalMsecLowMem(), 2000);
    QCOMPARE(controller.checkIntervalMsecCriticalMem(), 1000);
    QCOMPARE(controller.notificationUnfreezeMsec(), 5000);
}

void InstalledDataTest::taskSampleShowsTheDefault()
{
    const QString root = m_directory.filePath(QStringLiteral("tasks"));
    QVERIFY(QDir(root).mkpath(QStringLiteral("etc")));
    QVERIFY(QFile::link(dataPath(QString()), root + QStringLiteral("/etc/procwarden")));
    qputenv("PROCWARDEN_ROOTFS", root.toUtf8());
    const Core::TaskConfig config;
    const QSettings sample(root + QStringLiteral("/etc/procwarden/tasks.cfg"), QSettings::IniFormat);
    qputenv("PROCWARDEN_ROOTFS", m_directory.filePath(QStringLiteral("nowhere")).toUtf8());
    const Core::TaskConfig builtIn;
    qunsetenv("PROCWARDEN_ROOTFS");
    QCOMPARE(sample.allKeys(), QStringList(QStringLiteral("MaxTasksPerApp")));
    QCOMPARE(config.maxTasksPerApp(), 5);
    QCOMPARE(builtIn.maxTasksPerApp(), 5);
}

void InstalledDataTest::tasksAreNeverFrozen()
{
    const Core::ResourceConfiguration configuration;
    const QVariantMap settings = configuration.settingsFor(QStringLiteral("background"), backend);
    QVERIFY(!settings.isEmpty());
    QVERIFY(!settings.contains(QStringLiteral("freezer.state")));
}

void InstalledDataTest::interfacesAreDocumented_data()
{
    QTest::addColumn<QString>("lines");
    QTest::newRow("org.kestrix.Procwarden.Helper") << "method CreateUserHierarchies in:u out:s";
    QTest::newRow("org.kestrix.Procwarden.Control1")
        << "method Reload\n"
           "method Start in:s out:s out:a{sv}\n"
           "method StartDebug in:s in:a{sv} out:s out:a{sv}\n"
           "method Terminate in:s\n"
           "method GetRunningApplications out:a(siuua{sv}) out:a(ssiua{sv})\n"
           "signal Started appInstanceId:s details:a{sv}\n"
           "signal Terminated appInstanceId:s details:a{sv}\n"
           "signal StateChanged appInstanceId:s details:a{sv}\n"
           "signal SelectedByOom processId:s";
    QTest::newRow("org.kestrix.Procwarden.SystemControl1") << "method PreventLaunch in:s\n"
                                                              "method WaitForNotRunning in:s\n"
                                                              "method Terminate in:s\n"
                                                              "method AllowLaunch in:s";
    QTest::newRow("org.kestrix.Procwarden.WindowManagement1")
        << "method UpdateWindowStatus in:s in:i in:i in:i out:u";
    QTest::newRow("org.kestrix.Procwarden.Lifecycle1") << "method GetProperties out:a{sv}\n"
                                                          "signal StateChanged appId:s state:u";
    QTest::newRow("org.kestrix.Procwarden.MemoryPressure1") << "method Subscribe\n"
                                                               "property Level i read";
    QTest::newRow("org.kestrix.Procwarden.Intents1")
        << "method InvokeIntent in:s in:a{sv} in:a{sv} out:a{sv}";
    QTest::newRow("org.kestrix.Procwarden.IntentHandler1")
        << "method HandleIntent in:s in:a{sv} out:a{sv} out:a{sv}";
    QTest::newRow("org.kestrix.Procwarden.IntentResolver1")
        << "method ResolveIntent in:s in:a{sv} in:a{sv} in:as out:s out:a{sv}";
    QTest::newRow("org.kestrix.Procwarden.Tasks1") << "method GetAll out:a{sv}\n"
                                                      "method Start in:s in:as in:a{sv}\n"
                                                      "method Stop in:s in:b\n"
                                                      "signal StateChanged state:a(sua{sv})";
    QTest::newRow("org.kestrix.Procwarden.TaskInvoker1") << "method RegisterInvoker in:s out:o out:a{sv}";
    QTest::newRow("org.kestrix.Procwarden.TaskInvokerSession1")
        << "method Start out:i in:s in:a{sv} in:a{sv}\n"
           "method Stop in:s\n"
           "property AvailableTasks a(sa{sv}) read\n"
           "property ActiveTasks a(sia{sv}) read";
    QTest::newRow("org.kestrix.Procwarden.Timed") << "method EventTriggered in:a{sv}";
    QTest::newRow("org.kestrix.Procwarden.Events1")
        << "method add_event in:(a{ss}bsa(aiaiaiaiaiaiss)a(ssssbb)) out:u\n"
           "method cancel in:u";
    QTest::newRow("org.kestrix.Procwarden.Introspect1") << "method ListRunning out:aa{sv}\n"
                                                           "method GetStatus in:s out:a{sv}\n"
                                                           "method GetHistory in:s in:u out:aa{sv}\n"
                                                           "method GetMemory out:a{sv}\n"
                                                           "method Explain in:s out:a{sv}";
    QTest::newRow("org.kestrix.PKD.Hooks") << "method OnRemove in:s";
    QTest::newRow("org.freedesktop.Notifications")
        << "method GetCapabilities out:as\n"
           "method Notify in:s in:u in:s in:s in:s in:as in:a{sv} in:i out:u\n"
           "method CloseNotification in:u\n"
           "method GetServerInformation out:s out:s out:s out:s\n"
           "method GetNotifications in:s out:a(susssasa{sv}i)\n"
           "method GetNotificationsByCategory in:s out:a(susssasa{sv}i)\n"
           "signal NotificationClosed id:u reason:u\n"
           "signal ActionInvoked id:u actionKey:s\n"
           "signal InputTextSet id:u input:s";
    QTest::newRow("org.sailfishos.sailjaild1") << "method GetAllowed in:s out:i\n"
                                                  "method PromptLaunchPermissions in:s out:as";
    QTest::newRow("local.Lipstick.WindowModel") << "method launchProcess in:s";
}

void InstalledDataTest::interfacesAreDocumented()
{
    QFETCH(QString, lines);
    const QString name = QLatin1String(QTest::currentDataTag());
    QCOMPARE(interfaceLines(dataPath(QStringLiteral("interfaces/%1.xml").arg(name))).join(QLatin1Char('\n')),
             QStringLiteral("interface %1\n%2").arg(name, lines));
}

void InstalledDataTest::activationFilesFitTheUnits_data()
{
    QTest::addColumn<QString>("activation");
    QTest::addColumn<QString>("unit");
    QTest::newRow("helper") << "dbus/system-services/org.kestrix.Procwarden.Helper.service"
                            << "systemd/system/procwarden-helper.service";
    QTest::newRow("service") << "dbus/services/org.kestrix.Procwarden.service"
                             << "systemd/user/procwarden.service";
    QTest::newRow("timed events") << "dbus/services/org.kestrix.Procwarden.Events.service"
                                  << "systemd/user/procwarden-eventd.service";
}

void InstalledDataTest::activationFilesFitTheUnits()
{
    QFETCH(QString, activation);
    QFETCH(QString, unit);
    const QSettings file(dataPath(activation), QSettings::IniFormat);
    const auto value = [&](const char *key) {
        return file.value(QStringLiteral("D-BUS Service/") + QLatin1String(key)).toString();
    };
    const QString text = contentOf(dataPath(unit));
    // The bus looks for the file under the name.
    QCOMPARE(QFileInfo(activation).completeBaseName(), value("Name"));
    QCOMPARE(value("SystemdService"), QFileInfo(unit).fileName());
    QVERIFY(text.contains(QStringLiteral("\nType=dbus\nBusName=%1\n").arg(value("Name"))));
    QVERIFY(value("Exec").startsWith(QLatin1Char('/')));
    QVERIFY(text.contains(QStringLiteral("\nExecStart=%1\n").arg(value("Exec"))));
}

void InstalledDataTest::unitsAreUnderstood_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("instance");
    QTest::newRow("helper") << "systemd/system/procwarden-helper.service"
                            << "procwarden-helper.service";
    QTest::newRow("service of the system") << "systemd/system/procwarden@.service"
                                           << "procwarden@1000.service";
    QTest::newRow("service of the user") << "systemd/user/procwarden.service"
                                         << "procwarden.service";
    QTest::newRow("timed events") << "systemd/user/procwarden-eventd.service"
                                  << "procwarden-eventd.service";
}

void InstalledDataTest::unitsAreUnderstood()
{
    const QString program = QStandardPaths::findExecutable(QStringLiteral("systemd-analyze"));
    if (program.isEmpty()) {
        QSKIP("needs systemd-analyze");
    }
    QFETCH(QString, file);
    QFETCH(QString, instance);
    QString text = contentOf(dataPath(file));
    QVERIFY(!text.isEmpty());
    // The programs need not be installed.
    text.replace(QRegularExpression(QStringLiteral("^ExecStart=.*$"), QRegularExpression::MultilineOption),
                 QStringLiteral("ExecStart=/bin/true"));
    QFile unit(m_directory.filePath(instance));
    QVERIFY(unit.open(QIODevice::WriteOnly));
    unit.write(text.toUtf8());
    unit.close();

    QStringList arguments = { QStringLiteral("verify"), QStringLiteral("--man=no"), unit.fileName() };
    if (file.contains(QLatin1String("/user/"))) {
        arguments << QStringLiteral("--user");
    }
    QProcess analysis;
    analysis.setProcessChannelMode(QProcess::MergedChannels);
    analysis.start(program, arguments);
    QVERIFY(analysis.waitForFinished(60000));
    const QString output = QString::fromUtf8(analysis.readAll());
    // It counts a key that it does not know as no failure, and talks about other units of the machine as
    // well.
    QCOMPARE(output.split(QLatin1Char('\n')).filter(QStringLiteral("procwarden")), QStringList());
    QVERIFY2(analysis.exitCode() == 0, qUtf8Printable(output));
}

void InstalledDataTest::unitOfTheServiceGivesTheScoreFloor()
{
    // An application that the user starts takes -100, which only a floor given by root allows.
    const QString text = contentOf(dataPath(QStringLiteral("systemd/system/procwarden@.service")));
    const QRegularExpressionMatch floor =
        QRegularExpression(QStringLiteral("\nOOMScoreAdjust=(-?\\d+)\n")).match(text);
    QVERIFY(floor.hasMatch());
    QVERIFY(floor.captured(1).toInt() <= -100);
    // Both would reach the sandbox program of the applications and take away what it needs.
    QVERIFY(!text.contains(QStringLiteral("\nNoNewPrivileges=")));
    QVERIFY(!text.contains(QStringLiteral("\nRestrictNamespaces=")));
}

QTEST_GUILESS_MAIN(InstalledDataTest)

#include "tst_installed_data.moc"
