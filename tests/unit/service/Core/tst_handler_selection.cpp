#include "Core/handler_selection.h"

#include "Core/application_registry.h"
#include "Core/client_info.h"
#include "common/Core/catalogue_fixture.h"
#include "support/log_capture.h"

#include <QJsonArray>
#include <QtTest>

using namespace Core;
using TestSupport::LogCapture;

namespace {

const ClientInfo privileged { true, QString() };
const ClientInfo stranger { false, QStringLiteral("com.other.Shop") };
const ClientInfo notes { false, QStringLiteral("org.example.Notes.instance_7") };

QString id(const char *name)
{
    return QStringLiteral("org.example.") + QLatin1String(name);
}

/// The registry's order is its own.
QStringList sorted(QStringList ids)
{
    ids.sort();
    return ids;
}

} // namespace

// Who might handle an intent, and who may name whom.
class TestHandlerSelection : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void textsThatMeanAnApplication_data();
    void textsThatMeanAnApplication();
    void whoMayNameWhom_data();
    void whoMayNameWhom();
    void refusalLeavesTheSelection();

    void handlersOfOpenUri_data();
    void handlersOfOpenUri();
    void handlersOfOtherIntents_data();
    void handlersOfOtherIntents();
    void firstTextDecides_data();
    void firstTextDecides();
    void filtersLeaveOut();
    void emptyUrlHasNoHandler();
    void desktopFileIsForPrivilegedClients_data();
    void desktopFileIsForPrivilegedClients();

private:
    void install(const char *appId, const QByteArray &lines) const
    {
        const QByteArray text(appId);
        const int dot = text.lastIndexOf('.');
        m_fixture.writeDesktopFile(QStringLiteral("one"), QString::fromLatin1(appId),
                                   "Exec=/bin/true\n" + lines + "\n[X-Sailjail]\nOrganizationName="
                                       + text.left(dot) + "\nApplicationName=" + text.mid(dot + 1) + "\n");
    }
    void handle(const char *appId, const QByteArray &mimeTypes,
                const QByteArray &intents = QByteArray()) const
    {
        install(appId, "MimeType=" + mimeTypes + "\n[X-Application]\nIntents=" + intents);
    }
    void sign(const char *appId, const char *certificate) const
    {
        m_fixture.write(QStringLiteral("root/opt/app/%1/current/solvane.pkg").arg(QLatin1String(appId)),
                        QByteArray("[certificate]\nid=") + certificate + "\n");
    }
    static HandlerSelection select(const QString &name, const QVariantMap &hints, const QJsonObject &data,
                                   const ClientInfo &client = privileged)
    {
        ApplicationRegistry::instance()->reload();
        HandlerSelection selection;
        const Error error = IntentUtils::selectHandler(name, hints, data, client, selection);
        if (error) {
            qFatal("refused: %s", qUtf8Printable(error.message()));
        }
        return selection;
    }

    const CatalogueFixture m_fixture;
};

void TestHandlerSelection::init()
{
    m_fixture.clear();
}

void TestHandlerSelection::cleanup()
{
    ApplicationRegistry::instance()->clearDefaultHandlers(ApplicationId(id("Reader")));
}

void TestHandlerSelection::textsThatMeanAnApplication_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("meant");

    QTest::newRow("nothing") << ""
                             << "";
    QTest::newRow("installed") << "org.example.Notes"
                               << "org.example.Notes";
    QTest::newRow("not installed") << "org.example.Gone"
                                   << "org.example.Gone";
    QTest::newRow("no id") << "nonsense"
                           << "nonsense";
    QTest::newRow("instance") << "org.example.Notes.instance_3"
                              << "org.example.Notes.instance_3";
    const QString byFile = ApplicationId::fromDesktopFile(QStringLiteral("tool.desktop")).text();
    QVERIFY(!byFile.isEmpty());
    QTest::newRow("file") << "tool.desktop" << byFile;
    QTest::newRow("path") << "/usr/share/applications/tool.desktop" << byFile;
    QTest::newRow("file of an installed one")
        << "org.example.Notes.desktop"
        << ApplicationId::fromDesktopFile(QStringLiteral("org.example.Notes.desktop")).text();
    QTest::newRow("file without a name") << ".desktop"
                                         << "";
    QTest::newRow("other case") << "tool.DESKTOP"
                                << "tool.DESKTOP";
}

void TestHandlerSelection::textsThatMeanAnApplication()
{
    QFETCH(QString, text);
    QFETCH(QString, meant);
    install("org.example.Notes", "");
    ApplicationRegistry::instance()->reload();
    const LogCapture log;
    QCOMPARE(IntentUtils::normaliseHandlerId(text).text(), meant);
    QCOMPARE(log.messages(), QStringList());
}

