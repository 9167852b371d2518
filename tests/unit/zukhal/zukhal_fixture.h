// A directory with a configuration for the library, and child processes to use it in: the library
// reads its configuration once per process.
#ifndef ZUKHAL_FIXTURE_H
#define ZUKHAL_FIXTURE_H

#include "zukhal.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

class zukhal_fixture : public testing::Test {
  protected:
    std::filesystem::path directory_;

    void SetUp() override {
        std::string name = testing::TempDir() + "zukhal.XXXXXX";
        directory_ = mkdtemp(name.data());
        configure("[log]\ntarget=file\nfile=" + path("log"));
    }
    void TearDown() override { std::filesystem::remove_all(directory_); }

    std::string path(const char *name) const { return (directory_ / name).string(); }
    std::string content(const char *name) const {
        std::ifstream in(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    void configure(const std::string &text) const {
        std::ofstream(path("conf")) << text;
        setenv("ZUKHAL_CONF", path("conf").c_str(), 1);
    }

    // Runs `work` in a child whose stderr is the file "stderr"; its failed checks fail the test.
    template <typename Work>
    void in_child(Work work) const {
        const pid_t child = fork();
        if (child == 0) {
            if (freopen(path("stderr").c_str(), "ae", stderr) == nullptr)
                _exit(2);
            work();
            fflush(nullptr);
            _exit(HasFailure() ? 1 : 0);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << content("stderr");
    }
};

#endif
