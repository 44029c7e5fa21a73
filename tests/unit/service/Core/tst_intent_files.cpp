#include "Core/file_descriptor.h"
#include "Core/intent_files.h"

#include "support/bus_stand_in.h"
#include "support/log_capture.h"
#include "support/private_bus.h"

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusUnixFileDescriptor>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryFile>
#include <QUrl>
#include <QtTest>

#include <memory>
#include <vector>

using namespace Core;
using namespace TestSupport;

using DescriptorList = QList<QDBusUnixFileDescriptor>;

namespace {

const QString service = QStringLiteral("org.freedesktop.portal.Documents");
const QString object = QStringLiteral("/org/freedesktop/portal/documents");
const QString target = QStringLiteral("org.example.App");
const QString tooFewNames = QStringLiteral("Not all file names where provided");

QJsonObject parse(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}

QByteArray print(const QJsonObject &value)
{
    return QJsonDocument(value).toJson(QJsonDocument::Compact);
}

int openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::AllEntries | QDir::System).size();
}

} // namespace

class tst_IntentFiles : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void nothingToShareCompletesAtOnce_data();
    void nothingToShareCompletesAtOnce();
    void nameIsReplaced_data();
    void nameIsReplaced();
    void namesAreTakenFromUris_data();
    void namesAreTakenFromUris();
    void bothBatchesAreOutAtOnce();
    void permissionsAreThoseOfTheHint();
    void fewerNamesThanDescriptorsFail_data();
    void fewerNamesThanDescriptorsFail();
    void moreNamesThanDescriptorsAreThePortalsBusiness();
    void oneBatchFailsTheOtherDoesNot_data();
    void oneBatchFailsTheOtherDoesNot();
    void lastErrorIsTold();
    void errorOfTheFirstBatchStays();
    void hintOfAnotherTypeIsNone();
    void absentPortalFails();
    void completionMayShareAgain();
    void emptyCompletionIsAllowed();
    void manyAtOnceEachCompleteOnce();

private:
    struct Outcome
    {
        QByteArray data;
        QStringList paths;
        Error error;
    };

    QVariant files(int count = 1) const
    {
        return QVariant::fromValue(QVector<FileDescriptor>(count, FileDescriptor(m_file->handle())));
    }
    QVariantMap both(int reads, const QString &readFiles, int writes, const QString &writeFiles) const;
    void reply(int call, const QStringList &ids);
    void refuse(int call, const QString &message);
    void share(const QByteArray &data, const QVariantMap &hints);
    void answerAll();

    PrivateBus m_bus;
    std::unique_ptr<BusStandIn> m_portal;
    std::unique_ptr<QTemporaryFile> m_file;
    std::vector<Outcome> m_outcomes;
};

void tst_IntentFiles::initTestCase()
{
    m_bus.useAsSessionBus();
    qDBusRegisterMetaType<DescriptorList>();
}

void tst_IntentFiles::init()
{
    m_outcomes.clear();
    m_file = std::make_unique<QTemporaryFile>();
    QVERIFY(m_file->open());
    m_portal = std::make_unique<BusStandIn>(m_bus, service, object);
}

void tst_IntentFiles::cleanup()
{
    m_portal.reset();
}

QVariantMap tst_IntentFiles::both(int reads, const QString &readFiles, int writes,
                                  const QString &writeFiles) const
{
    return { { QStringLiteral("readFds"), files(reads) },
             { QStringLiteral("readFiles"), QStringList { readFiles } },
             { QStringLiteral("writeFds"), files(writes) },
             { QStringLiteral("writeFiles"), QStringList { writeFiles } } };
}

void tst_IntentFiles::reply(int call, const QStringList &ids)
{
    m_portal->send(m_portal->calls().at(call).createReply(
        { ids, QVariantMap { { QStringLiteral("mountpoint"), QByteArray("/doc\0", 5) } } }));
}

void tst_IntentFiles::refuse(int call, const QString &message)
{
    m_portal->send(m_portal->calls().at(call).createErrorReply(QStringLiteral("org.example.Error"), message));
}

void tst_IntentFiles::share(const QByteArray &data, const QVariantMap &hints)
{
    IntentUtils::shareFiles(parse(data), hints, target,
                            [this](const QJsonObject &newData, const QStringList &paths, const Error &error) {
                                m_outcomes.push_back({ print(newData), paths, error });
                            });
}

