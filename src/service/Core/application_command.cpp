#include "Core/application_command.h"

#include "Core/application_launch_data.h"
#include "Core/application_registry.h"
#include "Core/command_line.h"
#include "Core/debug_params.h"
#include "Core/firejail.h"

namespace Core {

namespace {

/// Programs that make a sandbox of their own for what they start.
bool startsOwnSandbox(const QByteArray &program)
{
    return program == "invoker" || program == "/usr/bin/invoker" || program == "sailjail"
        || program == "/usr/bin/sailjail";
}

QByteArrayList commandLine(const ApplicationLaunchData &launchData, const DebugParams &debugParams,
                           const QVariantMap &hints)
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

} // namespace

ApplicationCommand ApplicationCommand::make(const ApplicationLaunchData &launchData,
                                            const DebugParams &debugParams, const QVariantMap &hints,
                                            const QList<QUrl> &uris)
{
    ApplicationCommand command;
    QByteArrayList vector = commandLine(launchData, debugParams, hints);
    command.program = programPath(vector.first());
    vector.first() = command.program;
    for (int i = 0; i < debugParams.applicationWrapper.size(); ++i) {
        vector.insert(i, debugParams.applicationWrapper.at(i).toUtf8());
    }
    command.argv = expandFieldCodes(vector, uris);
    command.sandboxed = !debugParams.noSandbox && launchData.sandboxed && !startsOwnSandbox(vector.first());
    if (command.sandboxed) {
        command.argv.first() = programPath(command.argv.first());
    }
    return command;
}

void fillFirejail(Firejail &firejail, const ApplicationId &appId, const ApplicationLaunchData &launchData,
                  const DebugParams &debugParams, const QString &desktopFile, const QByteArray &program)
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

} // namespace Core
