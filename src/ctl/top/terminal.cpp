#include "top/terminal.h"

#include "text_width.h"
#include "top/terminal_capabilities.h"

#include <QSocketNotifier>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstring>
#include <cwchar>

#include <fcntl.h>
#include <langinfo.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

// Its functions are macros otherwise, with names such as clear and move.
#define NCURSES_NOMACROS 1
#define NCURSES_WIDECHAR 1
#include <curses.h>

namespace Ctl::Top {

namespace {

int signalPipe[2] = { -1, -1 };

const int caught[] = { SIGWINCH, SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGCONT, SIGALRM };

constexpr unsigned orderlyEndSeconds = 5; // for the screen to be left as it should

termios usualSettings; // of the terminal, as they were
volatile sig_atomic_t endSignal = 0;

/// Whether the terminal is for us to change, and not the shell's or another job's just now.
bool isForeground()
{
    const pid_t owner = tcgetpgrp(STDIN_FILENO);
    return owner < 0 || owner == getpgrp(); // negative: it knows no jobs
}

/// Ends the program though the terminal takes no output, so that its screen cannot be left.
void endAnyway()
{
    if (isForeground()) {
        (void)tcsetattr(STDIN_FILENO, TCSANOW, &usualSettings);
    }
    struct sigaction usual = {};
    usual.sa_handler = SIG_DFL;
    sigaction(endSignal, &usual, nullptr);
    (void)raise(endSignal);
}

/// The program is to end, and may be waiting just now for a terminal to take its output.
void prepareEnd(int number)
{
    endSignal = number;
    (void)alarm(orderlyEndSeconds);
    if (isForeground()) {
        // What has been held with Ctrl-S goes on.
        (void)tcflow(STDOUT_FILENO, TCOOFF);
        (void)tcflow(STDOUT_FILENO, TCOON);
    }
}

bool isEnd(int number)
{
    return number == SIGINT || number == SIGTERM || number == SIGHUP || number == SIGQUIT
        || number == SIGALRM;
}

/// Nothing but async-signal-safe calls, here and in what is called.
void onSignal(int number)
{
    const int before = errno;
    if (number == SIGALRM && endSignal != 0) {
        endAnyway();
    } else if (isEnd(number)) {
        prepareEnd(number);
    }
    const auto byte = static_cast<unsigned char>(number);
    (void)!write(signalPipe[1], &byte, 1);
    errno = before;
}

int toKey(wint_t character, bool isFunctionKey)
{
    if (!isFunctionKey) {
        constexpr wint_t escape = 27;
        constexpr wint_t rubout = 127;
        return character == escape ? Key::Escape : character == rubout ? Key::Delete : int(character);
    }
    switch (character) {
    case KEY_UP:
        return Key::Up;
    case KEY_DOWN:
        return Key::Down;
    case KEY_PPAGE:
        return Key::PageUp;
    case KEY_NPAGE:
        return Key::PageDown;
    case KEY_HOME:
        return Key::Home;
    case KEY_END:
        return Key::End;
    case KEY_DC:
        return Key::Delete;
    default:
        return 0; // KEY_RESIZE among them, which follows a resizing of ours
    }
}

} // namespace

class TerminalPrivate
{
public:
    TerminalPrivate(Terminal *owner, bool coloured)
        : q(owner)
        , isColoured(coloured)
    {
    }

    bool openScreen();
    void closeScreen();
    bool catchSignals();
    void releaseSignals();
    void readKeys();
    void readSignals();
    void suspend();
    void resume();
    void resize() const;
    [[nodiscard]] attr_t attributes(Style style, short *pair) const;

