#include "Core/intent_configuration.h"

#include "support/log_capture.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>

#include <memory>
#include <type_traits>

using Core::IntentConfiguration;
using TestSupport::LogCapture;

static_assert(std::has_virtual_destructor_v<IntentConfiguration>);

class tst_IntentConfiguration : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void definitionIsRead();
    void definitionIsAccepted_data();
    void definitionIsAccepted();
    void definitionIsRefused_data();
    void definitionIsRefused();
    void refusalChangesNothing();
    void hintsBecomePlainValues();
    void definitionReplacesWhatWasThere();
    void unknownIntentIsNotDefined_data();
    void unknownIntentIsNotDefined();
    void whatIsNoRegularFileIsNotDefined();
    void fileTooLargeIsNotDefined();
    void changeCountsAtOnce();
    void mostLocalDirectoryCountsAlone();
    void directoryIsLookedForOnce();
    void withoutADirectoryNothingIsDefined();
    void directoryThatGoesTakesItsDefinitionsAlong();
    void nameIsTakenAsItStands();
    void shippedDefinitionsAreWellFormed_data();
    void shippedDefinitionsAreWellFormed();

private:
    void write(const QString &directory, const QString &name, const QByteArray &contents) const;
    void write(const QString &name, const QByteArray &contents) const { write(m_near, name, contents); }

    std::unique_ptr<QTemporaryDir> m_directory;
    QString m_near; ///< directories "intents", the more local one first
    QString m_far;
};

void tst_IntentConfiguration::initTestCase()
{
    QCoreApplication::setApplicationName(QStringLiteral("procwarden"));
    QCoreApplication::setOrganizationName(QString());
}

void tst_IntentConfiguration::init()
{
    m_directory = std::make_unique<QTemporaryDir>();
    QVERIFY(m_directory->isValid());
    qputenv("XDG_DATA_HOME", m_directory->filePath(QStringLiteral("near")).toUtf8());
    qputenv("XDG_DATA_DIRS", m_directory->filePath(QStringLiteral("far")).toUtf8());
    m_near = m_directory->filePath(QStringLiteral("near/procwarden/intents"));
    m_far = m_directory->filePath(QStringLiteral("far/procwarden/intents"));
    QVERIFY(QDir().mkpath(m_near));
}

void tst_IntentConfiguration::write(const QString &directory, const QString &name,
                                    const QByteArray &contents) const
{
    QVERIFY(QDir().mkpath(directory));
    QFile file(directory + QLatin1Char('/') + name);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(contents), contents.size());
}

void tst_IntentConfiguration::definitionIsRead()
{
    write(QStringLiteral("OpenURI.intent"),
          R"({"requiredParams": ["uri"], "hints": {"mimeContent": ["uri"], "showDialog": false}, "x": 1})");
    const IntentConfiguration intents;
    IntentConfiguration::Configuration configuration;

    const LogCapture log;
    QVERIFY(intents.loadForIntent(QStringLiteral("OpenURI"), configuration));

    QCOMPARE(configuration.requiredParams, QStringList { QStringLiteral("uri") });
    QCOMPARE(configuration.hints,
             (QVariantMap { { QStringLiteral("mimeContent"), QStringList { QStringLiteral("uri") } },
                            { QStringLiteral("showDialog"), false } }));
    QCOMPARE(log.messages(), QStringList());
}

void tst_IntentConfiguration::definitionIsAccepted_data()
{
    QTest::addColumn<QByteArray>("contents");
    QTest::addColumn<QStringList>("requiredParams");
    QTest::addColumn<QVariantMap>("hints");

    const QVariantMap hints { { QStringLiteral("a"), true } };
    const QStringList none;
    const QVariantMap noHints;
    QTest::newRow("empty") << QByteArray("{}") << none << noHints;
    QTest::newRow("no parameters") << QByteArray(R"({"requiredParams": []})") << none << noHints;
    QTest::newRow("number for the parameters") << QByteArray(R"({"requiredParams": 5})") << none << noHints;
    QTest::newRow("string for the parameters") << QByteArray(R"({"requiredParams": "a"})") << none << noHints;
    QTest::newRow("object for the parameters")
        << QByteArray(R"({"requiredParams": {"a": 1}})") << none << noHints;
    QTest::newRow("null for the parameters") << QByteArray(R"({"requiredParams": null})") << none << noHints;
    QTest::newRow("several") << QByteArray(R"({"requiredParams": ["b", "a", "", "b"]})")
                             << QStringList({ QStringLiteral("b"), QStringLiteral("a"), QString(),
                                              QStringLiteral("b") })
                             << noHints;
    QTest::newRow("hints alone") << QByteArray(R"({"hints": {"a": true}})") << none << hints;
    QTest::newRow("empty hints") << QByteArray(R"({"hints": {}})") << none << noHints;
    QTest::newRow("array for the hints") << QByteArray(R"({"hints": ["a"]})") << none << noHints;
    QTest::newRow("string for the hints") << QByteArray(R"({"hints": "a"})") << none << noHints;
    QTest::newRow("array at the top") << QByteArray(R"(["requiredParams"])") << none << noHints;
    QTest::newRow("blanks around") << QByteArray(" \n{}\n ") << none << noHints;
    QTest::newRow("other letters") << QByteArray(R"({"requiredParams": ["ä"]})")
                                   << QStringList { QStringLiteral("ä") } << noHints;
    QTest::newRow("keys in capitals")
        << QByteArray(R"({"RequiredParams": [5], "Hints": {"a": true}})") << none << noHints;
}

