#include "Core/cgroup_controller.h"

#include "Core/application_instance_id.h"
#include "Core/application_task_id.h"
#include "Core/cgroup_helper.h"
#include "Core/error.h"
#include "Core/kernel_file.h"
#include "Core/types.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QStringBuilder>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string_view>

#include <unistd.h>

// The directory of an application in a hierarchy, below the subtree that the helper handed over:
//
//     APPID/app           an instance without a number of its own
//     APPID/instance_N    a numbered instance
//     APPID/task_NAME     a task
//
// A process that is written to "cgroup.procs" there takes its later children with it.

namespace Core {

namespace {

const QLatin1String memoryController("memory");
const QLatin1String processesFile("cgroup.procs");

QString cgroupRoot()
{
    return QStringLiteral("%1/sys/fs/cgroup").arg(Types::rootFs());
}

/// Empty for an id that is not valid: whatever stands in it must not become a path.
QString directoryOf(const ApplicationInstanceId &id)
{
    if (!id.isValid()) {
        return QString();
    }
    if (!id.hasInstance()) {
        return id.toString() + QLatin1String("/app");
    }
    return id.toString() + QLatin1Char('/') + id.instance();
}

QString directoryOf(const ApplicationTaskId &id)
{
    const QString name = id.taskName();
    if (!id.isValid() || name.contains(QLatin1Char('/'))) {
        return QString();
    }
    return id.toString() + QLatin1String("/task_") + name;
}

/// Control files take a value in one write; nothing may be left in a buffer whose flush nobody looks at.
bool openControlFile(QFile &file)
{
    return file.open(QIODevice::WriteOnly | QIODevice::Unbuffered);
}

QByteArray trimmed(std::string_view text)
{
    return QByteArray(text.data(), static_cast<int>(text.size())).trimmed();
}

/// The path in a line of proc(5)'s file of groups, `ID:CONTROLLERS:PATH`, if it is that of @p controller
/// alone.
QByteArray pathInLine(std::string_view line, std::string_view controller)
{
    const size_t first = line.find(':');
    const size_t second = first == std::string_view::npos ? first : line.find(':', first + 1);
    if (second == std::string_view::npos || line.substr(first + 1, second - first - 1) != controller) {
        return {};
    }
    return trimmed(line.substr(second + 1)); // a group's own name may hold colons
}

[[noreturn]] void endProcess(const char *reason)
{
    qCritical() << reason;
    ::exit(1);
}

} // namespace

class CGroupControllerPrivate : public CGroupHelper
{
public:
    explicit CGroupControllerPrivate(CGroupController *controller);

    void initialize();
    bool parseCGroups();
    void onHierarchiesCreated(const QString &path, const Error &error);
    bool checkDelegatedCGroups();

    QString controllerPath(const QString &controller) const;
    bool placeProcess(const QString &directory, pid_t pid) const;
    bool writeSettings(const QString &directory, const CGroupController::Settings &settings) const;
    bool writeSetting(const QString &directory, const QByteArray &key, const QByteArray &value) const;
    bool applyState(const QString &directory, const QString &state) const;

