// A directory with a configuration for the library, and child processes to use it in: the library
// reads its configuration once per process.
#ifndef ZUKHAL_FIXTURE_H
#define ZUKHAL_FIXTURE_H

#include "child.h"
#include "scratch_dir.h"
#include "zukhal.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <thread>

using namespace std::chrono_literals;
using std::chrono::steady_clock;

template <typename Condition>
bool reached(Condition condition, steady_clock::duration patience = 10s) {
    const auto deadline = steady_clock::now() + patience;
    while (!condition()) {
        if (steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

class zukhal_fixture : public testing::Test {
  protected:
    scratch_dir dir;

    void SetUp() override {
        configure("[board]\ntype=1\n[log]\ntarget=file\nfile=" + path("log") +
                  "\n[power]\ndirectory=" + dir.path().string());
        for (const char *file : {"wake_lock", "wake_unlock"})
            scratch_dir::write(file, "");
    }

    std::string path(const char *name) const { return dir.path() / name; }
    static std::string content(const char *name) { return scratch_dir::read(name); }
    void configure(const std::string &text) const {
        scratch_dir::write("conf", text);
        setenv("ZUKHAL_CONF", path("conf").c_str(), 1);
    }

    // Runs `work` in a child whose stderr is the file "stderr"; its failed checks fail the test.
    template <typename Work>
    static void in_child(Work work) {
        const int status = run_in_child([&work] {
            if (freopen("stderr", "ae", stderr) == nullptr)
                return 2;
            work();
            fflush(nullptr);
            return HasFailure() ? 1 : 0;
        });
        EXPECT_EQ(status, 0) << content("stderr");
    }
};

#endif
