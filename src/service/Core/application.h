#pragma once

#include "Core/application_record.h"
#include "Core/process.h"

#include <QDateTime>

namespace Core {

/// The record of a running application: a process with windows.
class Application : public Process
{
    Q_OBJECT

public:
    /// No command line holds more. A client gives the URIs, and all that run are told of in one message.
    static constexpr int maximumUriLength = 8192;

    /// Of @p uris, those that are longer as a text than that are not kept.
    Application(const QString &id, pid_t pid, const InvocationContext &context, const QList<QUrl> &uris,
                QObject *parent = nullptr);

    /// Besides, stamps lastActive() when the application stops being active.
    void setState(ApplicationState state) override;

    void setWindowCounts(int active, int inactive, int hidden);
    /// The number of windows of all kinds.
    qint64 windowCount() const;

    /// Now while the application is active, else when it last stopped being so; null if it never was active.
    QDateTime lastActive() const;

    /// A copy of what is known at this moment.
    ApplicationRecord record() const;

private:
    int m_activeWindowCount = 0;
    int m_inactiveWindowCount = 0;
    int m_hiddenWindowCount = 0;
    const InvocationContext m_context;
    QDateTime m_lastActive;
    const QList<QUrl> m_uris;
};

} // namespace Core
