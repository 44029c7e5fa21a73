#include "check/reader_log.h"

#include <QLoggingCategory>

namespace Ctl::Check {

ReaderLog *ReaderLog::s_current = nullptr;

ReaderLog::ReaderLog()
    : m_outer(s_current)
{
    // Whatever the environment says about debug messages: one of them holds what is wrong with a file.
    QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, true);
    s_current = this;
    m_before = qInstallMessageHandler(take);
}

ReaderLog::~ReaderLog()
{
    qInstallMessageHandler(m_before);
    s_current = m_outer;
}

void ReaderLog::take(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    Q_UNUSED(type)
    Q_UNUSED(context)
    s_current->m_messages.append(text);
}

} // namespace Ctl::Check
