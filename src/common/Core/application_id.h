#pragma once

#include "Core/identifier.h"

#include <QMetaType>

namespace Core {

/// Identifies an installed application: `organisation.name`, for example `org.example.Notes`.
class ApplicationId : public Identifier
{
public:
    ApplicationId() = default;
    explicit ApplicationId(const QString &text);
    /// Nothing is checked here: what is passed is believed.
    ApplicationId(const QString &organisation, const QString &name);

    /// The id of an application whose desktop file declares none: its file's base name, encoded, below a
    /// fallback organisation. The base name is never read as an id, also not when it has the form of one.
    /// @returns an empty id for a path that does not end in ".desktop" or has nothing before that.
    static ApplicationId fromDesktopFile(const QString &path);

private:
    friend class Identifier;
};

} // namespace Core

Q_DECLARE_METATYPE(Core::ApplicationId)
Q_DECLARE_TYPEINFO(Core::ApplicationId, Q_MOVABLE_TYPE);
