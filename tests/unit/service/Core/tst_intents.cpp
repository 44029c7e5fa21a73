// The decisions about an intent: who handles it, whether the user is asked, and how much of a failure the
// client is told. The handler runs, and what it answers is the test's to say.

#include "Core/application_registry.h"
#include "Core/client_info.h"
#include "Core/intents_p.h"
#include "service/Core/runtime_fixture.h"

#include <QDBusArgument>
#include <QUrl>

using namespace Core;
using namespace TestSupport;

namespace {

const QString handlerId = QStringLiteral("org.example.Handler");
const QString clientId = QStringLiteral("org.example.Client");
const QString chosen = QStringLiteral("org.example.Chosen");
const ClientInfo privileged { true, QString() };
const ClientInfo application { false, clientId };

// The file's name keeps Qt from adding its own types.
const QString mimeFile = QStringLiteral("usr/share/mime/packages/freedesktop.org.xml");
const QByteArray mimeTypes = "<mime-info>\n"
                             "<mime-type type='application/octet-stream'/>\n"
                             "<mime-type type='application/zip'><glob pattern='*.zip'/></mime-type>\n"
                             "<mime-type type='image/png'><glob pattern='*.png'/></mime-type>\n"
                             "<mime-type type='image/jpeg'><glob pattern='*.jpg'/></mime-type>\n"
                             "<mime-type type='text/plain'><glob pattern='*.txt'/></mime-type>\n"
                             "</mime-info>\n";

const QString openUri = QStringLiteral("OpenURI");
const QString generic = QStringLiteral("X-do");

QString id(const char *name)
{
    return QStringLiteral("org.example.") + QLatin1String(name);
}

/// What a callback got, and how often it ran.
struct Outcome
{
    int count = 0;
    QString handler;
    QJsonObject data;
    Error error;

    Intents::IntentCallback callback()
    {
        return [this](const QJsonObject &answer, const Error &failure) {
            ++count;
            data = answer;
            error = failure;
        };
    }
    IntentsPrivate::HandlerCallback handlerCallback()
    {
        return [this](const QString &found, const Error &failure) {
            ++count;
            handler = found;
            error = failure;
        };
    }
};

/// A state of the handlers: what the request names, and whom the caller wants.
struct HandlerState
{
    const char *title;
    QString uri; ///< null: nothing says where it stands
    QString preferred;
    QStringList candidates;
    QString defaultHandler;
    /// "OpenURI" of a privileged client and of an application, then the generic intent of both. Each without
    /// hints, with "showDialog", with "suppressErrorDialog", and with both.
    QStringList outcomes;
};

} // namespace

class tst_Intents : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void clientIsToldWhatItMayKnow_data();
    void clientIsToldWhatItMayKnow();
    void handlerIsFoundOrAskedFor_data();
    void handlerIsFoundOrAskedFor();
    void choiceBecomesTheDefaultOfUrisOnly_data();
    void choiceBecomesTheDefaultOfUrisOnly();
    void answerIsPassedOn_data();
    void answerIsPassedOn();
    void requestorIsTheApplicationOfTheInstance();
    void runningHandlerGetsTheUri_data();
    void runningHandlerGetsTheUri();

private:
    void install(const QString &appId, const QByteArray &mimeTypes, const QByteArray &intents)
    {
        const int dot = appId.lastIndexOf(QLatin1Char('.'));
        m_fixture.tree().write(
            QStringLiteral("usr/share/applications/%1.desktop").arg(appId),
            "[Desktop Entry]\nType=Application\nName=App\nExec=/bin/true %U\nMimeType=" + mimeTypes
                + "\n[X-Application]\nSandboxing=Disabled\nOrganizationName=" + appId.left(dot).toUtf8()
                + "\nApplicationName=" + appId.mid(dot + 1).toUtf8() + "\nIntents=" + intents + "\n");
    }
    void addState(const HandlerState &state);

    RuntimeFixture m_fixture;
};