void TestHandlerSelection::whoMayNameWhom_data()
{
    QTest::addColumn<bool>("isPrivileged");
    QTest::addColumn<QString>("client");
    QTest::addColumn<QString>("target");
    QTest::addColumn<bool>("allowed");

    QTest::newRow("privileged, anybody") << true << ""
                                         << "org.example.Notes" << true;
    QTest::newRow("privileged application") << true << "com.other.Shop"
                                            << "org.example.Notes" << true;
    QTest::newRow("itself") << false << "org.example.Notes"
                            << "org.example.Notes" << true;
    QTest::newRow("same organisation and certificate") << false << "org.example.Notes"
                                                       << "org.example.Mail" << true;
    QTest::newRow("instance") << false << "org.example.Notes.instance_9"
                              << "org.example.Mail" << true;
    QTest::newRow("task") << false << "org.example.Notes.task_sync"
                          << "org.example.Mail" << true;
    QTest::newRow("other certificate") << false << "org.example.Notes"
                                       << "org.example.Forged" << false;
    QTest::newRow("no certificate") << false << "org.example.Notes"
                                    << "org.example.Plain" << false;
    QTest::newRow("both without") << false << "org.example.Plain"
                                  << "org.example.Bare" << true;
    QTest::newRow("not installed, both without") << false << "org.example.Plain"
                                                 << "org.example.Gone" << true;
    QTest::newRow("not installed") << false << "org.example.Notes"
                                   << "org.example.Gone" << false;
    QTest::newRow("other organisation, same certificate") << false << "com.other.Shop"
                                                          << "org.example.Notes" << false;
    QTest::newRow("longer organisation") << false << "org.example.Notes"
                                         << "org.example.more.App" << false;
    QTest::newRow("no id") << false << "org.example.Plain"
                           << "nonsense" << false;
}

void TestHandlerSelection::whoMayNameWhom()
{
    QFETCH(bool, isPrivileged);
    QFETCH(QString, client);
    QFETCH(QString, target);
    QFETCH(bool, allowed);
    for (const char *app :
         { "org.example.Notes", "org.example.Mail", "org.example.Forged", "org.example.Plain",
           "org.example.Bare", "com.other.Shop", "org.example.more.App" }) {
        install(app, "");
    }
    for (const char *app :
         { "org.example.Notes", "org.example.Mail", "com.other.Shop", "org.example.more.App" }) {
        sign(app, "one");
    }
    sign("org.example.Forged", "two");
    ApplicationRegistry::instance()->reload();

    const Error error =
        IntentUtils::checkStartPermission(ApplicationId(target), ClientInfo { isPrivileged, client });
    QCOMPARE(error.code(), allowed ? Error::NoError : Error::AccessDenied);
    QCOMPARE(error.message(), allowed ? QString() : QStringLiteral("Client not allowed to start ") + target);

    // The same rule holds for the handler that an intent asks for.
    HandlerSelection selection;
    const Error asked = IntentUtils::selectHandler(
        QStringLiteral("X-any"), { { QStringLiteral("preferredHandler"), target } }, QJsonObject(),
        ClientInfo { isPrivileged, client }, selection);
    QCOMPARE(asked.code(), error.code());
    QCOMPARE(asked.message(), error.message());
    QCOMPARE(selection.handler, allowed ? target : QString());
}

void TestHandlerSelection::refusalLeavesTheSelection()
{
    handle("org.example.Reader", "text/plain", "X-any");
    ApplicationRegistry::instance()->reload();
    HandlerSelection selection;
    selection.handler = QStringLiteral("kept");
    QVERIFY(IntentUtils::selectHandler(QStringLiteral("X-any"),
                                       { { QStringLiteral("preferredHandler"), id("Reader") } },
                                       QJsonObject(), stranger, selection));
    QCOMPARE(selection.handler, QStringLiteral("kept"));
    QCOMPARE(selection.candidates, QStringList());
}

