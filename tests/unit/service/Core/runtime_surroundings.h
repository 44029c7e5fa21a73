#pragma once

#include "support/bus_stand_in.h"
#include "support/cgroup_tree.h"
#include "support/private_bus.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QFile>
#include <QString>
#include <QStringList>

/// What is around a runtime controller, in a root directory of its own: the helper and the permission daemon,
/// which allows everything, answer from this process, the control groups are plain directories, and the
/// sandbox that tasks run in is a script that only starts them.
///
/// To be made once, before the first use of a bus.
class RuntimeSurroundings
{
public:
    static QString subtree() { return QStringLiteral("/procwarden/user-1"); }
    static QStringList controllers()
    {
        return { QStringLiteral("cpu"), QStringLiteral("freezer"), QStringLiteral("memory") };
    }

    QString path(const QString &relative) const { return m_tree.path(relative); }
    TestSupport::CGroupTree &tree() { return m_tree; }
    TestSupport::PrivateBus &bus() { return m_bus; }

protected:
    explicit RuntimeSurroundings(const QByteArray &killTimeoutMs)
        : m_helper(m_bus, QStringLiteral("org.kestrix.Procwarden.Helper"),
                   QStringLiteral("/org/kestrix/Procwarden/Helper"))
        , m_permissions(m_bus, QStringLiteral("org.sailfishos.sailjaild1"),
                        QStringLiteral("/org/sailfishos/sailjaild1"))
    {
        m_tree.use();
        m_bus.useAsSystemBus();
        m_bus.useAsSessionBus();
        qputenv("PROCWARDEN_KILL_TIMEOUT", killTimeoutMs);
        qputenv("XDG_DATA_HOME", QFile::encodeName(path(QStringLiteral("home/data"))));
        qputenv("XDG_DATA_DIRS", QFile::encodeName(path(QStringLiteral("usr/share"))));
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(path(QStringLiteral("home/config"))));
        m_helper.answerWith({ subtree() });
        m_permissions.answerWith({ 1 });

        m_tree.setOwnGroups("4:freezer:/\n3:memory:/\n2:cpu:/\n");
        m_tree.addHierarchies(controllers(), subtree());
        m_tree.write(QStringLiteral("etc/procwarden/os-version-support.cfg"),
                     "[Applications]\npolicy.one.*=4.2.0\npolicy.two.*=5.2.0\n");
        const QString sandbox = QStringLiteral("usr/bin/firejail");
        m_tree.write(sandbox, "#!/bin/sh\nwhile [ \"$1\" != -- ]; do shift; done\nshift\nexec \"$@\"\n");
        QFile::setPermissions(path(sandbox), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    ~RuntimeSurroundings() = default;
    Q_DISABLE_COPY(RuntimeSurroundings)

    void writeState(const char *name, const QByteArray &settings, const QByteArray &head = QByteArray())
    {
        m_tree.write(QStringLiteral("home/data/%1/states/%2.config")
                         .arg(QCoreApplication::applicationName(), QLatin1String(name)),
                     head + "[Backend settings]\n" + settings);
    }

    TestSupport::PrivateBus m_bus;
    TestSupport::CGroupTree m_tree;
    TestSupport::BusStandIn m_helper;
    TestSupport::BusStandIn m_permissions;
};
