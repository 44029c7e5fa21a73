// The input is a URI.

#include "fuzz.h"

#include "Core/intent_uri.h"

#include <QJsonValue>
#include <QUrl>

using namespace Core;
using Fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QUrl uri(QString::fromUtf8(Fuzz::bytes(data, size)), QUrl::TolerantMode);
    const auto [name, hints, params] = IntentUri::fromUri(uri);
    check(uri.isValid() || (name.isEmpty() && hints.isEmpty() && params.isEmpty()), "an invalid URI is none");

    for (const QJsonValue &value : hints) {
        check(!value.isArray() && !value.isObject() && !value.isUndefined(), "a hint is plain");
    }
    for (auto it = params.begin(); it != params.end(); ++it) {
        const QJsonValue value = it.value();
        check(value.isBool() || value.isDouble() || value.isString(), "a parameter is plain and not null");
        check(!it.key().isEmpty() && !it.key().contains(QLatin1Char('=')), "a key is one");
        check(!value.toString().contains(QLatin1Char(';')), "a parameter ends at a semicolon");
        const QUrl inner(value.toString(), QUrl::TolerantMode);
        check(std::get<0>(IntentUri::fromUri(inner)).isEmpty(), "a parameter is no intent URI");
    }

    const QUrl written = IntentUri::toUri(name, hints, params);
    if (written.isValid()) {
        const auto [sameName, sameHints, sameParams] = IntentUri::fromUri(written);
        check(sameName == name, "the name survives");
        check(sameHints.keys() == hints.keys(), "the hints' keys survive");
        check(sameParams.keys() == params.keys(), "the parameters' keys survive");
        check(IntentUri::toUri(sameName, sameHints, sameParams) == written, "a written URI is stable");
    }
    return 0;
}
