#include "Core/process_id.h"

#include "Core/application_instance_id.h"
#include "Core/application_task_id.h"

namespace Core {

namespace {

/// Only to copy the parts of either kind alike.
struct Parsed : Identifier
{
    explicit Parsed(const Identifier &id)
        : Identifier(id)
    {
    }
};

Parsed parsed(const QString &text)
{
    const int dot = text.lastIndexOf(QLatin1Char('.'));
    if (dot < 1) {
        return Parsed(ApplicationInstanceId());
    }
    if (text.midRef(dot + 1).startsWith(QLatin1String("task_"))) {
        return Parsed(ApplicationTaskId(text));
    }
    return Parsed(ApplicationInstanceId(text));
}

} // namespace

ProcessId::ProcessId(const QString &text)
    : Identifier(parsed(text))
{
}

} // namespace Core
