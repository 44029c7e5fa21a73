#pragma once

#include <QMetaType>
#include <QVector>

#include <memory>

namespace Core {

/// A duplicate of a descriptor, shared by all copies of the value and closed with the last of them.
class FileDescriptor
{
public:
    /// A bus with its usual limits breaks with who sends more descriptors in one message. Who receives them
    /// may see more, since a message can name each several times.
    static constexpr int maximumPerMessage = 16;

    /// None.
    FileDescriptor() = default;

    /// Duplicates @p descriptor, which stays its owner's. The value is invalid if that fails.
    explicit FileDescriptor(int descriptor);

    [[nodiscard]] bool isValid() const { return fileDescriptor() >= 0; }

    /// The duplicate, which is this value's to close; -1 if there is none.
    [[nodiscard]] int fileDescriptor() const;

private:
    std::shared_ptr<const int> m_descriptor;
};

} // namespace Core

Q_DECLARE_METATYPE(Core::FileDescriptor)
