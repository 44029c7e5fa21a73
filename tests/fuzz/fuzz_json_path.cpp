// The input's first line is a path, the rest a JSON object.

#include "fuzz.h"

#include "Core/json_path.h"

using namespace Core;
using Fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray input = Fuzz::bytes(data, size);
    const int end = input.indexOf('\n');
    if (end < 0) {
        return 0;
    }
    const QString path = QString::fromUtf8(input.left(end));
    const QJsonObject object = Fuzz::parseObject(input.mid(end + 1));
    const QJsonValue text(QStringLiteral("written"));

    QJsonObject changed = object;
    JsonPath::setValue(changed, path, text);
    (void)JsonPath::value(object, path);

    QStringList paths = JsonPath::expandPaths(object, path);
    check(paths.removeDuplicates() == 0, "a place is named once");
    for (const QString &concrete : qAsConst(paths)) {
        const QJsonValue value = JsonPath::value(object, concrete);
        check(!value.isUndefined(), "an expanded path is defined");
        check(JsonPath::expandPaths(object, concrete) == QStringList { concrete }, "it has no wildcards");
        if (concrete.isEmpty()) {
            continue;
        }
        changed = object;
        JsonPath::setValue(changed, concrete, text);
        check(JsonPath::value(changed, concrete) == text, "what is written is there");
        JsonPath::setValue(changed, concrete, value);
        check(changed == object, "nothing else was written");
    }
    return 0;
}