void tst_IntentConfiguration::definitionIsAccepted()
{
    QFETCH(QByteArray, contents);
    QFETCH(QStringList, requiredParams);
    QFETCH(QVariantMap, hints);

    write(QStringLiteral("X.intent"), contents);
    const LogCapture log;
    IntentConfiguration::Configuration configuration;
    QVERIFY(IntentConfiguration().loadForIntent(QStringLiteral("X"), configuration));
    QCOMPARE(configuration.requiredParams, requiredParams);
    QCOMPARE(configuration.hints, hints);
    QCOMPARE(log.messages(), QStringList());
}

void tst_IntentConfiguration::definitionIsRefused_data()
{
    QTest::addColumn<QByteArray>("contents");
    QTest::addColumn<QStringList>("warnings");

    const QString malformed = QStringLiteral("Malformed intent configuration for \"X\"");
    const QString wrongParams = QStringLiteral("requiredParams must be a list of strings");
    const auto row = [](const char *name, const QByteArray &contents, const QStringList &warnings) {
        QTest::newRow(name) << contents << warnings;
    };
    row("empty file", "", { malformed });
    row("blanks", " \n", { malformed });
    row("not closed", "{", { malformed });
    row("no JSON", "OpenURI", { malformed });
    row("something behind it", "{} {}", { malformed });
    row("string at the top", R"("hints")", { malformed });
    row("number at the top", "5", { malformed });
    row("no UTF-8", "{\"a\": \"\xff\"}", { malformed });
    row("nested too deeply", QByteArray("[").repeated(5000) + QByteArray("]").repeated(5000), { malformed });
    row("numbers", R"({"requiredParams": [5]})", { wrongParams });
    row("booleans", R"({"requiredParams": [true]})", { wrongParams });
    row("objects", R"({"requiredParams": [{}]})", { wrongParams });
    row("mixed", R"({"requiredParams": ["a", 5]})", { wrongParams });
    row("string and null", R"({"requiredParams": ["a", null]})", { wrongParams });
    row("arrays", R"({"requiredParams": [[]]})",
        { QStringLiteral("JSON array of arrays are not supported"), wrongParams });
    row("nulls", R"({"requiredParams": [null]})", { QStringLiteral("Unknown JSON value type"), wrongParams });
}

void tst_IntentConfiguration::definitionIsRefused()
{
    QFETCH(QByteArray, contents);
    QFETCH(QStringList, warnings);

    write(QStringLiteral("X.intent"), contents);
    const LogCapture log;
    IntentConfiguration::Configuration configuration;
    QVERIFY(!IntentConfiguration().loadForIntent(QStringLiteral("X"), configuration));
    QCOMPARE(log.warnings(), warnings);
    QCOMPARE(log.messages(), warnings);
}

void tst_IntentConfiguration::refusalChangesNothing()
{
    write(QStringLiteral("X.intent"), R"({"requiredParams": [5], "hints": {"b": 1}})");
    const LogCapture log;
    IntentConfiguration::Configuration configuration { { QStringLiteral("a") },
                                                       { { QStringLiteral("a"), 1 } } };
    QVERIFY(!IntentConfiguration().loadForIntent(QStringLiteral("X"), configuration));
    QVERIFY(!IntentConfiguration().loadForIntent(QStringLiteral("Y"), configuration));
    QCOMPARE(configuration.requiredParams, QStringList { QStringLiteral("a") });
    QCOMPARE(configuration.hints, (QVariantMap { { QStringLiteral("a"), 1 } }));
}