void tst_Intents::initTestCase()
{
    m_fixture.tree().write(mimeFile, mimeTypes);
    install(id("Reader"), "text/plain", "X-do");
    install(id("Writer"), "text/plain", "X-do");
    install(id("Viewer"), "image/png", "X-do");
    install(id("Album"), "image/jpeg", "X-do");
    install(id("Gallery"), "image/jpeg", "X-do");
    install(id("Mail"), "", "");
    install(id("Notes"), "", "");
    install(QStringLiteral("com.other.Shop"), "", "");
    m_fixture.tree().write(
        QStringLiteral("home/data/%1/intents/OpenURI.intent").arg(QCoreApplication::applicationName()),
        R"({"hints":{"mimeContent":["uri"]}})");
    m_fixture.install(handlerId);
    ApplicationRegistry::instance()->reload();
    ApplicationRegistry::instance()->setDefaultHandlerForUri(QUrl(QStringLiteral("file:///x.jpg")),
                                                             ApplicationId(id("Album")));
    m_fixture.useTheOneOfTheProcess();
    QVERIFY(m_fixture.start(handlerId) > 0);
}

void tst_Intents::cleanupTestCase()
{
    m_fixture.end();
}

void tst_Intents::clientIsToldWhatItMayKnow_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<bool>("isTold"); // an application; a privileged client is always told

    const auto row = [](const char *title, Error::Code code, bool isTold) {
        QTest::newRow(title) << int(code) << isTold;
    };
    row("no error", Error::NoError, true);
    row("failed", Error::Failed, false);
    row("handler not found", Error::HandlerNotFound, false);
    row("handler failed", Error::HandlerFailed, false);
    row("invalid arguments", Error::InvalidArgs, true);
    row("not supported", Error::NotSupported, false);
    row("access denied", Error::AccessDenied, true);
    row("process not handled", Error::ProcessNotHandled, false);
    row("not running", Error::NotRunning, false);
    row("already running", Error::ApplicationAlreadyRunning, false);
    row("terminating", Error::ApplicationTerminating, false);
    row("task not found", Error::TaskNotFound, true);
    row("spawn failed", Error::SpawnFailed, false);
    row("blocked", Error::ApplicationBlocked, false);
    row("too many tasks", Error::TooManyTasks, false);
    row("already launching", Error::ApplicationAlreadyLaunching, false);
}

void tst_Intents::clientIsToldWhatItMayKnow()
{
    QFETCH(int, code);
    QFETCH(bool, isTold);
    const Error failure = code == Error::NoError ? Error() : Error(Error::Code(code), QStringLiteral("why"));
    const BusStandIn handler(m_fixture.bus(), handlerId, QStringLiteral("/"));
    Intents intents;
    IntentsPrivate d(&intents);
    d.handlerCall = [&failure](const QString &, const QString &, const QJsonObject &data,
                               const Intents::HandlerReply &reply) {
        reply(data, {}, failure);
    };

    const QJsonObject data { { QStringLiteral("a"), QStringLiteral("b") } };
    const QVariantMap hints { { QStringLiteral("preferredHandler"), handlerId } };
    const QJsonObject uri { { QStringLiteral("uri"),
                              QStringLiteral("intent://?preferredHandler=S.org.example.Handler"
                                             "#Intent;name=X-do;a=S.b;end") } };
    for (const ClientInfo &client : { privileged, application }) {
        const bool masked = !client.privileged && !isTold;
        for (const bool asUri : { false, true }) {
            Outcome outcome;
            d.invokeIntent(asUri ? openUri : generic, asUri ? QVariantMap() : hints, asUri ? uri : data,
                           client, outcome.callback());
            QTRY_COMPARE(outcome.count, 1);
            QCOMPARE(outcome.error.code(), masked ? Error::Failed : Error::Code(code));
            QCOMPARE(outcome.error.message(),
                     masked ? QStringLiteral("Operation failed") : failure.message());
            QCOMPARE(outcome.data, asUri ? QJsonObject() : data);
        }
    }
}

