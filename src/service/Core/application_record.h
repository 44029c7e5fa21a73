#pragma once

#include "Core/application_state.h"
#include "Core/invocation_context.h"

#include <QList>
#include <QMetaType>
#include <QString>
#include <QUrl>

#include <sys/types.h>

namespace Core {

/// A running application as it was when somebody asked. An empty id means that none was found.
struct ApplicationRecord
{
    QString id; ///< whole text of the instance id
    pid_t pid = 0;
    InvocationContext context;
    int activeWindowCount = 0;
    int inactiveWindowCount = 0;
    int hiddenWindowCount = 0;
    ApplicationState state = ApplicationState::NotRunning;
    QList<QUrl> uris; ///< those that the start carried, but for very long ones
};

} // namespace Core

Q_DECLARE_METATYPE(Core::ApplicationRecord)