    CGroupController *const q;
    QDir root;
    QString subtree;
    QStringList controllers;
    QMap<QString, CGroupController::Settings> states;
    bool ready = false; ///< subtree and controllers are final
};

CGroupControllerPrivate::CGroupControllerPrivate(CGroupController *controller)
    : q(controller)
    , root(cgroupRoot())
{
}

void CGroupControllerPrivate::initialize()
{
    if (!parseCGroups()) {
        endProcess("Cannot continue without cgroup feature");
    }
    createUserHierarchies(
        ::getuid(), [this](const QString &path, const Error &error) { onHierarchiesCreated(path, error); });
}

bool CGroupControllerPrivate::parseCGroups()
{
    QFile file(QStringLiteral("%1/proc/self/cgroup").arg(Types::rootFs()));
    if (!file.open(QIODevice::ReadOnly)) {
        qWarning() << "Cannot open cgroup file" << file.fileName();
        return false;
    }
    // The kernel gives such files no size, so that atEnd() tells nothing before the first read.
    for (QByteArray read = file.readLine(); !read.isEmpty(); read = file.readLine()) {
        const QString line = QString::fromUtf8(read).trimmed();
        const QStringList fields = line.split(QLatin1Char(':'));
        if (fields.size() != 3) {
            qWarning() << "Invalid cgroup line" << line;
            return false;
        }
        const QString &names = fields.at(1);
        if (names.isEmpty() || names.startsWith(QLatin1String("name="))
            || names == QLatin1String("schedtune")) {
            continue;
        }
        controllers += names.split(QLatin1Char(','), Qt::SkipEmptyParts);
    }
    return true;
}

void CGroupControllerPrivate::onHierarchiesCreated(const QString &path, const Error &error)
{
    if (error) {
        qWarning() << "CGroup setup failed:" << error.message();
        endProcess("CGgroup delegation to user failed");
    }
    subtree = path;
    if (!checkDelegatedCGroups()) {
        endProcess("A required cgroup is not available");
    }
    ready = true;
    emit q->initializationDone();
}

bool CGroupControllerPrivate::checkDelegatedCGroups()
{
    QStringList delegated;
    for (const QString &controller : qAsConst(controllers)) {
        if (!QFileInfo::exists(controllerPath(controller))) {
            continue;
        }
        // Where controllers share a hierarchy, "cpu" is a link to "cpu,cpuacct".
        const QFileInfo entry(root.filePath(controller));
        delegated << (entry.isSymLink() ? QFileInfo(entry.symLinkTarget()).fileName() : controller);
    }
    delegated.removeDuplicates();
    controllers = delegated;

    const QStringList names = controllers.join(QLatin1Char(',')).split(QLatin1Char(','));
    bool complete = true;
    for (const QLatin1String required :
         { QLatin1String("cpu"), QLatin1String("freezer"), memoryController }) {
        if (!names.contains(required)) {
            qWarning() << "CGroup controller not delegated:" << required;
            complete = false;
        }
    }
    return complete;
}

QString CGroupControllerPrivate::controllerPath(const QString &controller) const
{
    return root.path() + QLatin1Char('/') + controller + subtree;
}

bool CGroupControllerPrivate::placeProcess(const QString &directory, pid_t pid) const
{
    for (const QString &controller : controllers) {
        const QDir base(controllerPath(controller));
        if (!ready || directory.isEmpty() || !base.mkpath(directory)) {
            qWarning() << "Failed to created cgroup dir in" << base.path();
            return false;
        }
        QFile file(base.filePath(directory + QLatin1Char('/') + processesFile));
        const QByteArray text = QByteArray::number(pid);
        // The kernel takes 0 as the writer itself, which must not end up in a group that gets frozen.
        if (pid < 1 || !openControlFile(file) || file.write(text) != text.size()) {
            qWarning() << "Failed to add PID to cgroup" << file.fileName();
            return false;
        }
    }
    return true;
}

bool CGroupControllerPrivate::writeSettings(const QString &directory,
                                            const CGroupController::Settings &settings) const
{
    if (!ready || directory.isEmpty()) {
        return false;
    }
    bool complete = true;
    for (auto setting = settings.cbegin(); setting != settings.cend(); ++setting) {
        complete = writeSetting(directory, setting.key(), setting.value()) && complete;
    }
    return complete;
}

bool CGroupControllerPrivate::writeSetting(const QString &directory, const QByteArray &key,
                                           const QByteArray &value) const
{
    const QString name = QString::fromUtf8(key);
    // Not looked up in the list: "cpu" of "cpu.shares" may be a link to the hierarchy's own directory.
    const QString controller = name.section(QLatin1Char('.'), 0, 0);
    QFile file(controllerPath(controller) + QLatin1Char('/') + directory + QLatin1Char('/') + name);
    // Settings come from requests too, and their name must not lead elsewhere.
    if (name.contains(QLatin1Char('/'))) {
        qWarning() << "Cannot open file" << file.fileName() << qt_error_string(EINVAL);
        return false;
    }
    if (!openControlFile(file)) {
        qWarning() << "Cannot open file" << file.fileName() << file.errorString();
        return false;
    }
    if (file.write(value) != value.size()) {
        qWarning() << "Failed to write to" << file.fileName() << file.errorString();
        return false;
    }
    return true;
}

bool CGroupControllerPrivate::applyState(const QString &directory, const QString &state) const
{
    const auto settings = states.constFind(state);
    return settings != states.constEnd() && writeSettings(directory, *settings);
}

CGroupController::CGroupController(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<CGroupControllerPrivate>(this))
{
    d->initialize();
}

CGroupController::~CGroupController() = default;

void CGroupController::registerState(const QString &state, const Settings &settings)
{
    d->states.insert(state, settings);
}

bool CGroupController::applyState(const ApplicationInstanceId &id, const QString &state)
{
    return d->applyState(directoryOf(id), state);
}

bool CGroupController::applyState(const ApplicationTaskId &id, const QString &state)
{
    return d->applyState(directoryOf(id), state);
}

bool CGroupController::setupApplication(const ApplicationInstanceId &id, pid_t pid)
{
    return d->placeProcess(directoryOf(id), pid);
}

bool CGroupController::setupTask(const ApplicationTaskId &id, pid_t pid, const Settings &settings)
{
    const QString directory = directoryOf(id);
    return d->placeProcess(directory, pid) && d->writeSettings(directory, settings);
}

void CGroupController::removeApplication(const ApplicationInstanceId &id)
{
    const QString directory = directoryOf(id);
    if (!d->ready || directory.isEmpty()) {
        return;
    }
    for (const QString &controller : qAsConst(d->controllers)) {
        const QDir base(d->controllerPath(controller));
        if (base.exists(directory) && !base.rmdir(directory)) {
            qWarning() << "Cannot remove cgroup for" << id.text();
        }
        // Works only when no other instance or task is left there.
        base.rmdir(id.toString());
    }
}

QSet<int> CGroupController::processesInSameGroup(pid_t pid)
{
    const QByteArray root = QFile::encodeName(Types::rootFs());
    KernelFile groups(root % "/proc/" % QByteArray::number(pid) % "/cgroup");
    if (!groups.isOpen()) {
        qWarning() << "Missing cgroup file for pid" << pid;
        return {};
    }
    QByteArray path;
    std::string_view line;
    while (path.isEmpty() && groups.readLine(&line)) {
        path = pathInLine(line, "memory");
    }
    // The root group is nobody's own: it has the processes of the whole system. A process that is about to
    // end, also one that waits to be reaped, has been moved there.
    if (path.isEmpty() || path == "/") {
        return {};
    }

    const QByteArray name = root % "/sys/fs/cgroup/memory" % path % "/cgroup.procs";
    KernelFile members(name);
    if (!members.isOpen()) {
        qWarning() << "Could not open file:" << QFile::decodeName(name);
        return {};
    }
    QSet<int> processes;
    while (members.readLine(&line)) {
        if (const std::optional<int> process = parseDecimal(line)) {
            processes.insert(*process);
        } else {
            qWarning() << "Could not parse line:" << trimmed(line);
        }
    }
    return processes;
}

} // namespace Core