// The portal makes documents d0, d1 and so on, counting through all calls.
void tst_IntentFiles::answerAll()
{
    auto count = std::make_shared<int>(0);
    m_portal->setHandler([count](const QDBusMessage &call, const QDBusConnection &connection) {
        QStringList ids;
        const auto descriptors = qdbus_cast<DescriptorList>(call.arguments().at(0));
        for (int i = 0; i < descriptors.size(); ++i) {
            ids.append(QStringLiteral("d%1").arg((*count)++));
        }
        connection.send(call.createReply(
            { ids, QVariantMap { { QStringLiteral("mountpoint"), QByteArray("/doc\0", 5) } } }));
    });
}

void tst_IntentFiles::nothingToShareCompletesAtOnce_data()
{
    QTest::addColumn<QVariantMap>("hints");
    QTest::newRow("no hints") << QVariantMap();
    QTest::newRow("names alone") << QVariantMap {
        { QStringLiteral("readFiles"), QStringList { QStringLiteral("uri") } },
        { QStringLiteral("writeFiles"), QStringList { QStringLiteral("uri") } }
    };
    QTest::newRow("empty lists of descriptors")
        << QVariantMap { { QStringLiteral("readFds"), QVariant::fromValue(QVector<FileDescriptor>()) },
                         { QStringLiteral("writeFds"), QVariant::fromValue(QVector<FileDescriptor>()) } };
}

void tst_IntentFiles::nothingToShareCompletesAtOnce()
{
    QFETCH(QVariantMap, hints);

    const QByteArray data = R"({"uri":"/home/user/a.txt"})";
    share(data, hints);
    QCOMPARE(m_outcomes.size(), std::size_t(1));
    QCOMPARE(m_outcomes.front().data, data);
    QCOMPARE(m_outcomes.front().paths, QStringList());
    QVERIFY(!m_outcomes.front().error);
    QVERIFY(m_portal->calls().isEmpty());
}

void tst_IntentFiles::nameIsReplaced_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QStringList>("places");
    QTest::addColumn<int>("descriptors");
    QTest::addColumn<QByteArray>("newData");

    const auto row = [](const char *title, const char *data, const char *places, int descriptors,
                        const char *newData) {
        QTest::newRow(title) << QByteArray(data) << QString::fromLatin1(places).split(QLatin1Char(' '))
                             << descriptors
                             << QByteArray(newData).replace("@", "/doc/by-app/org.example.App");
    };
    row("one", R"({"uri":"/a/b.txt"})", "uri", 1, R"({"uri":"@/d0/b.txt"})");
    row("a file's URI", R"({"uri":"file:///a/b.txt"})", "uri", 1, R"({"uri":"@/d0/b.txt"})");
    row("others stay", R"({"n":1,"uri":"/a/b.txt","z":["/a/b.txt"]})", "uri", 1,
        R"({"n":1,"uri":"@/d0/b.txt","z":["/a/b.txt"]})");
    row("deep", R"({"a":{"b":[0,{"c":"/x"}]}})", "a.b[1].c", 1, R"({"a":{"b":[0,{"c":"@/d0/x"}]}})");
    row("wildcard", R"({"items":[{"file":"/a"},{"file":"/b"},{"file":"/c"}]})", "items[*].file", 3,
        R"({"items":[{"file":"@/d0/a"},{"file":"@/d1/b"},{"file":"@/d2/c"}]})");
    row("wildcard, some without", R"({"items":[{"file":"/a"},{},{"file":"/c"}]})", "items[*].file", 2,
        R"({"items":[{"file":"@/d0/a"},{},{"file":"@/d1/c"}]})");
    row("in the order of the places", R"({"a":"/a","b":"/b"})", "b a", 2, R"({"a":"@/d1/a","b":"@/d0/b"})");
    row("of any key", R"({"files":{"x":"/a","y":"/b"}})", "files.*", 2,
        R"({"files":{"x":"@/d0/a","y":"@/d1/b"}})");
    row("from the end", R"({"a":["/a","/b"]})", "a[-1]", 1, R"({"a":["/a","@/d0/b"]})");
    row("missing place does not count", R"({"a":"/a"})", "b a", 1, R"({"a":"@/d0/a"})");
    row("no text is an empty name", R"({"a":5})", "a", 1, R"({"a":"@/d0/"})");
}

void tst_IntentFiles::nameIsReplaced()
{
    QFETCH(QByteArray, data);
    QFETCH(QStringList, places);
    QFETCH(int, descriptors);
    QFETCH(QByteArray, newData);

    for (const char *kind : { "read", "write" }) {
        m_outcomes.clear();
        answerAll();
        share(data,
              { { QLatin1String(kind) + QLatin1String("Fds"), files(descriptors) },
                { QLatin1String(kind) + QLatin1String("Files"), places } });
        QVERIFY(m_outcomes.empty());
        QTRY_COMPARE(m_outcomes.size(), std::size_t(1));
        QCOMPARE(m_outcomes.front().data, newData);
        QCOMPARE(m_outcomes.front().paths.size(), descriptors);
        QVERIFY(
            m_outcomes.front().paths.first().startsWith(QLatin1String("/doc/by-app/org.example.App/d0/")));
        QVERIFY(!m_outcomes.front().error);
    }
}

