#include "Core/regular_application.h"

#include "Core/application_command.h"
#include "Core/error.h"
#include "Core/launch_account.h"

#include <QDebug>

#include <sys/stat.h>

namespace Core {

namespace {

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
    const ApplicationCommand command = ApplicationCommand::make(launchData, debugParams, hints, uris);
    argv = command.argv;

    // Before the child is made, so that it inherits them.
    openOutputFile(debugParams.stdoutFile, &stdoutFile);
    openOutputFile(debugParams.stderrFile, &stderrFile);

    if (!command.sandboxed) {
        spawner.setArguments(argv);
        return true;
    }
    promptPermissions([this](const QStringList &granted) { onPermissionsGranted(granted); });
    fillFirejail(firejail, appId, launchData, debugParams, desktopFile, command.program);
    return true;
}

void RegularApplication::onPermissionsGranted(const QStringList &granted)
{
    // Every application has this one; nobody is asked for it.
    const QStringList permissions = granted + QStringList { QStringLiteral("Base") };
    const auto [vector, error] = firejail.computeArgv(argv, permissions);
    if (error) {
        qWarning() << "Couldn't compose argv list:" << error;
        failAt(LaunchStep::Prepared, error);
        return;
    }
    spawner.setArguments(vector);
    stepDone();
}

} // namespace Core
