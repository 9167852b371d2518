// /sys/class/gpio made of plain files, kept in step by watching what is written to them.
//
// Behaves like sysfs with the limits of plain files: the effect of a write shows a moment after the
// write returns (a program that exports a line and opens its files in the same breath comes too
// early, so gpio_tree_export lets the terminal export the lines it boots with), and a write that
// the kernel would refuse succeeds and is undone. A pin keeps its direction and level over an
// unexport, as the hardware does. One thread.
#ifndef SIMULATOR_TERMINAL_GPIO_TREE_H
#define SIMULATOR_TERMINAL_GPIO_TREE_H

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

constexpr int GPIO_LINES = 224; // seven banks of 32

struct gpio_line {
    bool exported = false;
    bool out = false;
    bool level = false;
};

struct gpio_tree {
    std::string root;
    int notify = -1;                // inotify, non-blocking: readable when a file was written
    int root_watch = -1;            // watch of the directory that holds export and unexport
    std::map<int, int> watches;     // watch of gpioN: its line
    std::map<int, gpio_line> lines; // every line that was ever exported
};

// Makes the tree under `root` as after power-on: nothing exported. False: `error` says which step
// failed.
bool gpio_tree_open(gpio_tree &tree, const std::string &root, std::string &error);
void gpio_tree_close(gpio_tree &tree);

// Exports `line` as the boot code of the terminal does. True when it is exported afterwards.
bool gpio_tree_export(gpio_tree &tree, int line);

// Takes in what was written since the last call. Returns one text for people per change.
std::vector<std::string> gpio_tree_step(gpio_tree &tree);

bool gpio_tree_level(const gpio_tree &tree, int line);

// The lines meant by the content of the unexport file, oldest first; empty = none of `exported`.
// Two writes may have landed before the file was read, the second over the beginning of the first:
// "102", then "37" leaves "372".
std::vector<int> gpio_lines_meant(std::string_view content, const std::vector<int> &exported);

} // namespace sim

#endif
