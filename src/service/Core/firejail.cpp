// The order of the options is part of the result: firejail applies them one after the other, so that a
// directory is made before it is bound or shown, and a later --blacklist hides what an earlier
// --whitelist showed. "${HOME}" is expanded by firejail.

#include "Core/firejail.h"

#include "Core/types.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>

namespace Core {

namespace {

const char cacheDirectory[] = "${HOME}/.cache/";
const char configDirectory[] = "${HOME}/.config/";
const char dataHomeDirectory[] = "${HOME}/.local/share/";

QByteArray lastComponent(const QByteArray &path)
{
    return path.mid(path.lastIndexOf('/') + 1);
}

void addPath(QByteArrayList &args, const QByteArray &path, bool makeIt)
{
    if (makeIt) {
        args << "--mkdir=" + path;
    }
    args << "--whitelist=" + path;
}

/// Shows @p source in the place of @p target.
void addBind(QByteArrayList &args, const QByteArray &source, const QByteArray &target, bool makeIt)
{
    if (makeIt) {
        args << "--mkdir=" + source;
        args << "--mkdir=" + target;
        args << "--whitelist=" + source;
    }
    args << "--bind=" + source + ',' + target;
}

Error invalidArgs(const QString &message)
{
    return Error(Error::InvalidArgs, message);
}

/// Path of the file that says what the permission gives; empty if there is none.
QString permissionPath(const QString &name)
{
    for (const char *directory : { "/etc/sailjail/permissions/", "/var/lib/sailjail/permissions/" }) {
        const QString path =
            Types::rootFs() + QLatin1String(directory) + name + QStringLiteral(".permission");
        if (QFile::exists(path)) {
            return path;
        }
    }
    return QString();
}

} // namespace

class FirejailPrivate
{
public:
    std::pair<QByteArrayList, Error> computeArgv(const QByteArrayList &argv,
                                                 const QStringList &permissions) const;
    QString profilePath(const QString &name) const;
    QString baseName() const { return QFileInfo(desktopFile).completeBaseName(); }

