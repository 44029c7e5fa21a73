#pragma once

#include <QByteArray>
#include <QJsonObject>

#include <cstddef>
#include <cstdint>

/// What a target defines: looks at one input and ends the program if something does not hold.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

/// Once, before the first input.
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace Fuzz {

/// Ends the program, naming @p what, if @p condition does not hold.
void check(bool condition, const char *what);

/// The object of a JSON text; empty if it is none. Qt's reader loses a container that a repeated key
/// replaces: that is not counted as a leak of ours.
QJsonObject parseObject(const QByteArray &json);

inline QByteArray bytes(const std::uint8_t *data, std::size_t size)
{
    return QByteArray::fromRawData(reinterpret_cast<const char *>(data), static_cast<int>(size));
}

} // namespace Fuzz
