#pragma once

#include "Core/error.h"

#include <QString>

namespace DBus {

/// An error of the service in the terms of the bus: the same code and message, and the bus's name for them.
class Error : public Core::Error
{
public:
    explicit Error(const Core::Error &error);

    /// The D-Bus error name of the code. A code without a name of its own, known or not, gives
    /// "org.freedesktop.DBus.Error.Failed"; a success gives a null string, since it has nothing to report.
    QString name() const;
};

} // namespace DBus
