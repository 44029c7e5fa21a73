#pragma once

#include <QString>

namespace Core {

/// Tells the home screen's window model that @p applicationId is being brought up, so that it
/// can show the cover or raise the window. Blocks until the home screen has answered, at most
/// for D-Bus's default time limit; an absent home screen costs one round trip to the bus. The
/// answer, an error too, does not matter and is dropped.
void notifyWindowModel(const QString &applicationId);

/// Asks the home screen's window model to raise @p applicationId, which runs. Returns at once; whether
/// anybody heard it does not matter.
void raiseApplication(const QString &applicationId);

} // namespace Core
