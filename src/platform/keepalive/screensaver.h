#pragma once

#include "displayblanking.h"

#include <QDBusServiceWatcher>
#include <QObject>
#include <QPointer>

#include <memory>

class QDBusPendingCallWatcher;

/// What is known of the screen saver, for all who ask.
///
/// Lives as long as somebody keeps what shared() returned. Main thread only.
class ScreenSaver : public QObject
{
    Q_OBJECT

public:
    static std::shared_ptr<ScreenSaver> shared();

    ScreenSaver();

    [[nodiscard]] DisplayBlanking::Status status() const { return m_status; }

signals:
    void statusChanged();

private slots:
    void onActiveChanged(bool active);

private:
    void onOwnerChanged(const QString &newOwner);
    void ask();
    void setStatus(DisplayBlanking::Status status);

    QDBusServiceWatcher m_watcher;
    QPointer<QDBusPendingCallWatcher> m_question; ///< under way, to the present owner of the name
    DisplayBlanking::Status m_status = DisplayBlanking::Unknown;
};
