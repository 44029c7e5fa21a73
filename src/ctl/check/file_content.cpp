#include "check/file_content.h"

#include "Core/regular_file.h"

#include <QFileInfo>

#include <algorithm>
#include <cerrno>

namespace Ctl::Check {

bool readFile(const QString &path, QByteArray &content, Report &report)
{
    const int error = Core::readRegularFile(path, content);
    switch (error) {
    case 0:
        break;
    case EISDIR:
        report.add(Rule::NotRegular, QStringLiteral("is a directory, and is not read"));
        return false;
    case ENXIO:
        report.add(Rule::NotRegular, QStringLiteral("is no regular file, and is not read"));
        return false;
    case EFBIG:
        report.add(Rule::TooLarge,
                   QStringLiteral("has %1 bytes; no more than %2 are read")
                       .arg(QFileInfo(path).size())
                       .arg(Core::maximumConfigurationSize));
        return false;
    default:
        report.add(Rule::Unreadable, QStringLiteral("cannot be read: ") + qt_error_string(error));
        return false;
    }
    return true;
}

int lineAt(const QByteArray &content, int offset)
{
    const int end = std::min(std::max(offset, 0), content.size());
    return 1 + static_cast<int>(std::count(content.cbegin(), content.cbegin() + end, '\n'));
}

} // namespace Ctl::Check
