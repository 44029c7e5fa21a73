#include "Core/command_line.h"

#include <QStringList>

namespace Core {

QByteArrayList splitCommandLine(const QString &line)
{
    QByteArrayList argv;
    const QStringList elements = line.trimmed().split(QLatin1Char(' '));
    for (const QString &element : elements) {
        argv << element.toUtf8();
    }
    return argv;
}

QByteArray programPath(const QByteArray &program)
{
    return program.startsWith('/') ? program : QByteArrayLiteral("/usr/bin/") + program;
}

QString uriArgument(const QUrl &uri)
{
    return uri.isLocalFile() ? uri.toLocalFile() : uri.toString();
}

QByteArrayList expandFieldCodes(const QByteArrayList &argv, const QList<QUrl> &uris)
{
    int uriCode = -1;
    int fileCode = -1;
    bool multiple = false;
    for (int i = 0; i < argv.size(); ++i) {
        const QByteArray &element = argv.at(i);
        if (element == "%u" || element == "%U") {
            uriCode = i;
        } else if (element == "%f" || element == "%F") {
            fileCode = i;
        }
        multiple = multiple || element == "%U" || element == "%F";
    }

    QByteArrayList result = argv;
    const int code = uriCode >= 0 ? uriCode : fileCode;
    if (code < 0) {
        return result;
    }
    int placed = 0;
    for (const QUrl &uri : uris) {
        if (placed > 0 && !multiple) {
            break;
        }
        const QByteArray argument = (uriCode >= 0 ? uriArgument(uri) : uri.toLocalFile()).toUtf8();
        if (argument.isEmpty()) {
            continue;
        }
        if (placed == 0) {
            result[code] = argument;
        } else {
            result.insert(code + placed, argument);
        }
        ++placed;
    }
    return result;
}

} // namespace Core
