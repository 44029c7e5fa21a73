#pragma once

#include <QStringList>
#include <QtGlobal>

namespace TestSupport {

/// Takes every message of Qt's logger, of all threads, instead of letting it through, while it exists.
///
/// One at a time. What it takes does not count for QTest::ignoreMessage().
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();

    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    QStringList messages() const; ///< all levels, in order
    QStringList messages(QtMsgType type) const;
    QStringList warnings() const { return messages(QtWarningMsg); }
    void clear();

private:
    QtMessageHandler m_previous;
};

} // namespace TestSupport