    Terminal *const q;
    const bool isColoured;
    SCREEN *screen = nullptr;
    bool hasColours = false;
    struct sigaction before[std::size(caught)] = {};
    bool isCatching = false;
    bool isLeft = false; // the screen, for the shell
    bool isOver = false; // no key counts any more
    std::unique_ptr<QSocketNotifier> keys;
    std::unique_ptr<QSocketNotifier> arrivals; // of signals
};

bool TerminalPrivate::openScreen()
{
    // What this tool prints is UTF-8, also where no locale has been chosen.
    if (std::strcmp(nl_langinfo(CODESET), "ANSI_X3.4-1968") == 0) {
        (void)std::setlocale(LC_CTYPE, "C.UTF-8");
    }
    set_escdelay(100); // long enough for the rest of a key, short enough for who presses Escape
    screen = newterm(nullptr, stdout, stdin);
    if (!screen) {
        return false;
    }
    set_term(screen);
    if (!canPlaceCursor()) {
        return false;
    }
    resize(); // LINES and COLUMNS may say otherwise
    cbreak();
    noecho();
    nonl();
    keypad(stdscr, true);
    nodelay(stdscr, true);
    curs_set(0);
    if (isColoured && has_colors() && start_color() == OK) {
        hasColours = true;
        use_default_colors();
        init_pair(1, COLOR_GREEN, -1);
        init_pair(2, COLOR_YELLOW, -1);
        init_pair(3, COLOR_RED, -1);
    }
    return true;
}

void TerminalPrivate::closeScreen()
{
    if (screen) {
        if (!isLeft) {
            endwin();
        }
        delscreen(screen);
        screen = nullptr;
    }
}

bool TerminalPrivate::catchSignals()
{
    if (pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        return false;
    }
    endSignal = 0;
    struct sigaction action = {};
    action.sa_handler = onSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (size_t i = 0; i < std::size(caught); ++i) {
        sigaction(caught[i], &action, &before[i]);
    }
    isCatching = true;
    return true;
}

void TerminalPrivate::releaseSignals()
{
    if (!isCatching) {
        return;
    }
    for (size_t i = 0; i < std::size(caught); ++i) {
        sigaction(caught[i], &before[i], nullptr);
    }
    isCatching = false;
    for (int &end : signalPipe) {
        close(end);
        end = -1;
    }
}

void TerminalPrivate::readKeys()
{
    bool hasRead = false;
    wint_t character = 0;
    for (int result = wget_wch(stdscr, &character); result != ERR; result = wget_wch(stdscr, &character)) {
        hasRead = true;
        const int key = toKey(character, result == KEY_CODE_YES);
        if (key != 0) {
            emit q->pressed(key);
        }
        if (isOver) {
            return; // what was typed behind it is for nobody
        }
    }
    if (hasRead) {
        return;
    }
    pollfd state = { STDIN_FILENO, POLLIN, 0 };
    if (poll(&state, 1, 0) > 0 && (state.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
        keys->setEnabled(false); // it would tell so again and again
        emit q->ended(0);
    }
}

void TerminalPrivate::readSignals()
{
    unsigned char numbers[64];
    const ssize_t count = read(signalPipe[0], numbers, sizeof numbers);
    for (ssize_t i = 0; i < count; ++i) {
        switch (numbers[i]) {
        case SIGWINCH:
            resize();
            emit q->resized();
            break;
        case SIGTSTP:
            suspend();
            break;
        case SIGCONT:
            resume();
            break;
        default:
            emit q->ended(numbers[i]);
            return;
        }
    }
}

void TerminalPrivate::suspend()
{
    endwin();
    fflush(stdout);
    isLeft = true;
    // As if nobody caught it: the kernel stops nobody whom no shell could have go on.
    struct sigaction usual = {};
    usual.sa_handler = SIG_DFL;
    struct sigaction ours = {};
    sigaction(SIGTSTP, &usual, &ours);
    raise(SIGTSTP); // returns after SIGCONT, or at once
    sigaction(SIGTSTP, &ours, nullptr);
    resume();
}

/// The terminal may have been used meanwhile, and been given another size.
void TerminalPrivate::resume()
{
    if (endSignal != 0) {
        return; // a shell has it go on so that it ends, and has the terminal itself
    }
    isLeft = false;
    reset_prog_mode();
    resize();
    clearok(curscr, true);
    emit q->resized();
}

void TerminalPrivate::resize() const
{
    const QSize size = q->size();
    resizeterm(size.height(), size.width());
}

attr_t TerminalPrivate::attributes(Style style, short *pair) const
{
    *pair = 0;
    if (!isColoured) {
        return A_NORMAL;
    }
    switch (style) {
    case Style::Plain:
        return A_NORMAL;
    case Style::Bold:
        return A_BOLD;
    case Style::Dim:
        return A_DIM;
    case Style::Good:
        *pair = 1;
        break;
    case Style::Notice:
        *pair = 2;
        break;
    case Style::Bad:
        *pair = 3;
        break;
    }
    if (!hasColours) {
        *pair = 0;
        return A_BOLD;
    }
    return A_NORMAL;
}

Terminal::Terminal(bool isColoured, QObject *parent)
    : QObject(parent)
    , d(std::make_unique<TerminalPrivate>(this, isColoured))
{
}

Terminal::~Terminal()
{
    // The screen first: a signal that comes now is lost, and the terminal is in order.
    d->keys.reset();
    d->closeScreen();
    (void)alarm(0);
    d->arrivals.reset();
    d->releaseSignals();
}

bool Terminal::open()
{
    (void)tcgetattr(STDIN_FILENO, &usualSettings);
    // The signals before the screen: curses catches those that nobody does, and ends the program with a
    // status of its own.
    if (!d->catchSignals()) {
        return false;
    }
    if (!d->openScreen()) {
        d->closeScreen();
        d->releaseSignals();
        return false;
    }
    d->keys = std::make_unique<QSocketNotifier>(STDIN_FILENO, QSocketNotifier::Read);
    connect(d->keys.get(), &QSocketNotifier::activated, this, [this] { d->readKeys(); });
    d->arrivals = std::make_unique<QSocketNotifier>(signalPipe[0], QSocketNotifier::Read);
    connect(d->arrivals.get(), &QSocketNotifier::activated, this, [this] { d->readSignals(); });
    return true;
}

void Terminal::ignoreKeys()
{
    d->isOver = true;
}

QSize Terminal::size() const
{
    constexpr int usualHeight = 24; // for terminals that do not tell
    constexpr int usualWidth = 80;
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0) {
        return { usualWidth, usualHeight };
    }
    return { size.ws_col, size.ws_row };
}

void Terminal::show(const QVector<Line> &lines)
{
    if (d->isLeft) {
        return;
    }
    werase(stdscr);
    for (int y = 0; y < lines.size(); ++y) {
        const Line &line = lines.at(y);
        int x = 0;
        for (const Span &span : line.spans) {
            short pair = 0;
            attr_t attributes = d->attributes(span.style, &pair);
            if (line.isSelected) {
                attributes |= A_REVERSE;
            }
            wattr_set(stdscr, attributes, pair, nullptr);
            // Each at its place, though terminals disagree about widths. The screen may just have become
            // smaller.
            if (wmove(stdscr, y, x) == ERR) {
                break;
            }
            const std::wstring text = span.text.toStdWString();
            waddnwstr(stdscr, text.c_str(), int(text.size()));
            x += columnsOf(span.text);
        }
    }
    wattr_set(stdscr, A_NORMAL, 0, nullptr);
    wrefresh(stdscr);
}

} // namespace Ctl::Top
