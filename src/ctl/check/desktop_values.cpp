#include "check/desktop_subject.h"

#include "check/command_lines.h"
#include "check/desktop_keys.h"
#include "check/spelling.h"

#include "Core/service_file.h"
#include "Core/types.h"

#include <QFileInfo>
#include <QMimeDatabase>
#include <QStandardPaths>

#include <algorithm>

namespace Ctl::Check {

namespace {

QStringList declaredPermissions(const DesktopSubject &subject)
{
    return entriesOf(subject.entry.sailjailValue(QStringLiteral("Permissions")));
}

/// Tells of a value that changes nothing since only one of two would.
void checkSwitch(const DesktopSubject &subject, Rule rule, const Place &place, const QString &value,
                 const QString &changes, const QString &keeps, const QString &otherwise)
{
    if (value.isEmpty() || value.trimmed() == changes || value == keeps) {
        return; // blanks at its end have been told of
    }
    subject.report.add(rule, place,
                       QStringLiteral("%1=%2 does nothing: only \"%3\" counts, and %4")
                           .arg(place.key, value, changes, otherwise));
}

void checkSwitches(const DesktopSubject &subject)
{
    const auto value = [&subject](const char *key) {
        return subject.entry.value(QLatin1String(key));
    };
    const auto place = [&subject](const char *key) {
        return subject.mainPlace(QLatin1String(key));
    };
    const QString yes = QStringLiteral("yes");
    const QString no = QStringLiteral("no");
    checkSwitch(subject, Rule::SingleInstance, place("X-Nemo-Single-Instance"),
                value("X-Nemo-Single-Instance"), no, yes, QStringLiteral("one instance may run"));
    const char *const cover = "X-Solvane-Single-Cover";
    checkSwitch(subject, Rule::SingleCover, place(cover), value(cover), yes, no,
                QStringLiteral("it may have any number of windows"));
    if (subject.info.launchData().singleCover && subject.info.launchData().singleInstance) {
        subject.report.add(Rule::SingleCover, place(cover),
                           QStringLiteral("X-Solvane-Single-Cover makes a difference only together with "
                                          "X-Nemo-Single-Instance=no"));
    }
    const char *const parents = "X-Solvane-Support-Mime-Parents";
    const QString parentsValue = value(parents);
    if (!parentsValue.isEmpty() && parentsValue != QLatin1String("false")
        && parentsValue != QLatin1String("0") && !subject.info.supportMimeParents()) {
        subject.report.add(Rule::MimeParents, place(parents),
                           QStringLiteral("%1=%2 does nothing: only \"true\" and \"1\" count")
                               .arg(QLatin1String(parents), parentsValue));
    } else if (subject.info.supportMimeParents() && subject.info.mimeTypes().isEmpty()) {
        subject.report.add(Rule::MimeParents, place(parents),
                           QStringLiteral("%1 does nothing without a MimeType").arg(QLatin1String(parents)));
    }
}

void checkMode(const DesktopSubject &subject)
{
    if (!subject.info.launchData().compatibilityMode) {
        return;
    }
    const QString mode = subject.entry.value(QStringLiteral("Mode"));
    const bool isTypingError = mode.trimmed().compare(QLatin1String("Normal"), Qt::CaseInsensitive) == 0
        || !closest(mode, { QStringLiteral("Normal") }).isEmpty();
    subject.report.add(
        isTypingError ? Rule::Mode : Rule::LegacyMode, subject.mainPlace(QStringLiteral("Mode")),
        QStringLiteral("Mode=%1 is anything but \"Normal\": an application of the older kind, whose program "
                       "must lie directly in /usr/bin")
            .arg(mode));
}

void checkSandboxing(const DesktopSubject &subject)
{
    const QString key = QStringLiteral("Sandboxing");
    const QString value = subject.entry.sailjailValue(key);
    const Place place = subject.sandboxPlace(key);
    checkSwitch(subject, Rule::Sandboxing, place, value, QStringLiteral("Disabled"),
                QStringLiteral("Enabled"), QStringLiteral("the application is sandboxed"));
    if (subject.info.launchData().sandboxed) {
        return;
    }
    subject.report.add(
        Rule::SandboxingDisabled, place,
        QStringLiteral("the application runs outside the sandbox, and the user is not asked for "
                       "permissions")
            + (subject.info.tasks().isEmpty()
                   ? QString()
                   : QStringLiteral("; its tasks run in the sandbox all the same")));
    if (!declaredPermissions(subject).isEmpty()) {
        subject.report.add(Rule::PermissionsUnused, subject.sandboxPlace(QStringLiteral("Permissions")),
                           QStringLiteral("Permissions does nothing with Sandboxing=Disabled"));
    }
}

/// Of a key in two of them, the first group counts.
void checkSandboxGroups(const DesktopSubject &subject)
{
    for (const QString &key : DesktopKeys::keysOf(DesktopKeys::GroupKind::Sandbox)) {
        QString first;
        for (const QString &group : DesktopKeys::sandboxGroups()) {
            if (subject.entry.value(group, key).isEmpty()) {
                continue;
            }
            if (!first.isEmpty()) {
                subject.report.add(
                    Rule::SandboxGroups, subject.place(group, key),
                    QStringLiteral("%1 does not count here, since [%2] has it, too").arg(key, first));
            }
            first = first.isEmpty() ? group : first;
        }
    }
}

void checkDataDirectory(const DesktopSubject &subject)
{
    const QString key = QStringLiteral("DataDirectory");
    const QString value = subject.info.launchData().dataDirectory;
    if (value.startsWith(QLatin1Char('/')) || value.split(QLatin1Char('/')).contains(QStringLiteral(".."))) {
        subject.report.add(Rule::DataDirectory, subject.sandboxPlace(key),
                           QStringLiteral("DataDirectory is the name of a directory below /usr/share: this "
                                          "shows /usr/share/%1")
                               .arg(value));
    }
}

bool isDefinedIntent(const QString &name)
{
    if (name == QLatin1String("Start") || name.startsWith(QLatin1String("X-"))) {
        return true;
    }
    const QString directory =
        QStandardPaths::locate(QStandardPaths::GenericDataLocation, QStringLiteral("procwarden/intents"),
                               QStandardPaths::LocateDirectory);
    // Where the service is not installed nobody knows.
    return directory.isEmpty()
        || QFileInfo::exists(directory + QLatin1Char('/') + name + QStringLiteral(".intent"));
}

void checkIntents(const DesktopSubject &subject)
{
    const QString key = QStringLiteral("Intents");
    const QString value = subject.entry.sailjailValue(key);
    const Place place = subject.sandboxPlace(key);
    subject.checkList(value, place);
    QStringList seen;
    const QStringList parts = entriesOf(value);
    for (const QString &part : parts) {
        const QString name = Core::ApplicationInfoPrivate::parseIntents(part).firstKey();
        if (name.isEmpty()) {
            subject.report.add(Rule::Intents, place,
                               QStringLiteral("\"%1\" has no name of an intent").arg(part));
            continue;
        }
        if (part.count(QLatin1Char(':')) > 1
            || part.section(QLatin1Char(':'), 0, 0).count(QLatin1Char('/')) > 1) {
            subject.report.add(
                Rule::Intents, place,
                QStringLiteral("\"%1\" is more than NAME/QUALIFIER:ITEM|ITEM: the rest is dropped")
                    .arg(part));
        }
        if (seen.contains(name)) {
            subject.report.add(Rule::Intents, place,
                               QStringLiteral("%1 stands there twice: the last one counts").arg(name));
        }
        seen.append(name);
        if (!isDefinedIntent(name)) {
            subject.report.add(
                Rule::UnknownIntent, place,
                QStringLiteral("the intent %1 is not defined on this system, and names without a "
                               "definition begin with \"X-\"")
                    .arg(name));
        }
    }
}

/// What makes an entry of MimeType match nothing; empty if it can match.
QString mimeTypeFault(const QString &type)
{
    const QLatin1Char star('*');
    for (const QLatin1String prefix :
         { QLatin1String("x-scheme-handler/"), QLatin1String("x-url-handler/") }) {
        if (!type.startsWith(prefix)) {
            continue;
        }
        const QString rest = type.mid(prefix.size());
        const QString host = rest.section(QLatin1Char('/'), 0, 0);
        const int firstStar = rest.indexOf(star);
        if (rest.isEmpty()) {
            return QStringLiteral("there is nothing behind the slash");
        }
        if (host != host.toLower()) {
            return QStringLiteral("schemes and hosts are compared in lower case");
        }
        if (prefix == QLatin1String("x-scheme-handler/") && firstStar >= 0) {
            return QStringLiteral("a scheme has no wildcard");
        }
        if (firstStar >= 0 && (firstStar != rest.size() - 1 || !rest.endsWith(QLatin1String("/*")))) {
            return QStringLiteral("a star can only stand at the end, behind a slash");
        }
        return QString();
    }
    if (type.indexOf(star) >= 0 && type.indexOf(star) != type.size() - 1) {
        return QStringLiteral("a star can only stand at the end");
    }
    if (!type.contains(QLatin1Char('/')) && !type.endsWith(star)) {
        return QStringLiteral("it is neither a type nor a handler of addresses");
    }
    return QString();
}

void checkWildcard(const DesktopSubject &subject, const QMimeDatabase &database, const QString &prefix,
                   const Place &place)
{
    const QList<QMimeType> types = database.allMimeTypes();
    const bool isThere = std::any_of(types.cbegin(), types.cend(), [&prefix](const QMimeType &type) {
        return type.name().startsWith(prefix);
    });
    if (!isThere) {
        subject.report.add(Rule::UnknownMimeType, place,
                           QStringLiteral("the MIME database has no type that begins with %1").arg(prefix));
    }
}

void checkMimeTypes(const DesktopSubject &subject)
{
    const QString key = QStringLiteral("MimeType");
    const Place place = subject.mainPlace(key);
    subject.checkList(subject.entry.value(key), place);
    const QMimeDatabase database;
    for (const QString &type : subject.info.mimeTypes()) {
        if (type.contains(QLatin1Char(',')) || type.trimmed() != type) {
            continue; // checkList() has told
        }
        const QString fault = mimeTypeFault(type);
        if (!fault.isEmpty()) {
            subject.report.add(Rule::MimeType, place,
                               QStringLiteral("%1 matches nothing: %2").arg(type, fault));
            continue;
        }
        if (type.startsWith(QLatin1String("x-scheme-handler/"))
            || type.startsWith(QLatin1String("x-url-handler/"))) {
            continue;
        }
        if (type.endsWith(QLatin1Char('*'))) {
            checkWildcard(subject, database, type.chopped(1), place);
            continue;
        }
        const QMimeType known = database.mimeTypeForName(type);
        if (!known.isValid()) {
            subject.report.add(
                Rule::UnknownMimeType, place,
                QStringLiteral("the MIME database has no type %1: no file is of it").arg(type));
        } else if (known.name() != type) {
            subject.report.add(
                Rule::MimeType, place,
                QStringLiteral("%1 matches nothing: the type's name is %2").arg(type, known.name()));
        }
    }
}

bool hasFieldCode(const QString &line)
{
    const QStringList words = line.split(QLatin1Char(' '));
    return std::any_of(words.cbegin(), words.cend(), [](const QString &word) {
        return word.size() == 2 && word.at(0) == QLatin1Char('%')
            && QStringLiteral("uUfF").contains(word.at(1));
    });
}

void checkUriDelivery(const DesktopSubject &subject)
{
    const Core::ApplicationLaunchData &launchData = subject.info.launchData();
    const bool hasPlace = hasFieldCode(launchData.exec)
        || subject.info.intents().contains(QStringLiteral("OpenURI"))
        || (!launchData.maemoService.isEmpty() && !launchData.maemoMethod.isEmpty());
    if (!subject.info.mimeTypes().isEmpty() && !hasPlace) {
        subject.report.add(Rule::UriUnused, subject.mainPlace(QStringLiteral("MimeType")),
                           QStringLiteral("what it is to open never reaches the program: there is neither a "
                                          "field code in Exec nor the intent OpenURI"));
    }
}

void checkLegacyService(const DesktopSubject &subject)
{
    const Core::ApplicationLaunchData &data = subject.info.launchData();
    const QString serviceKey = QStringLiteral("X-Maemo-Service");
    const QString methodKey = QStringLiteral("X-Maemo-Method");
    if (data.maemoService.isEmpty()) {
        for (const char *key : { "X-Maemo-Object-Path", "X-Maemo-Method", "X-Maemo-Fixed-Args" }) {
            if (!subject.entry.value(QLatin1String(key)).isEmpty()) {
                subject.report.add(Rule::LegacyService, subject.mainPlace(QLatin1String(key)),
                                   QLatin1String(key)
                                       + QStringLiteral(" does nothing without X-Maemo-Service"));
            }
        }
        return;
    }
    const int dot = data.maemoMethod.lastIndexOf(QLatin1Char('.'));
    if (data.maemoMethod.isEmpty()) {
        subject.report.add(Rule::LegacyService, subject.mainPlace(serviceKey),
                           QStringLiteral("without X-Maemo-Method, the call after the start fails"));
    } else if (dot < 1 || dot == data.maemoMethod.size() - 1) {
        subject.report.add(
            Rule::LegacyService, subject.mainPlace(methodKey),
            QStringLiteral("X-Maemo-Method is INTERFACE.METHOD: %1 cannot be called").arg(data.maemoMethod));
    }
    if (!data.maemoObjectPath.startsWith(QLatin1Char('/'))) {
        subject.report.add(Rule::LegacyService, subject.mainPlace(QStringLiteral("X-Maemo-Object-Path")),
                           QStringLiteral("%1 is no path of an object").arg(data.maemoObjectPath));
    }
    if (!data.execDBus.isEmpty()) {
        return;
    }
    const Place place = subject.mainPlace(serviceKey);
    subject.report.add(
        Rule::LegacySandbox, place,
        QStringLiteral("what is run is the command line of the D-Bus service file, not Exec, and "
                       "without the sandbox"));
    const QString path =
        QStandardPaths::locate(QStandardPaths::GenericDataLocation,
                               QStringLiteral("dbus-1/services/%1.service").arg(data.maemoService));
    if (path.isEmpty()) {
        subject.report.add(Rule::LegacyServiceFile, place,
                           QStringLiteral("there is no dbus-1/services/%1.service").arg(data.maemoService));
    } else if (Core::readExecLine(path).trimmed().isEmpty()) {
        subject.report.add(Rule::LegacyServiceFile, place,
                           QStringLiteral("there is no Exec line in ") + path);
    }
}

} // namespace

void DesktopSubject::checkPermissions(const QStringList &permissions, const QString &implied,
                                      const Place &where) const
{
    const QStringList directories { Core::Types::rootFs() + QStringLiteral("/etc/sailjail/permissions"),
                                    Core::Types::rootFs() + QStringLiteral("/var/lib/sailjail/permissions") };
    const bool areInstalled = std::any_of(directories.cbegin(), directories.cend(),
                                          [](const QString &path) { return QFileInfo(path).isDir(); });
    for (const QString &permission : permissions) {
        if (permission == implied) {
            report.add(Rule::ImpliedPermission, where,
                       QStringLiteral("the permission %1 is always added").arg(permission));
        }
        const bool isThere =
            std::any_of(directories.cbegin(), directories.cend(), [&permission](const QString &path) {
                return QFileInfo::exists(path + QLatin1Char('/') + permission
                                         + QStringLiteral(".permission"));
            });
        if (areInstalled && !isThere) {
            report.add(Rule::UnknownPermission, where,
                       QStringLiteral("the permission %1 is not installed, and is left out").arg(permission));
        }
    }
}

void checkValues(const DesktopSubject &subject)
{
    checkSwitches(subject);
    checkMode(subject);
    checkSandboxGroups(subject);
    checkSandboxing(subject);
    const QString key = QStringLiteral("Permissions");
    const Place place = subject.sandboxPlace(key);
    subject.checkList(subject.entry.sailjailValue(key), place);
    subject.checkPermissions(declaredPermissions(subject), QStringLiteral("Base"), place);
    checkDataDirectory(subject);
    checkIntents(subject);
    checkMimeTypes(subject);
    checkUriDelivery(subject);
    checkLegacyService(subject);
}

void checkCommands(const DesktopSubject &subject)
{
    const Core::ApplicationLaunchData &data = subject.info.launchData();
    const bool isOpened = subject.info.intents().contains(QStringLiteral("OpenURI"));
    const Place exec = subject.mainPlace(QStringLiteral("Exec"));
    const bool isService = !data.maemoService.isEmpty() && data.execDBus.isEmpty();
    if (!isService && data.exec.trimmed().isEmpty()) {
        subject.report.add(Rule::ExecMissing, exec,
                           QStringLiteral("there is no Exec: the application cannot be started"));
    } else if (!isService) {
        checkWords({ data.exec, exec, false, !isOpened }, subject.report);
        checkApplicationProgram(subject.info, declaredPermissions(subject), false, exec, subject.report);
    }
    if (!data.execDBus.isEmpty()) {
        const Place place = subject.sandboxPlace(QStringLiteral("ExecDBus"));
        checkWords({ data.execDBus, place, false, !isOpened }, subject.report);
        checkApplicationProgram(subject.info, declaredPermissions(subject), true, place, subject.report);
    }
}

} // namespace Ctl::Check
