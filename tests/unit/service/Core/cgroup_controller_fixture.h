#pragma once

#include "Core/cgroup_controller.h"

#include "support/cgroup_tree.h"
#include "support/helper_stand_in.h"
#include "support/patience.h"
#include "support/private_bus.h"

#include <QByteArray>
#include <QDBusConnection>
#include <QObject>
#include <QSignalSpy>
#include <QString>
#include <QStringList>

#include <memory>

const QString subtree = QStringLiteral("/procwarden/user-77");
const QByteArray usualGroups = "3:freezer:/\n2:cpu:/\n1:memory:/a/b\n0::/\n";
const QStringList usualHierarchies = { QStringLiteral("freezer"), QStringLiteral("cpu"),
                                       QStringLiteral("memory") };

/// What the tests of a controller in this process share: for each of them groups that are plain directories,
/// a helper that hands the subtree over, and a controller once it is started.
class CGroupTest : public QObject
{
protected:
    CGroupTest() { m_bus.useAsSystemBus(); }

    void begin()
    {
        makeTree();
        m_standIn = std::make_unique<TestSupport::HelperStandIn>(m_connection,
                                                                 TestSupport::HelperStandIn::path(subtree));
    }
    void end()
    {
        m_controller.reset();
        m_standIn.reset();
        m_tree.reset();
    }

    void makeTree()
    {
        m_tree = std::make_unique<TestSupport::CGroupTree>();
        m_tree->use();
    }

    /// A controller over such hierarchies, which has yet to ask the helper.
    void makeController(const QByteArray &ownGroups = usualGroups,
                        const QStringList &hierarchies = usualHierarchies)
    {
        m_tree->setOwnGroups(ownGroups);
        m_tree->addHierarchies(hierarchies, subtree);
        m_controller = std::make_unique<Core::CGroupController>();
    }

    /// One that can be used. @returns whether it came to that.
    bool start(const QByteArray &ownGroups = usualGroups, const QStringList &hierarchies = usualHierarchies)
    {
        makeController(ownGroups, hierarchies);
        return QSignalSpy(m_controller.get(), &Core::CGroupController::initializationDone).wait(patienceMs);
    }

    /// What lies below the subtree, relative to the directory of the hierarchies.
    static QString inGroup(const QString &hierarchy, const QString &rest)
    {
        return hierarchy + subtree + QLatin1Char('/') + rest;
    }
    static QString inGroup(const QString &hierarchy, const char *rest)
    {
        return inGroup(hierarchy, QString::fromLatin1(rest));
    }
    static QString inGroup(const char *hierarchy, const char *rest)
    {
        return inGroup(QString::fromLatin1(hierarchy), rest);
    }

    TestSupport::PrivateBus m_bus;
    const QDBusConnection m_connection = m_bus.connect();
    std::unique_ptr<TestSupport::CGroupTree> m_tree;
    std::unique_ptr<TestSupport::HelperStandIn> m_standIn;
    std::unique_ptr<Core::CGroupController> m_controller;
};
