#pragma once

#include "Core/application_id.h"

namespace Core {

/// Identifies a background task or service of an application: `organisation.name.task_NAME`.
class ApplicationTaskId : public Identifier
{
public:
    ApplicationTaskId() = default;
    explicit ApplicationTaskId(const QString &text);
    /// With an empty @p taskName the result is not valid, and its text is that of @p application.
    ApplicationTaskId(const ApplicationId &application, const QString &taskName);

    /// The name behind "task_"; empty if the id is not valid.
    [[nodiscard]] QString taskName() const;

    /// Whether an application may declare a task of this name: at most 64 ASCII letters and digits, the
    /// first one no digit. @p name must not be empty.
    static bool isValidTaskName(const QString &name);
};

} // namespace Core

Q_DECLARE_METATYPE(Core::ApplicationTaskId)
Q_DECLARE_TYPEINFO(Core::ApplicationTaskId, Q_MOVABLE_TYPE);
