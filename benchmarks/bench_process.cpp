#include "bench_process.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr double stop_patience_s = 60;

std::string make_dir() {
    std::string name = (std::filesystem::temp_directory_path() / "ls-bench-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        perror("mkdtemp");
        exit(EXIT_FAILURE);
    }
    return name;
}

// In the child between fork and exec: nothing here allocates.
[[noreturn]] void become(const std::vector<char *> &arguments, const char *dir,
                         const char *output) {
    prctl(PR_SET_PDEATHSIG, SIGTERM); // an interrupted benchmark leaves nothing behind
    const int out = open(output, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (chdir(dir) == 0 && dup2(out, STDOUT_FILENO) >= 0 && dup2(out, STDERR_FILENO) >= 0)
        execvp(arguments[0], arguments.data());
    perror(arguments[0]);
    _exit(127);
}

} // namespace

bench_dir::bench_dir() : path(make_dir()) {}

bench_dir::~bench_dir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

bench_process::bench_process(const std::vector<std::string> &words, const std::string &dir,
                             const std::string &output) {
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string &word : words)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    pid = fork();
    if (pid == 0)
        become(arguments, dir.c_str(), output.c_str());
}

bench_process::~bench_process() {
    if (pid <= 0)
        return;
    kill(pid, SIGTERM);
    const double deadline = bench_now() + stop_patience_s;
    while (waitpid(pid, nullptr, WNOHANG) == 0) {
        if (bench_now() > deadline)
            kill(pid, SIGKILL);
        usleep(1'000);
    }
}

std::string bench_output_of(const std::string &command) {
    const auto close_pipe = [](FILE *pipe) { pclose(pipe); };
    const std::unique_ptr<FILE, decltype(close_pipe)> pipe(popen(command.c_str(), "re"),
                                                           close_pipe);
    std::string text;
    std::array<char, 512> part;
    while (pipe && fgets(part.data(), part.size(), pipe.get()) != nullptr)
        text += part.data();
    return text;
}

double bench_now() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double>(now).count();
}
