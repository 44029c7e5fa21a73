#include "Core/service_file.h"

#include <QDebug>
#include <QFile>

namespace Core {

QString readExecLine(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        qWarning() << "Cannot open" << path;
        return QString();
    }
    const QByteArray execKey = QByteArrayLiteral("Exec=");
    const QByteArray unitKey = QByteArrayLiteral("SystemdService=");
    QByteArray exec;
    // An empty line still holds its line feed: only the end and a read error give nothing.
    for (QByteArray line = file.readLine(); !line.isEmpty(); line = file.readLine()) {
        if (line.startsWith(unitKey)) {
            return QStringLiteral("systemctl --user start ") + QString::fromUtf8(line.mid(unitKey.size()));
        }
        if (line.startsWith(execKey)) {
            exec = line.mid(execKey.size());
        }
    }
    return QString::fromUtf8(exec);
}

} // namespace Core