void tst_IntentConfiguration::hintsBecomePlainValues()
{
    write(
        QStringLiteral("X.intent"),
        R"({"hints": {"strings": ["a", "b"], "numbers": [1], "empty": [], "map": {"in": ["c"]}, "n": 1.5}})");
    IntentConfiguration::Configuration configuration;
    QVERIFY(IntentConfiguration().loadForIntent(QStringLiteral("X"), configuration));
    const QVariantMap hints = configuration.hints;
    QCOMPARE(hints.value(QStringLiteral("strings")).userType(), int(QMetaType::QStringList));
    QCOMPARE(hints.value(QStringLiteral("numbers")).value<QList<double>>(), QList<double> { 1 });
    QCOMPARE(hints.value(QStringLiteral("empty")).userType(), int(QMetaType::QVariantList));
    QCOMPARE(hints.value(QStringLiteral("map")).toMap().value(QStringLiteral("in")).userType(),
             int(QMetaType::QStringList));
    QCOMPARE(hints.value(QStringLiteral("n")).toDouble(), 1.5);
}

void tst_IntentConfiguration::definitionReplacesWhatWasThere()
{
    write(QStringLiteral("X.intent"), "{}");
    IntentConfiguration::Configuration configuration { { QStringLiteral("a") },
                                                       { { QStringLiteral("a"), 1 } } };
    QVERIFY(IntentConfiguration().loadForIntent(QStringLiteral("X"), configuration));
    QCOMPARE(configuration.requiredParams, QStringList());
    QCOMPARE(configuration.hints, QVariantMap());
}

void tst_IntentConfiguration::unknownIntentIsNotDefined_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("message");

    const auto row = [](const char *title, const QString &name) {
        QString message;
        QDebug(&message).nospace() << "Standard intent not defined: " << name;
        QTest::newRow(title) << name << message;
    };
    row("other", QStringLiteral("Other"));
    row("other case", QStringLiteral("openuri"));
    row("empty", QString());
    row("with the suffix", QStringLiteral("OpenURI.intent"));
    row("long", QString(5000, QLatin1Char('a')));
    row("other letters", QStringLiteral("Öffne"));
    row("NUL ends no name", QStringLiteral("OpenURI.intent").append(QChar(0)));
}

void tst_IntentConfiguration::unknownIntentIsNotDefined()
{
    QFETCH(QString, name);
    QFETCH(QString, message);

    write(QStringLiteral("OpenURI.intent"), "{}");
    const LogCapture log;
    IntentConfiguration::Configuration configuration;
    QVERIFY(!IntentConfiguration().loadForIntent(name, configuration));
    QCOMPARE(log.messages(QtDebugMsg), QStringList { message });
    QCOMPARE(log.messages().size(), 1);
}

void tst_IntentConfiguration::whatIsNoRegularFileIsNotDefined()
{
    QVERIFY(QDir().mkpath(m_near + QLatin1String("/Directory.intent")));
    QCOMPARE(mkfifo(QFile::encodeName(m_near + QLatin1String("/Fifo.intent")).constData(), 0600), 0);
    QVERIFY(QFile::link(QStringLiteral("/dev/zero"), m_near + QLatin1String("/Device.intent")));
    QVERIFY(QFile::link(QStringLiteral("nowhere"), m_near + QLatin1String("/Dangling.intent")));
    for (const char *name : { "Directory", "Fifo", "Device", "Dangling" }) {
        const LogCapture log;
        IntentConfiguration::Configuration configuration;
        QVERIFY(!IntentConfiguration().loadForIntent(QLatin1String(name), configuration));
        QCOMPARE(
            log.messages(),
            QStringList { QStringLiteral("Standard intent not defined: \"%1\"").arg(QLatin1String(name)) });
    }
}

void tst_IntentConfiguration::fileTooLargeIsNotDefined()
{
    write(QStringLiteral("X.intent"), "{}" + QByteArray(2 * 1024 * 1024, ' '));
    const LogCapture log;
    IntentConfiguration::Configuration configuration;
    QVERIFY(!IntentConfiguration().loadForIntent(QStringLiteral("X"), configuration));
    QCOMPARE(log.messages(), QStringList { QStringLiteral("Standard intent not defined: \"X\"") });
}

void tst_IntentConfiguration::changeCountsAtOnce()
{
    const IntentConfiguration intents;
    const LogCapture log;
    IntentConfiguration::Configuration configuration;
    QVERIFY(!intents.loadForIntent(QStringLiteral("X"), configuration));
    write(QStringLiteral("X.intent"), R"({"hints": {"a": 1}})");
    for (int time = 0; time < 2; ++time) {
        QVERIFY(intents.loadForIntent(QStringLiteral("X"), configuration));
        QCOMPARE(configuration.hints, (QVariantMap { { QStringLiteral("a"), 1 } }));
    }
    write(QStringLiteral("X.intent"), R"({"hints": {"a": 2}})");
    QVERIFY(intents.loadForIntent(QStringLiteral("X"), configuration));
    QCOMPARE(configuration.hints, (QVariantMap { { QStringLiteral("a"), 2 } }));
    QVERIFY(QFile::remove(m_near + QLatin1String("/X.intent")));
    QVERIFY(!intents.loadForIntent(QStringLiteral("X"), configuration));
}

