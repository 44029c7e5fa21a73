#pragma once

#include "Core/identifier.h"

#include <QMetaType>

namespace Core {

/// Identifies what a process belongs to where the kind is not known: a running instance or a task.
class ProcessId : public Identifier
{
public:
    ProcessId() = default;
    /// A text with "task_" behind its last dot is read as a task's id, any other as an instance's. A text
    /// without a dot, or with none but at its beginning, gives an empty id: it is not kept.
    explicit ProcessId(const QString &text);
};

} // namespace Core

Q_DECLARE_METATYPE(Core::ProcessId)
Q_DECLARE_TYPEINFO(Core::ProcessId, Q_MOVABLE_TYPE);
