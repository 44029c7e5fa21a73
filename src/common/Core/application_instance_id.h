#pragma once

#include "Core/application_id.h"

namespace Core {

/// Identifies a running instance of an application: `organisation.name` where only one can run, otherwise
/// `organisation.name.instance_N` with N a decimal number.
class ApplicationInstanceId : public Identifier
{
public:
    ApplicationInstanceId() = default;
    explicit ApplicationInstanceId(const QString &text);
    /// With the number 0, the text is that of @p application.
    ApplicationInstanceId(const ApplicationId &application, qint64 instance);

    [[nodiscard]] bool hasInstance() const;
    /// For example `instance_3`; empty without an instance. Refers to this object's text: it is valid only
    /// as long as the object is.
    [[nodiscard]] QStringRef instance() const;
};

} // namespace Core

Q_DECLARE_METATYPE(Core::ApplicationInstanceId)
Q_DECLARE_TYPEINFO(Core::ApplicationInstanceId, Q_MOVABLE_TYPE);