void tst_IntentConfiguration::mostLocalDirectoryCountsAlone()
{
    write(m_far, QStringLiteral("X.intent"), R"({"hints": {"from": "far"}})");
    write(m_far, QStringLiteral("Y.intent"), R"({"hints": {"from": "far"}})");
    write(m_near, QStringLiteral("X.intent"), R"({"hints": {"from": "near"}})");
    const LogCapture log;
    IntentConfiguration::Configuration configuration;
    QVERIFY(IntentConfiguration().loadForIntent(QStringLiteral("X"), configuration));
    QCOMPARE(configuration.hints.value(QStringLiteral("from")).toString(), QStringLiteral("near"));
    QVERIFY(!IntentConfiguration().loadForIntent(QStringLiteral("Y"), configuration));

    QVERIFY(QDir(m_near).removeRecursively());
    QVERIFY(IntentConfiguration().loadForIntent(QStringLiteral("Y"), configuration));
    QCOMPARE(configuration.hints.value(QStringLiteral("from")).toString(), QStringLiteral("far"));
}

void tst_IntentConfiguration::directoryIsLookedForOnce()
{
    QVERIFY(QDir(m_near).removeRecursively());
    write(m_far, QStringLiteral("X.intent"), "{}");
    const IntentConfiguration intents;
    write(m_near, QStringLiteral("Y.intent"), "{}");
    const LogCapture log;
    IntentConfiguration::Configuration configuration;
    QVERIFY(intents.loadForIntent(QStringLiteral("X"), configuration));
    QVERIFY(!intents.loadForIntent(QStringLiteral("Y"), configuration));
}

void tst_IntentConfiguration::withoutADirectoryNothingIsDefined()
{
    QVERIFY(QDir(m_near).removeRecursively());
    // Neither at the root nor where the service stands is a definition looked for.
    const QString standing = QDir::currentPath();
    write(m_directory->path(), QStringLiteral("X.intent"), "{}");
    QVERIFY(QDir::setCurrent(m_directory->path()));
    const LogCapture log;
    IntentConfiguration::Configuration configuration;
    const IntentConfiguration intents;
    const bool relative = intents.loadForIntent(QStringLiteral("X"), configuration);
    const bool absolute =
        intents.loadForIntent(m_directory->filePath(QStringLiteral("X")).mid(1), configuration);
    QVERIFY(QDir::setCurrent(standing));
    QVERIFY(!relative);
    QVERIFY(!absolute);
}

void tst_IntentConfiguration::directoryThatGoesTakesItsDefinitionsAlong()
{
    write(QStringLiteral("X.intent"), "{}");
    const IntentConfiguration intents;
    QVERIFY(QDir(m_near).removeRecursively());
    const LogCapture log;
    IntentConfiguration::Configuration configuration;
    QVERIFY(!intents.loadForIntent(QStringLiteral("X"), configuration));
}

void tst_IntentConfiguration::nameIsTakenAsItStands()
{
    write(m_near + QLatin1String("/more"), QStringLiteral("X.intent"), "{}");
    IntentConfiguration::Configuration configuration;
    QVERIFY(IntentConfiguration().loadForIntent(QStringLiteral("more/X"), configuration));
}

void tst_IntentConfiguration::shippedDefinitionsAreWellFormed_data()
{
    QTest::addColumn<QString>("name");
    const QDir directory(QStringLiteral(PROCWARDEN_DATA_DIR "/intents"));
    const QStringList files = directory.entryList({ QStringLiteral("*.intent") }, QDir::Files);
    QVERIFY(files.contains(QStringLiteral("OpenURI.intent")));
    for (const QString &file : files) {
        QTest::newRow(qPrintable(file)) << file.chopped(7);
    }
}

void tst_IntentConfiguration::shippedDefinitionsAreWellFormed()
{
    QFETCH(QString, name);

    QVERIFY(QDir(m_near).removeRecursively());
    QVERIFY(QFile::link(QStringLiteral(PROCWARDEN_DATA_DIR "/intents"), m_near));
    const LogCapture log;
    IntentConfiguration::Configuration configuration;
    QVERIFY(IntentConfiguration().loadForIntent(name, configuration));
    QCOMPARE(log.messages(), QStringList());
    const QString mimeContent = QStringLiteral("mimeContent");
    if (configuration.hints.contains(mimeContent)) {
        QCOMPARE(configuration.hints.value(mimeContent).userType(), int(QMetaType::QStringList));
    }
}

QTEST_GUILESS_MAIN(tst_IntentConfiguration)
#include "tst_intent_configuration.moc"