void tst_IntentFiles::namesAreTakenFromUris_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("name");

    QTest::newRow("file") << QStringLiteral("file:///a/b.txt") << QStringLiteral("b.txt");
    QTest::newRow("file, encoded") << QStringLiteral("file:///a/b%20c%23.txt") << QStringLiteral("b c#.txt");
    QTest::newRow("file, with blanks") << QStringLiteral("file:///a/b c.txt") << QStringLiteral("b c.txt");
    QTest::newRow("path") << QStringLiteral("/a/b.txt") << QStringLiteral("b.txt");
    QTest::newRow("path with what a URI would encode")
        << QStringLiteral("/a/b%20c#d?e.txt") << QStringLiteral("b%20c#d?e.txt");
    QTest::newRow("other scheme") << QStringLiteral("content://a/b%20c.txt") << QStringLiteral("b c.txt");
    QTest::newRow("name alone") << QStringLiteral("b.txt") << QStringLiteral("b.txt");
    QTest::newRow("no URI") << QStringLiteral("//[/b.txt") << QStringLiteral("b.txt");
}

void tst_IntentFiles::namesAreTakenFromUris()
{
    QFETCH(QString, text);
    QFETCH(QString, name);

    answerAll();
    share(print({ { QStringLiteral("uri"), text } }),
          { { QStringLiteral("readFds"), files() },
            { QStringLiteral("readFiles"), QStringList { QStringLiteral("uri") } } });
    QTRY_COMPARE(m_outcomes.size(), std::size_t(1));
    const QString path = QLatin1String("/doc/by-app/org.example.App/d0/") + name;
    QCOMPARE(m_outcomes.front().paths, QStringList { path });
    QCOMPARE(parse(m_outcomes.front().data).value(QLatin1String("uri")).toString(), path);
}

void tst_IntentFiles::bothBatchesAreOutAtOnce()
{
    m_portal->setHandler([](const QDBusMessage &, const QDBusConnection &) {});
    share(R"({"r":["/a","/b"],"w":"/c"})", both(2, QStringLiteral("r[*]"), 1, QStringLiteral("w")));
    QTRY_COMPARE(m_portal->calls().size(), 2);
    QVERIFY(m_outcomes.empty());

    // The second answer first.
    reply(1, { QStringLiteral("w0") });
    reply(0, { QStringLiteral("r0"), QStringLiteral("r1") });
    QTRY_COMPARE(m_outcomes.size(), std::size_t(1));
    const QString by = QStringLiteral("/doc/by-app/org.example.App/");
    QCOMPARE(m_outcomes.front().data,
             QByteArray(R"({"r":["@r0/a","@r1/b"],"w":"@w0/c"})").replace("@", by.toUtf8()));
    QCOMPARE(
        m_outcomes.front().paths,
        QStringList({ by + QLatin1String("w0/c"), by + QLatin1String("r0/a"), by + QLatin1String("r1/b") }));
    QVERIFY(!m_outcomes.front().error);
}

void tst_IntentFiles::permissionsAreThoseOfTheHint()
{
    m_portal->setHandler([](const QDBusMessage &, const QDBusConnection &) {});
    share(R"({"r":"/a","w":"/c"})", both(1, QStringLiteral("r"), 1, QStringLiteral("w")));
    QTRY_COMPARE(m_portal->calls().size(), 2);
    const QVariant read = QStringList { QStringLiteral("read") };
    const QVariant readAndWrite = QStringList { QStringLiteral("read"), QStringLiteral("write") };
    QCOMPARE(m_portal->calls().at(0).arguments().mid(1), (QVariantList { 5U, target, read }));
    QCOMPARE(m_portal->calls().at(1).arguments().mid(1), (QVariantList { 5U, target, readAndWrite }));
    m_portal->leave();
    const LogCapture log;
    QTRY_COMPARE(m_outcomes.size(), std::size_t(1));
}

