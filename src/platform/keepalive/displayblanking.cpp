#include "displayblanking.h"

#include "screensaver.h"

DisplayBlanking::DisplayBlanking(QObject *parent)
    : QObject(parent)
    , m_screenSaver(ScreenSaver::shared())
{
    connect(m_screenSaver.get(), &ScreenSaver::statusChanged, this, &DisplayBlanking::statusChanged);
}

DisplayBlanking::~DisplayBlanking() = default;

DisplayBlanking::Status DisplayBlanking::status() const
{
    return m_screenSaver->status();
}