void tst_Intents::addState(const HandlerState &state)
{
    const char *const hints[] = { "no hints", "dialog", "quiet", "dialog and quiet" };
    int row = 0;
    for (const QString &name : { openUri, generic }) {
        for (const bool isPrivileged : { true, false }) {
            const QStringList outcomes = state.outcomes.at(row++).split(QLatin1Char(' '));
            for (int i = 0; i < 4; ++i) {
                QTest::addRow("%s: %s, %s, %s", state.title, qUtf8Printable(name),
                              isPrivileged ? "privileged" : "application", hints[i])
                    << name << isPrivileged << ((i & 1) != 0) << ((i & 2) != 0) << state.uri
                    << state.preferred << outcomes.at(i) << state.candidates
                    << (name == openUri ? state.defaultHandler : QString());
            }
        }
    }
}

void tst_Intents::handlerIsFoundOrAskedFor_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("isPrivileged");
    QTest::addColumn<bool>("showDialog");
    QTest::addColumn<bool>("suppressErrorDialog");
    QTest::addColumn<QString>("uri");
    QTest::addColumn<QString>("preferred");
    QTest::addColumn<QString>("outcome"); // the handler's name, "ask", "denied" or "none"
    QTest::addColumn<QStringList>("candidates");
    QTest::addColumn<QString>("defaultHandler");

    const QString text = QStringLiteral("file:///a.txt");
    const QStringList readers { id("Reader"), id("Writer") };
    const QString mail = id("Mail");
    const QString file =
        QUrl::fromLocalFile(
            m_fixture.tree().path(QStringLiteral("usr/share/applications/org.example.Notes.desktop")))
            .toString();
    const auto outcomes = [](const char *uriPrivileged, const char *uriApplication,
                             const char *genericPrivileged, const char *genericApplication) {
        return QStringList { QLatin1String(uriPrivileged), QLatin1String(uriApplication),
                             QLatin1String(genericPrivileged), QLatin1String(genericApplication) };
    };
    const auto alike = [&outcomes](const char *uri, const char *other) {
        return outcomes(uri, uri, other, other);
    };
    addState({ "not to be named", text, QStringLiteral("com.other.Shop"), readers, QString(),
               outcomes("Shop ask Shop ask", "denied denied denied denied", "Shop Shop Shop Shop",
                        "denied denied denied denied") });
    addState({ "wanted", text, mail, readers, QString(), alike("Mail ask Mail ask", "Mail Mail Mail Mail") });
    addState({ "wanted, beside a default",
               QStringLiteral("file:///a.jpg"),
               mail,
               { id("Album"), id("Gallery") },
               id("Album"),
               alike("Mail ask Mail ask", "Mail Mail Mail Mail") });
    addState({ "default",
               QStringLiteral("file:///a.jpg"),
               QString(),
               { id("Album"), id("Gallery") },
               id("Album"),
               alike("Album ask Album ask", "Album Album Album Album") });
    addState({ "one",
               QStringLiteral("file:///a.png"),
               QString(),
               { id("Viewer") },
               QString(),
               alike("Viewer ask Viewer ask", "Viewer Viewer Viewer Viewer") });
    addState({ "several", text, QString(), readers, QString(), alike("ask ask ask ask", "ask ask ask ask") });
    addState({ "nobody",
               QStringLiteral("file:///a.zip"),
               QString(),
               {},
               QString(),
               alike("ask ask none ask", "ask ask none none") });
    addState({ "nobody, but one is wanted",
               QStringLiteral("file:///a.zip"),
               mail,
               {},
               QString(),
               alike("Mail ask Mail ask", "Mail Mail Mail Mail") });
    addState(
        { "desktop file",
          file,
          QString(),
          {},
          QString(),
          outcomes("Notes ask Notes ask", "ask ask none ask", "ask ask none none", "ask ask none none") });
    addState({ "desktop file, but another is wanted",
               file,
               mail,
               {},
               QString(),
               outcomes("Notes ask Notes ask", "Mail ask Mail ask", "Mail Mail Mail Mail",
                        "Mail Mail Mail Mail") });
}

