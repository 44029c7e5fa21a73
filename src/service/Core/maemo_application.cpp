#include "Core/maemo_application.h"

#include "Core/command_line.h"
#include "Core/service_file.h"

#include <QDebug>
#include <QStandardPaths>

namespace Core {

MaemoApplication::MaemoApplication(const LaunchRequest &request, CGroupController *cgroupController,
                                   QObject *parent)
    : LaunchingApplication(request, cgroupController, parent)
{
}

MaemoApplication::~MaemoApplication() = default;

bool MaemoApplication::prepare()
{
    const QString path = QStandardPaths::locate(QStandardPaths::GenericDataLocation,
                                                QLatin1String("dbus-1/services/") + launchData.maemoService
                                                    + QLatin1String(".service"));
    if (path.isEmpty()) {
        qWarning() << "Failed to locate D-Bus service file for" << launchData.maemoService;
        return false;
    }
    const QString line = readExecLine(path);
    if (line.isEmpty()) {
        qWarning() << "Empty Exec line in" << path;
        return false;
    }
    if (launchData.sandboxed) {
        // What is granted does not matter: the line is run as it stands.
        promptPermissions([this](const QStringList &) { stepDone(); });
    }
    spawner.setArguments(splitCommandLine(line));
    return true;
}

} // namespace Core
