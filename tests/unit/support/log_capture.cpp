#include "support/log_capture.h"

#include <QMutex>
#include <QMutexLocker>
#include <QPair>
#include <QVector>

namespace TestSupport {

namespace {

struct Log
{
    QMutex mutex;
    QVector<QPair<QtMsgType, QString>> lines;
};

Log &theLog()
{
    static Log log;
    return log;
}

void take(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    const QMutexLocker locker(&theLog().mutex);
    theLog().lines.append(qMakePair(type, text));
}

} // namespace

LogCapture::LogCapture()
{
    clear();
    m_previous = qInstallMessageHandler(take);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(m_previous);
}

QStringList LogCapture::messages() const
{
    const QMutexLocker locker(&theLog().mutex);
    QStringList result;
    for (const auto &[type, text] : qAsConst(theLog().lines)) {
        result.append(text);
    }
    return result;
}

QStringList LogCapture::messages(QtMsgType type) const
{
    const QMutexLocker locker(&theLog().mutex);
    QStringList result;
    for (const auto &line : qAsConst(theLog().lines)) {
        if (line.first == type) {
            result.append(line.second);
        }
    }
    return result;
}

void LogCapture::clear()
{
    const QMutexLocker locker(&theLog().mutex);
    theLog().lines.clear();
}

} // namespace TestSupport