void tst_IntentFiles::fewerNamesThanDescriptorsFail_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QVariant>("places");
    QTest::newRow("two for one name")
        << QByteArray(R"({"a":"/a"})") << QVariant(QStringList { QStringLiteral("a") });
    QTest::newRow("one of two is missing")
        << QByteArray(R"({"a":"/a"})") << QVariant(QStringList({ QStringLiteral("a"), QStringLiteral("b") }));
    QTest::newRow("wildcard with one element")
        << QByteArray(R"({"a":["/a"]})") << QVariant(QStringList { QStringLiteral("a[*]") });
    QTest::newRow("no names") << QByteArray(R"({"a":"/a"})") << QVariant(QStringList());
    QTest::newRow("no hint") << QByteArray(R"({"a":"/a"})") << QVariant();
    QTest::newRow("hint of another type") << QByteArray(R"({"a":"/a"})") << QVariant(true);
}

void tst_IntentFiles::fewerNamesThanDescriptorsFail()
{
    QFETCH(QByteArray, data);
    QFETCH(QVariant, places);

    for (const char *kind : { "read", "write" }) {
        m_outcomes.clear();
        share(data,
              { { QLatin1String(kind) + QLatin1String("Fds"), files(2) },
                { QLatin1String(kind) + QLatin1String("Files"), places } });
        QCOMPARE(m_outcomes.size(), std::size_t(1));
        QCOMPARE(m_outcomes.front().error.code(), Error::InvalidArgs);
        QCOMPARE(m_outcomes.front().error.message(), tooFewNames);
        QCOMPARE(m_outcomes.front().paths, QStringList());
        QCOMPARE(m_outcomes.front().data, data);
    }
    QVERIFY(m_portal->calls().isEmpty());
}

void tst_IntentFiles::moreNamesThanDescriptorsAreThePortalsBusiness()
{
    answerAll(); // a document for each descriptor
    QTest::ignoreMessage(QtWarningMsg, "Document portal returned unexpected number of IDs");
    const QByteArray data = R"({"a":["/a","/b","/c"]})";
    share(data,
          { { QStringLiteral("readFds"), files(2) },
            { QStringLiteral("readFiles"), QStringList { QStringLiteral("a[*]") } } });
    QTRY_COMPARE(m_outcomes.size(), std::size_t(1));
    QCOMPARE(m_portal->calls().size(), 1);
    QCOMPARE(m_outcomes.front().error.code(), Error::Failed);
    QCOMPARE(m_outcomes.front().error.message(), QString());
    QCOMPARE(m_outcomes.front().data, data);
}

void tst_IntentFiles::oneBatchFailsTheOtherDoesNot_data()
{
    QTest::addColumn<int>("reads");
    QTest::addColumn<int>("writes");
    QTest::addColumn<QByteArray>("newData");
    QTest::newRow("the first") << 2 << 1 << QByteArray(R"({"r":"/a","w":"@/d0/b"})");
    QTest::newRow("the second") << 1 << 2 << QByteArray(R"({"r":"@/d0/a","w":"/b"})");
}

void tst_IntentFiles::oneBatchFailsTheOtherDoesNot()
{
    QFETCH(int, reads);
    QFETCH(int, writes);
    QFETCH(QByteArray, newData);

    answerAll();
    share(R"({"r":"/a","w":"/b"})", both(reads, QStringLiteral("r"), writes, QStringLiteral("w")));
    QTRY_COMPARE(m_outcomes.size(), std::size_t(1));
    QCOMPARE(m_portal->calls().size(), 1);
    QCOMPARE(m_outcomes.front().error.code(), Error::InvalidArgs);
    QCOMPARE(m_outcomes.front().error.message(), tooFewNames);
    QCOMPARE(m_outcomes.front().paths.size(), 1);
    QCOMPARE(m_outcomes.front().data, newData.replace("@", "/doc/by-app/org.example.App"));
}

void tst_IntentFiles::lastErrorIsTold()
{
    m_portal->setHandler([](const QDBusMessage &, const QDBusConnection &) {});
    share(R"({"r":"/a","w":"/b"})", both(1, QStringLiteral("r"), 1, QStringLiteral("w")));
    QTRY_COMPARE(m_portal->calls().size(), 2);
    const LogCapture log;
    refuse(1, QStringLiteral("first"));
    refuse(0, QStringLiteral("second"));
    QTRY_COMPARE(m_outcomes.size(), std::size_t(1));
    QCOMPARE(m_outcomes.front().error.code(), Error::Failed);
    QCOMPARE(m_outcomes.front().error.message(), QStringLiteral("second"));
    QCOMPARE(
        log.warnings(),
        QStringList({ QStringLiteral("Failed to add file to portal. \"org.example.Error\" \"first\""),
                      QStringLiteral("Failed to add file to portal. \"org.example.Error\" \"second\"") }));
}

