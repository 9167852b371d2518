// lsctl as a whole, without its main, over the recording bus.
#ifndef LSCTL_RIG_H
#define LSCTL_RIG_H

#include "fake_bus.h"
#include "lsctl.h"

#include <algorithm>
#include <iterator>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

struct outcome {
    int status;
    std::string out, err;
};

// `line`: the arguments, between blanks.
inline int run_words(const std::string &line) {
    std::istringstream stream("lsctl " + line);
    const std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
    std::vector<const char *> arguments(words.size());
    std::transform(words.begin(), words.end(), arguments.begin(),
                   [](const std::string &word) { return word.c_str(); });
    return lsctl_run(static_cast<int>(arguments.size()), arguments.data());
}

inline outcome run(const std::string &line) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = run_words(line);
    return {status, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

// `sentence`: how the one line of the error begins; empty = there is none.
inline void expect_outcome(const std::string &line, int status, const std::string &out,
                           const std::string &sentence = "") {
    const outcome got = run(line);
    EXPECT_EQ(got.status, status) << line;
    EXPECT_EQ(got.out, out) << line;
    EXPECT_TRUE(sentence.empty() || got.err.starts_with("lsctl: " + sentence)) << line << got.err;
    EXPECT_EQ(std::count(got.err.begin(), got.err.end(), '\n'), sentence.empty() ? 0 : 1) << line;
}

#endif