void tst_Intents::handlerIsFoundOrAskedFor()
{
    QFETCH(QString, name);
    QFETCH(bool, isPrivileged);
    QFETCH(bool, showDialog);
    QFETCH(bool, suppressErrorDialog);
    QFETCH(QString, uri);
    QFETCH(QString, preferred);
    QFETCH(QString, outcome);
    QFETCH(QStringList, candidates);
    QFETCH(QString, defaultHandler);

    BusStandIn resolver(m_fixture.bus(), QStringLiteral("org.solvaneos.intentresolver"),
                        QStringLiteral("/org/kestrix/Procwarden/IntentResolver1"));
    resolver.answerWith({ chosen, QVariantMap() });
    Intents intents;
    IntentsPrivate d(&intents);
    const QVariantMap hints { { QStringLiteral("mimeContent"), QStringList { QStringLiteral("uri") } },
                              { QStringLiteral("preferredHandler"), preferred },
                              { QStringLiteral("showDialog"), showDialog },
                              { QStringLiteral("suppressErrorDialog"), suppressErrorDialog } };
    Outcome found;
    d.findHandler(name, hints, { { QStringLiteral("uri"), uri } }, isPrivileged ? privileged : application,
                  found.handlerCallback());
    if (outcome != QLatin1String("ask")) {
        QCOMPARE(found.count, 1);
        // Nothing was on its way to the resolver before this.
        Outcome next;
        d.findHandler(QStringLiteral("X-next"), {}, {}, privileged, next.handlerCallback());
        QTRY_COMPARE(next.count, 1);
        QCOMPARE(resolver.calls().size(), 1);
        QCOMPARE(resolver.calls().first().arguments().first().toString(), QStringLiteral("X-next"));
    }

    if (outcome == QLatin1String("ask")) {
        QTRY_COMPARE(found.count, 1);
        QCOMPARE(found.error.code(), Error::NoError);
        QCOMPARE(found.handler, chosen);
        QCOMPARE(resolver.calls().size(), 1);
        const QVariantList asked = resolver.calls().first().arguments();
        QCOMPARE(asked.at(0).toString(), name);
        QCOMPARE(qdbus_cast<QVariantMap>(asked.at(1)), QVariantMap({ { QStringLiteral("uri"), uri } }));
        QCOMPARE(qdbus_cast<QVariantMap>(asked.at(2)),
                 defaultHandler.isEmpty()
                     ? QVariantMap()
                     : QVariantMap({ { QStringLiteral("defaultCandidate"), defaultHandler } }));
        QStringList shown = asked.at(3).toStringList();
        shown.sort();
        QCOMPARE(shown, candidates);
    } else if (outcome == QLatin1String("denied")) {
        QCOMPARE(found.error.code(), Error::AccessDenied);
        QCOMPARE(found.error.message(), QStringLiteral("Client not allowed to start ") + preferred);
        QCOMPARE(found.handler, QString());
    } else if (outcome == QLatin1String("none")) {
        QCOMPARE(found.error.code(), Error::HandlerNotFound);
        QCOMPARE(found.error.message(), QString());
        QCOMPARE(found.handler, QString());
    } else {
        QCOMPARE(found.error.code(), Error::NoError);
        QCOMPARE(found.handler.section(QLatin1Char('.'), -1), outcome);
    }
}

void tst_Intents::choiceBecomesTheDefaultOfUrisOnly_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("member"); // of the request data, with the URI
    QTest::addColumn<QVariantMap>("replyHints");
    QTest::addColumn<bool>("isKept");

    const QString uri = QStringLiteral("uri");
    const auto hints = [](const QVariant &value) {
        return QVariantMap { { QStringLiteral("setAsDefaultHandler"), value } };
    };
    QTest::newRow("wanted") << openUri << uri << hints(true) << true;
    QTest::newRow("not wanted") << openUri << uri << hints(false) << false;
    QTest::newRow("nothing is said") << openUri << uri << QVariantMap() << false;
    QTest::newRow("no truth value") << openUri << uri << hints(QStringList { QStringLiteral("true") })
                                    << false;
    QTest::newRow("generic intent") << generic << uri << hints(true) << false;
    QTest::newRow("content at another place") << openUri << QStringLiteral("file") << hints(true) << false;
}

