#include "fuzz.h"

#include <QCoreApplication>
#include <QJsonDocument>

#include <cstdio>
#include <cstdlib>
#include <sanitizer/lsan_interface.h>

// There only with the sanitizer.
#pragma weak __lsan_disable
#pragma weak __lsan_enable

namespace Fuzz {

void check(bool condition, const char *what)
{
    if (!condition) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

QJsonObject parseObject(const QByteArray &json)
{
    const bool leaksAreCounted = __lsan_disable != nullptr && __lsan_enable != nullptr;
    if (leaksAreCounted) {
        __lsan_disable();
    }
    const QJsonObject object = QJsonDocument::fromJson(json).object();
    if (leaksAreCounted) {
        __lsan_enable();
    }
    return object;
}

} // namespace Fuzz

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    static int argumentCount = 1;
    static char name[] = "procwarden";
    static char *arguments[] = { name, nullptr };
    static const QCoreApplication application(argumentCount, arguments);
    // Every second input gets a warning. They are composed all the same.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    return 0;
}
