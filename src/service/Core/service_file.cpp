#include "Core/service_file.h"

#include "Core/regular_file.h"

#include <QBuffer>
#include <QDebug>

namespace Core {

QString readExecLine(const QString &path)
{
    QByteArray content;
    if (readRegularFile(path, content) != 0) {
        qWarning() << "Cannot open" << path;
        return QString();
    }
    const QByteArray execKey = QByteArrayLiteral("Exec=");
    const QByteArray unitKey = QByteArrayLiteral("SystemdService=");
    QByteArray exec;
    QBuffer lines(&content);
    lines.open(QIODevice::ReadOnly);
    // An empty line still holds its line feed: only the end gives nothing.
    for (QByteArray line = lines.readLine(); !line.isEmpty(); line = lines.readLine()) {
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