void tst_Intents::choiceBecomesTheDefaultOfUrisOnly()
{
    QFETCH(QString, name);
    QFETCH(QString, member);
    QFETCH(QVariantMap, replyHints);
    QFETCH(bool, isKept);

    BusStandIn resolver(m_fixture.bus(), QStringLiteral("org.solvaneos.intentresolver"),
                        QStringLiteral("/org/kestrix/Procwarden/IntentResolver1"));
    resolver.answerWith({ id("Writer"), replyHints });
    Intents intents;
    IntentsPrivate d(&intents);
    Outcome found;
    d.findHandler(name, { { QStringLiteral("mimeContent"), QStringList { member } } },
                  { { member, QStringLiteral("file:///a.txt") } }, application, found.handlerCallback());
    QTRY_COMPARE(found.count, 1);
    QCOMPARE(found.handler, id("Writer"));
    ApplicationRegistry *registry = ApplicationRegistry::instance();
    const QString kept = registry->defaultHandlerForUrl(QUrl(QStringLiteral("file:///b.txt")));
    const QString keptForNothing = registry->defaultHandlerForUrl(QUrl());
    registry->clearDefaultHandlers(ApplicationId(id("Writer")));
    QCOMPARE(kept, isKept ? id("Writer") : QString());
    QCOMPARE(keptForNothing, QString());
}

void tst_Intents::answerIsPassedOn_data()
{
    QTest::addColumn<QString>("requestor");
    QTest::addColumn<bool>("refocus");
    QTest::addColumn<bool>("hasReplyHints");
    QTest::addColumn<bool>("fails");
    QTest::addColumn<bool>("failureIsTold");

    for (const bool refocus : { false, true }) {
        const char *const suffix = refocus ? ", refocused" : "";
        QTest::addRow("success%s", suffix) << clientId << refocus << false << false << false;
        QTest::addRow("failure%s", suffix) << clientId << refocus << false << true << true;
        QTest::addRow("success with hints%s", suffix) << clientId << refocus << true << false << false;
        // What comes of the files is the outcome then.
        QTest::addRow("failure with hints%s", suffix) << clientId << refocus << true << true << false;
        QTest::addRow("failure with hints, for no application%s", suffix)
            << QString() << refocus << true << true << true;
    }
}

void tst_Intents::answerIsPassedOn()
{
    QFETCH(QString, requestor);
    QFETCH(bool, refocus);
    QFETCH(bool, hasReplyHints);
    QFETCH(bool, fails);
    QFETCH(bool, failureIsTold);

    const BusStandIn handler(m_fixture.bus(), handlerId, QStringLiteral("/"));
    BusStandIn windowModel(m_fixture.bus(), QStringLiteral("org.nemomobile.lipstick"),
                           QStringLiteral("/WindowModel"));
    const QJsonObject answer { { QStringLiteral("a"), 1 } };
    Intents intents;
    IntentsPrivate d(&intents);
    d.handlerCall = [&](const QString &name, const QString &intent, const QJsonObject &,
                        const Intents::HandlerReply &reply) {
        QCOMPARE(name, handlerId);
        QCOMPARE(intent, generic);
        reply(answer, hasReplyHints ? QVariantMap { { QStringLiteral("k"), 1 } } : QVariantMap(),
              fails ? Error(Error::HandlerFailed, QStringLiteral("why")) : Error());
    };
    Outcome outcome;
    d.dispatchGeneric(handlerId, generic, { { QStringLiteral("refocusOnReturn"), refocus } }, {}, requestor,
                      outcome.callback());
    QTRY_COMPARE(outcome.count, 1);
    QCOMPARE(outcome.data, answer);
    QCOMPARE(outcome.error.code(), failureIsTold ? Error::HandlerFailed : Error::NoError);

    // The handler that runs is raised first, and a last one tells that no more are on their way.
    d.startOrActivate(ApplicationId(handlerId), {}, {}, {}, [](const auto &, bool, const auto &) {});
    QStringList raised { handlerId, handlerId };
    if (refocus) {
        raised.insert(1, requestor);
    }
    QTRY_COMPARE(windowModel.calls().size(), raised.size());
    for (int i = 0; i < raised.size(); ++i) {
        const QDBusMessage &call = windowModel.calls().at(i);
        QCOMPARE(call.interface() + QLatin1Char(' ') + call.member(),
                 QStringLiteral("local.Lipstick.WindowModel launchProcess"));
        QCOMPARE(call.arguments(), QVariantList { raised.at(i) });
    }
}

