#include "support/kernel_groups.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>

#include <algorithm>
#include <csignal>
#include <functional>

#include <unistd.h>

namespace TestSupport {

namespace {

constexpr uid_t firstUser = 2000000000; // far from every user that a machine has
constexpr int cleanTimeoutMs = 10000;

const QString root = QStringLiteral("/sys/fs/cgroup/");

void forEachGroup(const QString &directory, const std::function<void(const QString &)> &visit)
{
    const QStringList names = QDir(directory).entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks);
    for (const QString &name : names) {
        forEachGroup(directory + QLatin1Char('/') + name, visit);
    }
    visit(directory);
}

void endGroup(const QString &group)
{
    QFile state(group + QStringLiteral("/freezer.state"));
    if (state.exists() && state.open(QIODevice::WriteOnly | QIODevice::Unbuffered)) {
        state.write("THAWED");
    }
    QFile processes(group + QStringLiteral("/cgroup.procs"));
    if (processes.open(QIODevice::ReadOnly)) {
        for (QByteArray line = processes.readLine(); !line.isEmpty(); line = processes.readLine()) {
            const pid_t pid = line.trimmed().toInt();
            if (pid > 1) {
                ::kill(pid, SIGKILL);
            }
        }
    }
    QDir().rmdir(group);
}

} // namespace

KernelGroups::KernelGroups()
    : m_user(firstUser + static_cast<uid_t>(::getpid()))
{
}

KernelGroups::~KernelGroups()
{
    clean();
}

bool KernelGroups::areUsable()
{
    const QStringList names = hierarchies();
    return ::geteuid() == 0 && std::all_of(names.cbegin(), names.cend(), [](const QString &name) {
               return QFile::exists(root + name + QStringLiteral("/cgroup.sane_behavior"));
           });
}

QStringList KernelGroups::hierarchies()
{
    return { QStringLiteral("cpu"), QStringLiteral("freezer"), QStringLiteral("memory") };
}

QString KernelGroups::directory(const QString &hierarchy) const
{
    return root + hierarchy + subtree();
}

void KernelGroups::clean() const
{
    const QStringList names = hierarchies() << QStringLiteral("cpuacct");
    QElapsedTimer elapsed;
    elapsed.start();
    for (const QString &name : names) {
        // A killed process leaves its group only when the kernel gets round to it.
        while (QFile::exists(directory(name))) {
            forEachGroup(directory(name), endGroup);
            if (elapsed.hasExpired(cleanTimeoutMs)) {
                qWarning("%s: left behind", qUtf8Printable(directory(name)));
                break;
            }
            QThread::msleep(1);
        }
        // Others may have theirs there.
        QDir().rmdir(root + name + QStringLiteral("/procwarden"));
    }
}

} // namespace TestSupport