void tst_IntentFiles::errorOfTheFirstBatchStays()
{
    m_portal->setHandler([](const QDBusMessage &, const QDBusConnection &) {});
    share(R"({"r":"/a","w":"/b"})", both(1, QStringLiteral("r"), 1, QStringLiteral("w")));
    QTRY_COMPARE(m_portal->calls().size(), 2);
    const LogCapture log;
    refuse(0, QStringLiteral("refused"));
    reply(1, { QStringLiteral("w0") });
    QTRY_COMPARE(m_outcomes.size(), std::size_t(1));
    QCOMPARE(m_outcomes.front().error.message(), QStringLiteral("refused"));
    QCOMPARE(m_outcomes.front().paths.size(), 1);
}

void tst_IntentFiles::hintOfAnotherTypeIsNone()
{
    const QVariantList values { 5,
                                QStringLiteral("a"),
                                true,
                                QVariantMap(),
                                QStringList { QStringLiteral("a") },
                                QVariant::fromValue(FileDescriptor(m_file->handle())) };
    for (const QVariant &value : values) {
        m_outcomes.clear();
        share(R"({"a":"/a"})",
              { { QStringLiteral("readFds"), value },
                { QStringLiteral("writeFds"), value },
                { QStringLiteral("readFiles"), QStringList { QStringLiteral("a") } } });
        QCOMPARE(m_outcomes.size(), std::size_t(1));
        QVERIFY(!m_outcomes.front().error);
        QCOMPARE(m_outcomes.front().data, QByteArray(R"({"a":"/a"})"));
    }
}

void tst_IntentFiles::absentPortalFails()
{
    m_portal->leave();
    const LogCapture log;
    const int before = openDescriptors();
    share(R"({"r":"/a","w":"/b"})", both(1, QStringLiteral("r"), 1, QStringLiteral("w")));
    QTRY_COMPARE(m_outcomes.size(), std::size_t(1));
    QCOMPARE(m_outcomes.front().error.code(), Error::Failed);
    QVERIFY(!m_outcomes.front().error.message().isEmpty());
    QCOMPARE(m_outcomes.front().paths, QStringList());
    QCOMPARE(log.warnings().size(), 2);
    QTRY_VERIFY(openDescriptors() <= before); // one of a stand-in that left may go late
}

void tst_IntentFiles::completionMayShareAgain()
{
    answerAll();
    const QVariantMap hints { { QStringLiteral("readFds"), files() },
                              { QStringLiteral("readFiles"), QStringList { QStringLiteral("a") } } };
    IntentUtils::shareFiles(
        parse(R"({"a":"/a"})"), hints, target,
        [&](const QJsonObject &data, const QStringList &, const Error &) { share(print(data), hints); });
    QTRY_COMPARE(m_outcomes.size(), std::size_t(1));
    QCOMPARE(m_outcomes.front().data, QByteArray(R"({"a":"/doc/by-app/org.example.App/d1/a"})"));
}

void tst_IntentFiles::emptyCompletionIsAllowed()
{
    IntentUtils::shareFiles({}, {}, target, {});
    answerAll();
    IntentUtils::shareFiles(parse(R"({"a":"/a"})"),
                            { { QStringLiteral("readFds"), files() },
                              { QStringLiteral("readFiles"), QStringList { QStringLiteral("a") } } },
                            target, {});
    QTRY_COMPARE(m_portal->calls().size(), 1);
    share(R"({"a":"/a"})",
          { { QStringLiteral("readFds"), files() },
            { QStringLiteral("readFiles"), QStringList { QStringLiteral("a") } } });
    QTRY_COMPARE(m_outcomes.size(), std::size_t(1));
}

void tst_IntentFiles::manyAtOnceEachCompleteOnce()
{
    const int before = openDescriptors();
    answerAll();
    const int count = 50; // of two calls each: the test's bus lets 128 wait for a reply
    for (int i = 0; i < count; ++i) {
        share(R"({"r":["/a","/b"],"w":"/c"})", both(2, QStringLiteral("r[*]"), 1, QStringLiteral("w")));
    }
    QTRY_COMPARE(m_outcomes.size(), std::size_t(count));
    QCOMPARE(m_portal->calls().size(), 2 * count);
    for (const Outcome &outcome : m_outcomes) {
        QVERIFY(!outcome.error);
        QCOMPARE(outcome.paths.size(), 3);
    }
    m_portal->clearCalls(); // which hold what they got
    QTRY_VERIFY(openDescriptors() <= before); // one of a stand-in that left may go late
    QCOMPARE(m_outcomes.size(), std::size_t(count));
}

QTEST_GUILESS_MAIN(tst_IntentFiles)
#include "tst_intent_files.moc"