void tst_Intents::requestorIsTheApplicationOfTheInstance()
{
    const BusStandIn handler(m_fixture.bus(), handlerId, QStringLiteral("/"));
    BusStandIn windowModel(m_fixture.bus(), QStringLiteral("org.nemomobile.lipstick"),
                           QStringLiteral("/WindowModel"));
    Intents intents;
    IntentsPrivate d(&intents);
    d.handlerCall = [](const QString &, const QString &, const QJsonObject &,
                       const Intents::HandlerReply &reply) {
        reply({}, {}, Error());
    };
    Outcome outcome;
    d.invokeIntent(
        generic,
        { { QStringLiteral("preferredHandler"), handlerId }, { QStringLiteral("refocusOnReturn"), true } },
        {}, { false, clientId + QStringLiteral(".instance_7") }, outcome.callback());
    QTRY_COMPARE(outcome.count, 1);
    QVERIFY(!outcome.error);
    QTRY_COMPARE(windowModel.calls().size(), 2);
    QCOMPARE(windowModel.calls().last().arguments(), QVariantList { clientId });
}

void tst_Intents::runningHandlerGetsTheUri_data()
{
    QTest::addColumn<QByteArray>("lines");
    QTest::addColumn<bool>("isLegacy");

    const QByteArray service = "X-Maemo-Service=org.example.legacy\n";
    const QByteArray objectPath = "X-Maemo-Object-Path=/org/example/legacy\n";
    const QByteArray method = "X-Maemo-Method=org.example.legacy.Ui.open\n";
    const QByteArray declares = "Intents=OpenURI\n";
    QTest::newRow("who declares it") << declares << false;
    QTest::newRow("who does not declare it") << QByteArray() << false;
    QTest::newRow("legacy service") << service + objectPath + method << true;
    QTest::newRow("legacy service that declares it") << service + objectPath + method + declares << true;
    QTest::newRow("no service") << objectPath + method << false;
    QTest::newRow("no method") << service + objectPath << false;
}

void tst_Intents::runningHandlerGetsTheUri()
{
    QFETCH(QByteArray, lines);
    QFETCH(bool, isLegacy);
    // What its desktop file says now; its process is the one from before.
    const int intentsAt = lines.indexOf("Intents=");
    const QByteArray intentsLine = intentsAt < 0 ? QByteArray() : lines.mid(intentsAt);
    m_fixture.tree().write(QStringLiteral("usr/share/applications/%1.desktop").arg(handlerId),
                           "[Desktop Entry]\nType=Application\nName=App\nExec=/bin/true\n"
                               + lines.left(lines.size() - intentsLine.size())
                               + "[X-Application]\nSandboxing=Disabled\nOrganizationName=org.example\n"
                                 "ApplicationName=Handler\n"
                               + intentsLine);
    ApplicationRegistry::instance()->reload();

    const BusStandIn handler(m_fixture.bus(), handlerId, QStringLiteral("/"));
    BusStandIn legacyService(m_fixture.bus(), QStringLiteral("org.example.legacy"),
                             QStringLiteral("/org/example/legacy"));
    legacyService.answerWith({});
    Intents intents;
    IntentsPrivate d(&intents);
    int handled = 0;
    d.handlerCall = [&handled](const QString &, const QString &, const QJsonObject &,
                               const Intents::HandlerReply &reply) {
        ++handled;
        reply({}, {}, Error());
    };
    Outcome outcome;
    d.dispatchOpenURI(handlerId, QUrl(QStringLiteral("file:///a.txt")), clientId, outcome.callback());
    QTRY_COMPARE(outcome.count, 1);
    QVERIFY(!outcome.error);
    QCOMPARE(outcome.data, QJsonObject({ { QStringLiteral("instanceId"), handlerId } }));
    QCOMPARE(handled, isLegacy ? 0 : 1);
    QCOMPARE(legacyService.calls().size(), isLegacy ? 1 : 0);
}

QTEST_GUILESS_MAIN(tst_Intents)
#include "tst_intents.moc"