void TestHandlerSelection::handlersOfOpenUri_data()
{
    QTest::addColumn<QString>("uri");
    QTest::addColumn<QString>("preferred");
    QTest::addColumn<bool>("hasDefault");
    QTest::addColumn<QString>("handler");
    QTest::addColumn<QStringList>("candidates");
    QTest::addColumn<QString>("defaultHandler");

    const QStringList readers { id("Reader"), id("Writer") };
    QTest::newRow("several") << "file:///a.txt"
                             << "" << false << "" << readers << "";
    QTest::newRow("one") << "file:///a.png"
                         << "" << false << id("Viewer") << QStringList { id("Viewer") } << "";
    QTest::newRow("none") << "file:///a.zip"
                          << "" << false << "" << QStringList() << "";
    QTest::newRow("default") << "file:///a.txt"
                             << "" << true << id("Reader") << readers << id("Reader");
    QTest::newRow("wanted") << "file:///a.txt" << id("Writer") << false << id("Writer") << readers << "";
    QTest::newRow("wanted, not the default")
        << "file:///a.txt" << id("Writer") << true << id("Writer") << readers << id("Reader");
    QTest::newRow("wanted, no candidate")
        << "file:///a.png" << id("Writer") << false << id("Writer") << QStringList { id("Viewer") } << "";
    QTest::newRow("default of another type")
        << "file:///a.png"
        << "" << true << id("Viewer") << QStringList { id("Viewer") } << "";
    QTest::newRow("path") << "/a.png"
                          << "" << false << id("Viewer") << QStringList { id("Viewer") } << "";
}

void TestHandlerSelection::handlersOfOpenUri()
{
    QFETCH(QString, uri);
    QFETCH(QString, preferred);
    QFETCH(bool, hasDefault);
    handle("org.example.Reader", "text/plain", "OpenURI");
    handle("org.example.Writer", "text/plain");
    handle("org.example.Viewer", "image/png");
    handle("org.example.Claims", "", "OpenURI"); // declares the intent, but nothing that it can open
    ApplicationRegistry::instance()->reload();
    if (hasDefault) {
        ApplicationRegistry::instance()->setDefaultHandlerForUri(QUrl(QStringLiteral("file:///x.txt")),
                                                                 ApplicationId(id("Reader")));
    }

    const HandlerSelection selection =
        select(QStringLiteral("OpenURI"),
               { { QStringLiteral("mimeContent"), QStringList { QStringLiteral("uri") } },
                 { QStringLiteral("preferredHandler"), preferred } },
               { { QStringLiteral("uri"), uri } });
    QTEST(selection.handler, "handler");
    QTEST(sorted(selection.candidates), "candidates");
    QTEST(selection.defaultHandler, "defaultHandler");
    QCOMPARE(selection.desktopFileHandler, QString());
}

void TestHandlerSelection::handlersOfOtherIntents_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("uri");
    QTest::addColumn<QString>("handler");
    QTest::addColumn<QStringList>("candidates");

    QTest::newRow("without content") << "Share"
                                     << ""
                                     << "" << QStringList { id("Mail"), id("Poster"), id("Zoo") };
    QTest::newRow("one declares it") << "Print"
                                     << "" << id("Zoo") << QStringList { id("Zoo") };
    QTest::newRow("nobody declares it") << "Fax"
                                        << ""
                                        << "" << QStringList();
    // Mail has no types: the intent alone is not enough. The order is that of the ids, not of the types.
    QTest::newRow("intent and content") << "Share"
                                        << "file:///a.txt"
                                        << "" << QStringList { id("Poster"), id("Zoo") };
    QTest::newRow("one has both") << "Share"
                                  << "file:///a.png" << id("Poster") << QStringList { id("Poster") };
    QTest::newRow("content alone") << "Fax"
                                   << "file:///a.txt"
                                   << "" << QStringList();
}

void TestHandlerSelection::handlersOfOtherIntents()
{
    QFETCH(QString, name);
    QFETCH(QString, uri);
    handle("org.example.Zoo", "text/plain", "Share;Print");
    handle("org.example.Poster", "text/plain;image/png", "Share");
    handle("org.example.Mail", "", "Share");
    handle("org.example.Reader", "text/plain;image/png");

    const HandlerSelection selection =
        select(name, { { QStringLiteral("mimeContent"), QStringList { QStringLiteral("files[*]") } } },
               { { QStringLiteral("files"), QJsonArray { uri } } });
    QTEST(selection.handler, "handler");
    QTEST(selection.candidates, "candidates");
}

void TestHandlerSelection::firstTextDecides_data()
{
    QTest::addColumn<QStringList>("places");
    QTest::addColumn<QString>("handler");

    QTest::newRow("no place") << QStringList() << "";
    QTest::newRow("not there") << QStringList { QStringLiteral("nowhere") } << "";
    QTest::newRow("first place") << QStringList { QStringLiteral("picture"), QStringLiteral("text") }
                                 << id("Viewer");
    QTest::newRow("second place") << QStringList { QStringLiteral("nowhere"), QStringLiteral("picture") }
                                  << id("Viewer");
    QTest::newRow("empty texts, numbers and objects are passed over")
        << QStringList { QStringLiteral("empty"), QStringLiteral("number"), QStringLiteral("object"),
                         QStringLiteral("text") }
        << id("Reader");
    QTest::newRow("first of many") << QStringList { QStringLiteral("list[*].file") } << id("Reader");
    QTest::newRow("from the end") << QStringList { QStringLiteral("list[-1].file") } << id("Viewer");
}

