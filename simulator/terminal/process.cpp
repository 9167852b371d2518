#include "process.h"

#include "loop.h"
#include "ls_descriptor.h"
#include "say.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sim {
namespace {

enum class step : int { directory, output, program };

struct failure {
    step where;
    int error;
};

// Between fork and exec only calls that are safe with other threads' locks held.
[[noreturn]] void become(const process_plan &plan, char *const *arguments, pid_t parent,
                         int report) {
    failure failed{step::directory, 0};
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(127); // simterm ended before the line above took effect
    if (plan.own_session)
        setsid();
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    bool ready = plan.directory.empty() || chdir(plan.directory.c_str()) == 0;
    if (ready && !plan.output.empty()) {
        failed.where = step::output;
        const int out = open(plan.output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        const int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
        ready = out >= 0 && in >= 0 && dup2(in, STDIN_FILENO) >= 0 &&
                dup2(out, STDOUT_FILENO) >= 0 && dup2(out, STDERR_FILENO) >= 0;
    }
    if (ready) {
        failed.where = step::program;
        execvp(arguments[0], arguments);
    }
    failed.error = errno;
    [[maybe_unused]] const ssize_t told = write(report, &failed, sizeof failed);
    _exit(127);
}

std::string explain(const process_plan &plan, const failure &failed) {
    const std::string why = std::string(": ") + std::strerror(failed.error);
    switch (failed.where) {
    case step::directory:
        return "changing to " + plan.directory + why;
    case step::output:
        return "opening " + plan.output + why;
    case step::program:
        break;
    }
    return "starting " + plan.arguments.front() + why;
}

} // namespace

pid_t process_start(const process_plan &plan, std::string &error) {
    std::vector<char *> arguments;
    arguments.reserve(plan.arguments.size() + 1);
    for (const std::string &argument : plan.arguments)
        arguments.push_back(const_cast<char *>(argument.c_str()));
    arguments.push_back(nullptr);
    std::array<int, 2> report{-1, -1};
    if (pipe2(report.data(), O_CLOEXEC) != 0) {
        error = std::string("creating a pipe: ") + std::strerror(errno);
        return -1;
    }
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0)
        become(plan, arguments.data(), parent, report[1]);
    const int fork_error = errno;
    ls_close(report[1]);
    if (pid < 0) {
        ls_close(report[0]);
        error = std::string("fork: ") + std::strerror(fork_error);
        return -1;
    }
    // Ends at once: the pipe closes with the exec, or brings the reason why there was none.
    failure failed{};
    ssize_t count = 0;
    do {
        count = read(report[0], &failed, sizeof failed);
    } while (count < 0 && errno == EINTR);
    ls_close(report[0]);
    if (count == static_cast<ssize_t>(sizeof failed)) {
        waitpid(pid, nullptr, 0);
        error = explain(plan, failed);
        return -1;
    }
    return pid;
}

std::optional<int> process_ended(pid_t pid) {
    int status = 0;
    if (pid <= 0 || waitpid(pid, &status, WNOHANG) != pid)
        return std::nullopt;
    return status;
}

int process_stop(pid_t pid, const char *name, double patience_s, bool &killed) {
    std::optional<int> status;
    const auto ended = [&] {
        status = process_ended(pid);
        return status.has_value();
    };
    killed = false;
    if (ended())
        return *status;
    kill(pid, SIGTERM);
    if (!loop_until(ended, loop_now() + patience_s)) {
        say_error("%s (process %d) did not end within %.0f s of SIGTERM: killed", name,
                  static_cast<int>(pid), patience_s);
        killed = true;
        kill(pid, SIGKILL);
        int last = 0;
        waitpid(pid, &last, 0);
        return last;
    }
    return *status;
}

std::string process_outcome(int wait_status) {
    if (WIFSIGNALED(wait_status)) {
        const int number = WTERMSIG(wait_status);
        return "signal " + std::to_string(number) + " (" + strsignal(number) + ")";
    }
    return "exit status " + std::to_string(WEXITSTATUS(wait_status));
}

int process_exit_code(int wait_status) {
    return WIFSIGNALED(wait_status) ? 128 + WTERMSIG(wait_status) : WEXITSTATUS(wait_status);
}

} // namespace sim
