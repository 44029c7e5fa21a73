#pragma once

#include <QStringList>
#include <QtGlobal>

namespace Ctl::Check {

/// Takes what the readers log while it exists, so that it neither ends up on the terminal nor is lost. One at
/// a time, in one thread.
class ReaderLog
{
public:
    ReaderLog();
    ~ReaderLog();
    ReaderLog(const ReaderLog &) = delete;
    ReaderLog &operator=(const ReaderLog &) = delete;

    [[nodiscard]] const QStringList &messages() const { return m_messages; }

private:
    static void take(QtMsgType type, const QMessageLogContext &context, const QString &text);

    static ReaderLog *s_current;
    QStringList m_messages;
    ReaderLog *const m_outer;
    QtMessageHandler m_before = nullptr;
};

} // namespace Ctl::Check