    const QString rootPrefix = Types::rootFs();
    QStringList profiles;
    QByteArray organizationName;
    QByteArray applicationName;
    QByteArray certificateId;
    QByteArray binaryPath;
    QString desktopFile;
    QStringList firejailParams;
    QList<qint32> keepFds;
    QByteArray dataDirectory;
    QByteArray maemoService;
    bool noUserBus = false;
    bool legacy = false;
    bool debug = false;
    bool noHomeDirectories = false;

private:
    bool hasApplicationId() const { return !organizationName.isEmpty() && !applicationName.isEmpty(); }
    Error checkBinary(const QByteArray &binary) const;
    void addGeneralOptions(QByteArrayList &args) const;
    void addOwnFiles(QByteArrayList &args) const;
    void addOwnNames(QByteArrayList &args) const;
    void addSharedFiles(QByteArrayList &args) const;
    void addFilesSharedByCertificate(QByteArrayList &args) const;
    Error addProfiles(QByteArrayList &args, const QStringList &permissions) const;
};

QString FirejailPrivate::profilePath(const QString &name) const
{
    const QString path =
        rootPrefix + QStringLiteral("/etc/sailjail/permissions/") + name + QStringLiteral(".profile");
    return QFile::exists(path) ? path : QString();
}

Error FirejailPrivate::checkBinary(const QByteArray &binary) const
{
    const QString path = QString::fromUtf8(binary);
    if (!binary.startsWith('/')) {
        return invalidArgs(path + QStringLiteral(" is not an absolute path"));
    }
    if (qEnvironmentVariableIsSet("PROCWARDEN_COMPONENT_TESTS")) {
        return Error();
    }
    const QByteArray legacyDirectory = QByteArrayLiteral("/usr/bin/");
    if (legacy
        && (!binary.startsWith(legacyDirectory) || binary.indexOf('/', legacyDirectory.size()) != -1)) {
        return invalidArgs(QStringLiteral("Legacy apps must be in: /usr/bin"));
    }
    const QFileInfo info(rootPrefix + path);
    if (!info.permission(QFileDevice::ExeUser)) {
        return invalidArgs(path + QStringLiteral(" is not executable"));
    }
    // Opening a FIFO would wait for its writer.
    QFile file(info.filePath());
    if (!info.isFile() || !file.open(QIODevice::ReadOnly)
        || file.read(4)
            != QByteArrayLiteral("\x7f"
                                 "ELF")) {
        return invalidArgs(path + QStringLiteral(" is not an ELF binary"));
    }
    return Error();
}

void FirejailPrivate::addGeneralOptions(QByteArrayList &args) const
{
    for (const QString &param : firejailParams) {
        args << param.toUtf8();
    }
    if (!organizationName.isEmpty()) {
        args << "--template=OrganizationName:" + organizationName;
    }
    if (!applicationName.isEmpty()) {
        args << "--template=ApplicationName:" + applicationName;
    }
    if (!keepFds.isEmpty()) {
        QByteArrayList numbers;
        for (const qint32 fd : keepFds) {
            numbers << QByteArray::number(fd);
        }
        args << "--keep-fd=" + numbers.join(',');
    }
}

/// Directories and files of the application alone.
void FirejailPrivate::addOwnFiles(QByteArrayList &args) const
{
    const QByteArray base = baseName().toUtf8();
    const QByteArray &sharedData = dataDirectory.isEmpty() ? base : dataDirectory;
    if (!sharedData.isEmpty()) {
        args << "--whitelist=/usr/share/" + sharedData;
    }
    if (!desktopFile.isEmpty() && !desktopFile.startsWith(QLatin1String("/etc/"))) {
        args << "--whitelist=" + desktopFile.toUtf8();
    }
    if (noHomeDirectories) {
        return;
    }
    if (!base.isEmpty()) {
        addPath(args, dataHomeDirectory + base, legacy);
        addPath(args, configDirectory + base, legacy);
        addPath(args, cacheDirectory + base, legacy);
    }
    if (hasApplicationId()) {
        const QByteArray own = organizationName + '/' + applicationName;
        addPath(args, cacheDirectory + own, true);
        addPath(args, dataHomeDirectory + own, true);
        addPath(args, configDirectory + own, true);
    }
}

/// Bus names of the application, and the directory through which it meets system services.
void FirejailPrivate::addOwnNames(QByteArrayList &args) const
{
    if (!hasApplicationId()) {
        return;
    }
    const QByteArray names = organizationName + '.' + applicationName + ".*";
    args << (noUserBus ? QByteArrayLiteral("--dbus-user=none") : "--dbus-user.own=" + names);
    addPath(args, "/srv/shared/" + organizationName + '/' + applicationName, false);
    args << "--dbus-system.talk=" + names;
}

/// What the applications of one organisation have in common.
void FirejailPrivate::addSharedFiles(QByteArrayList &args) const
{
    if (organizationName.isEmpty()) {
        return;
    }
    if (!certificateId.isEmpty()) {
        addFilesSharedByCertificate(args);
        return;
    }
    if (!noHomeDirectories) {
        for (const char *directory : { cacheDirectory, configDirectory, dataHomeDirectory }) {
            addPath(args, directory + organizationName + "/common", true);
        }
    }
    addPath(args, "/usr/share/common/" + organizationName, false);
    addPath(args, "/srv/shared/" + organizationName + "/common", false);
}

/// As above, but in the place where the organisation's files are expected lie those of the certificate,
/// so that nobody gets at them by merely claiming the organisation's name.
void FirejailPrivate::addFilesSharedByCertificate(QByteArrayList &args) const
{
    const QByteArray &org = organizationName;
    const QByteArray orgCert = org + '/' + certificateId;
    if (!noHomeDirectories) {
        for (const char *directory : { cacheDirectory, configDirectory, dataHomeDirectory }) {
            addBind(args, directory + orgCert + "/common", directory + org + "/common", true);
        }
    }
    addBind(args, "/usr/share/common/" + orgCert, "/usr/share/common/" + org, false);
    addBind(args, "/srv/shared/" + orgCert + "/common", "/srv/shared/" + org + "/common", false);
    args << "--whitelist=/usr/share/common/" + orgCert;
    args << "--whitelist=/srv/shared/" + orgCert + "/common";
    args << "--whitelist=/srv/shared/" + org + "/common";
}

Error FirejailPrivate::addProfiles(QByteArrayList &args, const QStringList &permissions) const
{
    for (const QString &profile : profiles) {
        const QString path = profile.startsWith(QLatin1Char('/')) ? profile : profilePath(profile);
        if (path.isEmpty()) {
            return invalidArgs(QStringLiteral("Unknown profile ") + profile);
        }
        args << "--profile=" + path.toUtf8();
    }
    for (const QString &permission : permissions) {
        const QString path = permissionPath(permission);
        if (path.isEmpty()) {
            qWarning() << "Unknown permission" << permission;
            continue;
        }
        args << "--profile=" + path.toUtf8();
    }
    return Error();
}

std::pair<QByteArrayList, Error> FirejailPrivate::computeArgv(const QByteArrayList &argv,
                                                              const QStringList &permissions) const
{
    if (argv.isEmpty()) {
        return { {}, invalidArgs(QStringLiteral("Empty argument list")) };
    }
    const QByteArray &binary = binaryPath.isEmpty() ? argv.first() : binaryPath;
    if (const Error error = checkBinary(binary)) {
        return { {}, error };
    }

    QByteArrayList args { rootPrefix.toUtf8() + "/usr/bin/firejail",
                          debug ? QByteArrayLiteral("--debug") : QByteArrayLiteral("--quiet") };
    const QByteArray command = lastComponent(argv.first());
    args << "--private-bin=" + command;
    if (lastComponent(binary) != command) {
        args << "--private-bin=" + lastComponent(binary);
    }
    addGeneralOptions(args);
    addOwnFiles(args);
    addOwnNames(args);
    addSharedFiles(args);
    for (const char *option :
         { "--whitelist=/srv/shared/empty", "--blacklist=/srv/shared/empty",
           "--whitelist=/usr/share/common/empty", "--blacklist=/usr/share/common/empty" }) {
        args << option;
    }
    if (!maemoService.isEmpty()) {
        args << "--dbus-user.own=" + maemoService;
    }
    if (const Error error = addProfiles(args, permissions)) {
        return { args, error };
    }
    args << QByteArrayLiteral("--");
    args << argv;
    return { args, Error() };
}

Firejail::Firejail()
    : d(std::make_unique<FirejailPrivate>())
{
}

Firejail::~Firejail() = default;

void Firejail::setProfiles(const QStringList &profiles)
{
    d->profiles = profiles;
}

void Firejail::setOrganizationName(const QString &organizationName)
{
    d->organizationName = organizationName.toUtf8();
}

void Firejail::setApplicationName(const QString &applicationName)
{
    d->applicationName = applicationName.toUtf8();
}

void Firejail::setCertificateId(const QString &certificateId)
{
    d->certificateId = certificateId.toUtf8();
}

void Firejail::setBinaryPath(const QByteArray &binaryPath)
{
    d->binaryPath = binaryPath;
}

void Firejail::setDesktopFile(const QString &desktopFile)
{
    d->desktopFile = desktopFile;
}

void Firejail::setFirejailParams(const QStringList &firejailParams)
{
    d->firejailParams = firejailParams;
}

void Firejail::setKeepFds(const QList<int> &keepFds)
{
    d->keepFds = keepFds;
}

void Firejail::setDataDirectory(const QString &dataDirectory)
{
    d->dataDirectory = dataDirectory.toUtf8();
}

void Firejail::setMaemoService(const QString &maemoService)
{
    d->maemoService = maemoService.toUtf8();
}

void Firejail::setNoUserBus(bool noUserBus)
{
    d->noUserBus = noUserBus;
}

void Firejail::setLegacy(bool legacy)
{
    d->legacy = legacy;
}

void Firejail::setDebug(bool debug)
{
    d->debug = debug;
}

void Firejail::setNoHomeDirectories(bool noHomeDirectories)
{
    d->noHomeDirectories = noHomeDirectories;
}

bool Firejail::isPermission(const QString &name)
{
    return !permissionPath(name).isEmpty();
}

QString Firejail::defaultProfile() const
{
    return d->profilePath(d->baseName());
}

std::pair<QByteArrayList, Error> Firejail::computeArgv(const QByteArrayList &argv,
                                                       const QStringList &permissions) const
{
    return d->computeArgv(argv, permissions);
}

} // namespace Core
