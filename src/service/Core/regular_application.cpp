#include "Core/regular_application.h"

#include "Core/application_registry.h"
#include "Core/command_line.h"
#include "Core/error.h"

#include <QDebug>

#include <sys/stat.h>

namespace Core {

namespace {

/// Programs that make a sandbox of their own for what they start.
bool startsOwnSandbox(const QByteArray &program)
{
    return program == "invoker" || program == "/usr/bin/invoker" || program == "sailjail"
        || program == "/usr/bin/sailjail";
}

/// Opening a pipe that nobody reads would hold up the whole service.
bool isPipe(const QString &name)
{
    struct stat info = {};
    return ::stat(QFile::encodeName(name).constData(), &info) == 0 && S_ISFIFO(info.st_mode);
}

/// Leaves @p file closed where @p name is empty, or, after a warning, cannot be appended to.
void openOutputFile(const QString &name, QFile *file)
{
    if (name.isEmpty()) {
        return;
    }
    file->setFileName(name);
    if (isPipe(name) || !file->open(QIODevice::Append)) {
        qWarning() << "Could not open output file" << name;
    }
}

} // namespace

RegularApplication::RegularApplication(const LaunchRequest &request, CGroupController *cgroupController,
                                       QObject *parent)
    : LaunchingApplication(request, cgroupController, parent)
{
}

RegularApplication::~RegularApplication() = default;

bool RegularApplication::prepare()
{
    QByteArrayList vector = commandLine();
    const QByteArray program = programPath(vector.first());
    vector.first() = program;
    for (int i = 0; i < debugParams.applicationWrapper.size(); ++i) {
        vector.insert(i, debugParams.applicationWrapper.at(i).toUtf8());
    }
    argv = expandFieldCodes(vector, uris);

    // Before the child is made, so that it inherits them.
    openOutputFile(debugParams.stdoutFile, &stdoutFile);
    openOutputFile(debugParams.stderrFile, &stderrFile);

    const bool sandboxed = !debugParams.noSandbox && launchData.sandboxed;
    if (!sandboxed || startsOwnSandbox(vector.first())) {
        spawner.setArguments(argv);
        return true;
    }
    promptPermissions([this](const QStringList &granted) { onPermissionsGranted(granted); });
    fillFirejail(program);
    argv.first() = programPath(argv.first());
    return true;
}

QByteArrayList RegularApplication::commandLine() const
{
    if (!debugParams.commandLineParams.isEmpty()) {
        QByteArrayList vector;
        for (const QString &element : debugParams.commandLineParams) {
            vector << element.toUtf8();
        }
        return vector;
    }
    const bool overDBus = !launchData.execDBus.isEmpty() && hints.value(QStringLiteral("startDBus")).toBool();
    return splitCommandLine(overDBus ? launchData.execDBus : launchData.exec);
}

void RegularApplication::fillFirejail(const QByteArray &program)
{
    firejail.setOrganizationName(appId.organisation());
    firejail.setApplicationName(appId.name());
    firejail.setCertificateId(ApplicationRegistry::instance()->certificateId(appId));
    firejail.setBinaryPath(program);
    firejail.setDesktopFile(desktopFile);
    firejail.setDataDirectory(launchData.dataDirectory);
    firejail.setMaemoService(launchData.maemoService);
    firejail.setLegacy(launchData.compatibilityMode);
    firejail.setFirejailParams(debugParams.firejailParams);
    const QString profile = firejail.defaultProfile();
    if (!profile.isEmpty()) {
        firejail.setProfiles({ profile });
    }
}

void RegularApplication::onPermissionsGranted(const QStringList &granted)
{
    // Every application has this one; nobody is asked for it.
    const QStringList permissions = granted + QStringList { QStringLiteral("Base") };
    const auto [vector, error] = firejail.computeArgv(argv, permissions);
    if (error) {
        qWarning() << "Couldn't compose argv list:" << error;
        fail(error);
        return;
    }
    spawner.setArguments(vector);
    stepDone();
}

} // namespace Core