void TestHandlerSelection::firstTextDecides()
{
    QFETCH(QStringList, places);
    handle("org.example.Reader", "text/plain");
    handle("org.example.Viewer", "image/png");
    const QString text = QStringLiteral("file:///a.txt");
    const QString picture = QStringLiteral("file:///a.png");
    const QJsonObject data {
        { QStringLiteral("text"), text },
        { QStringLiteral("picture"), picture },
        { QStringLiteral("empty"), QString() },
        { QStringLiteral("number"), 5 },
        { QStringLiteral("object"), QJsonObject { { QStringLiteral("uri"), picture } } },
        { QStringLiteral("list"),
          QJsonArray { QJsonObject { { QStringLiteral("name"), picture } },
                       QJsonObject { { QStringLiteral("file"), text } },
                       QJsonObject { { QStringLiteral("file"), picture } } } },
    };
    const HandlerSelection selection =
        select(QStringLiteral("OpenURI"), { { QStringLiteral("mimeContent"), places } }, data);
    QTEST(selection.handler, "handler");
}

void TestHandlerSelection::filtersLeaveOut()
{
    handle("org.example.Browser", "x-scheme-handler/web");
    handle("org.example.Shop", "x-url-handler/shop.example/*");
    const QVariantMap content { { QStringLiteral("mimeContent"), QStringList { QStringLiteral("uri") } } };
    const QJsonObject data { { QStringLiteral("uri"), QStringLiteral("web://shop.example/a") } };
    QCOMPARE(select(QStringLiteral("OpenURI"), content, data).candidates,
             QStringList({ id("Browser"), id("Shop") }));

    QVariantMap hints = content;
    hints.insert(QStringLiteral("ignoreHosts"), QStringList { QStringLiteral("shop.example") });
    QCOMPARE(select(QStringLiteral("OpenURI"), hints, data).candidates, QStringList { id("Browser") });

    hints = content;
    hints.insert(QStringLiteral("ignoreSchemes"), QStringList { QStringLiteral("web") });
    QCOMPARE(select(QStringLiteral("OpenURI"), hints, data).candidates, QStringList { id("Shop") });
}

void TestHandlerSelection::emptyUrlHasNoHandler()
{
    handle("org.example.Reader", "application/octet-stream");
    ApplicationRegistry::instance()->reload();
    ApplicationRegistry::instance()->setDefaultHandlerForUri(QUrl(), ApplicationId(id("Reader")));

    // What an empty URL's default is depends on its type; whatever it is, it is not taken.
    const HandlerSelection selection = select(QStringLiteral("OpenURI"), {}, {});
    QCOMPARE(selection.handler, QString());
    QCOMPARE(selection.defaultHandler, ApplicationRegistry::instance()->defaultHandlerForUrl(QUrl()));
    QCOMPARE(selection.candidates, QStringList());
}

void TestHandlerSelection::desktopFileIsForPrivilegedClients_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("isPrivileged");
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("found");

    QTest::newRow("privileged") << "OpenURI" << true << "one/applications/org.example.Notes.desktop"
                                << id("Notes");
    QTest::newRow("application") << "OpenURI" << false << "one/applications/org.example.Notes.desktop"
                                 << "";
    QTest::newRow("other intent") << "X-open" << true << "one/applications/org.example.Notes.desktop"
                                  << "";
    QTest::newRow("other file") << "OpenURI" << true << "two/applications/org.example.Notes.desktop"
                                << "";
}

void TestHandlerSelection::desktopFileIsForPrivilegedClients()
{
    QFETCH(QString, name);
    QFETCH(bool, isPrivileged);
    QFETCH(QString, file);
    install("org.example.Notes", "");
    const QString uri = QUrl::fromLocalFile(m_fixture.path(file)).toString();
    const HandlerSelection selection =
        select(name, { { QStringLiteral("mimeContent"), QStringList { QStringLiteral("uri") } } },
               { { QStringLiteral("uri"), uri } }, isPrivileged ? privileged : notes);
    QTEST(selection.desktopFileHandler, "found");
}

QTEST_GUILESS_MAIN(TestHandlerSelection)
#include "tst_handler_selection.moc"
