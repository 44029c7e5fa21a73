#include "timed/interface.h"

#include "timed/wire.h"

#include <QDBusConnection>

namespace Maemo {
namespace Timed {

Interface::Interface(QObject *parent)
    : QDBusAbstractInterface(QString::fromLatin1(wireService), QString::fromLatin1(wirePath), wireInterface,
                             QDBusConnection::sessionBus(), parent)
{
}

} // namespace Timed
} // namespace Maemo
