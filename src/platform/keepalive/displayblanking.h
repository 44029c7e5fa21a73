#pragma once

#include <QObject>

#include <memory>

class ScreenSaver;

/// Whether the display is switched off, as `org.freedesktop.ScreenSaver` on the session bus says.
///
/// Unknown until it has answered, and while there is none. Main thread only; no operation blocks.
class DisplayBlanking : public QObject
{
    Q_OBJECT

public:
    enum Status { Unknown = -1, On = 0, Off = 1 };
    Q_ENUM(Status)

    explicit DisplayBlanking(QObject *parent = nullptr);
    ~DisplayBlanking() override;

    [[nodiscard]] Status status() const;

signals:
    void statusChanged();

private:
    const std::shared_ptr<ScreenSaver> m_screenSaver;
};
