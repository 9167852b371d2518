// lsctl monitor: large letters.
#include "monitor_view.h"

#include <array>
#include <cctype>

namespace {

struct large_letter {
    char letter;
    std::array<const char *, MONITOR_LARGE_ROWS> rows; // equally wide
};

constexpr std::array LETTERS = {
    large_letter{'0', {" _ ", "| |", "|_|"}},
    large_letter{'1', {"   ", " | ", " | "}},
    large_letter{'2', {" _ ", " _|", "|_ "}},
    large_letter{'3', {" _ ", " _|", " _|"}},
    large_letter{'4', {"   ", "|_|", "  |"}},
    large_letter{'5', {" _ ", "|_ ", " _|"}},
    large_letter{'6', {" _ ", "|_ ", "|_|"}},
    large_letter{'7', {" _ ", "  |", "  |"}},
    large_letter{'8', {" _ ", "|_|", "|_|"}},
    large_letter{'9', {" _ ", "|_|", " _|"}},
    large_letter{'A', {" _ ", "|_|", "| |"}},
    large_letter{'D', {" _ ", "| \\", "|_/"}},
    large_letter{'E', {" _ ", "|_ ", "|_ "}},
    large_letter{'F', {" _ ", "|_ ", "|  "}},
    large_letter{'I', {" ", "|", "|"}},
    large_letter{'L', {"   ", "|  ", "|_ "}},
    large_letter{'N', {"    ", "|\\ |", "| \\|"}},
    large_letter{'O', {" _ ", "| |", "|_|"}},
    large_letter{'R', {" _ ", "|_|", "| \\"}},
    large_letter{'S', {" _ ", "|_ ", " _|"}},
    large_letter{'T', {"___", " | ", " | "}},
    large_letter{'W', {"    ", "|  |", "|/\\|"}},
    large_letter{'X', {"  ", "\\/", "/\\"}},
};

} // namespace

void monitor_put_large(const monitor_area &area, int row, const std::string &text,
                       monitor_colour colour) {
    int column = 0;
    for (const char letter : text) {
        const auto *const found = std::ranges::find(LETTERS, letter, &large_letter::letter);
        if (found == LETTERS.end()) {
            // A unit stands on the line of the letter before it.
            const bool is_unit = std::islower(static_cast<unsigned char>(letter)) != 0;
            if (is_unit)
                monitor_put(area, row + MONITOR_LARGE_ROWS - 1, column - 1, std::string(1, letter),
                            colour, A_BOLD);
            column += 2;
            continue;
        }
        for (int i = 0; i < MONITOR_LARGE_ROWS; ++i)
            monitor_put(area, row + i, column, found->rows.at(static_cast<size_t>(i)), colour,
                        A_BOLD);
        column += static_cast<int>(std::char_traits<char>::length(found->rows[0])) + 1;
    }
}
