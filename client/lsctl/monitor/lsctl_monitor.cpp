// lsctl monitor: the terminal it takes, its keys, and the way out.
#include "monitor_asker.h"
#include "monitor_view.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <poll.h>
#include <term.h>
#include <unistd.h>

// Macros of <term.h> that are everyday words.
#undef lines
#undef columns

namespace {

using std::chrono::steady_clock;

constexpr int REDRAW_MS = 200; // ages are seconds, and a signal waits no longer

// Why there can be no screen; "" = there can.
std::string screen_problem(const lsctl_options &options) {
    if (options.json)
        return "monitor is a screen for people: programs take lsctl watch --json";
    if (isatty(STDIN_FILENO) != 1 || isatty(STDOUT_FILENO) != 1)
        return "monitor needs a terminal for its input and its output: lsctl watch writes into a "
               "pipe or a file";
    const char *name = std::getenv("TERM");
    if (name == nullptr || *name == '\0')
        return "monitor needs to know the kind of terminal: TERM is not set";
    int found = 0;
    char cup[] = "cup"; // the function's own parameter type
    const bool can_place_cursor =
        setupterm(nullptr, STDOUT_FILENO, &found) == OK && tigetstr(cup) != nullptr;
    if (TERMINAL *const looked_at = set_curterm(nullptr); looked_at != nullptr)
        del_curterm(looked_at);
    if (!can_place_cursor)
        return "monitor cannot draw on a terminal of kind \"" + std::string(name) +
               "\" (TERM): lsctl watch can write to it";
    return "";
}

// The screen, for as long as this lives.
struct monitor_screen {
    SCREEN *screen;
    monitor_screen() : screen(newterm(nullptr, stdout, stdin)) {
        if (screen == nullptr)
            return;
        cbreak();
        noecho();
        nonl();
        keypad(stdscr, TRUE);
        nodelay(stdscr, TRUE);
        curs_set(0);
        const char *no_colour = std::getenv("NO_COLOR");
        monitor_view_start(no_colour == nullptr || *no_colour == '\0');
    }
    ~monitor_screen() {
        if (screen == nullptr)
            return;
        endwin();
        delscreen(screen);
    }
    monitor_screen(const monitor_screen &) = delete;
    monitor_screen &operator=(const monitor_screen &) = delete;
};

enum class key_effect : uint8_t { none, quit };

key_effect take_keys(monitor_look &look) {
    for (int key = getch(); key != ERR; key = getch()) {
        switch (key) {
        case 'q':
        case 'Q':
            return key_effect::quit;
        case 'd':
            look.minutes = !look.minutes;
            break;
        case '?':
        case 'h':
            look.help = !look.help;
            break;
        case 'L' - '@': // Ctrl-L: something else has written on the screen
        case KEY_RESIZE:
            clearok(curscr, TRUE);
            break;
        default:
            break;
        }
    }
    return key_effect::none;
}

// Until a key or a signal ends it; the terminal going away is one too.
void show_until_end() {
    monitor_look look;
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    while (lsctl_signals_last() == 0) {
        const monitor_time now = steady_clock::now();
        monitor_draw(stdscr, monitor_asker_model(now), look, now);
        refresh();
        input.revents = 0;
        if (poll(&input, 1, REDRAW_MS) < 0 && errno != EINTR)
            return;
        if ((input.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0 ||
            take_keys(look) == key_effect::quit)
            return;
    }
}

int run_monitor(const lsctl_options &options) {
    const std::string problem = screen_problem(options);
    if (!problem.empty())
        return lsctl_fail(options, LOCATION_BAD_ARGUMENT, problem);
    const lsctl_link link(options.as);
    if (link.result != LOCATION_ANSWERED)
        return lsctl_fail(options, link.result);
    {
        const monitor_screen screen;
        if (screen.screen == nullptr)
            return lsctl_fail(options, LOCATION_BAD_ARGUMENT,
                              "monitor cannot open this terminal's screen");
        monitor_asker_start(options, link.client);
        show_until_end();
        monitor_asker_stop();
    }
    return lsctl_signals_last() == 0 ? LSCTL_OK : LSCTL_SIGNAL + lsctl_signals_last();
}

} // namespace

lsctl_runner lsctl_monitor(CLI::App &) {
    return run_monitor;
}
