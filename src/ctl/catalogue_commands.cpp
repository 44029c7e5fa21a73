#include "session.h"
#include "words.h"

#include "Core/application_id.h"
#include "Core/application_registry.h"
#include "Core/process_id.h"
#include "Core/regular_file.h"
#include "Core/types.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QVersionNumber>

#include <mdesktopentry.h>

// What is installed. The catalogue is read here, from the same files that the service reads: the environment
// has to name the same directories.

namespace Ctl {

namespace {

/// What a policy means, in the words of who wonders why an application was frozen, or was not.
QString policyText(int policy)
{
    switch (policy) {
    case 0:
        return QStringLiteral("0: never frozen");
    case 1:
        return QStringLiteral("1: frozen when hidden, unless it uses a multimedia resource");
    default:
        return QStringLiteral("2: frozen when hidden");
    }
}

/// Why @p info has its background policy. @p versionOverride: see ApplicationRegistry::versionOverride().
QString policyReason(const QString &versionOverride, const Core::ApplicationInfo &info)
{
    const Core::Manifest &manifest = info.manifest();
    const QVersionNumber strictest(5, 2, 0); // from which on the manifest has a word in it
    const bool isStrict = versionOverride.isEmpty()
        ? manifest.isValid()
        : QVersionNumber::compare(QVersionNumber::fromString(versionOverride), strictest) >= 0;
    QString reason = !versionOverride.isEmpty()
        ? QStringLiteral("os-version-support.cfg says that it is made for %1").arg(versionOverride)
        : manifest.isValid() ? QStringLiteral("it has a manifest, so it is made for 5.2.0")
                             : QStringLiteral("it has no manifest, so it is made for a system before 4.2.0");
    if (isStrict && manifest.isValid() && manifest.keepMediaActiveInBackground()) {
        reason += QStringLiteral("; its manifest keeps media active in the background");
    }
    return reason;
}

QStringList declaredPermissions(const MDesktopEntry &entry)
{
    for (const char *group : { "X-Application", "X-Sailjail", "Sailjail" }) {
        const QString text = entry.value(QLatin1String(group), QStringLiteral("Permissions"));
        if (!text.isEmpty()) {
            return text.split(QLatin1Char(';'), Qt::SkipEmptyParts);
        }
    }
    return {};
}

/// All that the package file says.
QVariantMap packageOf(const QString &appId)
{
    const QString path =
        QStringLiteral("%1/opt/app/%2/current/solvane.pkg").arg(Core::Types::rootFs(), appId);
    QVariantMap entries;
    if (!Core::isRegularFile(path)) {
        return entries;
    }
    const QSettings package(path, QSettings::IniFormat);
    const QStringList keys = package.allKeys();
    for (const QString &key : keys) {
        entries.insert(key, package.value(key).toStringList().join(QLatin1Char(',')));
    }
    return entries;
}

QVariantList intentsOf(const Core::ApplicationInfo &info)
{
    QVariantList intents;
    const auto &declared = info.intents();
    for (auto intent = declared.cbegin(); intent != declared.cend(); ++intent) {
        intents.append(QVariantMap { { QStringLiteral("Name"), intent.key() },
                                     { QStringLiteral("Qualifier"), intent->qualifier },
                                     { QStringLiteral("Items"), intent->items } });
    }
    return intents;
}

QVariantList tasksOf(const Core::ApplicationInfo &info)
{
    QVariantList tasks;
    for (const Core::ApplicationInfo::TaskInfo &task : info.tasks()) {
        tasks.append(QVariantMap { { QStringLiteral("Id"), task.id.text() },
                                   { QStringLiteral("Type"), task.type },
                                   { QStringLiteral("Exec"), task.exec },
                                   { QStringLiteral("Permissions"), task.permissions },
                                   { QStringLiteral("Conditions"), task.conditions } });
    }
    return tasks;
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
        { QStringLiteral("Permissions"), declaredPermissions(MDesktopEntry(info.desktopFile())) },
        { QStringLiteral("DataDirectory"), launch.dataDirectory },
        { QStringLiteral("SingleInstance"), launch.singleInstance },
        { QStringLiteral("SingleCover"), launch.singleCover },
        { QStringLiteral("CompatibilityMode"), launch.compatibilityMode },
        { QStringLiteral("LegacyService"), launch.maemoService },
        { QStringLiteral("LegacyPath"), launch.maemoObjectPath },
        { QStringLiteral("LegacyMethod"), launch.maemoMethod },
        { QStringLiteral("LegacyArguments"), launch.maemoFixedArgs },
        { QStringLiteral("MimeTypes"), info.mimeTypes() },
        { QStringLiteral("SupportsChildTypes"), info.supportMimeParents() },
        { QStringLiteral("Intents"), intentsOf(info) },
        { QStringLiteral("Tasks"), tasksOf(info) },
        { QStringLiteral("IsPackage"), info.manifest().isValid() },
        { QStringLiteral("Manifest"), info.manifest().object().toVariantMap() },
        { QStringLiteral("Package"), packageOf(id) },
        { QStringLiteral("Certificate"), info.certificateId() },
        { QStringLiteral("BackgroundPolicy"), registry.backgroundPolicy(appId) },
        { QStringLiteral("BackgroundReason"), policyReason(registry.versionOverride(appId), info) },
    };
}

QString intentsText(const QVariantList &intents)
{
    QStringList lines;
    for (const QVariant &entry : intents) {
        const QVariantMap intent = entry.toMap();
        QString line = intent.value(QStringLiteral("Name")).toString();
        const QString qualifier = intent.value(QStringLiteral("Qualifier")).toString();
        const QStringList items = intent.value(QStringLiteral("Items")).toStringList();
        line += qualifier.isEmpty() ? QString() : QStringLiteral(", %1").arg(qualifier);
        line += items.isEmpty() ? QString() : QStringLiteral(": ") + items.join(QStringLiteral(", "));
        lines.append(printable(line));
    }
    return lines.join(QLatin1Char('\n'));
}

QString tasksText(const QVariantList &tasks)
{
    QStringList lines;
    for (const QVariant &entry : tasks) {
        const QVariantMap task = entry.toMap();
        const auto text = [&task](const char *key) {
            return task.value(QLatin1String(key)).toString();
        };
        lines.append(printable(QStringLiteral("%1, %2: %3").arg(text("Id"), text("Type"), text("Exec"))));
        for (const char *key : { "Conditions", "Permissions" }) {
            const QStringList values = task.value(QLatin1String(key)).toStringList();
            if (!values.isEmpty()) {
                lines.append(printable(
                    QStringLiteral("  %1: %2")
                        .arg(QString::fromLatin1(key).toLower(), values.join(QStringLiteral(", ")))));
            }
        }
    }
    return lines.join(QLatin1Char('\n'));
}

/// "key: value" lines. Values that are no texts stand as JSON.
QString entriesText(const QVariantMap &entries)
{
    QStringList lines;
    for (auto entry = entries.cbegin(); entry != entries.cend(); ++entry) {
        QString value = entry->toString();
        if (entry->userType() == QMetaType::QVariantMap || entry->userType() == QMetaType::QVariantList) {
            value = QString::fromUtf8(QJsonDocument::fromVariant(*entry).toJson(QJsonDocument::Compact));
        }
        lines.append(printable(QStringLiteral("%1: %2").arg(entry.key(), value)));
    }
    return lines.join(QLatin1Char('\n'));
}

QString describeText(const QVariantMap &app)
{
    Sheet sheet;
    const auto addText = [&](const char *label, const char *key) {
        sheet.add(QLatin1String(label), printable(app.value(QLatin1String(key)).toString()));
    };
    const auto addFlag = [&](const char *label, const char *key) {
        sheet.add(QLatin1String(label), yesOrNo(app.value(QLatin1String(key)).toBool()));
    };
    const auto addList = [&](const char *label, const char *key) {
        QStringList lines;
        const QStringList values = app.value(QLatin1String(key)).toStringList();
        for (const QString &value : values) {
            lines.append(printable(value));
        }
        sheet.add(QLatin1String(label), lines.join(QLatin1Char('\n')));
    };
    addText("Id", "Id");
    addText("Name", "Name");
    addText("Icon", "Icon");
    addText("Desktop file", "DesktopFile");
    addText("Exec", "Exec");
    addText("Exec over D-Bus", "ExecDBus");
    addFlag("Sandboxed", "Sandboxed");
    addList("Permissions", "Permissions");
    addText("Data directory", "DataDirectory");
    addFlag("One instance", "SingleInstance");
    addFlag("One window", "SingleCover");
    addFlag("Old mode", "CompatibilityMode");
    addText("Legacy service", "LegacyService");
    addText("Legacy path", "LegacyPath");
    addText("Legacy method", "LegacyMethod");
    addText("Legacy arguments", "LegacyArguments");
    addList("Types", "MimeTypes");
    addFlag("Child types", "SupportsChildTypes");
    sheet.add(QStringLiteral("Intents"), intentsText(app.value(QStringLiteral("Intents")).toList()));
    sheet.add(QStringLiteral("Tasks"), tasksText(app.value(QStringLiteral("Tasks")).toList()));
    addFlag("Has a manifest", "IsPackage");
    sheet.add(QStringLiteral("Manifest"), entriesText(app.value(QStringLiteral("Manifest")).toMap()));
    sheet.add(QStringLiteral("Package"), entriesText(app.value(QStringLiteral("Package")).toMap()));
    addText("Certificate", "Certificate");
    sheet.add(QStringLiteral("Background policy"),
              policyText(app.value(QStringLiteral("BackgroundPolicy")).toInt()) + QLatin1Char('\n')
                  + printable(app.value(QStringLiteral("BackgroundReason")).toString()));
    return sheet.text();
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

} // namespace Ctl
