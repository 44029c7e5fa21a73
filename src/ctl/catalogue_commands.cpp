#include "session.h"

#include "Core/application_id.h"
#include "Core/application_registry.h"
#include "Core/process_id.h"

#include <QUrl>

// What is installed. The catalogue is read here, from the same files that the service reads: the environment
// has to name the same directories.

namespace Ctl {

namespace {

QString yesOrNo(bool yes)
{
    return yes ? QStringLiteral("yes") : QStringLiteral("no");
}

/// What a policy means, in the words of who wonders why an application was frozen, or was not.
QString policyText(int policy)
{
    switch (policy) {
    case 0:
        return QStringLiteral("0: never frozen, for it is made for a system before 4.2.0");
    case 1:
        return QStringLiteral("1: frozen when hidden, unless it uses a multimedia resource");
    default:
        return QStringLiteral("2: frozen when hidden");
    }
}

QVariantMap describe(const Core::ApplicationRegistry &registry, const QString &id)
{
    const Core::ApplicationId appId(id);
    const Core::ApplicationInfo info(registry.desktopFile(appId));
    const Core::ApplicationLaunchData &launch = info.launchData();
    return {
        { QStringLiteral("Id"), id },
        { QStringLiteral("Name"), info.name() },
        { QStringLiteral("Icon"), info.icon() },
        { QStringLiteral("DesktopFile"), info.desktopFile() },
        { QStringLiteral("Exec"), launch.exec },
        { QStringLiteral("ExecDBus"), launch.execDBus },
        { QStringLiteral("Sandboxed"), launch.sandboxed },
        { QStringLiteral("SingleInstance"), launch.singleInstance },
        { QStringLiteral("SingleCover"), launch.singleCover },
        { QStringLiteral("CompatibilityMode"), launch.compatibilityMode },
        { QStringLiteral("LegacyService"), launch.maemoService },
        { QStringLiteral("LegacyMethod"), launch.maemoMethod },
        { QStringLiteral("DataDirectory"), launch.dataDirectory },
        { QStringLiteral("MimeTypes"), info.mimeTypes() },
        { QStringLiteral("Intents"), QStringList(info.intents().keys()) },
        { QStringLiteral("Tasks"), QStringList(info.tasks().keys()) },
        { QStringLiteral("Certificate"), info.certificateId() },
        { QStringLiteral("IsPackage"), info.manifest().isValid() },
        { QStringLiteral("KeepsMediaActive"), info.manifest().keepMediaActiveInBackground() },
        { QStringLiteral("BackgroundPolicy"), registry.backgroundPolicy(appId) },
    };
}

QString describeText(const QVariantMap &app)
{
    const auto text = [&app](const char *key) {
        return app.value(QLatin1String(key)).toString();
    };
    const auto list = [&app](const char *key) {
        return app.value(QLatin1String(key)).toStringList().join(QLatin1Char('\n'));
    };
    const auto flag = [&app](const char *key) {
        return yesOrNo(app.value(QLatin1String(key)).toBool());
    };
    Sheet sheet;
    sheet.add(QStringLiteral("Id"), text("Id"));
    sheet.add(QStringLiteral("Name"), text("Name"));
    sheet.add(QStringLiteral("Icon"), text("Icon"));
    sheet.add(QStringLiteral("Desktop file"), text("DesktopFile"));
    sheet.add(QStringLiteral("Exec"), text("Exec"));
    sheet.add(QStringLiteral("Exec over D-Bus"), text("ExecDBus"));
    sheet.add(QStringLiteral("Sandboxed"), flag("Sandboxed"));
    sheet.add(QStringLiteral("One instance"), flag("SingleInstance"));
    sheet.add(QStringLiteral("One window"), flag("SingleCover"));
    sheet.add(QStringLiteral("Old mode"), flag("CompatibilityMode"));
    sheet.add(QStringLiteral("Legacy service"), text("LegacyService"));
    sheet.add(QStringLiteral("Legacy method"), text("LegacyMethod"));
    sheet.add(QStringLiteral("Data directory"), text("DataDirectory"));
    sheet.add(QStringLiteral("Types"), list("MimeTypes"));
    sheet.add(QStringLiteral("Intents"), list("Intents"));
    sheet.add(QStringLiteral("Tasks"), list("Tasks"));
    sheet.add(QStringLiteral("Package"), flag("IsPackage"));
    sheet.add(QStringLiteral("Certificate"), text("Certificate"));
    sheet.add(QStringLiteral("Background policy"),
              policyText(app.value(QStringLiteral("BackgroundPolicy")).toInt()));
    return sheet.text();
}

/// Why an application is among the handlers of @p uri: the kind of what it declares.
QString reasonFor(const QStringList &declared, const QUrl &uri)
{
    if (declared.contains(QStringLiteral("x-scheme-handler/") + uri.scheme())) {
        return QStringLiteral("scheme");
    }
    for (const QString &type : declared) {
        if (!uri.host().isEmpty() && type.startsWith(QStringLiteral("x-url-handler/") + uri.host())) {
            return QStringLiteral("address");
        }
    }
    return QStringLiteral("type");
}

} // namespace

int appsCommand(Session &session)
{
    if (const auto end = session.begin(0, 0)) {
        return *end;
    }
    const Core::ApplicationRegistry registry;
    QVariantList apps;
    const QStringList ids = registry.applicationIds();
    for (const QString &id : ids) {
        apps.append(describe(registry, id));
    }
    session.output.rows(apps,
                        { keyColumn(QStringLiteral("APPLICATION"), QStringLiteral("Id"), true),
                          keyColumn(QStringLiteral("NAME"), QStringLiteral("Name"), true),
                          keyColumn(QStringLiteral("DESKTOP FILE"), QStringLiteral("DesktopFile"), true) },
                        QStringLiteral("Nothing is installed."));
    return Done;
}

int appCommand(Session &session)
{
    if (const auto end = session.begin(1, 1)) {
        return *end;
    }
    const QString id = session.arguments.word(0);
    const Core::ApplicationId appId = Core::ProcessId(id).applicationId();
    const Core::ApplicationRegistry registry;
    if (registry.desktopFile(appId).isEmpty()) {
        Output::error(QStringLiteral("Cannot find application %1").arg(id));
        return NoSuchId;
    }
    const QVariantMap app = describe(registry, appId.text());
    session.output.record(app, describeText(app));
    return Done;
}

int handlersCommand(Session &session)
{
    if (const auto end = session.begin(1, 1)) {
        return *end;
    }
    const QString text = session.arguments.word(0);
    const QUrl uri = text.startsWith(QLatin1Char('/')) ? QUrl::fromLocalFile(text) : QUrl(text);
    if (!uri.isValid()) {
        return session.arguments.wrong(QStringLiteral("Invalid URI: ") + text);
    }
    const Core::ApplicationRegistry registry;
    const QString byDefault = registry.defaultHandlerForUrl(uri);
    QVariantList handlers;
    const QStringList ids = registry.handlersForUri(uri, Core::HandlerFilters());
    for (const QString &id : ids) {
        const Core::ApplicationInfo info(registry.desktopFile(Core::ApplicationId(id)));
        handlers.append(QVariantMap { { QStringLiteral("Id"), id },
                                      { QStringLiteral("Because"), reasonFor(info.mimeTypes(), uri) },
                                      { QStringLiteral("IsDefault"), id == byDefault } });
    }
    session.output.rows(
        handlers,
        { keyColumn(QStringLiteral("HANDLER"), QStringLiteral("Id"), true),
          keyColumn(QStringLiteral("BECAUSE OF"), QStringLiteral("Because")),
          { { QStringLiteral("DEFAULT") },
            [](const QVariantMap &handler) {
                const bool isDefault = handler.value(QStringLiteral("IsDefault")).toBool();
                return Table::Cell { yesOrNo(isDefault), isDefault ? Style::Good : Style::Dim };
            } } },
        QStringLiteral("Nobody handles it."));
    return Done;
}

} // namespace Ctl
