#pragma once

#include "top/view.h"

#include <QObject>
#include <QSize>

#include <memory>

namespace Ctl::Top {

class TerminalPrivate;

/// The whole screen of the terminal that standard output is, and its keyboard, which standard input is.
///
/// One at a time; main thread. The terminal is as before once it is destroyed. The signals that end a
/// program, or stop it, restore the terminal first. Those that end it let go on what a user has held; if the
/// terminal takes no output even so, they end the program after some seconds with the screen as it is.
class Terminal : public QObject
{
    Q_OBJECT

public:
    explicit Terminal(bool isColoured, QObject *parent = nullptr);
    ~Terminal() override;

    /// Takes the screen. @returns false if the terminal cannot do what this needs, or is not known.
    [[nodiscard]] bool open();

    [[nodiscard]] QSize size() const;
    void show(const QVector<Line> &lines);
    /// No pressed() any more, also not for keys that have come already.
    void ignoreKeys();

signals:
    void pressed(int key); ///< a character, or one of Key
    void resized(); ///< the screen has to be shown again
    void ended(int signal); ///< a signal that ends programs has come, or 0: the terminal has gone

private:
    const std::unique_ptr<TerminalPrivate> d;
};

} // namespace Ctl::Top
